#pragma once

#include <functional>
#include <memory>
#include <optional>

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QTimer>

#include "Scheduler/NotificationHelper.h"
#include "Scheduler/Scheduler.h"
#include "Scheduler/SchedulerSettings.h"
#include "capture/CaptureController.h"
#include "capture/ScreenCapture.h"
#include "interfaces/Clock.h"
#include "run/DropReporter.h"
#include "run/EditQueue.h"
#include "run/EventPrinter.h"
#include "run/NoticeBoard.h"
#include "run/RunOptions.h"
#include "run/SignalRelay.h"
#include "run/SleepReport.h"
#include "schedule/EditRequest.h"
#include "store/ControlChannel.h"
#include "store/RetryingSettingsManager.h"
#include "store/ScheduleLocation.h"
#include "store/SettingsWatcher.h"

namespace Vexlor::ScheduleTool {

// The one writer of a schedule while `run` is active: wires the scheduler, its settings, the
// notices and the platform services to the capture controller, takes edits from other
// processes over the control socket, and follows hand edits of the file.
class RunSession {
public:
    RunSession(const ScheduleLocation& location, const RunOptions& options,
               std::optional<ScreenSetup> screen);
    ~RunSession();

    RunSession(const RunSession&) = delete;
    RunSession& operator=(const RunSession&) = delete;

private:
    void LoadStored();
    void WireScheduler(std::optional<ScreenSetup> screen);
    void StartServing(const QString& socketPath);

    // Requests over the control socket (RunRequests.cpp).
    void Serve(const QByteArray& bytes, std::function<void(const QByteArray&)> answer);
    QByteArray HandleRequest(const EditRequest& request);
    void StopRecording(std::function<void(const QByteArray&)> answer);
    LiveState Live() const;

    // The schedule, the file and the plans (RunStorage.cpp).
    ScheduleState Current();
    // Returns the records of `state` that the scheduler did not take.
    QK::RecordTimeList ApplyState(const ScheduleState& state);
    void OnFileChanged();
    void OnStorage(const std::optional<std::string>& failure);
    void PostTopUp();
    void KeepPlansTopped();

    bool DueSoon() const;
    void OnPrepareForSleep(bool goingToSleep);
    void TellStatus(bool enabled, std::size_t records);
    void Shutdown();
    void CheckIdle();

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
    SleepReport sleepReport;
    EditQueue edits;
    std::shared_ptr<RetryingSettingsManager> storage;
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
    QString readFailure;  // the last one reported
    bool idleCheckPosted = false;
    bool shuttingDown = false;
    QTimer topUpTimer;
    bool topUpPosted = false;
    QString plansFailure;  // the last one reported
};

}  // namespace Vexlor::ScheduleTool
