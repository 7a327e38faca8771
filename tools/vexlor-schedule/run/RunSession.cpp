#include "run/RunSession.h"

#include <QCoreApplication>
#include <QLocale>

#include "base/Diagnostics.h"
#include "capture/PendingRecording.h"
#include "desktop/DesktopBackends.h"
#include "desktop/ServiceManager.h"
#include "platform/FixedServices.h"
#include "platform/FixedUiSettings.h"
#include "platform/IniSettingsManager.h"
#include "platform/QtDurationTimer.h"
#include "run/PowerHold.h"
#include "run/RunTimings.h"
#include "schedule/RunPolicy.h"
#include "store/SettingsFileCheck.h"
#include "store/StoredSettings.h"

namespace Vexlor::ScheduleTool {

RunSession::RunSession(const ScheduleLocation& location, const RunOptions& options,
                       std::optional<ScreenSetup> screen)
    : path(location.settingsPath),
      options(options),
      lead(screen ? options.lead + SCREEN_START_UP : options.lead),
      sleepReport(printer, options.lead),
      edits([this] { return DueSoon(); }, DEFER_CHECK_MS, DEFER_LIMIT_MS) {
    // First: SIGPIPE is to be ignored before anything is printed, and a reader that closes the
    // output stops the run like a signal. Queued, since the failing write may come from
    // inside the controller.
    signalRelay = std::make_unique<SignalRelay>([this](int) { Shutdown(); });
    printer.SetOnOutputClosed([this] {
        QMetaObject::invokeMethod(
            &context, [this] { Shutdown(); }, Qt::QueuedConnection);
    });
    LoadStored();
    WireScheduler(std::move(screen));
    sleepSignal = WatchSleep([this](bool goingToSleep) { OnPrepareForSleep(goingToSleep); });
    watcher = std::make_unique<SettingsWatcher>(
        path, [this] { edits.WhenSafe([this] { OnFileChanged(); }); });
    StartServing(location.socketPath);
}

void RunSession::LoadStored() {
    CheckSettingsFile(path);
    storage = std::make_shared<RetryingSettingsManager>(
        std::make_shared<App::IniSettingsManager>(path), STORAGE_RETRY,
        [this](const std::optional<std::string>& failure) { OnStorage(failure); });
    settings = std::make_shared<QK::SchedulerSettings>(storage);
    const QK::RecordTimeList stored = ReadSchedule(*settings, *storage, path);
    settings->IsSchedulerEnabled();  // a flag that is neither true nor false refuses the start
    // Records under way are started at once instead of being dropped by the scheduler.
    const QK::RecordTimeList caughtUp = CatchUp(stored, clock.Now(), CATCH_UP_MARGIN);
    if (caughtUp != stored) {
        settings->SetSchedule(caughtUp);
    }
    // Registered before the scheduler exists: its first write drops the records whose time
    // passed while nothing ran, and that is reported too.
    drops.SetKnown(caughtUp);
    settings->RegisterEventHandler(&drops);
}

void RunSession::WireScheduler(std::optional<ScreenSetup> screen) {
    if (screen) {
        // Files that a run killed during a capture left under a neutral name.
        for (const QString& line : FinishLeftRecordings(screen->folder)) {
            printer.Notice(line);
        }
    }
    const NoticeChoice noticeChoice = options.notice.value_or(DefaultNoticeChoice());
    auto presenters =
        MakePresenterCreator(noticeChoice, [this](const QString& line) { printer.Notice(line); });
    DesktopNotification::Presenter::Factory::GetInstance().SetCreator(
        noticeChoice == NoticeChoice::None ? presenters : noticeBoard.Watch(std::move(presenters)));

    auto power = std::make_shared<PowerHold>(MakePowerManager(
        options.keepAwake, [this](bool sleepPrevented) { printer.SleepChanged(sleepPrevented); }));
    controller = std::make_shared<CaptureController>(
        printer, CaptureSetup{options.exec, std::move(screen)}, [this] { CheckIdle(); },
        options.lead, lead, [power](bool capturing) { power->SetCapturing(capturing); });
    scheduler = std::make_shared<QK::Scheduler>(
        settings, std::make_shared<QK::FixedUiSettings>(lead.count() > 0, lead), controller, power,
        std::make_shared<Time::SystemClock>(), std::make_shared<Time::QtDurationTimer>());

    controller->Attach(*scheduler);
    scheduler->RegisterEventHandler(controller.get());

    notices = std::make_unique<QK::NotificationHelper>(
        settings, std::make_shared<App::FixedCustomizationManager>("vexlor-schedule"),
        std::make_shared<App::FixedLookAndFeelManager>(QLocale::system().name().toStdString()));
}

void RunSession::StartServing(const QString& socketPath) {
    // Last: from here on other processes hand their edits to this one.
    control = std::make_unique<ControlServer>(
        socketPath,
        [this](const QByteArray& request, std::function<void(const QByteArray&)> answer) {
            Serve(request, std::move(answer));
        });

    printer.SchedulerStarted(scheduler->IsEnabled(), scheduler->GetSchedule().size());
    topUpTimer.setInterval(PLAN_TOP_UP_MS);
    QObject::connect(&topUpTimer, &QTimer::timeout, [this] { PostTopUp(); });
    topUpTimer.start();
    edits.WhenSafe([this] { KeepPlansTopped(); });
    // Ready for systemd now: the scheduler polls if scheduling is on, and edits (`enable`
    // among them) reach this process. With scheduling off, the status says so.
    TellStatus(scheduler->IsEnabled(), scheduler->GetSchedule().size());
    NotifyServiceManager(QStringLiteral("READY=1"));
    CheckIdle();
}

RunSession::~RunSession() {
    NotifyServiceManager(QStringLiteral("STOPPING=1"));
    // Still the one writer here: what could not be saved yet gets a last try before other
    // processes may write the file themselves.
    if (storage->HasPending() && !storage->Flush()) {
        Error(QStringLiteral(
                  "the latest changes to the schedule could not be saved to %1 (%2); they are lost")
                  .arg(path, QString::fromStdString(storage->Failure().value_or(std::string()))));
    }
    control.reset();
    signalRelay.reset();
    watcher.reset();
    notices.reset();
    scheduler->UnregisterEventHandler(controller.get());
    settings->UnregisterEventHandler(&drops);
    scheduler.reset();
}

bool RunSession::DueSoon() const {
    if (!scheduler->IsEnabled()) {
        return false;
    }
    const QK::RecordTimeList tasks = scheduler->GetSchedule();
    return !tasks.empty() && tasks.front().startTime <= clock.Now() + DUE_GUARD;
}

// logind may suspend despite the sleep lock (a closed lid, by default).
void RunSession::OnPrepareForSleep(bool goingToSleep) {
    if (goingToSleep) {
        sleepReport.GoingToSleep(controller->CurrentRecord(), scheduler->IsEnabled()
                                                                  ? scheduler->GetSchedule()
                                                                  : QK::RecordTimeList{});
    } else {
        sleepReport.WokeUp(controller->CurrentRecord(), clock.Now());
    }
}

void RunSession::TellStatus(bool enabled, std::size_t records) {
    NotifyServiceManager(
        enabled ? QStringLiteral("STATUS=scheduling on, %1 recording(s) ahead").arg(records)
                : QStringLiteral("STATUS=scheduling off: `vexlor-schedule enable` switches it on"));
}

void RunSession::Shutdown() {
    NotifyServiceManager(QStringLiteral("STOPPING=1"));
    printer.Line(shuttingDown ? QStringLiteral("signal received again: ending the capture now")
                              : QStringLiteral("signal received: stopping"));
    shuttingDown = true;
    controller->Stop([] { QCoreApplication::exit(0); });
}

// Queued, so that a capture request that the scheduler has just sent is delivered before
// the scheduler counts as done.
void RunSession::CheckIdle() {
    if (!options.untilEmpty || idleCheckPosted || shuttingDown) {
        return;
    }
    idleCheckPosted = true;
    QMetaObject::invokeMethod(
        &context,
        [this] {
            idleCheckPosted = false;
            if (!shuttingDown && !scheduler->IsEnabled() && controller->IsIdle()) {
                printer.Line(QStringLiteral("scheduling off and nothing running: done"));
                QCoreApplication::exit(0);
            }
        },
        Qt::QueuedConnection);
}

}  // namespace Vexlor::ScheduleTool
