#include "capture/CaptureController.h"

#include <algorithm>
#include <climits>

#include <QProcessEnvironment>

#include "base/RecordText.h"
#include "core/Saturating.h"
#include "interfaces/Clock.h"

namespace Vexlor::ScheduleTool {

CaptureController::CaptureController(ICaptureEvents& events, std::optional<QString> command,
                                     std::function<void()> onIdle,
                                     std::optional<ScreenSetup> screen, Time::Microseconds lead)
    : events(events),
      command(std::move(command)),
      onIdle(std::move(onIdle)),
      screen(std::move(screen)),
      lead(lead) {
    durationTimer.setSingleShot(true);
    // A coarse timer may end a capture 5 % of its length early or late.
    durationTimer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&durationTimer, &QTimer::timeout, [this] {
        if (!ArmDurationLeg()) {
            EndByDuration();
        }
    });
}

// The process, if any, kills what is left of the command.
CaptureController::~CaptureController() = default;

void CaptureController::SendStimulus(ExternalStimulus::Stimulus stimulus) {
    if (stimulus.name != "RECORD_SCHEDULE") {
        events.CaptureNote(QStringLiteral("request ignored: unknown stimulus \"%1\"")
                               .arg(QString::fromStdString(stimulus.name)));
        return;
    }
    events.RecordingRequested();
    if (capturing) {
        // The scheduler asks for no capture while one runs; should it happen anyway, the
        // running capture keeps going.
        events.CaptureNote(QStringLiteral("request ignored: a recording is running"));
        return;
    }
    requested = true;
    capturing = true;
    startedRecord.reset();
    scheduler->BeforeCaptureStarted(nullptr, QK::CaptureSettings{}, {});
    // Later, as a gateway does: the scheduler still has to take the record off its list.
    QMetaObject::invokeMethod(
        &context, [this, stimulus = std::move(stimulus)] { Deliver(stimulus); },
        Qt::QueuedConnection);
}

void CaptureController::Deliver(const ExternalStimulus::Stimulus& stimulus) {
    requested = false;
    if (!capturing) {
        return;  // stopped before it began
    }
    startedRecord.reset();
    if (stimulus.callback) {
        stimulus.callback();
    }
    if (!startedRecord) {
        events.CaptureNote(QStringLiteral("request carried no recording"));
        Finish(QString());
        return;
    }
    Begin(*startedRecord, Time::SystemClock().Now());
}

void CaptureController::OnScheduledCaptureStarted(const QK::RecordTime& record) {
    startedRecord = record;
}

std::optional<LiveCapture> CaptureController::Live() const {
    return capturing ? live : std::nullopt;
}

void CaptureController::Begin(const QK::RecordTime& record, Time::TimePoint now) {
    currentTitle = record.title;
    std::optional<Time::TimePoint> plannedEnd;
    if (record.duration.count() != 0) {
        // Begun late, the record carries what is left of its duration, counted from now;
        // begun ahead of its start (a lead time), its full duration from the start.
        plannedEnd = Core::SaturatingAdd(std::max(record.startTime, now), record.duration);
    }
    live = LiveCapture{record, now, plannedEnd, {}, screen ? std::optional<QString>() : command};
    if (plannedEnd) {
        // ffmpeg ends by itself at the end of its window; stopped at once, it could miss the
        // last frame.
        const Time::TimePoint stopAt =
            screen ? Core::SaturatingAdd(*plannedEnd, SCREEN_END_GRACE) : *plannedEnd;
        captureEnd.setRemainingTime(Core::SaturatingDiff(stopAt, now).count() / 1000,
                                    Qt::PreciseTimer);
        if (!ArmDurationLeg()) {
            // A start so late that nothing of the planned duration is left.
            events.RecordingStarted(record, {});
            Finish(QStringLiteral("its planned end had passed, nothing run"));
            return;
        }
    }
    if (screen) {
        BeginScreen(record, plannedEnd);
        return;
    }
    events.RecordingStarted(record, {});
    if (!command) {
        return;  // simulated: only the duration ends it
    }

    process = std::make_unique<CaptureProcess>([this](const QString& how) { Finish(how); });
    const long long durationMs = record.duration.count() / 1000;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("VEXLOR_TITLE"), record.title);
    environment.insert(QStringLiteral("VEXLOR_START"), FormatIsoTime(record.startTime));
    environment.insert(QStringLiteral("VEXLOR_DURATION_MS"), QString::number(durationMs));
    environment.insert(QStringLiteral("VEXLOR_TAG"), QString::number(record.tag));
    environment.insert(QStringLiteral("VEXLOR_MODE"),
                       QString::number(static_cast<int>(record.mode)));
    process->Start(*command, environment);
}

void CaptureController::BeginScreen(const QK::RecordTime& record,
                                    std::optional<Time::TimePoint> plannedEnd) {
    QString error;
    recording =
        ScreenRecording::Create(*screen, record.title, record.startTime,
                                Core::SaturatingSub(record.startTime, lead), plannedEnd, error);
    if (!recording) {
        events.RecordingStarted(record, {});
        Finish(QStringLiteral("nothing recorded: %1").arg(error));
        return;
    }
    live->file = recording->Path();
    events.RecordingStarted(record, recording->Path());
    process = std::make_unique<CaptureProcess>(
        [this](const QString&) { Finish(recording->Outcome(*process)); });
    process->Start(recording->MakeLaunch());
}

// A QTimer holds at most INT_MAX ms (about 24 days); longer captures take several legs.
bool CaptureController::ArmDurationLeg() {
    const qint64 remaining = captureEnd.remainingTime();
    if (remaining <= 0) {
        return false;
    }
    durationTimer.start(static_cast<int>(std::min<qint64>(remaining, INT_MAX)));
    return true;
}

void CaptureController::EndByDuration() {
    if (!process || !process->IsRunning()) {
        Finish(QStringLiteral("simulated, duration over"));
        return;
    }
    process->Terminate(CaptureProcess::StopReason::DurationOver);
}

void CaptureController::Stop(std::function<void()> done) {
    if (!capturing) {
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
        Finish(QString());
        return;
    }
    if (!process || !process->IsRunning()) {
        Finish(QStringLiteral("simulated, stopped"));
        return;
    }
    if (process->IsTerminating()) {
        process->Kill();  // asked twice: no more waiting
        return;
    }
    process->Terminate(CaptureProcess::StopReason::Requested);
}

void CaptureController::Finish(const QString& how) {
    if (!capturing) {
        return;
    }
    durationTimer.stop();
    if (!how.isEmpty()) {
        events.RecordingFinished(currentTitle, how);
    }
    // The finished process object stays until the next capture: this may run inside its
    // own signal.
    capturing = false;
    live.reset();
    scheduler->AfterCaptureStopped(nullptr);
    if (afterStop) {
        auto done = std::move(afterStop);
        afterStop = nullptr;
        done();
    } else if (onIdle) {
        onIdle();
    }
}

}  // namespace Vexlor::ScheduleTool
