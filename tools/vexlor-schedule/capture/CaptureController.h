#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include <QString>
#include <QTimer>

#include "base/LiveCapture.h"
#include "capture/Capture.h"
#include "capture/CaptureEvents.h"
#include "interfaces/Gateway.h"
#include "interfaces/IScheduler.h"

namespace Vexlor::ScheduleTool {

// Stands in for the application's capture controller, and is the gateway through which the
// scheduler asks for captures. On "RECORD_SCHEDULE" it tells the scheduler at once that a
// capture starts (no second request can follow), and from the event loop runs the request's
// callback (which tells the scheduler's observers, this one among them, which recording
// starts and for how long) and begins the capture.
//
// The scheduler makes one capture at a time and drops what falls due meanwhile; recordings
// follow each other, so this controller may run several. It tells the scheduler that the
// capture stopped once the capture ends, or earlier, shortly before the scheduler's next
// record is due, while the capture goes on: the next request then comes on time. A recording
// begins side by side with one that ends at or after its start; one that overlaps a running
// recording begins when that ends (what is left of it), and one without a planned end ends
// where the next begins.
class CaptureController : public QK::ISchedulerObserver, public ExternalStimulus::IGateway {
public:
    static constexpr int KILL_DELAY_MS = CaptureProcess::KILL_DELAY_MS;

    // `lead` is the part of the scheduler's lead time that widens a screen capture's window;
    // `requestLead` is the scheduler's whole lead time, how far ahead of a record's start it
    // asks for its capture. `onIdle` is called when the last capture ended; `onCapturing`
    // whenever captures begin running or all have ended.
    CaptureController(ICaptureEvents& events, CaptureSetup setup, std::function<void()> onIdle,
                      Time::Microseconds lead = Time::Microseconds(0),
                      Time::Microseconds requestLead = Time::Microseconds(0),
                      std::function<void(bool capturing)> onCapturing = {});
    ~CaptureController() override;

    CaptureController(const CaptureController&) = delete;
    CaptureController& operator=(const CaptureController&) = delete;

    // The scheduler whose requests this serves; before its first request.
    void Attach(QK::IScheduler& served) { scheduler = &served; }

    void SendStimulus(ExternalStimulus::Stimulus stimulus) override;
    // A request was sent and its capture has not begun yet.
    bool RequestInFlight() const { return requested; }

    void OnScheduledCaptureStarted(const QK::RecordTime& record) override;

    // The recording begun last of those being captured now, if any.
    std::optional<QK::RecordTime> CurrentRecord() const;

    // That capture, with when it began and where it goes.
    std::optional<LiveCapture> Live() const;

    // No capture runs and none is on its way.
    bool IsIdle() const { return !held && Running() == 0 && pendings.empty(); }

    // Tells the scheduler now that the capture stopped, when its next record falls due soon
    // (checked every 100 ms while it waits): for a schedule just handed to it, whose first
    // record it would drop once its start passed.
    void HandOverIfDue();

    // Ends every running capture (the command gets SIGTERM, SIGKILL 5 s later) and one on its
    // way, and calls `done` once all have ended and the scheduler was told; at once when none
    // runs. A second Stop while the first waits calls both.
    void Stop(std::function<void()> done);

private:
    // A recording that begins when one it overlaps ends.
    struct Pending {
        QK::RecordTime record;  // from that end on
        QString note;           // why it begins late
        bool held = false;      // the scheduler waits for it
    };
    struct Later {
        QString title;
        Time::TimePoint end;
    };

    void Deliver(const ExternalStimulus::Stimulus& stimulus);
    void Place(QK::RecordTime record, Time::TimePoint now);
    const Later* LatestEnd();
    Time::TimePoint BeginAt(const Pending& pending) const;
    void ArmPending(Time::TimePoint now);
    void BeginPending();
    void Begin(const QK::RecordTime& record, Time::TimePoint windowStart, const QString& note,
               bool heldByScheduler);
    void Ended(const Capture& capture);
    void Release();
    void AfterChange();
    std::size_t Running() const;
    const Capture* Latest() const;

    QK::IScheduler* scheduler = nullptr;
    ICaptureEvents& events;
    CaptureSetup setup;
    std::function<void()> onIdle;
    Time::Microseconds lead;
    Time::Microseconds requestLead;
    std::function<void(bool)> onCapturing;

    QObject context;  // deliveries still queued die with the controller
    bool requested = false;
    bool held = false;  // the scheduler takes a capture to be running
    std::optional<QK::RecordTime> startedRecord;
    std::vector<Pending> pendings;
    std::optional<Later> latest;
    QTimer pendingTimer;
    QTimer handOverTimer;
    // Ended captures stay until the next begins: they may be inside their own signal.
    std::vector<std::unique_ptr<Capture>> captures;
    const Capture* heldCapture = nullptr;  // the one the scheduler waits for
    std::function<void()> afterStop;
    bool wasCapturing = false;
    bool idleTold = true;
};

}  // namespace Vexlor::ScheduleTool
