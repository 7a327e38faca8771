#pragma once

#include <memory>
#include <optional>

#include <QString>

#include "capture/CaptureProcess.h"
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
class ScreenRecording {
public:
    // Reserves the file; nothing, with `error` set, if that fails. No windowEnd: open-ended.
    static std::unique_ptr<ScreenRecording> Create(const ScreenSetup& setup, const QString& title,
                                                   Time::TimePoint plannedStart,
                                                   Time::TimePoint windowStart,
                                                   std::optional<Time::TimePoint> windowEnd,
                                                   QString& error);

    const QString& Path() const { return path; }
    CaptureProcess::Launch MakeLaunch() const;
    // How the capture ended, for the event line; a file left empty is removed.
    QString Outcome(const CaptureProcess& process) const;

private:
    ScreenRecording() = default;

    ScreenSetup setup;
    QString title;
    QString path;
    Time::TimePoint windowStart;
    std::optional<Time::TimePoint> windowEnd;
};

}  // namespace Vexlor::ScheduleTool
