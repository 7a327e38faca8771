#include <benchmark/benchmark.h>
#include <QDataStream>

#include "settings/ByteArrayConverter.h"

namespace {

using namespace Vexlor;

QK::RecordTimeList MakeSchedule(long long count) {
    QK::RecordTimeList schedule(static_cast<size_t>(count));
    for (long long i = 0; i < count; ++i) {
        auto& record = schedule[static_cast<size_t>(i)];
        record.title = QStringLiteral("Weekly meeting %1").arg(i);
        record.tag = static_cast<int>(i);
        record.startTime = Time::TimePoint(Time::Microseconds(1'700'000'000'000'000 + i * 1000));
        record.duration = Time::Microseconds(1'800'000'000);
        record.mode = static_cast<QK::RecordMode>(i % 3);
    }
    return schedule;
}

void BM_Encode(benchmark::State& state) {
    const QK::RecordTimeList schedule = MakeSchedule(state.range(0));
    for (auto _ : state) {
        std::vector<unsigned char> bytes = App::ByteArrayConverter<QK::RecordTimeList>()(schedule);
        benchmark::DoNotOptimize(bytes.data());
    }
}

// Baseline: the same fields written with a bare QDataStream into the same containers.
void BM_EncodeBaseline(benchmark::State& state) {
    const QK::RecordTimeList schedule = MakeSchedule(state.range(0));
    for (auto _ : state) {
        QByteArray data;
        {
            QDataStream stream(&data, QIODevice::WriteOnly);
            stream << static_cast<int>(schedule.size());
            for (const auto& record : schedule) {
                stream << record.title << record.tag
                       << static_cast<long long>(record.startTime.time_since_epoch().count())
                       << static_cast<long long>(record.duration.count())
                       << static_cast<int>(record.mode);
            }
        }
        std::vector<unsigned char> bytes(data.constBegin(), data.constEnd());
        benchmark::DoNotOptimize(bytes.data());
    }
}

void BM_Decode(benchmark::State& state) {
    const std::vector<unsigned char> bytes =
        App::ByteArrayConverter<QK::RecordTimeList>()(MakeSchedule(state.range(0)));
    for (auto _ : state) {
        QK::RecordTimeList schedule = App::ByteArrayConverter<QK::RecordTimeList>()(bytes);
        benchmark::DoNotOptimize(schedule.data());
    }
}

// Baseline: the same fields read with a bare QDataStream into the same containers.
void BM_DecodeBaseline(benchmark::State& state) {
    const std::vector<unsigned char> bytes =
        App::ByteArrayConverter<QK::RecordTimeList>()(MakeSchedule(state.range(0)));
    for (auto _ : state) {
        QByteArray data(reinterpret_cast<const char*>(bytes.data()),
                        static_cast<int>(bytes.size()));
        QDataStream stream(&data, QIODevice::ReadOnly);
        int count = 0;
        stream >> count;
        QK::RecordTimeList schedule(static_cast<size_t>(count));
        for (auto& record : schedule) {
            long long start = 0;
            long long duration = 0;
            int mode = 0;
            stream >> record.title >> record.tag >> start >> duration >> mode;
            record.startTime = Time::TimePoint(Time::Microseconds(start));
            record.duration = Time::Microseconds(duration);
            record.mode = static_cast<QK::RecordMode>(mode);
        }
        benchmark::DoNotOptimize(schedule.data());
    }
}

BENCHMARK(BM_Encode)->Arg(1)->Arg(100)->Arg(10000);
BENCHMARK(BM_EncodeBaseline)->Arg(1)->Arg(100)->Arg(10000);
BENCHMARK(BM_Decode)->Arg(1)->Arg(100)->Arg(10000);
BENCHMARK(BM_DecodeBaseline)->Arg(1)->Arg(100)->Arg(10000);

}  // namespace
