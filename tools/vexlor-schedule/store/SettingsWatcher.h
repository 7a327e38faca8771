#pragma once

#include <functional>

#include <QFileSystemWatcher>
#include <QString>
#include <QTimer>

namespace Vexlor::ScheduleTool {

// Calls `onChange` shortly after the settings file changed on disk or went away. Writers
// replace the file by renaming a new one over it, which ends a watch on the old file, so the
// folder is watched too, and the watches are renewed after every event. When the folder
// itself is removed, its nearest existing ancestor is watched until it comes back. A burst
// of events (lock file, temporary file, rename) yields one call.
class SettingsWatcher {
public:
    static constexpr int SETTLE_MS = 50;

    SettingsWatcher(const QString& path, std::function<void()> onChange);

    SettingsWatcher(const SettingsWatcher&) = delete;
    SettingsWatcher& operator=(const SettingsWatcher&) = delete;

private:
    void Renew();

    QString path;
    std::function<void()> onChange;
    QFileSystemWatcher watcher;
    QTimer settle;
};

}  // namespace Vexlor::ScheduleTool
