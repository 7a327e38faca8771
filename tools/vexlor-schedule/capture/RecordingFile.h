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

// Creates the recording's file, empty, in `folder` under the first of its names that no
// file has, so that no existing file is ever overwritten. Returns its path, or nothing with
// `error` set to the system's reason.
std::optional<QString> ReserveRecordingFile(const QString& folder, const QString& title,
                                            Time::TimePoint plannedStart, QString& error);

}  // namespace Vexlor::ScheduleTool
