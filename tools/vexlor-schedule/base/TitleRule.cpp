#include "base/TitleRule.h"

#include <unistd.h>

namespace Vexlor::ScheduleTool {

namespace {

constexpr long long ENVIRONMENT_PAGES = 32;
// The name before the title and the terminating NUL.
constexpr long long OVERHEAD = static_cast<long long>(sizeof("VEXLOR_TITLE="));

long long EnvironmentStringBytes() {
    return ENVIRONMENT_PAGES * ::sysconf(_SC_PAGESIZE);
}

}  // namespace

long long MaxTitleBytes() {
    return EnvironmentStringBytes() - OVERHEAD;
}

QString TitleProblem(const QString& title, int appended) {
    if (title.isEmpty()) {
        return QStringLiteral("the title must not be empty");
    }
    const long long size = title.toUtf8().size();
    const long long most = MaxTitleBytes() - appended;
    if (size <= most) {
        return {};
    }
    const QString plan =
        appended > 0
            ? QStringLiteral(" for a plan, whose recordings add up to %1 bytes to it").arg(appended)
            : QString();
    return QStringLiteral(
               "the title is too long: %1 bytes in UTF-8, at most %2%3 (the capture command's "
               "environment holds at most %4 bytes for VEXLOR_TITLE=<title>, terminating NUL "
               "included)")
        .arg(QString::number(size), QString::number(most), plan,
             QString::number(EnvironmentStringBytes()));
}

}  // namespace Vexlor::ScheduleTool
