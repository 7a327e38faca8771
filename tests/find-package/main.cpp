// An application embedding the installed library: it publishes a registry, wires the
// platform services into a Scheduler, lets one scheduled recording start on its event
// loop, and links the D-Bus back-ends without needing QtDBus itself.
#include <chrono>
#include <cstdio>
#include <memory>

#include <QCoreApplication>
#include <QTimer>

#include <Scheduler/Scheduler.h>
#include <core/EventHandlerList.h>
#include <interfaces/InstanceRegistry.h>
#include <interfaces/RecordTime.h>
#ifdef CONSUMER_WITH_DBUS
#include <platform/DBusNotificationPresenter.h>
#include <platform/LogindPowerManager.h>
#endif
#include <platform/FixedUiSettings.h>
#include <platform/QtDurationTimer.h>
#include <platform/QueuedGateway.h>
#include <platform/StatePowerManager.h>

namespace {

using namespace Vexlor;

// Settings kept in memory; a real application persists them.
class MemorySettings : public QK::ICaptureSchedulerSettings {
public:
    void RegisterEventHandler(QK::ICaptureSchedulerSettingsObserver* handler) override {
        observers.RegisterEventHandler(handler);
    }
    void UnregisterEventHandler(QK::ICaptureSchedulerSettingsObserver* handler) override {
        observers.UnregisterEventHandler(handler);
    }
    bool IsSchedulerEnabled() const override { return enabled; }
    void SetSchedulerEnabled(bool value) override {
        if (value != enabled) {
            enabled = value;
            observers.PerformAll(&QK::ICaptureSchedulerSettingsObserver::OnSchedulerEnabledChanged,
                                 value);
        }
    }
    QK::RecordTimeList GetSchedule() const override { return schedule; }
    void SetSchedule(const QK::RecordTimeList& value) override {
        if (value != schedule) {
            schedule = value;
            observers.PerformAll(&QK::ICaptureSchedulerSettingsObserver::OnScheduleChanged, value);
        }
    }

    bool enabled = false;
    QK::RecordTimeList schedule;

private:
    Core::EventHandlerList<QK::ICaptureSchedulerSettingsObserver> observers;
};

class StartedObserver : public QK::ISchedulerObserver {
public:
    void OnScheduledCaptureStarted(const QK::RecordTime& record) override { title = record.title; }
    QString title;
};

}  // namespace

int main(int argc, char** argv) {
    using namespace std::chrono_literals;
    QCoreApplication app(argc, argv);
    QK::InstanceRegistry registry;
    QK::ScopedInstanceRegistry scope(&registry);

    auto clock = std::make_shared<Time::SystemClock>();
    auto settings = std::make_shared<MemorySettings>();
    QK::RecordTime record;
    record.title = QStringLiteral("Demo");
    record.startTime = clock->Now() + 200ms;
    record.duration = 5s;
    settings->schedule = {record};
    settings->enabled = true;

    auto gateway = std::make_shared<ExternalStimulus::QueuedGateway>();
    gateway->RegisterHandler("RECORD_SCHEDULE", [&app](ExternalStimulus::Stimulus stimulus) {
        stimulus.callback();
        app.quit();
    });
    auto power = std::make_shared<App::StatePowerManager>();

    QK::Scheduler scheduler(settings, std::make_shared<QK::FixedUiSettings>(false, 0us), gateway,
                            power, clock, std::make_shared<Time::QtDurationTimer>());
    StartedObserver observer;
    scheduler.RegisterEventHandler(&observer);
    const bool published =
        registry.Find<QK::IScheduler>() == static_cast<QK::IScheduler*>(&scheduler);
    const bool polling = scheduler.IsEnabled() && power->IsSleepPrevented();

    QTimer::singleShot(5000, &app, &QCoreApplication::quit);
    app.exec();

    bool ok = published && polling && observer.title == record.title && !scheduler.IsEnabled() &&
              settings->schedule.empty() && !settings->enabled;
#ifdef CONSUMER_WITH_DBUS
    // Taken, not called: the result would depend on the machine's buses.
    bool (*volatile logindCheck)(std::chrono::milliseconds) =
        &Vexlor::App::LogindPowerManager::IsAvailable;
    bool (*volatile presenterCheck)(std::chrono::milliseconds) =
        &Vexlor::DesktopNotification::DBusNotificationPresenter::IsAvailable;
    ok = ok && logindCheck != nullptr && presenterCheck != nullptr;
#endif
    std::puts(ok ? "consumer ok" : "consumer FAILED");
    return ok ? 0 : 1;
}
