#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "interfaces/Timer.h"
#include "vexlor_platform_export.h"

namespace Vexlor::Time {

// One-shot timers on QTimer (Qt::PreciseTimer). Each Start arms a timer of the calling
// thread, which must run a Qt event loop; the callback arrives there. A QTimer whose timer
// finished or was stopped is armed again by a later Start on its thread, so a poll that
// re-arms on every expiry creates no QObject each time. Durations longer
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
    void OnLegElapsed(Armed* entry);

    std::mutex mutex;
    std::vector<std::unique_ptr<Armed>> entries;  // armed or idle, never fewer
    unsigned long long lastId = 0;
};

}  // namespace Vexlor::Time
