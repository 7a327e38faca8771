#include "run/RunCommand.h"

#include <cstdio>
#include <deque>
#include <exception>
#include <map>
#include <memory>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QLocale>
#include <QTimer>

#include "capture/CaptureController.h"
#include "base/ExitCode.h"
#include "store/ControlChannel.h"
#include "desktop/DesktopBackends.h"
#include "base/Diagnostics.h"
#include "run/DropReporter.h"
#include "base/Duration.h"
#include "run/EventPrinter.h"
#include "store/FileLock.h"
#include "base/RecordText.h"
#include "schedule/Edits.h"
#include "schedule/RunPolicy.h"
#include "store/Protocol.h"
#include "Scheduler/NotificationHelper.h"
#include "Scheduler/Scheduler.h"
#include "Scheduler/SchedulerSettings.h"
#include "capture/ScreenCapture.h"
#include "desktop/ServiceManager.h"
#include "store/SettingsWatcher.h"
#include "run/SignalRelay.h"
#include "store/StoredSettings.h"
#include "core/Saturating.h"
#include "interfaces/Clock.h"
#include "platform/FixedServices.h"
#include "platform/FixedUiSettings.h"
#include "platform/IniSettingsManager.h"
#include "platform/QtDurationTimer.h"
#include "platform/RetryingSettingsManager.h"

namespace Vexlor::ScheduleTool {

namespace {

constexpr std::chrono::seconds EDIT_LOCK_PATIENCE{30};
constexpr std::chrono::seconds STORAGE_RETRY{2};
// Far enough ahead that the scheduler, reading the clock a moment later, still sees a
// caught-up record as starting now or later.
constexpr Time::Microseconds CATCH_UP_MARGIN{100000};
// The scheduler drops a record whose start has passed when it is handed a new schedule
// before its poll requested that record. Edits wait while the next record starts within
// this much, which is more than the catch-up margin, so the records already planned are
// never caught up (and pushed back) by an edit.
constexpr Time::Microseconds DUE_GUARD{150000};
constexpr int DEFER_CHECK_MS = 10;
// Should the record not be requested (the machine paused, say), edits wait no longer.
constexpr qint64 DEFER_LIMIT_MS = 2000;
// How often the plans' horizon moves on; each plan keeps an occurrence beyond the horizon,
// so a minute late costs nothing.
constexpr int PLAN_TOP_UP_MS = 60000;

// Keeps what the presenters it wraps have on the screen, for `status`.
class NoticeBoard {
public:
    using IPresenter = DesktopNotification::IPresenter;
    using INotification = DesktopNotification::INotification;

    DesktopNotification::Presenter::Factory::Creator Watch(
        DesktopNotification::Presenter::Factory::Creator inner) {
        return [shown = shown, inner = std::move(inner)](int style, int priority,
                                                         const QString& category) {
            return std::make_shared<Watcher>(inner(style, priority, category), shown);
        };
    }

    QList<LiveNotice> Shown() const {
        QList<LiveNotice> notices;
        for (const auto& [notification, notice] : *shown) {
            notices << notice;
        }
        return notices;
    }

private:
    using Map = std::map<const INotification*, LiveNotice>;

    class Watcher : public IPresenter {
    public:
        Watcher(std::shared_ptr<IPresenter> inner, std::shared_ptr<Map> shown)
            : inner(std::move(inner)), shown(std::move(shown)) {}
        void Show(std::shared_ptr<INotification> notification) override {
            inner->Show(notification);
            (*shown)[notification.get()] = {notification->GetTitleText().simplified(),
                                            notification->GetInformationText().simplified()};
        }
        void Hide(std::shared_ptr<INotification> notification) override {
            inner->Hide(notification);
            shown->erase(notification.get());
        }
        bool SupportsFeature(int feature) const override { return inner->SupportsFeature(feature); }

    private:
        std::shared_ptr<IPresenter> inner;
        std::shared_ptr<Map> shown;
    };

    // Shared with the presenters, which the factory's users may keep past the session.
    std::shared_ptr<Map> shown = std::make_shared<Map>();
};

class RunSession {
public:
    RunSession(const ScheduleLocation& location, const RunOptions& options,
               std::optional<ScreenSetup> screen);
    ~RunSession();

