#include "capture/CaptureController.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "base/RecordText.h"
#include "core/Saturating.h"
#include "interfaces/Clock.h"

namespace Vexlor::ScheduleTool {

namespace {

// The scheduler is told that a capture stopped this long before its next record is due, so
// that one of its polls (every 100 ms) finds the record due and asks for it on time.
constexpr Time::Microseconds HAND_OVER_AHEAD{1000000};
constexpr int HAND_OVER_CHECK_MS = 100;

int MillisecondsUntil(Time::TimePoint time, Time::TimePoint now) {
    return static_cast<int>(std::clamp<long long>(
        (Core::SaturatingDiff(time, now).count() + 999) / 1000, 0, 24LL * 3600 * 1000));
}

}  // namespace

CaptureController::CaptureController(ICaptureEvents& events, CaptureSetup setup,
                                     std::function<void()> onIdle, Time::Microseconds lead,
                                     Time::Microseconds requestLead,
                                     std::function<void(bool)> onCapturing)
    : events(events),
      setup(std::move(setup)),
      onIdle(std::move(onIdle)),
      lead(lead),
      requestLead(requestLead),
      onCapturing(std::move(onCapturing)) {
    pendingTimer.setSingleShot(true);
    pendingTimer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&pendingTimer, &QTimer::timeout, [this] { BeginPending(); });
    handOverTimer.setInterval(HAND_OVER_CHECK_MS);
    QObject::connect(&handOverTimer, &QTimer::timeout, [this] { HandOverIfDue(); });
}

// The captures' processes, if any, kill what is left of their commands.
CaptureController::~CaptureController() = default;

void CaptureController::SendStimulus(ExternalStimulus::Stimulus stimulus) {
    if (stimulus.name != "RECORD_SCHEDULE") {
        events.CaptureNote(QStringLiteral("request ignored: unknown stimulus \"%1\"")
                               .arg(QString::fromStdString(stimulus.name)));
        return;
    }
    events.RecordingRequested();
    if (held) {
        // The scheduler asks for no capture while it takes one to run; should it happen
        // anyway, what runs keeps going.
        events.CaptureNote(QStringLiteral("request ignored: a recording is running"));
        return;
    }
    requested = true;
    held = true;
    startedRecord.reset();
    scheduler->BeforeCaptureStarted(nullptr, QK::CaptureSettings{}, {});
    // Later, as a gateway does: the scheduler still has to take the record off its list.
    QMetaObject::invokeMethod(
        &context, [this, stimulus = std::move(stimulus)] { Deliver(stimulus); },
        Qt::QueuedConnection);
}

void CaptureController::Deliver(const ExternalStimulus::Stimulus& stimulus) {
    requested = false;
    if (!held) {
        return;  // stopped before it began
    }
    startedRecord.reset();
    if (stimulus.callback) {
        stimulus.callback();
    }
    if (!startedRecord) {
        events.CaptureNote(QStringLiteral("request carried no recording"));
        Release();
        AfterChange();
        return;
    }
    Place(*startedRecord, Time::SystemClock().Now());
}

void CaptureController::OnScheduledCaptureStarted(const QK::RecordTime& record) {
    startedRecord = record;
}

// Begins `record` beside what runs, or queues what is left of it for when the recording it
// overlaps ends.
void CaptureController::Place(QK::RecordTime record, Time::TimePoint now) {
    // What runs without a planned end ends where this recording begins.
    for (const auto& capture : captures) {
        if (!capture->Ended() && !capture->PlannedEnd()) {
            capture->EndAt(std::max(record.startTime, now), now);
        }
    }
    const Later* last = LatestEnd();
    if (!last || last->end <= record.startTime) {
        Begin(record, Core::SaturatingSub(record.startTime, lead), {}, true);
        return;
    }
    const bool endless = record.duration.count() == 0;
    const Time::TimePoint end = Core::SaturatingAdd(record.startTime, record.duration);
    if (!endless && end <= last->end) {
        events.CaptureNote(
            QStringLiteral("not recorded: %1 lies within %2, recorded until %3")
                .arg(DescribeRecord(record), QuoteTitle(last->title), FormatLocalTime(last->end)));
        Release();
        AfterChange();
        return;
    }
    Pending later{record,
                  QStringLiteral("began late: %1 overlaps it and is recorded until %2")
                      .arg(QuoteTitle(last->title), FormatLocalTime(last->end)),
                  true};
    later.record.startTime = last->end;
    later.record.duration = endless ? record.duration : end - last->end;
    pendings.push_back(std::move(later));
    ArmPending(now);
    AfterChange();
}

// The running or queued recording that ends last, if one has a planned end.
const CaptureController::Later* CaptureController::LatestEnd() {
    latest.reset();
    const auto consider = [this](const QString& title, std::optional<Time::TimePoint> end) {
        if (end && (!latest || *end > latest->end)) {
            latest = Later{title, *end};
        }
    };
    for (const auto& capture : captures) {
        if (!capture->Ended()) {
            consider(capture->Record().title, capture->PlannedEnd());
        }
    }
    for (const Pending& pending : pendings) {
        if (pending.record.duration.count() != 0) {
            consider(pending.record.title,
                     Core::SaturatingAdd(pending.record.startTime, pending.record.duration));
        }
    }
    return latest ? &*latest : nullptr;
}

// A screen capture begins its start-up ahead of its window.
Time::TimePoint CaptureController::BeginAt(const Pending& pending) const {
    return setup.screen ? Core::SaturatingSub(pending.record.startTime, SCREEN_START_UP)
                        : pending.record.startTime;
}

