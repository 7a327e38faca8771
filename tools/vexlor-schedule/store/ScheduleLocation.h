#pragma once

#include <QString>

namespace Vexlor::ScheduleTool {

// Where one schedule lives and where the processes that share it meet. Everything is keyed
// on the settings file's canonical path, so a symlink or a relative path to the same file
// is the same schedule.
struct ScheduleLocation {
    QString settingsPath;  // canonical, also when the file does not exist yet
    QString runLockPath;   // held by the active `run` for its lifetime
    QString editLockPath;  // held for every read-modify-write of the file
    QString socketPath;    // where the active `run` takes edits
};

// The settings file's canonical path: symlinks resolved, also a dangling one and one
// whose file does not exist yet.
QString CanonicalSettingsPath(const QString& path);

// Locks and socket go in the user's runtime folder ($XDG_RUNTIME_DIR, else /run/user/UID,
// else a private folder in the temporary folder), named after a hash of the canonical path.
// Throws std::runtime_error when that folder cannot be had, or is not the user's or may be
// written by others.
ScheduleLocation LocateSchedule(const QString& settingsPath);

}  // namespace Vexlor::ScheduleTool
