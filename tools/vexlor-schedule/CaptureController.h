#pragma once

#include <functional>
#include <memory>
#include <optional>

#include <QDeadlineTimer>
#include <QString>
#include <QTimer>

#include "CaptureProcess.h"
#include "EventPrinter.h"
#include "interfaces/Gateway.h"
#include "interfaces/IScheduler.h"

namespace Vexlor::ScheduleTool {

// Stands in for the application's capture controller. On a "RECORD_SCHEDULE" request it
// tells the scheduler that a capture starts, runs the request's callback (which tells the
// scheduler's observers, this one among them, which recording starts and for how long),
// and runs the capture: COMMAND under /bin/sh with the recording in its environment, or a
// simulated capture. The capture ends when the command exits or its duration is over; then
// the scheduler hears AfterCaptureStopped.
class CaptureController : public QK::ISchedulerObserver {
public:
    static constexpr int KILL_DELAY_MS = CaptureProcess::KILL_DELAY_MS;

    CaptureController(QK::IScheduler& scheduler, EventPrinter& printer,
                      std::optional<QString> command, std::function<void()> onIdle);
    ~CaptureController() override;

    CaptureController(const CaptureController&) = delete;
    CaptureController& operator=(const CaptureController&) = delete;

    // The gateway's handler for "RECORD_SCHEDULE".
    void OnRecordRequest(ExternalStimulus::Stimulus stimulus);
    // Called when a request is sent, before the gateway delivers it.
    void NoteRequestSent() { ++pendingRequests; }

    void OnScheduledCaptureStarted(const QK::RecordTime& record) override;

    // The recording being captured now, if any.
    std::optional<QK::RecordTime> CurrentRecord() const {
        return capturing ? startedRecord : std::nullopt;
    }

    // No capture runs and none is on its way.
    bool IsIdle() const { return !capturing && pendingRequests == 0; }

    // Ends a running capture (the command gets SIGTERM, SIGKILL 5 s later) and calls `done`
    // once it has ended and the scheduler was told; at once when none runs.
    void Stop(std::function<void()> done);

private:
    void Begin(const QK::RecordTime& record);
    bool ArmDurationLeg();
    void EndByDuration();
    void Finish(const QString& how);

    QK::IScheduler& scheduler;
    EventPrinter& printer;
    std::optional<QString> command;
    std::function<void()> onIdle;

    int pendingRequests = 0;
    bool capturing = false;
    std::optional<QK::RecordTime> startedRecord;
    QString currentTitle;
    QTimer durationTimer;
    QDeadlineTimer captureEnd;
    std::unique_ptr<CaptureProcess> process;
    std::function<void()> afterStop;
};

}  // namespace Vexlor::ScheduleTool
