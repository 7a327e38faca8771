#include <memory>

#include <benchmark/benchmark.h>
#include <QTemporaryDir>

#include "Scheduler/SchedulerSettings.h"
#include "platform/IniSettingsManager.h"

namespace {

using namespace Vexlor;

QK::RecordTimeList MakeSchedule(int count, int variant) {
    QK::RecordTimeList schedule(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        auto& record = schedule[static_cast<size_t>(i)];
        record.title = QStringLiteral("Recording %1").arg(i);
        record.tag = variant;
        record.startTime =
            Time::TimePoint(Time::Microseconds(1'700'000'000'000'000 + i * 3'600'000'000LL));
        record.duration = Time::Microseconds(1'800'000'000);
    }
    return schedule;
}

struct SettingsFile {
    QTemporaryDir dir;
    QK::SchedulerSettings settings{
        std::make_shared<App::IniSettingsManager>(dir.filePath(QStringLiteral("bench.ini")))};
};

void BM_SettingsFileGetSchedule(benchmark::State& state) {
    SettingsFile file;
    file.settings.SetSchedule(MakeSchedule(100, 0));
    for (auto _ : state) {
        QK::RecordTimeList schedule = file.settings.GetSchedule();
        benchmark::DoNotOptimize(schedule.data());
    }
}

// Alternates between two schedules, so that every call really writes to disk.
void BM_SettingsFileSetSchedule(benchmark::State& state) {
    SettingsFile file;
    const QK::RecordTimeList schedules[] = {MakeSchedule(100, 1), MakeSchedule(100, 2)};
    int next = 0;
    for (auto _ : state) {
        file.settings.SetSchedule(schedules[next]);
        next ^= 1;
    }
}

BENCHMARK(BM_SettingsFileGetSchedule)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SettingsFileSetSchedule)->Unit(benchmark::kMicrosecond);

}  // namespace
