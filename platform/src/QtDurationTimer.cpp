#include "platform/QtDurationTimer.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <utility>

#include <QThread>
#include <QTimer>

#include "core/Saturating.h"

namespace Vexlor::Time {

namespace {

long long SteadyNowMicros() {
    return std::chrono::duration_cast<Microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Milliseconds for the next leg: rounded up so a leg never ends before the deadline, and
// capped at what QTimer's int interval can hold.
int NextLegMillis(long long remainingMicros) {
    if (remainingMicros <= 0) {
        return 0;
    }
    const long long millis = remainingMicros / 1000 + (remainingMicros % 1000 != 0 ? 1 : 0);
    return static_cast<int>(std::min<long long>(millis, std::numeric_limits<int>::max()));
}

}  // namespace

struct QtDurationTimer::Armed {
    TimerId id;
    QTimer timer;
    Callback callback;
    long long deadlineMicros = 0;  // on the steady clock, which QTimer also runs on
    bool active = false;
};

QtDurationTimer::QtDurationTimer() = default;

QtDurationTimer::~QtDurationTimer() = default;

TimerId* QtDurationTimer::Start(const Microseconds& duration, Callback callback) {
    Armed* entry = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex);
        // A QTimer only runs on its own thread.
        for (const auto& idle : entries) {
            if (!idle->active && idle->timer.thread() == QThread::currentThread()) {
                entry = idle.get();
                break;
            }
        }
        if (entry == nullptr) {
            entry = entries.emplace_back(std::make_unique<Armed>()).get();
            entry->timer.setSingleShot(true);
            entry->timer.setTimerType(Qt::PreciseTimer);
            QObject::connect(&entry->timer, &QTimer::timeout,
                             [this, entry] { OnLegElapsed(entry); });
        }
        entry->active = true;
        entry->id.value = ++lastId;
        entry->callback = std::move(callback);
        entry->deadlineMicros = Core::SaturatingAdd(SteadyNowMicros(), duration.count());
    }
    entry->timer.start(NextLegMillis(duration.count()));
    return &entry->id;
}

void QtDurationTimer::Stop(TimerId* id) {
    Callback dropped;
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (const auto& entry : entries) {
            if (entry->active && &entry->id == id) {
                entry->active = false;
                entry->timer.stop();
                dropped = std::move(entry->callback);
                break;
            }
        }
    }
    // Destroyed outside the lock; the callback is dropped without being called.
}

void QtDurationTimer::OnLegElapsed(Armed* entry) {
    Callback callback;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!entry->active) {
            return;
        }
        const long long remaining = Core::SaturatingSub(entry->deadlineMicros, SteadyNowMicros());
        if (remaining > 0) {
            entry->timer.start(NextLegMillis(remaining));
            return;
        }
        entry->active = false;
        callback = std::move(entry->callback);
    }
    // The id is invalid from here on, so the callback may arm a timer at once, this one too.
    callback(ITimer::FinishReason::Elapsed);
}

}  // namespace Vexlor::Time
