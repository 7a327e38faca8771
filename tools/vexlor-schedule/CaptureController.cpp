#include "CaptureController.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#include <QProcessEnvironment>

#include "RecordText.h"
#include "core/Saturating.h"
#include "interfaces/Clock.h"

namespace Vexlor::ScheduleTool {

// The command runs in a process group of its own, so that ending it also ends whatever
// the shell started (the shell may not pass SIGTERM on to its children).
class CaptureController::Process : public QProcess {
protected:
    void setupChildProcess() override { ::setpgid(0, 0); }
};

CaptureController::CaptureController(QK::IScheduler& scheduler, EventPrinter& printer,
                                     std::optional<QString> command, std::function<void()> onIdle)
    : scheduler(scheduler),
      printer(printer),
      command(std::move(command)),
      onIdle(std::move(onIdle)) {
    durationTimer.setSingleShot(true);
    // A coarse timer may end a capture 5 % of its length early or late.
    durationTimer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&durationTimer, &QTimer::timeout, [this] {
        if (!ArmDurationLeg()) {
            EndByDuration();
        }
    });
    killTimer.setSingleShot(true);
    killTimer.setInterval(KILL_DELAY_MS);
    QObject::connect(&killTimer, &QTimer::timeout, [this] { Signal(SIGKILL); });
}

CaptureController::~CaptureController() {
    if (process && process->state() != QProcess::NotRunning) {
        QObject::disconnect(process.get(), nullptr, nullptr, nullptr);
        Signal(SIGKILL);
        process->waitForFinished(1000);
    }
}

void CaptureController::OnRecordRequest(ExternalStimulus::Stimulus stimulus) {
    if (pendingRequests > 0) {
        --pendingRequests;
    }
    printer.RecordingRequested();
    if (capturing) {
        // The scheduler asks for no capture while one runs; should it happen anyway, the
        // running capture keeps going.
        printer.Line(QStringLiteral("request ignored: a recording is running"));
        return;
    }
    capturing = true;
    scheduler.BeforeCaptureStarted(nullptr, QK::CaptureSettings{}, {});
    startedRecord.reset();
    if (stimulus.callback) {
        stimulus.callback();
    }
    if (!startedRecord) {
        printer.Line(QStringLiteral("request carried no recording"));
        Finish(QString());
        return;
    }
    Begin(*startedRecord);
}

void CaptureController::OnScheduledCaptureStarted(const QK::RecordTime& record) {
    startedRecord = record;
}

void CaptureController::Begin(const QK::RecordTime& record) {
    currentTitle = record.title;
    endRequest.clear();
    printer.RecordingStarted(record);
    const long long durationMs = record.duration.count() / 1000;
    if (record.duration.count() != 0) {
        // The planned end, also for a capture begun ahead of its start (--lead).
        const Time::Microseconds untilEnd = Core::SaturatingDiff(
            Core::SaturatingAdd(record.startTime, record.duration), Time::SystemClock().Now());
        captureEnd.setRemainingTime(untilEnd.count() / 1000, Qt::PreciseTimer);
        if (!ArmDurationLeg()) {
            // A start so late that nothing of the planned duration is left.
            Finish(QStringLiteral("its planned end had passed, nothing run"));
            return;
        }
    }
    if (!command) {
        return;  // simulated: only the duration ends it
    }

    process = std::make_unique<Process>();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("VEXLOR_TITLE"), record.title);
    environment.insert(QStringLiteral("VEXLOR_START"), FormatIsoTime(record.startTime));
    environment.insert(QStringLiteral("VEXLOR_DURATION_MS"), QString::number(durationMs));
    environment.insert(QStringLiteral("VEXLOR_TAG"), QString::number(record.tag));
    environment.insert(QStringLiteral("VEXLOR_MODE"),
                       QString::number(static_cast<int>(record.mode)));
    process->setProcessEnvironment(environment);
    process->setProcessChannelMode(QProcess::ForwardedChannels);
    // Its own process group has no terminal to read from.
    process->setStandardInputFile(QProcess::nullDevice());

    QObject::connect(process.get(), &QProcess::started, [this] {
        // Also set from this side, so that a signal sent right away reaches the group.
        ::setpgid(static_cast<pid_t>(process->processId()),
                  static_cast<pid_t>(process->processId()));
    });
    QObject::connect(
        process.get(), qOverload<int, QProcess::ExitStatus>(&QProcess::finished),
        [this](int exitCode, QProcess::ExitStatus status) {
            if (status == QProcess::NormalExit) {
                Finish(QStringLiteral("exit status %1").arg(exitCode));
            } else {
                Finish(endRequest.isEmpty() ? QStringLiteral("ended by a signal") : endRequest);
            }
        });
    QObject::connect(process.get(), &QProcess::errorOccurred, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart) {
            Finish(QStringLiteral("the command failed to start: %1").arg(process->errorString()));
        }
    });
    // The title and the other values reach the command only through its environment.
    process->start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), *command});
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
    if (!process || process->state() == QProcess::NotRunning) {
        Finish(QStringLiteral("simulated, duration over"));
        return;
    }
    endRequest = QStringLiteral("duration over, command stopped");
    Signal(SIGTERM);
    killTimer.start();
}

void CaptureController::Signal(int signal) {
    if (!process || process->state() == QProcess::NotRunning) {
        return;
    }
    const auto pid = static_cast<pid_t>(process->processId());
    if (pid <= 0) {
        return;  // not started yet; the kill timer tries again
    }
    if (::kill(-pid, signal) != 0) {
        ::kill(pid, signal);
    }
}

void CaptureController::Stop(std::function<void()> done) {
    if (!capturing) {
        done();
        return;
    }
    afterStop = std::move(done);
    if (!process || process->state() == QProcess::NotRunning) {
        Finish(QStringLiteral("simulated, stopped"));
        return;
    }
    if (killTimer.isActive()) {
        Signal(SIGKILL);  // asked twice: no more waiting
        return;
    }
    endRequest = QStringLiteral("stopped on request");
    Signal(SIGTERM);
    killTimer.start();
}

void CaptureController::Finish(const QString& how) {
    if (!capturing) {
        return;
    }
    durationTimer.stop();
    killTimer.stop();
    if (!how.isEmpty()) {
        printer.RecordingFinished(currentTitle, how);
    }
    // The finished process object stays until the next capture: this may run inside its
    // own signal.
    capturing = false;
    scheduler.AfterCaptureStopped(nullptr);
    if (afterStop) {
        auto done = std::move(afterStop);
        afterStop = nullptr;
        done();
    } else if (onIdle) {
        onIdle();
    }
}

}  // namespace Vexlor::ScheduleTool
