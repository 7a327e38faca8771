#include "run/SleepReport.h"

#include <utility>

#include "core/Saturating.h"

namespace Vexlor::ScheduleTool {

void SleepReport::GoingToSleep(const std::optional<QK::RecordTime>& recording,
                               QK::RecordTimeList planned) {
    asleep.reset();
    if (recording || !planned.empty()) {
        printer.GoingToSleep(recording, planned);
        asleep = Asleep{std::move(planned), recording};
    }
}

void SleepReport::WokeUp(const std::optional<QK::RecordTime>& recording, Time::TimePoint now) {
    if (!asleep) {
        return;
    }
    const Asleep slept = *std::exchange(asleep, std::nullopt);
    // The engine drops a record whose whole span (begun the lead early) passed, and any that
    // fell due while a capture ran on; one that is still under way it starts late.
    const bool busy = slept.recording && recording && recording->title == slept.recording->title;
    QK::RecordTimeList missed;
    for (const QK::RecordTime& record : slept.planned) {
        const Time::TimePoint start = Core::SaturatingSub(record.startTime, lead);
        const bool over =
            record.duration.count() != 0 && now >= Core::SaturatingAdd(start, record.duration);
        if (now >= start && (over || busy)) {
            missed.push_back(record);
        }
    }
    printer.WokeUp(missed);
}

}  // namespace Vexlor::ScheduleTool
