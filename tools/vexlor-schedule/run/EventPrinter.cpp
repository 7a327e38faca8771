#include "run/EventPrinter.h"

#include <errno.h>

#include <QDateTime>
#include <QStringList>

#include "base/Duration.h"
#include "base/RecordText.h"

namespace Vexlor::ScheduleTool {

void EventPrinter::Line(const QString& text) {
    if (outputClosed) {
        return;
    }
    const QString line = QDateTime::currentDateTime().toString(QStringLiteral("HH:mm:ss.zzz")) +
                         QLatin1Char(' ') + text + QLatin1Char('\n');
    const QByteArray bytes = line.toUtf8();
    const auto size = static_cast<std::size_t>(bytes.size());
    errno = 0;
    const bool written = std::fwrite(bytes.constData(), 1, size, out) == size;
    if ((written && std::fflush(out) == 0) || errno != EPIPE) {
        return;  // other write errors are not worth stopping for
    }
    outputClosed = true;
    if (onOutputClosed) {
        onOutputClosed();
    }
}

void EventPrinter::SchedulerStarted(bool enabled, std::size_t recordsAhead) {
    Line(QStringLiteral("scheduler running: scheduling %1, %2 recording(s) ahead")
             .arg(enabled ? QStringLiteral("on") : QStringLiteral("off"))
             .arg(recordsAhead));
}

void EventPrinter::SleepChanged(bool sleepPrevented) {
    Line(sleepPrevented ? QStringLiteral("sleep prevented: logind lock taken")
                        : QStringLiteral("sleep allowed: logind lock released"));
}

void EventPrinter::GoingToSleep(const std::optional<QK::RecordTime>& recording,
                                const QK::RecordTimeList& planned) {
    QStringList what;
    if (recording) {
        what << QStringLiteral("%1 is being recorded").arg(QuoteTitle(recording->title));
    }
    if (!planned.empty()) {
        what << QStringLiteral("%1 recording(s) planned, the next %2")
                    .arg(planned.size())
                    .arg(DescribeRecord(planned.front()));
    }
    Line(QStringLiteral("machine going to sleep: %1").arg(what.join(QStringLiteral("; "))));
}

void EventPrinter::WokeUp(const QK::RecordTimeList& missed) {
    if (missed.empty()) {
        Line(QStringLiteral("machine woke up: no recording was missed"));
    }
    for (const QK::RecordTime& record : missed) {
        Line(
            QStringLiteral("machine woke up: missed while asleep: %1").arg(DescribeRecord(record)));
    }
}

void EventPrinter::RecordingRequested() {
    Line(QStringLiteral("recording requested"));
}

void EventPrinter::RecordingStarted(const QK::RecordTime& record, const QString& file,
                                    const QString& note) {
    const QString length = record.duration.count() == 0
                               ? QStringLiteral("no planned end")
                               : QStringLiteral("duration %1").arg(FormatDuration(record.duration));
    Line(QStringLiteral("recording started: %1, %2").arg(QuoteTitle(record.title), length) +
         (file.isEmpty() ? QString() : QStringLiteral(", into %1").arg(file)) +
         (note.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(note)));
}

void EventPrinter::RecordingFinished(const QString& title, const QString& how) {
    Line(QStringLiteral("recording finished: %1, %2").arg(QuoteTitle(title), how));
}

void EventPrinter::RecordsDropped(const QK::RecordTimeList& records) {
    QStringList described;
    for (const QK::RecordTime& record : records) {
        described << DescribeRecord(record);
    }
    Line(QStringLiteral("records dropped: %1").arg(described.join(QStringLiteral(", "))));
}

void EventPrinter::ScheduleReloaded(bool enabled, std::size_t records) {
    Line(QStringLiteral("settings changed: scheduling %1, %2 recording(s) stored")
             .arg(enabled ? QStringLiteral("on") : QStringLiteral("off"))
             .arg(records));
}

void EventPrinter::Notice(const QString& text) {
    Line(text);
}

}  // namespace Vexlor::ScheduleTool
