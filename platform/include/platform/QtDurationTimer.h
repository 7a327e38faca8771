#pragma once

#include <map>
#include <memory>
#include <mutex>

#include "interfaces/Timer.h"
#include "vexlor_platform_export.h"

namespace Vexlor::Time {

// One-shot timers on QTimer (Qt::PreciseTimer). Each Start makes a timer on the calling
// thread, which must run a Qt event loop; the callback arrives there. Durations longer
// than a QTimer interval can hold are covered in several legs, so far-future deadlines are
// kept. Stop (and destroying the service) must happen on the thread that armed the timer;
// timers still armed when the service is destroyed are dropped without a callback.
class VEXLOR_PLATFORM_EXPORT QtDurationTimer : public IDurationTimer {
public:
    using IDurationTimer::Start;

    QtDurationTimer();
    ~QtDurationTimer() override;
    QtDurationTimer(const QtDurationTimer&) = delete;
    QtDurationTimer& operator=(const QtDurationTimer&) = delete;

    TimerId* Start(const Microseconds& duration, Callback callback) override;
    void Stop(TimerId* id) override;

private:
    struct Armed;
    void OnLegElapsed(TimerId* id);

    std::mutex mutex;
    std::map<TimerId*, std::unique_ptr<Armed>> armed;
    unsigned long long lastId = 0;
};

}  // namespace Vexlor::Time
