#pragma once

#include <optional>

#include <QByteArray>
#include <QString>

#include "CommandLine.h"
#include "Commands.h"
#include "Plans.h"
#include "interfaces/RecordTime.h"

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

EditRequest MakeEditRequest(const Invocation& invocation, Time::TimePoint now);

QByteArray EncodeRequest(const EditRequest& request);
// Nothing for bytes that are not a request.
std::optional<EditRequest> DecodeRequest(const QByteArray& bytes);

struct ScheduleState {
    QK::RecordTimeList schedule;
    bool enabled = false;
    PlanBook plans{};
};

// What an active run knows that the file does not.
struct LiveCapture {
    QK::RecordTime record;  // its duration: what was left of it when it began
    Time::TimePoint began;
    std::optional<Time::TimePoint> plannedEnd;
    QString file;                    // a screen capture's
    std::optional<QString> command;  // --exec
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

QByteArray EncodeOutcome(const EditOutcome& outcome);
std::optional<EditOutcome> DecodeOutcome(const QByteArray& bytes);

// The one implementation of every editing and reading command, on a state held in memory.
// A refusal leaves `changed` empty.
EditOutcome ApplyEdit(const ScheduleState& state, const EditRequest& request,
                      const EditContext& context);

// Puts the plans' next occurrences into the schedule (see TopUp); nothing when nothing is
// to be added or changed.
std::optional<ScheduleState> TopUpPlans(const ScheduleState& state, Time::TimePoint now,
                                        QStringList& notes);

// The scheduler takes only records that start now or later. A record that has begun and
// not ended (or has no planned end) would be dropped unrun, so it is moved to start at
// `now + margin`, keeping its planned end. Records caught up together keep their order one
// microsecond apart, since the scheduler keeps one record per start time.
QK::RecordTimeList CatchUp(QK::RecordTimeList schedule, Time::TimePoint now,
                           Time::Microseconds margin);

}  // namespace Vexlor::ScheduleTool
