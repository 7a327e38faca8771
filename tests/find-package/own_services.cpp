// An application that brings its own services instead of the package's stand-ins: settings in
// memory, a clock and a timer that it drives itself, a gateway and a power manager that record
// (the tests' fakes, written against the installed interfaces alone). It links
// Vexlor::Scheduler alone, which brings the interfaces and the host's core, lets one scheduled
// recording start, and checks that the stand-in library was never loaded.
#include <link.h>

#include <cstdio>
#include <cstring>

#include <Scheduler/Scheduler.h>
#include <Scheduler/SchedulerSettings.h>
#include <interfaces/InstanceRegistry.h>

#include "fakes/FakeClock.h"
#include "fakes/FakeServices.h"

using namespace Vexlor;

struct StartedObserver : QK::ISchedulerObserver {
    void OnScheduledCaptureStarted(const QK::RecordTime& record) override { title = record.title; }
    QString title;
};

bool IsLoaded(const char* library) {
    // The first non-zero answer of the callback ends the walk and is returned.
    return dl_iterate_phdr(
               [](dl_phdr_info* info, std::size_t, void* name) -> int {
                   return info->dlpi_name != nullptr &&
                          std::strstr(info->dlpi_name, static_cast<const char*>(name)) != nullptr;
               },
               const_cast<char*>(library)) != 0;
}

int main() {
    QK::InstanceRegistry registry;
    QK::ScopedInstanceRegistry scope(&registry);
    auto store = std::make_shared<Testing::FakeSettingsManager>();
    auto settings = std::make_shared<QK::SchedulerSettings>(store);
    const QK::RecordTime record{QStringLiteral("Own services"), Testing::AtMicros(60000000),
                                Time::Microseconds(5000000)};
    settings->SetSchedule({record});
    settings->SetSchedulerEnabled(true);
    const bool stored = store->contains("QK/Scheduler/schedule") &&
                        store->getBool("QK/Scheduler/scheduler_enabled", false);

    auto clock = std::make_shared<Testing::FakeClock>();
    auto timer = std::make_shared<Testing::FakeTimer>();
    auto gateway = std::make_shared<Testing::FakeGateway>();
    auto power = std::make_shared<Testing::FakePowerManager>();
    QK::Scheduler scheduler(settings, std::make_shared<Testing::FakeUiSettings>(), gateway, power,
                            clock, timer);
    StartedObserver observer;
    scheduler.RegisterEventHandler(&observer);
    const bool polling = registry.Find<QK::IScheduler>() == &scheduler && scheduler.IsEnabled() &&
                         !power->calls.empty() && power->calls.back() == "PreventSleep";

    clock->now = record.startTime;
    timer->Fire();
    const bool requested = gateway->sent.size() == 1;
    if (requested) {
        gateway->sent[0].callback();
    }
    const bool ran = requested && observer.title == record.title && !scheduler.IsEnabled() &&
                     settings->GetSchedule().empty() &&
                     !store->getBool("QK/Scheduler/scheduler_enabled", true);
    // The host core must be seen, or the search proves nothing about the stand-ins.
    const bool layered = IsLoaded("libvexlor-host-core.so") && !IsLoaded("libvexlor-platform.so");
    const bool ok = stored && polling && ran && layered;
    std::printf("own services %s (stored %d, polling %d, ran %d, without stand-ins %d)\n",
                ok ? "ok" : "FAILED", stored, polling, ran, layered);
    return ok ? 0 : 1;
}
