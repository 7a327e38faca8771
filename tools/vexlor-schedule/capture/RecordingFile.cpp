#include "capture/RecordingFile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDateTime>
#include <QDir>
#include <QFile>

namespace Vexlor::ScheduleTool {

namespace {

// Linux's NAME_MAX.
constexpr int LONGEST_NAME_BYTES = 255;
constexpr int MOST_COPIES = 1000;

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

// rename(2) that fails with EEXIST rather than replace a file. Returns 0 or errno.
int MoveWithoutReplacing(const QString& from, const QString& to) {
    const QByteArray source = QFile::encodeName(from);
    const QByteArray target = QFile::encodeName(to);
    const int moved =
        ::renameat2(AT_FDCWD, source.constData(), AT_FDCWD, target.constData(), RENAME_NOREPLACE);
    if (moved == 0 || (errno != EINVAL && errno != ENOSYS)) {
        return moved == 0 ? 0 : errno;
    }
    // A file system without RENAME_NOREPLACE: only a file made between these two calls
    // could be replaced.
    struct stat taken = {};
    if (::lstat(target.constData(), &taken) == 0) {
        return EEXIST;
    }
    return ::rename(source.constData(), target.constData()) == 0 ? 0 : errno;
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
                                            Time::TimePoint plannedStart, QString& error,
                                            FileIdentity* identity) {
    for (int copy = 1; copy <= MOST_COPIES; ++copy) {
        const QString path = QDir(folder).filePath(RecordingFileName(title, plannedStart, copy));
        QFile file(path);
        // NewOnly is O_EXCL: no race with another program creating the same name.
        if (file.open(QIODevice::WriteOnly | QIODevice::NewOnly)) {
            struct stat created = {};
            if (identity && ::fstat(file.handle(), &created) == 0) {
                *identity = {static_cast<unsigned long long>(created.st_dev),
                             static_cast<unsigned long long>(created.st_ino)};
            }
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

void GiveUpReservedFile(const QString& path, FileIdentity reserved) {
    // Only while it is the file made for the recording and empty: a file that took its
    // place meanwhile is someone else's.
    struct stat held = {};
    const QByteArray name = QFile::encodeName(path);
    if (::lstat(name.constData(), &held) == 0 && S_ISREG(held.st_mode) && held.st_size == 0 &&
        static_cast<unsigned long long>(held.st_dev) == reserved.device &&
        static_cast<unsigned long long>(held.st_ino) == reserved.inode) {
        ::unlink(name.constData());
    }
}

std::optional<QString> MoveToRecordingName(const QString& from, const QString& folder,
                                           const QString& title, Time::TimePoint plannedStart,
                                           const QString& reservedPath, FileIdentity reserved,
                                           QString& error) {
    GiveUpReservedFile(reservedPath, reserved);
    // The reserved name first, then the names in their order.
    for (int copy = 0; copy <= MOST_COPIES; ++copy) {
        const QString to =
            copy == 0 ? reservedPath
                      : QDir(folder).filePath(RecordingFileName(title, plannedStart, copy));
        const int failure = MoveWithoutReplacing(from, to);
        if (failure == 0) {
            return to;
        }
        if (failure != EEXIST) {
            error = QStringLiteral("cannot rename %1 to %2: %3")
                        .arg(from, to, QString::fromLocal8Bit(::strerror(failure)));
            return std::nullopt;
        }
    }
    error = QStringLiteral("cannot rename %1: %2 copies of %3 exist already")
                .arg(from)
                .arg(MOST_COPIES)
                .arg(RecordingFileName(title, plannedStart));
    return std::nullopt;
}

}  // namespace Vexlor::ScheduleTool
