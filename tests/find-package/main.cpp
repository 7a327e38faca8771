// An application embedding the installed library: it publishes a registry and reads the
// wall clock through the platform layer, and checks a record's value semantics.
#include <cstdio>

#include <Scheduler/Scheduler.h>
#include <interfaces/InstanceRegistry.h>
#include <interfaces/RecordTime.h>

int main() {
    Vexlor::QK::InstanceRegistry registry;
    Vexlor::QK::ScopedInstanceRegistry scope(&registry);

    Vexlor::Time::SystemClock clock;
    Vexlor::QK::RecordTime record;
    record.title = QStringLiteral("Demo");
    record.startTime = clock.Now();
    const Vexlor::QK::RecordTimeList schedule{record};

    const bool ok = Vexlor::QK::InstanceRegistry::Instance() == &registry &&
                    schedule.front() == record && record.tag == -1;
    std::puts(ok ? "consumer ok" : "consumer FAILED");
    return ok ? 0 : 1;
}
