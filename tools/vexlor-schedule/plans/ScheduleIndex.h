#pragma once

#include <cstddef>
#include <optional>
#include <unordered_map>
#include <vector>

#include <QHash>
#include <QString>

#include "interfaces/RecordTime.h"

namespace Vexlor::ScheduleTool {

// A schedule under edit, indexed by title, start and plan, so that a lookup, an addition or
// a removal costs the same whatever the schedule's size: an import of many events would
// otherwise search the whole schedule for each. Removed records leave gaps until Records().
class ScheduleIndex {
public:
    static constexpr std::size_t NONE = static_cast<std::size_t>(-1);

    explicit ScheduleIndex(const QK::RecordTimeList& schedule);

    void Add(const QK::RecordTime& record);
    // Every record with this title, and every occurrence of the plans with this title.
    void RemoveTitled(const QString& title);
    void RemoveOccurrencesOf(const QString& planTitle);

    // The position of the first record, in the schedule's order, with this title or start;
    // NONE without one.
    std::size_t FirstTitled(const QString& title);
    std::size_t FirstAt(Time::TimePoint start);
    const QK::RecordTime& At(std::size_t position) const { return records_[position]; }
    // How many records are occurrences of the plans with this title.
    int OccurrencesOf(const QString& planTitle) const { return occurrences_.value(planTitle); }

    // What is left, in the order the records were added.
    QK::RecordTimeList Records() const;

private:
    // Positions in the order added; those before `from` are known to be removed.
    struct Positions {
        std::vector<std::size_t> at;
        std::size_t from = 0;
    };
    std::size_t FirstLive(Positions* positions) const;
    void RemoveAll(Positions* positions);

    QK::RecordTimeList records_;
    std::vector<bool> live_;
    QHash<QString, Positions> byTitle_;
    std::unordered_map<long long, Positions> byStart_;
    QHash<QString, Positions> byPlan_;  // the occurrences, by their plan's title
    QHash<QString, int> occurrences_;   // how many of those are live
};

}  // namespace Vexlor::ScheduleTool
