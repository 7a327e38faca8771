#pragma once

#include <optional>

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>

#include "base/CommandName.h"
#include "base/ExitCode.h"
#include "base/LiveCapture.h"
#include "interfaces/RecordTime.h"
#include "plans/Plan.h"

namespace Vexlor::ScheduleTool {

// What an editing or reading command asks of a schedule, with times already resolved, so
// that the process that carries it out (this one, or the active `run`) needs nothing else.
struct EditRequest {
    CommandName command = CommandName::List;
    QK::RecordTime record;  // add
    bool allowOverlap = false;
    bool enable = false;  // add --enable
    QString title;        // remove
    QString rule;         // add --repeat, as given
    QDateTime wallStart;  // add --repeat: the first start as the local clock shows it
    QByteArray calendar;  // import: the file's bytes
    QString source;       // import: the file
    int count = 10;       // upcoming
    bool json = false;    // list, status
};

struct ScheduleState {
    QK::RecordTimeList schedule;
    bool enabled = false;
    PlanBook plans{};
};

struct LiveNotice {
    QString title;
    QString text;
};

struct LiveState {
    std::optional<LiveCapture> capture;
    QList<LiveNotice> notices;  // shown and not withdrawn yet
    // The record whose capture the scheduler's poll begins next, and when (its start less
    // the lead time); none while scheduling is off.
    std::optional<QK::RecordTime> nextRecord;
    Time::TimePoint nextCaptureAt;
};

struct EditContext {
    Time::TimePoint now;
    std::optional<QK::RecordTime> recording;  // the capture running now, if any
    std::optional<LiveState> live;            // set when the active run answers
};

struct EditOutcome {
    int exitCode = EXIT_DONE;
    QString out;  // whole lines
    QString err;
    std::optional<ScheduleState> changed;  // set when the state is to be stored
};

inline QString Line(const QString& text) {
    return text + QLatin1Char('\n');
}

inline EditOutcome Refused(const QString& message) {
    return {EXIT_REFUSED, {}, Line(message), std::nullopt};
}

}  // namespace Vexlor::ScheduleTool
