// An application on the installed library: it publishes a registry, keeps its settings in a
// file, wires the platform services into a Scheduler, lets one scheduled recording start on
// its event loop, and links the D-Bus back-ends without QtDBus of its own.
#include <chrono>
#include <cstdio>
#include <memory>

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QTimer>

#include <Scheduler/Scheduler.h>
#include <Scheduler/SchedulerSettings.h>
#include <interfaces/InstanceRegistry.h>
#include <platform/FixedUiSettings.h>
#include <platform/IniSettingsManager.h>
#include <platform/QtDurationTimer.h>
#include <platform/QueuedGateway.h>
#include <platform/StatePowerManager.h>
#ifdef CONSUMER_WITH_DBUS
#include <platform/DBusNotificationPresenter.h>
#include <platform/LogindPowerManager.h>
#endif

using namespace Vexlor;

struct StartedObserver : QK::ISchedulerObserver {
    void OnScheduledCaptureStarted(const QK::RecordTime& record) override { title = record.title; }
    QString title;
};

int main(int argc, char** argv) {
    using namespace std::chrono_literals;
    QCoreApplication app(argc, argv);
    QK::InstanceRegistry registry;
    QK::ScopedInstanceRegistry scope(&registry);
    QTemporaryDir dir;

    auto settings = std::make_shared<QK::SchedulerSettings>(
        std::make_shared<App::IniSettingsManager>(dir.filePath(QStringLiteral("app.ini"))));
    const QK::RecordTime record{QStringLiteral("Demo"), Time::SystemClock().Now() + 200ms, 5s};
    settings->SetSchedule({record});
    settings->SetSchedulerEnabled(true);

    auto gateway = std::make_shared<ExternalStimulus::QueuedGateway>();
    gateway->RegisterHandler("RECORD_SCHEDULE", [&app](ExternalStimulus::Stimulus stimulus) {
        stimulus.callback();
        app.quit();
    });
    auto power = std::make_shared<App::StatePowerManager>();
    QK::Scheduler scheduler(settings, std::make_shared<QK::FixedUiSettings>(false, 0us), gateway,
                            power, std::make_shared<Time::SystemClock>(),
                            std::make_shared<Time::QtDurationTimer>());
    StartedObserver observer;
    scheduler.RegisterEventHandler(&observer);
    bool ok = registry.Find<QK::IScheduler>() == &scheduler && scheduler.IsEnabled() &&
              power->IsSleepPrevented();

    QTimer::singleShot(5000, &app, &QCoreApplication::quit);
    app.exec();
    ok = ok && observer.title == record.title && !scheduler.IsEnabled() &&
         settings->GetSchedule().empty() && !settings->IsSchedulerEnabled();
#ifdef CONSUMER_WITH_DBUS
    // Taken, not called: the result would depend on the machine's buses.
    bool (*volatile logindCheck)(std::chrono::milliseconds) = &App::LogindPowerManager::IsAvailable;
    bool (*volatile presenterCheck)(std::chrono::milliseconds) =
        &DesktopNotification::DBusNotificationPresenter::IsAvailable;
    ok = ok && logindCheck != nullptr && presenterCheck != nullptr;
#endif
    std::puts(ok ? "consumer ok" : "consumer FAILED");
    return ok ? 0 : 1;
}
