#pragma once

#include <optional>

#include <QByteArray>
#include <QString>

#include "capture/RecordingFile.h"
#include "interfaces/Clock.h"

namespace Vexlor::ScheduleTool {

// What a recording's video needs to get its name once ffmpeg is done with it.
struct RecordingNote {
    QString title;
    Time::TimePoint plannedStart;
    QString reservedName;   // the file ReserveRecordingFile made for it, in the same folder
    FileIdentity reserved;  // which file that was
};

// The note as an FFMETADATA file: the title as the file's title tag, the rest in comment
// lines, which ffmpeg skips. DecodeNote gives nothing for text that is no such note.
QByteArray EncodeNote(const RecordingNote& note);
std::optional<RecordingNote> DecodeNote(const QByteArray& text);

}  // namespace Vexlor::ScheduleTool
