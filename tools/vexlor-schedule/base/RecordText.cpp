#include "base/RecordText.h"

#include <QDateTime>

#include "base/Duration.h"

namespace Vexlor::ScheduleTool {

namespace {

std::optional<QDateTime> ToLocal(Time::TimePoint time) {
    const long long micros = time.time_since_epoch().count();
    // Floor division, so that times before 1970 land on the right millisecond.
    const long long millis = micros / 1000 - (micros % 1000 < 0 ? 1 : 0);
    QDateTime local = QDateTime::fromMSecsSinceEpoch(millis, Qt::LocalTime);
    if (!local.isValid()) {
        return std::nullopt;
    }
    return local;
}

QString RawMicros(Time::TimePoint time) {
    return QStringLiteral("@%1us").arg(time.time_since_epoch().count());
}

}  // namespace

QString FormatLocalTime(Time::TimePoint time) {
    const auto local = ToLocal(time);
    return local ? local->toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")) : RawMicros(time);
}

QString FormatIsoTime(Time::TimePoint time) {
    const auto local = ToLocal(time);
    if (!local) {
        return RawMicros(time);
    }
    return local->toOffsetFromUtc(local->offsetFromUtc()).toString(Qt::ISODateWithMs);
}

QString FormatUtcTime(Time::TimePoint time) {
    const auto local = ToLocal(time);
    return local ? local->toUTC().toString(Qt::ISODateWithMs) : RawMicros(time);
}

QString QuoteTitle(const QString& title) {
    QString quoted = QStringLiteral("\"");
    for (const QChar c : title) {
        if (c == QLatin1Char('"') || c == QLatin1Char('\\')) {
            quoted += QLatin1Char('\\');
            quoted += c;
        } else if (c == QLatin1Char('\n')) {
            quoted += QStringLiteral("\\n");
        } else if (c == QLatin1Char('\t')) {
            quoted += QStringLiteral("\\t");
        } else if (c.category() == QChar::Other_Control) {
            quoted += QStringLiteral("\\x%1").arg(c.unicode(), 2, 16, QLatin1Char('0'));
        } else {
            quoted += c;
        }
    }
    quoted += QLatin1Char('"');
    return quoted;
}

QString FormatRecordLine(const QK::RecordTime& record) {
    // One arg() call: a title holding "%4" must not be filled in by a later one.
    return QStringLiteral("%1  %2  %3  tag %4  mode %5")
        .arg(FormatLocalTime(record.startTime), FormatDuration(record.duration),
             QuoteTitle(record.title), QString::number(record.tag),
             QString::number(static_cast<int>(record.mode)));
}

QString DescribeRecord(const QK::RecordTime& record) {
    const QString length = record.duration.count() == 0
                               ? QStringLiteral("with no planned end")
                               : QStringLiteral("for %1").arg(FormatDuration(record.duration));
    return QStringLiteral("%1 at %2 %3")
        .arg(QuoteTitle(record.title), FormatLocalTime(record.startTime), length);
}

}  // namespace Vexlor::ScheduleTool
