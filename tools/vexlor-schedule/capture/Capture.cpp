#include "capture/Capture.h"

#include <algorithm>
#include <climits>
#include <utility>

#include <QProcessEnvironment>

#include "base/RecordText.h"
#include "core/Saturating.h"

namespace Vexlor::ScheduleTool {

Capture::Capture(ICaptureEvents& events, const CaptureSetup& setup,
                 std::function<void(const Capture&)> ended)
    : events(events), setup(setup), ended(std::move(ended)) {
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
Capture::~Capture() = default;

void Capture::Begin(const QK::RecordTime& record, Time::TimePoint windowStart, Time::TimePoint now,
                    const QString& note) {
    std::optional<Time::TimePoint> plannedEnd;
    if (record.duration.count() != 0) {
        // Begun late, the record carries what is left of its duration, counted from now;
        // begun ahead of its start (a lead time), its full duration from the start.
        plannedEnd = Core::SaturatingAdd(std::max(record.startTime, now), record.duration);
    }
    live = LiveCapture{record, now, plannedEnd, {}, setup.screen ? std::nullopt : setup.command};
    if (plannedEnd && !ArmEnd(now)) {
        // A start so late that nothing of the planned duration is left.
        events.RecordingStarted(record, {}, note);
        Finish(QStringLiteral("its planned end had passed, nothing run"));
        return;
    }
    if (setup.screen) {
        BeginScreen(record, windowStart, note);
        return;
    }
    events.RecordingStarted(record, {}, note);
    if (setup.command) {
        BeginCommand(record);
    }  // else simulated: only the duration ends it
}

void Capture::BeginCommand(const QK::RecordTime& record) {
    process = std::make_unique<CaptureProcess>([this](const QString& how) { Finish(how); });
    const long long durationMs = record.duration.count() / 1000;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("VEXLOR_TITLE"), record.title);
    environment.insert(QStringLiteral("VEXLOR_START"), FormatIsoTime(record.startTime));
    environment.insert(QStringLiteral("VEXLOR_DURATION_MS"), QString::number(durationMs));
    environment.insert(QStringLiteral("VEXLOR_TAG"), QString::number(record.tag));
    environment.insert(QStringLiteral("VEXLOR_MODE"),
                       QString::number(static_cast<int>(record.mode)));
    process->Start(*setup.command, environment);
}

void Capture::BeginScreen(const QK::RecordTime& record, Time::TimePoint windowStart,
                          const QString& note) {
    QString error;
    recording = ScreenRecording::Create(*setup.screen, record.title, record.startTime, windowStart,
                                        live.plannedEnd, error);
    if (!recording) {
        events.RecordingStarted(record, {}, note);
        Finish(QStringLiteral("nothing recorded: %1").arg(error));
        return;
    }
    live.file = recording->Path();
    events.RecordingStarted(record, recording->Path(), note);
    process = std::make_unique<CaptureProcess>(
        [this](const QString&) { Finish(recording->Outcome(*process)); });
    process->Start(recording->MakeLaunch());
}

// Arms the end at the planned end; false when that has passed.
bool Capture::ArmEnd(Time::TimePoint now) {
    // ffmpeg ends by itself at the end of its window; stopped at once, it could miss the
    // last frame.
    const Time::TimePoint stopAt =
        setup.screen ? Core::SaturatingAdd(*live.plannedEnd, SCREEN_END_GRACE) : *live.plannedEnd;
    captureEnd.setRemainingTime(Core::SaturatingDiff(stopAt, now).count() / 1000, Qt::PreciseTimer);
    return ArmDurationLeg();
}

void Capture::EndAt(Time::TimePoint end, Time::TimePoint now) {
    if (Ended() || live.plannedEnd) {
        return;
    }
    live.plannedEnd = end;
    if (!ArmEnd(now)) {
        EndByDuration();
    }
}

// A QTimer holds at most INT_MAX ms (about 24 days); longer captures take several legs.
bool Capture::ArmDurationLeg() {
    const qint64 remaining = captureEnd.remainingTime();
    if (remaining <= 0) {
        return false;
    }
    durationTimer.start(static_cast<int>(std::min<qint64>(remaining, INT_MAX)));
    return true;
}

void Capture::EndByDuration() {
    if (!process || !process->IsRunning()) {
        Finish(QStringLiteral("simulated, duration over"));
        return;
    }
    process->Terminate(CaptureProcess::StopReason::DurationOver);
}

void Capture::Stop() {
    if (Ended()) {
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

void Capture::Finish(const QString& how) {
    if (Ended()) {
        return;
    }
    durationTimer.stop();
    if (!how.isEmpty()) {
        events.RecordingFinished(live.record.title, how);
    }
    std::exchange(ended, nullptr)(*this);
}

}  // namespace Vexlor::ScheduleTool
