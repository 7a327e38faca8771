// An application embedding the installed library: it publishes a registry and reads the
// wall clock through the platform layer, checks a record's value semantics, and links the
// D-Bus back-ends without needing QtDBus itself.
#include <cstdio>

#include <Scheduler/Scheduler.h>
#include <interfaces/InstanceRegistry.h>
#include <interfaces/RecordTime.h>
#ifdef CONSUMER_WITH_DBUS
#include <platform/DBusNotificationPresenter.h>
#include <platform/LogindPowerManager.h>
#endif

int main() {
    Vexlor::QK::InstanceRegistry registry;
    Vexlor::QK::ScopedInstanceRegistry scope(&registry);

    Vexlor::Time::SystemClock clock;
    Vexlor::QK::RecordTime record;
    record.title = QStringLiteral("Demo");
    record.startTime = clock.Now();
    const Vexlor::QK::RecordTimeList schedule{record};

    bool ok = Vexlor::QK::InstanceRegistry::Instance() == &registry && schedule.front() == record &&
              record.tag == -1;
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
