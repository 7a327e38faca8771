#pragma once

#include <cstdio>

#include <QString>

#include "interfaces/RecordTime.h"

namespace Vexlor::ScheduleTool {

// Writes the events of `run`, one line each, prefixed with the local time and flushed at
// once, so that a reader on a pipe sees every event as it happens.
class EventPrinter {
public:
    explicit EventPrinter(std::FILE* out) : out(out) {}

    void Line(const QString& text);

    void SchedulerStarted(bool enabled, std::size_t recordsAhead);
    // `systemLock`: a logind sleep lock was taken or released, not only the state noted.
    void SleepChanged(bool sleepPrevented, bool systemLock);
    void RecordingRequested();
    void RecordingStarted(const QK::RecordTime& record);
    void RecordingFinished(const QString& title, const QString& how);
    void RecordsDropped(const QK::RecordTimeList& records);
    void ScheduleReloaded(bool enabled, std::size_t records);
    void Notice(const QString& text);

private:
    std::FILE* out;
};

}  // namespace Vexlor::ScheduleTool
