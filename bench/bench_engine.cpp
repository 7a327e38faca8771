#include <memory>

#include <benchmark/benchmark.h>

#include "Scheduler/SchedulerImpl.h"
#include "fakes/FakeClock.h"
#include "fakes/FakeServices.h"

namespace {

using namespace Vexlor;

// Re-arming costs only what the engine itself does: no allocation on the timer's side.
class NullTimer : public Time::IDurationTimer {
public:
    using Time::IDurationTimer::Start;
    Time::TimerId* Start(const Time::Microseconds&, Callback callback) override {
        benchmark::DoNotOptimize(callback);
        return &id;
    }
    void Stop(Time::TimerId*) override {}
    Time::TimerId id;
};

// One expiry while nothing is due: clock read, lead-time query, copy of the front record
// and a re-arm.
void BM_EngineIdleExpiry(benchmark::State& state) {
    auto clock = std::make_shared<Testing::FakeClock>(Testing::AtMicros(1'000'000'000));
    auto ui = std::make_shared<Testing::FakeUiSettings>();
    ui->leadEnabled = true;
    ui->lead = Time::Microseconds(5'000'000);
    QK::Scheduler::Impl engine(std::make_shared<Testing::FakeSchedulerSettings>(), ui,
                               std::make_shared<Testing::FakeGateway>(),
                               std::make_shared<Testing::FakePowerManager>(), clock,
                               std::make_shared<NullTimer>());
    QK::RecordTime record;
    record.title = QStringLiteral("Tomorrow's recording");
    record.startTime = Testing::AtMicros(1'000'000'000 + 86'400'000'000LL);
    record.duration = Time::Microseconds(3'600'000'000LL);
    engine.SetScheduleAndEnable({record}, true);
    for (auto _ : state) {
        engine.timerId = nullptr;  // the expiring timer has finished
        engine.OnTimeout(Time::ITimer::FinishReason::Elapsed);
    }
    if (engine.timerId == nullptr || !engine.enabled) {
        state.SkipWithError("the engine did not re-arm");
    }
}

BENCHMARK(BM_EngineIdleExpiry);

}  // namespace
