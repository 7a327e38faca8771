#include "platform/QtDurationTimer.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <utility>

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
    std::unique_ptr<TimerId> id;
    std::unique_ptr<QTimer> timer;
    Callback callback;
    long long deadlineMicros = 0;  // on the steady clock, which QTimer also runs on
};

QtDurationTimer::QtDurationTimer() = default;

QtDurationTimer::~QtDurationTimer() = default;

TimerId* QtDurationTimer::Start(const Microseconds& duration, Callback callback) {
    auto entry = std::make_unique<Armed>();
    entry->id = std::make_unique<TimerId>();
    entry->callback = std::move(callback);
    entry->deadlineMicros = Core::SaturatingAdd(SteadyNowMicros(), duration.count());
    entry->timer = std::make_unique<QTimer>();
    entry->timer->setSingleShot(true);
    entry->timer->setTimerType(Qt::PreciseTimer);

    TimerId* id = entry->id.get();
    QObject::connect(entry->timer.get(), &QTimer::timeout, [this, id] { OnLegElapsed(id); });
    QTimer* timer = entry->timer.get();
    {
        std::lock_guard<std::mutex> lock(mutex);
        id->value = ++lastId;
        armed.emplace(id, std::move(entry));
    }
    timer->start(NextLegMillis(duration.count()));
    return id;
}

void QtDurationTimer::Stop(TimerId* id) {
    std::unique_ptr<Armed> stopped;
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto it = armed.find(id);
        if (it == armed.end()) {
            return;
        }
        stopped = std::move(it->second);
        armed.erase(it);
    }
    // Destroyed outside the lock; the callback is dropped without being called.
}

void QtDurationTimer::OnLegElapsed(TimerId* id) {
    std::unique_ptr<Armed> finished;
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto it = armed.find(id);
        if (it == armed.end()) {
            return;
        }
        const long long remaining =
            Core::SaturatingSub(it->second->deadlineMicros, SteadyNowMicros());
        if (remaining > 0) {
            it->second->timer->start(NextLegMillis(remaining));
            return;
        }
        finished = std::move(it->second);
        armed.erase(it);
    }
    // The id is invalid from here on, so the callback may arm a new timer at once. Qt
    // allows the emitting timer to be destroyed inside its own timeout.
    Callback callback = std::move(finished->callback);
    finished.reset();
    callback(ITimer::FinishReason::Elapsed);
}

}  // namespace Vexlor::Time
