#include "SettingsWatcher.h"

#include <QFileInfo>

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
    watcher.addPath(QFileInfo(this->path).absolutePath());
    Renew();
}

void SettingsWatcher::Renew() {
    if (!watcher.files().contains(path) && QFileInfo::exists(path)) {
        watcher.addPath(path);
    }
}

}  // namespace Vexlor::ScheduleTool
