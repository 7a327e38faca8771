// Measures, on the real event loop with the QTimer-based timer and the queued gateway, the
// time from each record's start to the moment its stimulus reaches the application.
//
//   start_latency [--records N] [--busy]
//
// --busy keeps another thread spinning for the whole run, to load the second core.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include <QCoreApplication>

#include "Scheduler/Scheduler.h"
#include "core/EventHandlerList.h"
#include "platform/FixedUiSettings.h"
#include "platform/QtDurationTimer.h"
#include "platform/QueuedGateway.h"
#include "platform/StatePowerManager.h"

namespace {

using namespace Vexlor;
using namespace std::chrono_literals;

class MemorySettings : public QK::ICaptureSchedulerSettings {
public:
    void RegisterEventHandler(QK::ICaptureSchedulerSettingsObserver*) override {}
    void UnregisterEventHandler(QK::ICaptureSchedulerSettingsObserver*) override {}
    bool IsSchedulerEnabled() const override { return enabled; }
    void SetSchedulerEnabled(bool value) override { enabled = value; }
    QK::RecordTimeList GetSchedule() const override { return schedule; }
    void SetSchedule(const QK::RecordTimeList& value) override { schedule = value; }
    bool enabled = false;
    QK::RecordTimeList schedule;
};

double Percentile(std::vector<double> sorted, double p) {
    const size_t index = std::min(sorted.size() - 1, static_cast<size_t>(p * sorted.size()));
    return sorted[index];
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    int records = 200;
    bool busy = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--busy") == 0) {
            busy = true;
        } else if (std::strcmp(argv[i], "--records") == 0 && i + 1 < argc) {
            records = std::max(1, std::atoi(argv[++i]));
        }
    }

    std::atomic<bool> stop{false};
    std::thread spinner;
    if (busy) {
        spinner = std::thread([&stop] {
            volatile unsigned long long counter = 0;
            while (!stop.load(std::memory_order_relaxed)) {
                counter = counter + 1;
            }
        });
    }

    // Starts 150 to 250 ms apart, so each record meets the 100 ms poll at another phase.
    auto clock = std::make_shared<Time::SystemClock>();
    auto settings = std::make_shared<MemorySettings>();
    std::mt19937 random(7);
    std::uniform_int_distribution<long long> gap(150'000, 250'000);
    Time::TimePoint start = clock->Now() + 500ms;
    for (int i = 0; i < records; ++i) {
        QK::RecordTime record;
        record.title = QStringLiteral("r%1").arg(i);
        record.startTime = start;
        settings->schedule.push_back(record);
        start += Time::Microseconds(gap(random));
    }
    settings->enabled = true;

    auto gateway = std::make_shared<ExternalStimulus::QueuedGateway>();
    std::unique_ptr<QK::Scheduler> scheduler;
    std::vector<double> latenciesMs;
    class Observer : public QK::ISchedulerObserver {
    public:
        void OnScheduledCaptureStarted(const QK::RecordTime& record) override { last = record; }
        QK::RecordTime last;
    } observer;

    gateway->RegisterHandler("RECORD_SCHEDULE", [&](ExternalStimulus::Stimulus stimulus) {
        const Time::TimePoint arrived = clock->Now();
        // The application starts and at once ends a capture, so polling resumes.
        scheduler->BeforeCaptureStarted(nullptr, {}, {});
        stimulus.callback();
        latenciesMs.push_back(
            std::chrono::duration<double, std::milli>(arrived - observer.last.startTime).count());
        scheduler->AfterCaptureStopped(nullptr);
        if (!scheduler->IsEnabled()) {
            app.quit();
        }
    });

    scheduler =
        std::make_unique<QK::Scheduler>(settings, std::make_shared<QK::FixedUiSettings>(false, 0us),
                                        gateway, std::make_shared<App::StatePowerManager>(), clock,
                                        std::make_shared<Time::QtDurationTimer>());
    scheduler->RegisterEventHandler(&observer);
    app.exec();
    scheduler.reset();

    stop = true;
    if (spinner.joinable()) {
        spinner.join();
    }
    if (latenciesMs.empty()) {
        std::fprintf(stderr, "no record was started\n");
        return 1;
    }
    std::sort(latenciesMs.begin(), latenciesMs.end());
    std::printf(
        "%s: %zu of %d records started; latency ms: p50 %.2f  p99 %.2f  max %.2f  min %.2f\n",
        busy ? "busy" : "idle", latenciesMs.size(), records, Percentile(latenciesMs, 0.50),
        Percentile(latenciesMs, 0.99), latenciesMs.back(), latenciesMs.front());
    return latenciesMs.size() == static_cast<size_t>(records) ? 0 : 1;
}
