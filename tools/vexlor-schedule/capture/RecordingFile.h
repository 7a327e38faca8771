#pragma once

#include <optional>

#include <QString>

#include "interfaces/Clock.h"

namespace Vexlor::ScheduleTool {

// The name of a recording's file: the title and the planned start in local time,
// "Weekly review 2026-11-30 10-00-00.mkv", and " (2)", " (3)" ... before the extension for
// later copies. What a file name cannot hold (a slash, control characters, a leading dot
// that would hide the file) becomes "_"; a long title is cut so that the name fits in
// 255 bytes.
QString RecordingFileName(const QString& title, Time::TimePoint plannedStart, int copy = 1);

// Which file a name pointed to, to tell later whether it still does.
struct FileIdentity {
    unsigned long long device = 0;
    unsigned long long inode = 0;
};

// Creates the recording's file, empty, in `folder` under the first of its names that no
// file has, so that no existing file is ever overwritten. Returns its path, or nothing with
// `error` set to the system's reason. `identity`, if given, gets the file created.
std::optional<QString> ReserveRecordingFile(const QString& folder, const QString& title,
                                            Time::TimePoint plannedStart, QString& error,
                                            FileIdentity* identity = nullptr);

// Removes the file that ReserveRecordingFile made at `path`, while it is still that file
// (`reserved`) and empty.
void GiveUpReservedFile(const QString& path, FileIdentity reserved);

// Gives the video at `from` the recording's name in `folder`: `reservedPath` while that is
// still the empty file `reserved` (which gives way to it), else the first of the
// recording's names that no file has. Never replaces a file. Returns the video's new path,
// or nothing with `error` set and the video left where it was.
std::optional<QString> MoveToRecordingName(const QString& from, const QString& folder,
                                           const QString& title, Time::TimePoint plannedStart,
                                           const QString& reservedPath, FileIdentity reserved,
                                           QString& error);

}  // namespace Vexlor::ScheduleTool
