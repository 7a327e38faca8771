#include "RunCommand.h"

#include <cstdio>
#include <exception>
#include <memory>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QLocale>
#include <QLockFile>

#include "Backends.h"
#include "CaptureController.h"
#include "DropReporter.h"
#include "EventPrinter.h"
#include "RequestGateway.h"
#include "Scheduler/NotificationHelper.h"
#include "Scheduler/Scheduler.h"
#include "Scheduler/SchedulerSettings.h"
#include "SettingsWatcher.h"
#include "SignalRelay.h"
#include "StoredSettings.h"
#include "interfaces/Clock.h"
#include "platform/AppServices.h"
#include "platform/FixedUiSettings.h"
#include "platform/IniSettingsManager.h"
#include "platform/QtDurationTimer.h"
#include "platform/QueuedGateway.h"

namespace Vexlor::ScheduleTool {

namespace {

const std::string RECORD_SCHEDULE = "RECORD_SCHEDULE";

class RunSession {
public:
    RunSession(const QString& path, const RunOptions& options);
    ~RunSession();

    RunSession(const RunSession&) = delete;
    RunSession& operator=(const RunSession&) = delete;

private:
    void Reload();
    void Shutdown();
    void CheckIdle();

    QString path;
    RunOptions options;
    QObject context;  // queued checks die with the session
    EventPrinter printer{stdout};
    DropReporter drops{printer, [this] { CheckIdle(); }};
    std::shared_ptr<QK::SchedulerSettings> settings;
    std::shared_ptr<ExternalStimulus::QueuedGateway> queuedGateway;
    std::shared_ptr<QK::Scheduler> scheduler;
    std::unique_ptr<CaptureController> controller;
    std::unique_ptr<QK::NotificationHelper> notices;
    std::unique_ptr<SettingsWatcher> watcher;
    std::unique_ptr<SignalRelay> signalRelay;
    bool idleCheckPosted = false;
    bool shuttingDown = false;
};

RunSession::RunSession(const QString& path, const RunOptions& options)
    : path(path), options(options) {
    settings =
        std::make_shared<QK::SchedulerSettings>(std::make_shared<App::IniSettingsManager>(path));
    // Registered before the scheduler exists: the scheduler's first write drops the
    // records whose time passed while nothing ran, and that is reported too.
    drops.SetKnown(settings->GetSchedule());
    settings->RegisterEventHandler(&drops);

    DesktopNotification::Presenter::Factory::GetInstance().SetCreator(
        MakePresenterCreator(options.notice.value_or(DefaultNoticeChoice()),
                             [this](const QString& line) { printer.Notice(line); }));

    queuedGateway = std::make_shared<ExternalStimulus::QueuedGateway>();
    auto gateway = std::make_shared<RequestGateway>(queuedGateway, [this](const std::string& name) {
        if (name == RECORD_SCHEDULE) {
            drops.NoteRequest();
            controller->NoteRequestSent();
        }
    });
    const bool leadEnabled = options.lead.count() > 0;
    scheduler = std::make_shared<QK::Scheduler>(
        settings, std::make_shared<QK::FixedUiSettings>(leadEnabled, options.lead), gateway,
        MakePowerManager(options.keepAwake,
                         [this](bool sleepPrevented, bool systemLock) {
                             printer.SleepChanged(sleepPrevented, systemLock);
                         }),
        std::make_shared<Time::SystemClock>(), std::make_shared<Time::QtDurationTimer>());

    controller = std::make_unique<CaptureController>(*scheduler, printer, options.exec,
                                                     [this] { CheckIdle(); });
    scheduler->RegisterEventHandler(controller.get());
    queuedGateway->RegisterHandler(RECORD_SCHEDULE, [this](ExternalStimulus::Stimulus stimulus) {
        controller->OnRecordRequest(std::move(stimulus));
    });

    notices = std::make_unique<QK::NotificationHelper>(
        settings, std::make_shared<App::FixedCustomizationManager>("vexlor-schedule"),
        std::make_shared<App::FixedLookAndFeelManager>(QLocale::system().name().toStdString()));

    watcher = std::make_unique<SettingsWatcher>(path, [this] { Reload(); });
    signalRelay = std::make_unique<SignalRelay>([this](int) { Shutdown(); });

    printer.SchedulerStarted(scheduler->IsEnabled(), scheduler->GetSchedule().size());
    CheckIdle();
}

RunSession::~RunSession() {
    signalRelay.reset();
    watcher.reset();
    notices.reset();
    queuedGateway->UnregisterHandler(RECORD_SCHEDULE);
    scheduler->UnregisterEventHandler(controller.get());
    controller.reset();
    settings->UnregisterEventHandler(&drops);
    scheduler.reset();
}

// Another process changed the settings: hand the stored schedule and flag to the
// scheduler. The scheduler's own writes land here too and are recognised by matching what
// it already runs.
void RunSession::Reload() {
    StoredSettings stored;
    try {
        stored = ReadStoredSettings(path);
    } catch (const std::exception& error) {
        printer.Line(QStringLiteral("settings unreadable, kept the running schedule: %1")
                         .arg(QString::fromLocal8Bit(error.what())));
        return;
    }
    if (stored.schedule == scheduler->GetSchedule() && stored.enabled == scheduler->IsEnabled()) {
        return;
    }
    printer.ScheduleReloaded(stored.enabled, stored.schedule.size());
    drops.SetKnown(stored.schedule);
    scheduler->SetSchedule(stored.schedule);
    scheduler->SetEnabled(stored.enabled);
    drops.SetKnown(scheduler->GetSchedule());
    CheckIdle();
}

void RunSession::Shutdown() {
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

}  // namespace

int RunScheduler(const QString& settingsPath, const RunOptions& options) {
    if (!QDir().mkpath(QFileInfo(settingsPath).absolutePath())) {
        std::fprintf(stderr, "vexlor-schedule: cannot create the folder of %s\n",
                     qPrintable(settingsPath));
        return 1;
    }
    // Two runners on one schedule would both carry out every recording.
    QLockFile runLock(settingsPath + QStringLiteral(".run-lock"));
    runLock.setStaleLockTime(0);  // stale only when its process is gone
    if (!runLock.tryLock(0)) {
        std::fprintf(stderr, "vexlor-schedule: another run is active on %s\n",
                     qPrintable(settingsPath));
        return 1;
    }
    try {
        RunSession session(settingsPath, options);
        return QCoreApplication::exec();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vexlor-schedule: %s\n", error.what());
        return 1;
    }
}

}  // namespace Vexlor::ScheduleTool
