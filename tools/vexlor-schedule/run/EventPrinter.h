#pragma once

#include <cstdio>
#include <functional>
#include <optional>

#include <QString>

#include "capture/CaptureEvents.h"
#include "interfaces/RecordTime.h"

namespace Vexlor::ScheduleTool {

// Writes the events of `run`, one line each, prefixed with the local time and flushed at
// once, so that a reader on a pipe sees every event as it happens.
class EventPrinter : public ICaptureEvents {
public:
    explicit EventPrinter(std::FILE* out) : out(out) {}

    // Called once, from inside the write that failed, when the reader has gone (EPIPE; needs
    // SIGPIPE ignored); nothing is written after that.
    void SetOnOutputClosed(std::function<void()> callback) { onOutputClosed = std::move(callback); }

    void Line(const QString& text);

    void SchedulerStarted(bool enabled, std::size_t recordsAhead);
    // A logind sleep lock was taken or released.
    void SleepChanged(bool sleepPrevented);
    // logind puts the machine to sleep while `recording` runs or `planned` waits.
    void GoingToSleep(const std::optional<QK::RecordTime>& recording,
                      const QK::RecordTimeList& planned);
    // The machine woke up; `missed` began while it slept and will not be recorded.
    void WokeUp(const QK::RecordTimeList& missed);
    void CaptureNote(const QString& text) override { Line(text); }
    void RecordingRequested() override;
    void RecordingStarted(const QK::RecordTime& record, const QString& file,
                          const QString& note) override;
    void RecordingFinished(const QString& title, const QString& how) override;
    void RecordsDropped(const QK::RecordTimeList& records);
    void ScheduleReloaded(bool enabled, std::size_t records);
    void Notice(const QString& text);

private:
    std::FILE* out;
    std::function<void()> onOutputClosed;
    bool outputClosed = false;
};

}  // namespace Vexlor::ScheduleTool
