#pragma once

#include <optional>

#include "interfaces/RecordTime.h"
#include "run/EventPrinter.h"

namespace Vexlor::ScheduleTool {

// logind may suspend despite the sleep lock (a closed lid, by default): says so, and on
// waking names what the engine drops for it.
class SleepReport {
public:
    SleepReport(EventPrinter& printer, Time::Microseconds lead) : printer(printer), lead(lead) {}

    // `planned`: the scheduler's records while scheduling is on, else none.
    void GoingToSleep(const std::optional<QK::RecordTime>& recording, QK::RecordTimeList planned);
    void WokeUp(const std::optional<QK::RecordTime>& recording, Time::TimePoint now);

private:
    struct Asleep {
        QK::RecordTimeList planned;
        std::optional<QK::RecordTime> recording;
    };

    EventPrinter& printer;
    Time::Microseconds lead;
    std::optional<Asleep> asleep;  // set while asleep with something to record
};

}  // namespace Vexlor::ScheduleTool