    RunSession(const RunSession&) = delete;
    RunSession& operator=(const RunSession&) = delete;

private:
    void Serve(const QByteArray& bytes, std::function<void(const QByteArray&)> answer);
    QByteArray HandleRequest(const EditRequest& request);
    void StopRecording(std::function<void(const QByteArray&)> answer);
    LiveState Live() const;
    void ApplyState(const ScheduleState& state);
    void OnFileChanged();
    bool DueSoon() const;
    void WhenSafe(std::function<void()> work);
    void RunDeferred();
    void OnStorage(const std::optional<std::string>& failure);
    void OnPrepareForSleep(bool goingToSleep);
    void TellStatus(bool enabled, std::size_t records);
    void Shutdown();
    void CheckIdle();
    ScheduleState Current();
    void PostTopUp();
    void KeepPlansTopped();

    QString path;
    RunOptions options;
    // What the scheduler begins a capture ahead of its start: --lead, and a screen
    // capture's start-up.
    Time::Microseconds lead;
    Time::SystemClock clock;
    QObject context;  // queued checks die with the session
    EventPrinter printer{stdout};
    DropReporter drops{printer, [this] { return controller && controller->RequestInFlight(); },
                       [this] {
                           CheckIdle();
                           PostTopUp();  // occurrences were consumed or dropped
                       }};
    std::shared_ptr<App::RetryingSettingsManager> storage;
    std::shared_ptr<QK::SchedulerSettings> settings;
    // The scheduler holds the controller as its gateway, so the controller outlives it.
    std::shared_ptr<CaptureController> controller;
    std::shared_ptr<QK::Scheduler> scheduler;
    NoticeBoard noticeBoard;
    std::unique_ptr<QK::NotificationHelper> notices;
    std::unique_ptr<SettingsWatcher> watcher;
    std::unique_ptr<SignalRelay> signalRelay;
    std::unique_ptr<ControlServer> control;
    std::shared_ptr<void> sleepSignal;
    struct Asleep {
        QK::RecordTimeList planned;
        std::optional<QK::RecordTime> recording;
    };
    std::optional<Asleep> asleep;  // set while asleep with something to record
    QString readFailure;           // the last one reported
    std::deque<std::function<void()>> deferred;
    QTimer deferTimer;
    QElapsedTimer deferredSince;
    bool idleCheckPosted = false;
    bool shuttingDown = false;
    QTimer topUpTimer;
    bool topUpPosted = false;
    QString plansFailure;  // the last one reported
};

RunSession::RunSession(const ScheduleLocation& location, const RunOptions& options,
                       std::optional<ScreenSetup> screen)
    : path(location.settingsPath),
      options(options),
      lead(screen ? options.lead + SCREEN_START_UP : options.lead) {
    // First: SIGPIPE is to be ignored before anything is printed, and a reader that closes the
    // output stops the run like a signal. Queued, since the failing write may come from
    // inside the controller.
    signalRelay = std::make_unique<SignalRelay>([this](int) { Shutdown(); });
    printer.SetOnOutputClosed([this] {
        QMetaObject::invokeMethod(
            &context, [this] { Shutdown(); }, Qt::QueuedConnection);
    });
    storage = std::make_shared<App::RetryingSettingsManager>(
        std::make_shared<App::IniSettingsManager>(path), STORAGE_RETRY,
        [this](const std::optional<std::string>& failure) { OnStorage(failure); });
    settings = std::make_shared<QK::SchedulerSettings>(storage);
    QK::RecordTimeList stored;
    try {
        stored = settings->GetSchedule();
        settings->IsSchedulerEnabled();
    } catch (const std::logic_error& error) {  // the decoder's
        throw std::runtime_error("the schedule stored in " + path.toStdString() +
                                 " is unreadable (" + error.what() + ")");
    }
    // Records under way are started at once instead of being dropped by the scheduler.
    const QK::RecordTimeList caughtUp = CatchUp(stored, clock.Now(), CATCH_UP_MARGIN);
    if (caughtUp != stored) {
        settings->SetSchedule(caughtUp);
    }
    // Registered before the scheduler exists: its first write drops the records whose time
    // passed while nothing ran, and that is reported too.
    drops.SetKnown(caughtUp);
    settings->RegisterEventHandler(&drops);

    const NoticeChoice noticeChoice = options.notice.value_or(DefaultNoticeChoice());
    auto presenters =
        MakePresenterCreator(noticeChoice, [this](const QString& line) { printer.Notice(line); });
    DesktopNotification::Presenter::Factory::GetInstance().SetCreator(
        noticeChoice == NoticeChoice::None ? presenters : noticeBoard.Watch(std::move(presenters)));

    controller = std::make_shared<CaptureController>(
        printer, options.exec, [this] { CheckIdle(); }, std::move(screen), options.lead);
    scheduler = std::make_shared<QK::Scheduler>(
        settings, std::make_shared<QK::FixedUiSettings>(lead.count() > 0, lead), controller,
        MakePowerManager(options.keepAwake,
                         [this](bool sleepPrevented) { printer.SleepChanged(sleepPrevented); }),
        std::make_shared<Time::SystemClock>(), std::make_shared<Time::QtDurationTimer>());

    controller->Attach(*scheduler);
    scheduler->RegisterEventHandler(controller.get());

    notices = std::make_unique<QK::NotificationHelper>(
        settings, std::make_shared<App::FixedCustomizationManager>("vexlor-schedule"),
        std::make_shared<App::FixedLookAndFeelManager>(QLocale::system().name().toStdString()));

    sleepSignal = WatchSleep([this](bool goingToSleep) { OnPrepareForSleep(goingToSleep); });
    watcher =
        std::make_unique<SettingsWatcher>(path, [this] { WhenSafe([this] { OnFileChanged(); }); });
    deferTimer.setInterval(DEFER_CHECK_MS);
    QObject::connect(&deferTimer, &QTimer::timeout, [this] { RunDeferred(); });
    // Last: from here on other processes hand their edits to this one.
    control = std::make_unique<ControlServer>(
        location.socketPath,
        [this](const QByteArray& request, std::function<void(const QByteArray&)> answer) {
            Serve(request, std::move(answer));
        });

    printer.SchedulerStarted(scheduler->IsEnabled(), scheduler->GetSchedule().size());
    topUpTimer.setInterval(PLAN_TOP_UP_MS);
    QObject::connect(&topUpTimer, &QTimer::timeout, [this] { PostTopUp(); });
    topUpTimer.start();
    WhenSafe([this] { KeepPlansTopped(); });
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

// A request from another process.
void RunSession::Serve(const QByteArray& bytes, std::function<void(const QByteArray&)> answer) {
    const auto request = DecodeRequest(bytes);
    if (!request) {
        answer(EncodeOutcome({EXIT_USAGE,
                              {},
                              QStringLiteral("the running scheduler could not read the request\n"),
                              std::nullopt}));
        return;
    }
    if (request->command == CommandName::Stop) {
        StopRecording(std::move(answer));  // changes no schedule, so it need not wait
        return;
    }
    WhenSafe([this, request = *request, answer = std::move(answer)] {
        try {
            answer(HandleRequest(request));
        } catch (const std::exception& error) {
            // The edit failed, the run goes on.
            answer(EncodeOutcome(
                {EXIT_REFUSED,
                 {},
                 QStringLiteral("the running scheduler failed to carry out the edit: %1\n")
                     .arg(QString::fromLocal8Bit(error.what())),
                 std::nullopt}));
        }
    });
}

// `stop`: the capture ends as at the planned end, so the engine goes on to the next record.
void RunSession::StopRecording(std::function<void(const QByteArray&)> answer) {
    const std::optional<QK::RecordTime> recording = controller->CurrentRecord();
    if (controller->IsIdle()) {
        answer(EncodeOutcome(
            {EXIT_REFUSED, {}, QStringLiteral("nothing is being recorded\n"), std::nullopt}));
        return;
    }
    printer.Line(QStringLiteral("stop requested"));
    controller->Stop([this, recording, answer = std::move(answer)] {
        answer(EncodeOutcome(
            {EXIT_DONE,
             recording ? QStringLiteral("stopped %1\n").arg(DescribeRecord(*recording))
                       : QStringLiteral("stopped the requested recording before it began\n"),
             {},
             std::nullopt}));
        CheckIdle();
    });
}

LiveState RunSession::Live() const {
    LiveState live;
    live.capture = controller->Live();
    live.notices = noticeBoard.Shown();
    const QK::RecordTimeList planned = scheduler->GetSchedule();
    if (scheduler->IsEnabled() && !planned.empty()) {
        live.nextRecord = planned.front();
        live.nextCaptureAt = Core::SaturatingSub(planned.front().startTime, lead);
    }
    return live;
}

// An edit from another process, on the schedule this process runs.
QByteArray RunSession::HandleRequest(const EditRequest& request) {
    const ScheduleState current = Current();
    const EditContext editContext{clock.Now(), controller->CurrentRecord(), Live()};
    EditOutcome outcome = ApplyEdit(current, request, editContext);
    if (!outcome.changed) {
        return EncodeOutcome(outcome);
    }
    printer.ScheduleReloaded(outcome.changed->enabled, outcome.changed->schedule.size());
    ApplyState(*outcome.changed);
    TellStatus(scheduler->IsEnabled(), scheduler->GetSchedule().size());
    if (request.command == CommandName::Add && request.rule.isEmpty()) {
        const QK::RecordTimeList running = scheduler->GetSchedule();
        const bool kept = std::any_of(running.begin(), running.end(), [&](const QK::RecordTime& r) {
            return r.title == request.record.title;
        });
        if (!kept) {
            const QString why =
                editContext.recording
                    ? QStringLiteral("it would begin while %1 is being recorded")
                          .arg(QuoteTitle(editContext.recording->title))
                    : QStringLiteral("it ends before a capture begun %1 ahead could start")
                          .arg(FormatDuration(lead));
            outcome = {EXIT_REFUSED,
                       {},
                       QStringLiteral("the running scheduler could not take %1: %2\n")
                           .arg(DescribeRecord(request.record), why),
                       std::nullopt};
        }
    }
    if (storage->HasPending()) {
        outcome.err += QStringLiteral(
                           "not saved to %1 yet (%2); the running scheduler holds the change and "
                           "saves it when it can\n")
                           .arg(path, QString::fromStdString(storage->Failure().value_or("")));
    }
    return EncodeOutcome(outcome);
}

// Hands a schedule and flag to the scheduler and keeps the settings in step with what it
// made of them, so that nothing it drops stays stored.
void RunSession::ApplyState(const ScheduleState& state) {
    const QK::RecordTimeList schedule = controller->CurrentRecord()
                                            ? state.schedule  // what begins now is dropped anyway
                                            : CatchUp(state.schedule, clock.Now(), CATCH_UP_MARGIN);
    drops.SetKnown(schedule);
    scheduler->SetSchedule(schedule);
    scheduler->SetEnabled(state.enabled);
    // The user's switch holds also while nothing is planned, as it does in the file.
    if (settings->IsSchedulerEnabled() != state.enabled) {
        settings->SetSchedulerEnabled(state.enabled);
    }
    const QK::RecordTimeList running = scheduler->GetSchedule();
    if (settings->GetSchedule() != running) {
        settings->SetSchedule(running);
    }
    WritePlans(*storage, state.plans);
    drops.SetKnown(running);
    CheckIdle();
}

ScheduleState RunSession::Current() {
    return {scheduler->GetSchedule(), settings->IsSchedulerEnabled(), ReadPlans(*storage, path)};
}

// Queued: the scheduler may be in the middle of changing its schedule.
void RunSession::PostTopUp() {
    if (topUpPosted || shuttingDown) {
        return;
    }
    topUpPosted = true;
    QMetaObject::invokeMethod(
        &context,
        [this] {
            topUpPosted = false;
            WhenSafe([this] { KeepPlansTopped(); });
        },
        Qt::QueuedConnection);
}

void RunSession::KeepPlansTopped() {
    try {
        QStringList notes;
        const auto next = TopUpPlans(Current(), clock.Now(), notes);
        plansFailure.clear();
        for (const QString& note : notes) {
            printer.Line(QStringLiteral("plans: %1").arg(note));
        }
        if (next) {
            ApplyState(*next);
        }
    } catch (const std::exception& error) {
        const QString failure = QString::fromLocal8Bit(error.what());
        if (failure != plansFailure) {
            plansFailure = failure;
            printer.Line(QStringLiteral("plans not kept up: %1").arg(failure));
        }
    }
}

bool RunSession::DueSoon() const {
    // While a capture is requested or running, what begins meanwhile is dropped anyway.
    if (!scheduler->IsEnabled() || !controller->IsIdle()) {
        return false;
    }
    const QK::RecordTimeList tasks = scheduler->GetSchedule();
    return !tasks.empty() && tasks.front().startTime <= clock.Now() + DUE_GUARD;
}

// Runs `work`, which hands a new schedule to the scheduler, once that cannot cost the next
// record: at once, or after the scheduler has requested it. In order of arrival.
void RunSession::WhenSafe(std::function<void()> work) {
    if (deferred.empty() && !DueSoon()) {
        work();
        return;
    }
    if (deferred.empty()) {
        deferredSince.start();
        deferTimer.start();
    }
    deferred.push_back(std::move(work));
}

void RunSession::RunDeferred() {
    while (!deferred.empty()) {
        // An edit may itself plan a record that starts at once.
        if (DueSoon() && deferredSince.elapsed() < DEFER_LIMIT_MS) {
            return;
        }
        auto work = std::move(deferred.front());
        deferred.pop_front();
        work();
        deferredSince.start();
    }
    deferTimer.stop();
}

// Someone changed the file, or it went away. This process holds the schedule and edits come
// over the control socket, so a change here is a hand edit, or this process's own write.
void RunSession::OnFileChanged() {
    if (!QFileInfo::exists(path) || storage->HasPending()) {
        // Removed, or storage failed: what this process holds goes back when it can.
        const bool missing = !QFileInfo::exists(path);
        if ((missing ? storage->Rewrite() : storage->Flush()) && missing) {
            printer.Line(QStringLiteral("settings file was gone: wrote the running schedule to %1")
                             .arg(path));
        }
        return;
    }
    const App::RetryingSettingsManager::Snapshot before = storage->Hold();
    try {
        if (!storage->Reload()) {
            readFailure.clear();
            return;
        }
        const ScheduleState stored{settings->GetSchedule(), settings->IsSchedulerEnabled(),
                                   ReadPlans(*storage, path)};
        readFailure.clear();
        printer.ScheduleReloaded(stored.enabled, stored.schedule.size());
        ApplyState(stored);
        TellStatus(scheduler->IsEnabled(), scheduler->GetSchedule().size());
    } catch (const std::exception& error) {
        storage->Restore(before);
        const QString failure = QString::fromLocal8Bit(error.what());
        if (failure != readFailure) {
            readFailure = failure;
            printer.Line(
                QStringLiteral("settings unreadable, kept the running schedule: %1").arg(failure));
        }
    }
}

void RunSession::OnStorage(const std::optional<std::string>& failure) {
    if (failure) {
        printer.Line(QStringLiteral("settings not saved: %1; the running schedule is kept and "
                                    "saving is retried every %2 s")
                         .arg(QString::fromLocal8Bit(failure->c_str()))
                         .arg(STORAGE_RETRY.count()));
    } else {
        printer.Line(QStringLiteral("settings saved again to %1").arg(path));
    }
}

// logind may suspend despite the sleep lock (a closed lid, by default): say so, and on waking
// name what the engine drops for it.
void RunSession::OnPrepareForSleep(bool goingToSleep) {
    const std::optional<QK::RecordTime> recording = controller->CurrentRecord();
    if (goingToSleep) {
        QK::RecordTimeList planned =
            scheduler->IsEnabled() ? scheduler->GetSchedule() : QK::RecordTimeList{};
        asleep.reset();
        if (recording || !planned.empty()) {
            printer.GoingToSleep(recording, planned);
            asleep = Asleep{std::move(planned), recording};
        }
        return;
    }
    if (!asleep) {
        return;
    }
    const Asleep slept = *std::exchange(asleep, std::nullopt);
    // The engine drops a record whose whole span (begun the lead early) passed, and any that
    // fell due while a capture ran on; one that is still under way it starts late.
    const bool busy = slept.recording && recording && recording->title == slept.recording->title;
    const Time::TimePoint now = clock.Now();
    QK::RecordTimeList missed;
    for (const QK::RecordTime& record : slept.planned) {
        const Time::TimePoint start = Core::SaturatingSub(record.startTime, options.lead);
        const bool over =
            record.duration.count() != 0 && now >= Core::SaturatingAdd(start, record.duration);
        if (now >= start && (over || busy)) {
            missed.push_back(record);
        }
    }
    printer.WokeUp(missed);
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

int Refuse(const std::string& message) {
    Error(message.c_str());
    return EXIT_REFUSED;
}

}  // namespace

int RunScheduler(const ScheduleLocation& location, const RunOptions& options) {
    // Refused now rather than at the first recording's start.
    std::optional<ScreenSetup> screen;
    if (options.capture == CaptureKind::Screen) {
        QString error;
        screen = PrepareScreenCapture(options.outputDir, options.audio, error);
        if (!screen) {
            return Refuse(error.toStdString());
        }
    }
    const QString folder = QFileInfo(location.settingsPath).absolutePath();
    if (!QDir().mkpath(folder)) {
        return Refuse("cannot create the settings folder " + folder.toStdString());
    }
    std::optional<FileLock> runLock;
    try {
        runLock = FileLock::TryTake(location.runLockPath, true);
    } catch (const std::exception& error) {
        return Refuse(std::string("cannot take the run lock: ") + error.what());
    }
    if (!runLock) {
        // Two runners on one schedule would both carry out every recording.
        return Refuse("another run is active on " + location.settingsPath.toStdString() + " (pid " +
                      std::to_string(FileLock::HolderPid(location.runLockPath)) + ")");
    }
    try {
        std::unique_ptr<RunSession> session;
        {
            // Edits that began before this run finish first; later ones come over the socket.
            FileLock editLock = FileLock::Take(location.editLockPath, EDIT_LOCK_PATIENCE);
            session = std::make_unique<RunSession>(location, options, std::move(screen));
        }
        return QCoreApplication::exec();
    } catch (const std::exception& error) {
        return Refuse(error.what());
    }
}

}  // namespace Vexlor::ScheduleTool
