#pragma once

#include <cstddef>
#include <memory>

#include <QString>

#include "interfaces/RecordTime.h"
#include "vexlor_scheduler_export.h"

namespace Vexlor::QK {

// The working copy of a schedule while the user edits it: kept in start-time order, with
// records that are already over refused. Titles may repeat and records may overlap; the
// caller asks DoesTitleAlreadyExists and DoesCaptureTimeIntersected before it adds.
//
// For one thread; no locking.
class VEXLOR_SCHEDULER_EXPORT SchedulerHelper {
public:
    SchedulerHelper();
    ~SchedulerHelper();

    SchedulerHelper(const SchedulerHelper&) = delete;
    SchedulerHelper& operator=(const SchedulerHelper&) = delete;

    std::size_t GetRecordCount() const;
    // A copy of the working list in start-time order.
    RecordTimeList GetPreparedSchedule() const;

    // True when the closed span [start, start + duration] of `record` meets that of any
    // record in the list. Touching ends count, and a record in the list meets itself.
    bool DoesCaptureTimeIntersected(const RecordTime& record) const;
    // Exact, case-sensitive QString equality.
    bool DoesTitleAlreadyExists(const QString& title) const;

    // Inserts `record` in front of any records with the same start and returns its
    // position, or -1 (list unchanged) when its end lies before now. Duration 0 means no
    // planned end and is never refused.
    int AddRecord(const RecordTime& record);
    // Removes every record with exactly this title; the others keep their order.
    void RemoveRecord(const QString& title);
    void ClearSchedule();

private:
    class Impl;
    std::unique_ptr<Impl> impl;
};

}  // namespace Vexlor::QK
