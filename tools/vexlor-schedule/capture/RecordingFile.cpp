#include "capture/RecordingFile.h"

#include <QDateTime>
#include <QDir>
#include <QFile>

namespace Vexlor::ScheduleTool {

namespace {

// Linux's NAME_MAX.
constexpr int LONGEST_NAME_BYTES = 255;

QString SafeTitle(const QString& title) {
    QString safe;
    safe.reserve(title.size());
    for (const QChar c : title) {
        const bool unfit = c == QLatin1Char('/') || c.unicode() < 0x20 || c.unicode() == 0x7F ||
                           (safe.isEmpty() && c == QLatin1Char('.'));
        safe += unfit ? QLatin1Char('_') : c;
    }
    return safe;
}

// The longest start of `text` that takes at most `bytes` bytes in UTF-8, whole characters.
QString CutToBytes(const QString& text, int bytes) {
    int used = 0;
    int end = 0;
    while (end < text.size()) {
        const bool pair = text.at(end).isHighSurrogate() && end + 1 < text.size();
        const int length = pair ? 2 : 1;
        const int size = text.mid(end, length).toUtf8().size();
        if (used + size > bytes) {
            break;
        }
        used += size;
        end += length;
    }
    return text.left(end);
}

}  // namespace

QString RecordingFileName(const QString& title, Time::TimePoint plannedStart, int copy) {
    const QDateTime start =
        QDateTime::fromMSecsSinceEpoch(plannedStart.time_since_epoch().count() / 1000);
    QString suffix =
        QLatin1Char(' ') + start.toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH-mm-ss"));
    if (copy > 1) {
        suffix += QStringLiteral(" (%1)").arg(copy);
    }
    suffix += QStringLiteral(".mkv");
    return CutToBytes(SafeTitle(title), LONGEST_NAME_BYTES - suffix.toUtf8().size()) + suffix;
}

std::optional<QString> ReserveRecordingFile(const QString& folder, const QString& title,
                                            Time::TimePoint plannedStart, QString& error) {
    constexpr int MOST_COPIES = 1000;
    for (int copy = 1; copy <= MOST_COPIES; ++copy) {
        const QString path = QDir(folder).filePath(RecordingFileName(title, plannedStart, copy));
        QFile file(path);
        // NewOnly is O_EXCL: no race with another program creating the same name.
        if (file.open(QIODevice::WriteOnly | QIODevice::NewOnly)) {
            return path;
        }
        if (!file.exists()) {
            error = QStringLiteral("cannot create %1: %2").arg(path, file.errorString());
            return std::nullopt;
        }
    }
    error = QStringLiteral("%1 copies of %2 exist already")
                .arg(MOST_COPIES)
                .arg(RecordingFileName(title, plannedStart));
    return std::nullopt;
}

}  // namespace Vexlor::ScheduleTool
