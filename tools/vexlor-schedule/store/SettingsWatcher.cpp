#include "store/SettingsWatcher.h"

#include <QFileInfo>
#include <QStringList>

namespace Vexlor::ScheduleTool {

SettingsWatcher::SettingsWatcher(const QString& path, std::function<void()> onChange)
    : path(QFileInfo(path).absoluteFilePath()), onChange(std::move(onChange)) {
    settle.setSingleShot(true);
    settle.setInterval(SETTLE_MS);
    QObject::connect(&settle, &QTimer::timeout, [this] { this->onChange(); });
    const auto changed = [this](const QString&) {
        Renew();
        settle.start();
    };
    QObject::connect(&watcher, &QFileSystemWatcher::fileChanged, changed);
    QObject::connect(&watcher, &QFileSystemWatcher::directoryChanged, changed);
    Renew();
}

void SettingsWatcher::Renew() {
    QStringList wanted;
    if (QFileInfo::exists(path)) {
        wanted << path;
    }
    QFileInfo folder(QFileInfo(path).absolutePath());
    while (!folder.exists() && !folder.isRoot()) {
        folder.setFile(folder.absolutePath());
    }
    wanted << folder.absoluteFilePath();
    QStringList stale;
    for (const QString& watched : watcher.files() + watcher.directories()) {
        if (!wanted.contains(watched)) {
            stale << watched;
        }
    }
    if (!stale.isEmpty()) {
        watcher.removePaths(stale);
    }
    for (const QString& entry : wanted) {
        if (!watcher.files().contains(entry) && !watcher.directories().contains(entry)) {
            watcher.addPath(entry);
        }
    }
}

}  // namespace Vexlor::ScheduleTool
