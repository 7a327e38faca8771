#include "schedule/Reports.h"

#include <algorithm>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>

#include "base/Duration.h"
#include "base/RecordText.h"
#include "core/Saturating.h"
#include "plans/Occurrences.h"

namespace Vexlor::ScheduleTool {

namespace {

// Whole seconds, rounded up: "in 0s" would read as "now".
QString Until(Time::TimePoint time, Time::TimePoint now) {
    const Time::Microseconds until = Core::SaturatingDiff(time, now);
    return FormatDuration(Time::Microseconds((until.count() + 999999) / 1000000 * 1000000));
}

const QK::RecordTime* NextOf(const ScheduleState& state, Time::TimePoint now) {
    const QK::RecordTime* next = nullptr;
    for (const QK::RecordTime& record : state.schedule) {
        if (record.startTime >= now && (!next || record.startTime < next->startTime)) {
            next = &record;
        }
    }
    return next;
}

// How the capture that the active run records now goes, under "recording now".
QString CaptureLine(const LiveCapture& capture, Time::TimePoint now) {
    const QString left = capture.plannedEnd
                             ? QStringLiteral("%1 left").arg(Until(*capture.plannedEnd, now))
                             : QStringLiteral("no planned end");
    const QString how = !capture.file.isEmpty() ? QStringLiteral("saved to %1").arg(capture.file)
                        : capture.command ? QStringLiteral("command: %1").arg(*capture.command)
                                          : QStringLiteral("simulated");
    return Line(
        QStringLiteral("  began %1, %2, %3").arg(FormatLocalTime(capture.began), left, how));
}

// What else the active run knows: notices on the screen, and its next capture.
QString LiveLines(const LiveState& live, Time::TimePoint now) {
    QString lines;
    for (const LiveNotice& notice : live.notices) {
        lines += Line(QStringLiteral("notice shown: %1: %2").arg(notice.title, notice.text));
    }
    if (live.nextRecord) {
        lines += Line(QStringLiteral("next capture begins: %1, in %2, for %3")
                          .arg(FormatLocalTime(live.nextCaptureAt), Until(live.nextCaptureAt, now),
                               QuoteTitle(live.nextRecord->title)));
    }
    return lines;
}

QJsonValue Milliseconds(Time::Microseconds duration) {
    return static_cast<double>(duration.count() / 1000);
}

// A moment as local time with its offset and as UTC.
void PutTime(QJsonObject& json, const QString& name, Time::TimePoint time) {
    json.insert(name, FormatIsoTime(time));
    json.insert(name + QStringLiteral("Utc"), FormatUtcTime(time));
}

QJsonObject RecordJson(const QK::RecordTime& record) {
    QJsonObject json{{QStringLiteral("title"), record.title},
                     {QStringLiteral("durationMs"), Milliseconds(record.duration)},
                     {QStringLiteral("tag"), record.tag},
                     {QStringLiteral("mode"), static_cast<int>(record.mode)}};
    PutTime(json, QStringLiteral("start"), record.startTime);
    return json;
}

QJsonObject LiveJson(const LiveState& live, Time::TimePoint now) {
    QJsonObject json;
    QJsonValue recording;  // null: nothing is being recorded
    if (const auto& capture = live.capture) {
        QJsonObject object = RecordJson(capture->record);
        PutTime(object, QStringLiteral("began"), capture->began);
        object.insert(QStringLiteral("durationMs"),
                      capture->plannedEnd ? Milliseconds(Core::SaturatingDiff(
                                                *capture->plannedEnd, capture->record.startTime))
                                          : QJsonValue(0));
        object.insert(QStringLiteral("timeLeftMs"),
                      capture->plannedEnd
                          ? Milliseconds(std::max(Core::SaturatingDiff(*capture->plannedEnd, now),
                                                  Time::Microseconds(0)))
                          : QJsonValue());
        object.insert(QStringLiteral("file"),
                      capture->file.isEmpty() ? QJsonValue() : QJsonValue(capture->file));
        object.insert(QStringLiteral("command"),
                      capture->command ? QJsonValue(*capture->command) : QJsonValue());
        recording = object;
    }
    json.insert(QStringLiteral("recording"), recording);
    QJsonArray notices;
    for (const LiveNotice& notice : live.notices) {
        notices.append(QJsonObject{{QStringLiteral("title"), notice.title},
                                   {QStringLiteral("text"), notice.text}});
    }
    json.insert(QStringLiteral("notices"), notices);
    QJsonValue nextCapture;
    if (live.nextRecord) {
        QJsonObject object{
            {QStringLiteral("title"), live.nextRecord->title},
            {QStringLiteral("inMs"), Milliseconds(Core::SaturatingDiff(live.nextCaptureAt, now))}};
        PutTime(object, QStringLiteral("at"), live.nextCaptureAt);
        nextCapture = object;
    }
    json.insert(QStringLiteral("nextCapture"), nextCapture);
    return json;
}

QString Document(const QJsonObject& json) {
    return QString::fromUtf8(QJsonDocument(json).toJson(QJsonDocument::Indented));
}

int FromPlans(const ScheduleState& state) {
    QSet<QString> plans;
    for (const Plan& plan : state.plans.plans) {
        plans.insert(plan.title);
    }
    return static_cast<int>(std::count_if(state.schedule.begin(), state.schedule.end(),
                                          [&plans](const QK::RecordTime& record) {
                                              const auto plan = OccurrenceOf(record.title);
                                              return plan && plans.contains(*plan);
                                          }));
}

}  // namespace

EditOutcome Upcoming(const ScheduleState& state, const EditRequest& request,
                     const EditContext& context) {
    const std::size_t count = static_cast<std::size_t>(std::max(request.count, 0));
    QK::RecordTimeList coming = state.schedule;
    for (const Plan& plan : state.plans.plans) {
        const Time::TimePoint after =
            std::max(plan.placedUntil, context.now - Time::Microseconds(1));
        for (const Time::TimePoint start : Occurrences(plan, after, count)) {
            coming.push_back(OccurrenceRecord(plan, start));
        }
    }
    std::stable_sort(
        coming.begin(), coming.end(),
        [](const QK::RecordTime& a, const QK::RecordTime& b) { return a.startTime < b.startTime; });
    EditOutcome outcome;
    for (std::size_t i = 0; i < std::min(count, coming.size()); ++i) {
        outcome.out += Line(FormatRecordLine(coming[i]));
    }
    return outcome;
}

EditOutcome Status(const ScheduleState& state, const EditContext& context, bool json) {
    const QK::RecordTime* next = NextOf(state, context.now);
    const int fromPlans = FromPlans(state);
    EditOutcome outcome;
    if (json) {
        QJsonValue nextJson;
        if (next) {
            QJsonObject object = RecordJson(*next);
            object.insert(QStringLiteral("inMs"),
                          Milliseconds(Core::SaturatingDiff(next->startTime, context.now)));
            nextJson = object;
        }
        outcome.out = Document(
            {{QStringLiteral("enabled"), state.enabled},
             {QStringLiteral("recordings"), static_cast<int>(state.schedule.size())},
             {QStringLiteral("recordingsFromPlans"), fromPlans},
             {QStringLiteral("plans"), static_cast<int>(state.plans.plans.size())},
             {QStringLiteral("next"), nextJson},
             {QStringLiteral("run"),
              context.live ? QJsonValue(LiveJson(*context.live, context.now)) : QJsonValue()}});
        return outcome;
    }
    outcome.out =
        Line(QStringLiteral("scheduling: %1")
                 .arg(state.enabled ? QStringLiteral("enabled") : QStringLiteral("disabled")));
    if (context.recording) {
        outcome.out +=
            Line(QStringLiteral("recording now: %1").arg(DescribeRecord(*context.recording)));
        if (context.live && context.live->capture) {
            outcome.out += CaptureLine(*context.live->capture, context.now);
        }
    }
    outcome.out +=
        Line(QStringLiteral("planned: %1 recording(s) (%2 of them from plans), %3 plan(s)")
                 .arg(state.schedule.size())
                 .arg(fromPlans)
                 .arg(state.plans.plans.size()));
    const QString live = context.live ? LiveLines(*context.live, context.now) : QString();
    if (!next) {
        outcome.out += Line(QStringLiteral("next: none")) + live;
        return outcome;
    }
    outcome.out += Line(QStringLiteral("next: %1, in %2")
                            .arg(DescribeRecord(*next), Until(next->startTime, context.now))) +
                   live;
    return outcome;
}

EditOutcome List(const ScheduleState& state, bool json) {
    EditOutcome outcome;
    if (json) {
        QJsonArray records;
        for (const QK::RecordTime& record : state.schedule) {
            records.append(RecordJson(record));
        }
        QJsonArray plans;
        const auto first = FirstOccurrences(state.schedule);
        for (const Plan& plan : state.plans.plans) {
            QJsonObject object{{QStringLiteral("title"), plan.title},
                               {QStringLiteral("rule"), plan.rule},
                               {QStringLiteral("durationMs"), Milliseconds(plan.duration)},
                               {QStringLiteral("tag"), plan.tag},
                               {QStringLiteral("mode"), plan.mode}};
            if (const auto next = NextOccurrence(plan, first)) {
                PutTime(object, QStringLiteral("next"), *next);
            }
            plans.append(object);
        }
        outcome.out =
            Document({{QStringLiteral("records"), records}, {QStringLiteral("plans"), plans}});
        return outcome;
    }
    for (const QK::RecordTime& record : state.schedule) {
        outcome.out += Line(FormatRecordLine(record));
    }
    const auto first = FirstOccurrences(state.schedule);
    for (const Plan& plan : state.plans.plans) {
        const auto next = NextOccurrence(plan, first);
        outcome.out +=
            Line(QStringLiteral("plan %1  %2  %3  next %4")
                     .arg(QuoteTitle(plan.title), plan.rule, FormatDuration(plan.duration),
                          next ? FormatLocalTime(*next) : QStringLiteral("none")));
    }
    return outcome;
}

}  // namespace Vexlor::ScheduleTool
