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
#include "interfaces/Gateway.h"
#include "interfaces/IScheduler.h"

namespace Vexlor::ScheduleTool {

// Stands in for the application's capture controller, and is the gateway through which the
// scheduler asks for captures, so that one object owns a request from the stimulus to
// AfterCaptureStopped. On "RECORD_SCHEDULE" it tells the scheduler at once that a capture
// starts (no second request can follow), and from the event loop runs the request's
// callback (which tells the scheduler's observers, this one among them, which recording
// starts and for how long) and the capture: COMMAND under /bin/sh with the recording in its
// environment, ffmpeg recording the screen into a file of its own, or a simulated capture.
// The capture ends when the program exits or at the planned end; then the scheduler hears
// AfterCaptureStopped.
class CaptureController : public QK::ISchedulerObserver, public ExternalStimulus::IGateway {
public:
    static constexpr int KILL_DELAY_MS = CaptureProcess::KILL_DELAY_MS;

    // With `screen`, `lead` is the part of the scheduler's lead time that widens the
    // recorded window; the rest is ffmpeg's start-up.
    CaptureController(ICaptureEvents& events, std::optional<QString> command,
                      std::function<void()> onIdle, std::optional<ScreenSetup> screen = {},
                      Time::Microseconds lead = Time::Microseconds(0));
    ~CaptureController() override;

    CaptureController(const CaptureController&) = delete;
    CaptureController& operator=(const CaptureController&) = delete;

    // The scheduler whose requests this serves; before its first request.
    void Attach(QK::IScheduler& served) { scheduler = &served; }

    void SendStimulus(ExternalStimulus::Stimulus stimulus) override;
    // A request was sent and its capture has not begun yet.
    bool RequestInFlight() const { return requested; }

    void OnScheduledCaptureStarted(const QK::RecordTime& record) override;

    // The recording being captured now, if any.
    std::optional<QK::RecordTime> CurrentRecord() const {
        return capturing ? startedRecord : std::nullopt;
    }

    // The capture running now, with when it began and where it goes; nothing while none
    // runs or one is requested and has not begun.
    std::optional<LiveCapture> Live() const;

    // No capture runs and none is on its way.
    bool IsIdle() const { return !capturing; }

    // Ends a running capture (the command gets SIGTERM, SIGKILL 5 s later) and calls `done`
    // once it has ended and the scheduler was told; at once when none runs. A second Stop
    // while the first waits calls both.
    void Stop(std::function<void()> done);

private:
    void Deliver(const ExternalStimulus::Stimulus& stimulus);
    void Begin(const QK::RecordTime& record, Time::TimePoint now);
    void BeginScreen(const QK::RecordTime& record, std::optional<Time::TimePoint> plannedEnd);
    bool ArmDurationLeg();
    void EndByDuration();
    void Finish(const QString& how);

    QK::IScheduler* scheduler = nullptr;
    ICaptureEvents& events;
    std::optional<QString> command;
    std::function<void()> onIdle;
    std::optional<ScreenSetup> screen;
    Time::Microseconds lead;

    QObject context;  // deliveries still queued die with the controller
    bool requested = false;
    bool capturing = false;  // from the request to AfterCaptureStopped
    std::optional<QK::RecordTime> startedRecord;
    QString currentTitle;
    std::optional<LiveCapture> live;
    QTimer durationTimer;
    QDeadlineTimer captureEnd;
    std::unique_ptr<ScreenRecording> recording;
    std::unique_ptr<CaptureProcess> process;
    std::function<void()> afterStop;
};

}  // namespace Vexlor::ScheduleTool
