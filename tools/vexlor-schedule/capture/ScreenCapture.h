#pragma once

#include <memory>
#include <optional>

#include <QString>

#include "capture/CaptureProcess.h"
#include "capture/PendingRecording.h"
#include "interfaces/Clock.h"

namespace Vexlor::ScheduleTool {

// What `run --capture screen` records with, found out once when it starts.
struct ScreenSetup {
    QString ffmpeg;      // the program's path
    QString display;     // $DISPLAY
    QString folder;      // absolute, exists, writable
    bool audio = false;  // --audio, and a PulseAudio/PipeWire source answered
};

// ffmpeg takes 0.2 s to grab its first frame on an idle machine and over 1 s on a busy
// one, so a screen capture is requested this much ahead of its window; the frames before
// the window are dropped.
constexpr Time::Microseconds SCREEN_START_UP{2000000};
// ffmpeg still running this long after the planned end is asked to end.
constexpr Time::Microseconds SCREEN_END_GRACE{500000};

// Checks that a screen capture can work: ffmpeg in PATH, an X11 display that ffmpeg can
// grab, an output folder (created if missing) that takes a new file. Nothing, with `error`
// saying why, if not. With --audio and no source answering: one warning, video only.
// `outputDir` unset: the user's videos folder.
std::optional<ScreenSetup> PrepareScreenCapture(const std::optional<QString>& outputDir, bool audio,
                                                QString& error);

// One recording's file and the ffmpeg that fills it. The file covers [windowStart,
// windowEnd] by ffmpeg's wall-clock frame times (x11grab stamps each frame with the time it
// was grabbed): ffmpeg begins ahead of the window, drops what comes before it and ends at
// its end; the file's time 0 is windowStart, which it also carries as its creation time.
// ffmpeg writes under a neutral name and reads the title from a private file (see
// PendingRecording); the file gets its name once ffmpeg has ended.
class ScreenRecording {
public:
    // Reserves the file's name, with an empty file, and makes the files ffmpeg works with;
    // nothing, with `error` set, if that fails. No windowEnd: open-ended.
    static std::unique_ptr<ScreenRecording> Create(const ScreenSetup& setup, const QString& title,
                                                   Time::TimePoint plannedStart,
                                                   Time::TimePoint windowStart,
                                                   std::optional<Time::TimePoint> windowEnd,
                                                   QString& error);

    // The file's name, reserved and empty until Outcome.
    const QString& Path() const { return path; }
    CaptureProcess::Launch MakeLaunch() const;
    // Gives the file its name, or removes it if ffmpeg left it empty, and tells how the
    // capture ended, for the event line. Once, after ffmpeg has ended.
    QString Outcome(const CaptureProcess& process);

private:
    ScreenRecording() = default;

    ScreenSetup setup;
    QString path;
    std::unique_ptr<PendingRecording> pending;
    Time::TimePoint windowStart;
    std::optional<Time::TimePoint> windowEnd;
};

}  // namespace Vexlor::ScheduleTool
