#include "run/EditQueue.h"

namespace Vexlor::ScheduleTool {

EditQueue::EditQueue(std::function<bool()> dueSoon, int checkMs, qint64 limitMs)
    : dueSoon(std::move(dueSoon)), limitMs(limitMs) {
    timer.setInterval(checkMs);
    QObject::connect(&timer, &QTimer::timeout, [this] { RunDeferred(); });
}

void EditQueue::WhenSafe(std::function<void()> work) {
    if (deferred.empty() && !dueSoon()) {
        work();
        return;
    }
    if (deferred.empty()) {
        since.start();
        timer.start();
    }
    deferred.push_back(std::move(work));
}

void EditQueue::RunDeferred() {
    while (!deferred.empty()) {
        // An edit may itself plan a record that starts at once.
        if (dueSoon() && since.elapsed() < limitMs) {
            return;
        }
        auto work = std::move(deferred.front());
        deferred.pop_front();
        work();
        since.start();
    }
    timer.stop();
}

}  // namespace Vexlor::ScheduleTool
