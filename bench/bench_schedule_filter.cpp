#include <algorithm>
#include <memory>
#include <random>

#include <benchmark/benchmark.h>
#include <glog/logging.h>

#include "Scheduler/SchedulerImpl.h"
#include "fakes/FakeClock.h"
#include "fakes/FakeServices.h"

namespace {

using namespace Vexlor;

constexpr long long NOW = 1'700'000'000'000'000;

// 10 000 records in random order: a fifth in the past, and about one in ten sharing its
// start time with another record.
QK::RecordTimeList MakeSchedule() {
    std::mt19937_64 random(42);
    std::uniform_int_distribution<long long> offset(-2'000'000'000LL, 8'000'000'000LL);
    QK::RecordTimeList schedule(10000);
    for (size_t i = 0; i < schedule.size(); ++i) {
        auto& record = schedule[i];
        record.title = QStringLiteral("Recording %1").arg(i);
        const long long start = i % 10 == 9 ? schedule[i - 1].startTime.time_since_epoch().count()
                                            : NOW + offset(random);
        record.startTime = Time::TimePoint(Time::Microseconds(start));
        record.duration = Time::Microseconds(60'000'000);
    }
    std::shuffle(schedule.begin(), schedule.end(), random);
    return schedule;
}

// Keeps glog quiet: the duplicate warning would otherwise be written on every iteration.
struct QuietLogs {
    QuietLogs() { FLAGS_minloglevel = 2; }
    ~QuietLogs() { FLAGS_minloglevel = 0; }
};

void BM_GetFilteredSchedule(benchmark::State& state) {
    QuietLogs quiet;
    const QK::RecordTimeList schedule = MakeSchedule();
    auto clock = std::make_shared<Testing::FakeClock>(Testing::AtMicros(NOW));
    QK::Scheduler::Impl engine(std::make_shared<Testing::FakeSchedulerSettings>(),
                               std::make_shared<Testing::FakeUiSettings>(),
                               std::make_shared<Testing::FakeGateway>(),
                               std::make_shared<Testing::FakePowerManager>(), clock,
                               std::make_shared<Testing::FakeTimer>());
    for (auto _ : state) {
        QK::RecordTimeList result = engine.GetFilteredSchedule(schedule);
        benchmark::DoNotOptimize(result.data());
    }
}

// Baseline: copy, std::sort, std::unique and std::copy_if on the same data.
void BM_SortUniqueCopyIf(benchmark::State& state) {
    const QK::RecordTimeList schedule = MakeSchedule();
    const Time::TimePoint now = Testing::AtMicros(NOW);
    for (auto _ : state) {
        QK::RecordTimeList copy = schedule;
        std::sort(copy.begin(), copy.end(),
                  [](const auto& a, const auto& b) { return a.startTime < b.startTime; });
        const auto end = std::unique(copy.begin(), copy.end(), [](const auto& a, const auto& b) {
            return a.startTime == b.startTime;
        });
        QK::RecordTimeList result;
        std::copy_if(copy.begin(), end, std::back_inserter(result),
                     [now](const auto& record) { return record.startTime >= now; });
        benchmark::DoNotOptimize(result.data());
    }
}

BENCHMARK(BM_GetFilteredSchedule)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SortUniqueCopyIf)->Unit(benchmark::kMicrosecond);

}  // namespace
