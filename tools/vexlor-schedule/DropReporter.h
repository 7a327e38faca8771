#pragma once

#include <functional>

#include "EventPrinter.h"
#include "interfaces/ICaptureSchedulerSettings.h"

namespace Vexlor::ScheduleTool {

// Watches what the scheduler writes to its settings and reports the records that left the
// schedule without a capture being requested for them: those whose time passed unseen or
// during another capture.
class DropReporter : public QK::ICaptureSchedulerSettingsObserver {
public:
    DropReporter(EventPrinter& printer, std::function<void()> onChange)
        : printer(printer), onChange(std::move(onChange)) {}

    // The schedule the scheduler is working from, before it filters it.
    void SetKnown(const QK::RecordTimeList& schedule) { known = schedule; }

    // A capture was just requested; the scheduler removes that record next.
    void NoteRequest() { requestPending = true; }

    void OnSchedulerEnabledChanged(bool enabled) override;
    void OnScheduleChanged(const QK::RecordTimeList& schedule) override;

private:
    EventPrinter& printer;
    std::function<void()> onChange;
    QK::RecordTimeList known;
    bool requestPending = false;
};

}  // namespace Vexlor::ScheduleTool
