#include "store/ScheduleLocation.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace Vexlor::ScheduleTool {

namespace {

// Locks and the control socket are only safe in a folder that is the user's and that no one
// else may write: another user could otherwise put a socket of theirs where ours is looked
// for, and take every request sent to it, titles and all.
void CheckPrivate(const QString& folder, const QByteArray& name) {
    struct stat info {};
    if (::stat(name.constData(), &info) != 0) {
        throw std::runtime_error(QStringLiteral("cannot use the runtime folder %1: %2")
                                     .arg(folder, QString::fromLocal8Bit(std::strerror(errno)))
                                     .toStdString());
    }
    const QString fix = QStringLiteral(
        "; set XDG_RUNTIME_DIR to a folder of this user's that no one else may write");
    if (info.st_uid != ::getuid()) {
        throw std::runtime_error(
            QStringLiteral("the runtime folder %1 belongs to uid %2, not to this user (uid %3)%4")
                .arg(folder, QString::number(info.st_uid), QString::number(::getuid()), fix)
                .toStdString());
    }
    if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        throw std::runtime_error(
            QStringLiteral("the runtime folder %1 may be written by other users (mode %2)%3")
                .arg(folder, QString::number(info.st_mode & 07777, 8).rightJustified(4, '0'), fix)
                .toStdString());
    }
}

// $XDG_RUNTIME_DIR, else the one the login manager makes, else a private folder of ours in
// the temporary folder. Without the first two, processes that share a schedule still meet.
// Links are resolved, so that the folder checked is the one used.
QString RuntimeFolder() {
    const QString fromEnvironment = qEnvironmentVariable("XDG_RUNTIME_DIR");
    const QString perUser = QStringLiteral("/run/user/%1").arg(::getuid());
    for (const QString& folder : {fromEnvironment, perUser}) {
        const QFileInfo info(folder);
        if (!folder.isEmpty() && info.isDir()) {
            const QString resolved = info.canonicalFilePath();
            CheckPrivate(folder, QFile::encodeName(resolved));
            return resolved;
        }
    }
    const QString own = QDir::tempPath() + QStringLiteral("/vexlor-schedule-%1").arg(::getuid());
    const QByteArray name = QFile::encodeName(own);
    if (::mkdir(name.constData(), 0700) != 0 && errno != EEXIST) {
        throw std::runtime_error("cannot create " + name.toStdString() + ": " +
                                 std::strerror(errno));
    }
    struct stat info {};
    // Another user's folder in its place could see or take our locks.
    if (::lstat(name.constData(), &info) != 0 || !S_ISDIR(info.st_mode) ||
        info.st_uid != ::getuid() || (info.st_mode & 0077) != 0) {
        throw std::runtime_error(name.toStdString() +
                                 " is not a private folder of this user; set XDG_RUNTIME_DIR");
    }
    return own;
}

}  // namespace

QString CanonicalSettingsPath(const QString& path) {
    QString current = QFileInfo(path).absoluteFilePath();
    // Follow links by hand, since canonicalFilePath() is empty for a file not there yet.
    for (int hops = 0; hops < 40; ++hops) {
        const QFileInfo info(current);
        if (info.exists()) {
            return info.canonicalFilePath();
        }
        if (!info.isSymLink()) {
            break;
        }
        current = info.symLinkTarget();
    }
    // Canonical up to the deepest folder that exists, the rest as written.
    QString tail;
    QFileInfo ancestor(QDir::cleanPath(current));
    while (!ancestor.exists() && !ancestor.isRoot()) {
        tail = QLatin1Char('/') + ancestor.fileName() + tail;
        ancestor.setFile(ancestor.absolutePath());
    }
    return QDir::cleanPath(ancestor.canonicalFilePath() + tail);
}

ScheduleLocation LocateSchedule(const QString& settingsPath) {
    ScheduleLocation location;
    location.settingsPath = CanonicalSettingsPath(settingsPath);
    const QString runtime = RuntimeFolder();
    const QByteArray key =
        QCryptographicHash::hash(location.settingsPath.toUtf8(), QCryptographicHash::Sha256)
            .toHex()
            .left(16);
    const QString base = runtime + QStringLiteral("/vexlor-schedule-") + QString::fromLatin1(key);
    location.runLockPath = base + QStringLiteral(".run.lock");
    location.editLockPath = base + QStringLiteral(".edit.lock");
    location.socketPath = base + QStringLiteral(".socket");
    return location;
}

}  // namespace Vexlor::ScheduleTool
