#pragma once

#include <functional>

#include "interfaces/ICaptureSchedulerSettings.h"
#include "run/EventPrinter.h"

namespace Vexlor::ScheduleTool {

// Watches what the scheduler writes to its settings and reports the records that left the
// schedule without a capture being requested for them: those whose time passed unseen or
// during another capture.
class DropReporter : public QK::ICaptureSchedulerSettingsObserver {
public:
    // `requestInFlight` tells whether a capture was just requested: the scheduler then takes
    // that record off the front of its list, and it runs rather than being dropped.
    DropReporter(EventPrinter& printer, std::function<bool()> requestInFlight,
                 std::function<void()> onChange)
        : printer(printer),
          requestInFlight(std::move(requestInFlight)),
          onChange(std::move(onChange)) {}

    // The schedule the scheduler is working from, before it filters it.
    void SetKnown(const QK::RecordTimeList& schedule) { known = schedule; }

    void OnSchedulerEnabledChanged(bool enabled) override;
    void OnScheduleChanged(const QK::RecordTimeList& schedule) override;

private:
    EventPrinter& printer;
    std::function<bool()> requestInFlight;
    std::function<void()> onChange;
    QK::RecordTimeList known;
};

}  // namespace Vexlor::ScheduleTool
