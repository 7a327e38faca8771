#pragma once

#include "core/EventPublisher.h"
#include "interfaces/RecordTime.h"

namespace Vexlor::QK {

class ICaptureSchedulerSettingsObserver {
public:
    virtual ~ICaptureSchedulerSettingsObserver() = default;
    virtual void OnSchedulerEnabledChanged(bool enabled) = 0;
    virtual void OnScheduleChanged(const RecordTimeList& schedule) = 0;
};

// The persisted on/off flag of scheduled recording and the schedule. Setters store first,
// then notify, and only when the stored value really changed.
class ICaptureSchedulerSettings : public Core::EventPublisher<ICaptureSchedulerSettingsObserver> {
public:
    virtual bool IsSchedulerEnabled() const = 0;
    virtual void SetSchedulerEnabled(bool enabled) = 0;
    // A fresh copy, in stored order.
    virtual RecordTimeList GetSchedule() const = 0;
    virtual void SetSchedule(const RecordTimeList& schedule) = 0;
};

}  // namespace Vexlor::QK
