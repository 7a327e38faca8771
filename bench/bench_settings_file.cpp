#include <chrono>
#include <memory>
#include <thread>

#include <benchmark/benchmark.h>
#include <QFile>
#include <QSaveFile>
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

// 10 000 records, read from a file that nobody changed since the last read: once the file
// is older than the manager's trust margin, no parse and no decode.
void BM_SettingsFileGetScheduleUnchanged(benchmark::State& state) {
    SettingsFile file;
    file.settings.SetSchedule(MakeSchedule(10000, 0));
    std::this_thread::sleep_for(App::IniSettingsManager::TRUST_AFTER +
                                std::chrono::milliseconds(100));
    for (auto _ : state) {
        QK::RecordTimeList schedule = file.settings.GetSchedule();
        benchmark::DoNotOptimize(schedule.data());
    }
}

// The same read after another writer replaced the file (a temporary file renamed over it,
// as QSettings writes), alternating between two schedules of 10 000 records.
void BM_SettingsFileGetScheduleChanged(benchmark::State& state) {
    SettingsFile file;
    const QString path = file.dir.filePath(QStringLiteral("bench.ini"));
    QByteArray contents[2];
    for (int variant : {0, 1}) {
        file.settings.SetSchedule(MakeSchedule(10000, variant + 1));
        QFile stored(path);
        stored.open(QIODevice::ReadOnly);
        contents[variant] = stored.readAll();
    }
    int next = 0;
    for (auto _ : state) {
        state.PauseTiming();
        QSaveFile writer(path);
        writer.open(QIODevice::WriteOnly);
        writer.write(contents[next]);
        writer.commit();
        next ^= 1;
        state.ResumeTiming();
        QK::RecordTimeList schedule = file.settings.GetSchedule();
        benchmark::DoNotOptimize(schedule.data());
    }
}

BENCHMARK(BM_SettingsFileGetSchedule)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SettingsFileSetSchedule)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SettingsFileGetScheduleUnchanged)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SettingsFileGetScheduleChanged)->Unit(benchmark::kMicrosecond);

}  // namespace
