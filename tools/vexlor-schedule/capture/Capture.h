#pragma once

#include <functional>
#include <memory>
#include <optional>

#include <QDeadlineTimer>
#include <QString>
#include <QTimer>

#include "base/LiveCapture.h"
#include "capture/CaptureEvents.h"
#include "capture/CaptureProcess.h"
#include "capture/ScreenCapture.h"
#include "interfaces/RecordTime.h"

namespace Vexlor::ScheduleTool {

// How captures are made: COMMAND under /bin/sh, ffmpeg recording the screen, or neither
// (simulated).
struct CaptureSetup {
    std::optional<QString> command;
    std::optional<ScreenSetup> screen;
};

// One recording's capture, from its start to its end: the program that makes it, and the
// planned end, after which the program is asked to end.
class Capture {
public:
    // `ended` is called once, when the capture has ended (from inside the process's signal
    // or a timer: the object must outlive the call).
    Capture(ICaptureEvents& events, const CaptureSetup& setup,
            std::function<void(const Capture&)> ended);
    ~Capture();

    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    // `record` carries what is left of its duration; a screen capture covers the window from
    // `windowStart`. `note`, if any, goes on the event line (why it began late).
    void Begin(const QK::RecordTime& record, Time::TimePoint windowStart, Time::TimePoint now,
               const QString& note);
    // The program gets SIGTERM (SIGKILL 5 s later); asked twice, SIGKILL at once.
    void Stop();
    // A capture without a planned end ends at `end` (where the next recording begins).
    void EndAt(Time::TimePoint end, Time::TimePoint now);

    bool Ended() const { return ended == nullptr; }
    const QK::RecordTime& Record() const { return live.record; }
    std::optional<Time::TimePoint> PlannedEnd() const { return live.plannedEnd; }
    const LiveCapture& Live() const { return live; }

private:
    void BeginCommand(const QK::RecordTime& record);
    void BeginScreen(const QK::RecordTime& record, Time::TimePoint windowStart,
                     const QString& note);
    bool ArmEnd(Time::TimePoint now);
    bool ArmDurationLeg();
    void EndByDuration();
    void Finish(const QString& how);

    ICaptureEvents& events;
    const CaptureSetup& setup;
    std::function<void(const Capture&)> ended;  // null once called
    LiveCapture live;
    QTimer durationTimer;
    QDeadlineTimer captureEnd;
    std::unique_ptr<ScreenRecording> recording;
    std::unique_ptr<CaptureProcess> process;
};

}  // namespace Vexlor::ScheduleTool
