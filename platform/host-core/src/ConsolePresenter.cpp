#include "platform/ConsolePresenter.h"

#include <cstdio>
#include <utility>

namespace Vexlor::DesktopNotification {

namespace {

// Keeps a notice on one line whatever its texts contain.
QString OneLine(QString text) {
    text.replace(QLatin1Char('\r'), QLatin1Char(' '));
    text.replace(QLatin1Char('\n'), QLatin1Char(' '));
    return text;
}

void PrintToStdout(const QString& line) {
    const QByteArray bytes = line.toUtf8();
    std::fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

}  // namespace

ConsolePresenter::ConsolePresenter(Sink sink)
    : sink(sink ? std::move(sink) : Sink(PrintToStdout)) {}

ConsolePresenter::~ConsolePresenter() = default;

void ConsolePresenter::Show(std::shared_ptr<INotification> notification) {
    if (!notification) {
        return;
    }
    Write(QStringLiteral("Notice: %1: %2")
              .arg(OneLine(notification->GetTitleText()),
                   OneLine(notification->GetInformationText())));
}

void ConsolePresenter::Hide(std::shared_ptr<INotification> notification) {
    if (!notification) {
        return;
    }
    Write(QStringLiteral("Notice withdrawn: %1").arg(OneLine(notification->GetTitleText())));
}

bool ConsolePresenter::SupportsFeature(int /*feature*/) const {
    return false;
}

void ConsolePresenter::Write(const QString& line) const {
    sink(line);
}

}  // namespace Vexlor::DesktopNotification