void CaptureController::ArmPending(Time::TimePoint now) {
    if (pendings.empty()) {
        pendingTimer.stop();
        return;
    }
    const auto first = std::min_element(
        pendings.begin(), pendings.end(),
        [this](const Pending& a, const Pending& b) { return BeginAt(a) < BeginAt(b); });
    pendingTimer.start(MillisecondsUntil(BeginAt(*first), now));
}

void CaptureController::BeginPending() {
    const Time::TimePoint now = Time::SystemClock().Now();
    std::vector<Pending> due;
    const auto split = std::stable_partition(pendings.begin(), pendings.end(),
                                             [&](const Pending& p) { return BeginAt(p) > now; });
    std::move(split, pendings.end(), std::back_inserter(due));
    pendings.erase(split, pendings.end());
    for (Pending& pending : due) {
        QK::RecordTime record = pending.record;
        if (record.duration.count() != 0 && now > record.startTime) {
            // Late: what is left, so that it still ends on time.
            record.duration = std::max(
                Core::SaturatingDiff(Core::SaturatingAdd(record.startTime, record.duration), now),
                Time::Microseconds(-1));
        }
        Begin(record, record.startTime, pending.note, pending.held && held);
    }
    ArmPending(now);
    AfterChange();
}

void CaptureController::Begin(const QK::RecordTime& record, Time::TimePoint windowStart,
                              const QString& note, bool heldByScheduler) {
    // Not from inside a capture's own signal: the ended ones can go now.
    captures.erase(std::remove_if(captures.begin(), captures.end(),
                                  [](const auto& capture) { return capture->Ended(); }),
                   captures.end());
    captures.push_back(std::make_unique<Capture>(
        events, setup, [this](const Capture& capture) { Ended(capture); }));
    Capture& capture = *captures.back();
    if (heldByScheduler) {
        heldCapture = &capture;
    }
    capture.Begin(record, windowStart, Time::SystemClock().Now(), note);
    AfterChange();
}

void CaptureController::Ended(const Capture& capture) {
    if (&capture == heldCapture) {
        Release();
    }
    AfterChange();
}

// While the scheduler waits for a capture, its next record may fall due.
void CaptureController::HandOverIfDue() {
    if (!held || requested || !scheduler->IsEnabled()) {
        return;
    }
    const QK::RecordTimeList next = scheduler->GetSchedule();
    if (next.empty()) {
        return;
    }
    const Time::TimePoint dueAt = Core::SaturatingSub(next.front().startTime, requestLead);
    if (Core::SaturatingAdd(Time::SystemClock().Now(), HAND_OVER_AHEAD) >= dueAt) {
        Release();  // what runs goes on beside the next
    }
}

void CaptureController::Release() {
    if (!held) {
        return;
    }
    held = false;
    heldCapture = nullptr;
    for (Pending& pending : pendings) {
        pending.held = false;
    }
    handOverTimer.stop();
    scheduler->AfterCaptureStopped(nullptr);
}

// Keeps the hand-over check running while the scheduler waits, and tells who waits for the
// end of all captures.
void CaptureController::AfterChange() {
    const bool busy = Running() > 0 || !pendings.empty();
    if (held && busy && !requested) {
        if (!handOverTimer.isActive()) {
            handOverTimer.start();
        }
    } else {
        handOverTimer.stop();
    }
    if (busy != wasCapturing) {
        wasCapturing = busy;
        if (onCapturing) {
            onCapturing(busy);
        }
    }
    if (busy || held) {
        idleTold = false;
        return;
    }
    if (afterStop) {
        std::exchange(afterStop, nullptr)();
    } else if (onIdle && !idleTold) {
        onIdle();
    }
    idleTold = true;
}

std::size_t CaptureController::Running() const {
    return static_cast<std::size_t>(std::count_if(
        captures.begin(), captures.end(), [](const auto& capture) { return !capture->Ended(); }));
}

const Capture* CaptureController::Latest() const {
    for (auto it = captures.rbegin(); it != captures.rend(); ++it) {
        if (!(*it)->Ended()) {
            return it->get();
        }
    }
    return nullptr;
}

std::optional<QK::RecordTime> CaptureController::CurrentRecord() const {
    const Capture* latestCapture = Latest();
    return latestCapture ? std::optional<QK::RecordTime>(latestCapture->Record()) : std::nullopt;
}

std::optional<LiveCapture> CaptureController::Live() const {
    const Capture* latestCapture = Latest();
    return latestCapture ? std::optional<LiveCapture>(latestCapture->Live()) : std::nullopt;
}

void CaptureController::Stop(std::function<void()> done) {
    if (IsIdle()) {
        done();
        return;
    }
    if (afterStop) {
        afterStop = [first = std::move(afterStop), second = std::move(done)] {
            first();
            second();
        };
    } else {
        afterStop = std::move(done);
    }
    if (requested) {
        events.CaptureNote(QStringLiteral("stopped before the requested recording began"));
    }
    for (const Pending& pending : pendings) {
        events.CaptureNote(
            QStringLiteral("stopped before %1 began").arg(QuoteTitle(pending.record.title)));
    }
    pendings.clear();
    pendingTimer.stop();
    if (requested || !heldCapture) {
        Release();
    }
    for (const auto& capture : captures) {
        capture->Stop();
    }
    AfterChange();
}

}  // namespace Vexlor::ScheduleTool
