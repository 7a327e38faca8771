#pragma once

#include <functional>

#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

namespace Vexlor::Testing {

// Runs the current thread's event loop until `done` holds or `timeoutMs` has passed;
// returns whether `done` held.
inline bool RunLoopUntil(const std::function<bool()>& done, int timeoutMs) {
    QEventLoop loop;
    QElapsedTimer elapsed;
    elapsed.start();
    bool reached = done();
    QTimer poll;
    poll.setInterval(2);
    QObject::connect(&poll, &QTimer::timeout, [&] {
        reached = done();
        if (reached || elapsed.hasExpired(timeoutMs)) {
            loop.quit();
        }
    });
    if (!reached) {
        poll.start();
        loop.exec();
    }
    return reached;
}

inline void RunLoopFor(int ms) {
    RunLoopUntil([] { return false; }, ms);
}

}  // namespace Vexlor::Testing
