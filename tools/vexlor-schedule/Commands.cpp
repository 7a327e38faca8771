#include "Commands.h"

#include <cstdio>
#include <exception>
#include <memory>

#include "Duration.h"
#include "RecordText.h"
#include "RunCommand.h"
#include "Scheduler/SchedulerHelper.h"
#include "Scheduler/SchedulerSettings.h"
#include "SettingsPath.h"
#include "core/Saturating.h"
#include "platform/IniSettingsManager.h"

namespace Vexlor::ScheduleTool {

namespace {

void Print(const QString& line) {
    std::fputs(qPrintable(line + QLatin1Char('\n')), stdout);
}

int Refuse(const QString& message) {
    std::fprintf(stderr, "vexlor-schedule: %s\n", qPrintable(message));
    return EXIT_REFUSED;
}

// The stored schedule as the editor sees it: put in record by record, so records that are
// already over stay out.
void LoadInto(QK::SchedulerHelper& helper, const QK::RecordTimeList& schedule) {
    for (const QK::RecordTime& record : schedule) {
        helper.AddRecord(record);
    }
}

int Add(QK::SchedulerSettings& settings, const AddOptions& options) {
    const Time::TimePoint now = Time::SystemClock().Now();
    QK::RecordTime record;
    record.title = options.title;
    record.startTime = options.at ? *options.at : Core::SaturatingAdd(now, *options.in);
    record.duration = options.duration;
    record.tag = options.tag;
    record.mode = static_cast<QK::RecordMode>(options.mode);

    QK::SchedulerHelper probe;
    if (probe.AddRecord(record) < 0) {
        return Refuse(QStringLiteral("%1 is already over").arg(DescribeRecord(record)));
    }

    QK::SchedulerHelper helper;
    LoadInto(helper, settings.GetSchedule());
    if (helper.DoesTitleAlreadyExists(record.title)) {
        for (const QK::RecordTime& existing : helper.GetPreparedSchedule()) {
            if (existing.title == record.title) {
                return Refuse(
                    QStringLiteral("the title is taken by %1").arg(DescribeRecord(existing)));
            }
        }
    }
    if (!options.allowOverlap && helper.DoesCaptureTimeIntersected(record)) {
        // Ask record by record, to name the one in the way.
        for (const QK::RecordTime& existing : helper.GetPreparedSchedule()) {
            QK::SchedulerHelper single;
            single.AddRecord(existing);
            if (single.DoesCaptureTimeIntersected(record)) {
                return Refuse(QStringLiteral("%1 overlaps %2 (use --allow-overlap to keep both)")
                                  .arg(DescribeRecord(record), DescribeRecord(existing)));
            }
        }
        return Refuse(
            QStringLiteral("%1 overlaps a planned recording").arg(DescribeRecord(record)));
    }
    if (helper.AddRecord(record) < 0) {
        return Refuse(QStringLiteral("%1 is already over").arg(DescribeRecord(record)));
    }
    settings.SetSchedule(helper.GetPreparedSchedule());
    Print(QStringLiteral("added %1").arg(DescribeRecord(record)));
    return EXIT_DONE;
}

int Remove(QK::SchedulerSettings& settings, const QString& title) {
    QK::SchedulerHelper helper;
    LoadInto(helper, settings.GetSchedule());
    if (!helper.DoesTitleAlreadyExists(title)) {
        return Refuse(QStringLiteral("no planned recording is titled %1").arg(QuoteTitle(title)));
    }
    helper.RemoveRecord(title);
    settings.SetSchedule(helper.GetPreparedSchedule());
    Print(QStringLiteral("removed %1").arg(QuoteTitle(title)));
    return EXIT_DONE;
}

int Status(QK::SchedulerSettings& settings) {
    const Time::TimePoint now = Time::SystemClock().Now();
    const QK::RecordTimeList schedule = settings.GetSchedule();
    Print(QStringLiteral("scheduling: %1")
              .arg(settings.IsSchedulerEnabled() ? QStringLiteral("enabled")
                                                 : QStringLiteral("disabled")));
    const QK::RecordTime* next = nullptr;
    for (const QK::RecordTime& record : schedule) {
        if (record.startTime >= now && (!next || record.startTime < next->startTime)) {
            next = &record;
        }
    }
    if (!next) {
        Print(QStringLiteral("next: none"));
        return EXIT_DONE;
    }
    const Time::Microseconds until = Core::SaturatingDiff(next->startTime, now);
    // Whole seconds, rounded up: "in 0s" would read as "now".
    const Time::Microseconds roundedUp((until.count() + 999999) / 1000000 * 1000000);
    Print(QStringLiteral("next: %1, in %2").arg(DescribeRecord(*next), FormatDuration(roundedUp)));
    return EXIT_DONE;
}

int Edit(const QString& path, const Invocation& invocation) {
    QK::SchedulerSettings settings(std::make_shared<App::IniSettingsManager>(path));
    switch (invocation.command) {
        case CommandName::Add:
            return Add(settings, invocation.add);
        case CommandName::Remove:
            return Remove(settings, invocation.removeTitle);
        case CommandName::List:
            for (const QK::RecordTime& record : settings.GetSchedule()) {
                Print(FormatRecordLine(record));
            }
            return EXIT_DONE;
        case CommandName::Clear:
            settings.SetSchedule({});
            return EXIT_DONE;
        case CommandName::Enable:
            settings.SetSchedulerEnabled(true);
            return EXIT_DONE;
        case CommandName::Disable:
            settings.SetSchedulerEnabled(false);
            return EXIT_DONE;
        case CommandName::Status:
            return Status(settings);
        case CommandName::Run:
        case CommandName::Help:
            break;
    }
    return EXIT_USAGE;
}

}  // namespace

int Execute(const Invocation& invocation) {
    if (invocation.command == CommandName::Help) {
        std::fputs(qPrintable(UsageText()), stdout);
        return EXIT_DONE;
    }
    const QString path = SettingsPathForProcess(invocation.settingsFile);
    if (invocation.command == CommandName::Run) {
        return RunScheduler(path, invocation.run);
    }
    try {
        return Edit(path, invocation);
    } catch (const std::exception& error) {
        return Refuse(QStringLiteral("%1: %2").arg(path, QString::fromLocal8Bit(error.what())));
    }
}

}  // namespace Vexlor::ScheduleTool
