#pragma once

#include <deque>
#include <functional>

#include <QElapsedTimer>
#include <QTimer>

namespace Vexlor::ScheduleTool {

// Runs work that hands the scheduler a new schedule once that cannot cost the next record.
// The scheduler drops a record whose start has passed when it is handed a new schedule
// before its poll requested that record, so while `dueSoon` says one is about to be
// requested, work waits (in order of arrival) until it has been, or at most `limit`.
class EditQueue {
public:
    EditQueue(std::function<bool()> dueSoon, int checkMs, qint64 limitMs);

    // At once when nothing waits and nothing is due; queued otherwise.
    void WhenSafe(std::function<void()> work);

private:
    void RunDeferred();

    std::function<bool()> dueSoon;
    qint64 limitMs;
    std::deque<std::function<void()>> deferred;
    QTimer timer;
    QElapsedTimer since;
};

}  // namespace Vexlor::ScheduleTool
