#include "base/RecordJson.h"

namespace Vexlor::ScheduleTool {

QString MicrosText(Time::TimePoint instant) {
    return QString::number(instant.time_since_epoch().count());
}

std::optional<long long> MicrosFrom(const QJsonValue& value) {
    bool ok = false;
    const long long micros = value.toString().toLongLong(&ok);
    return ok ? std::optional<long long>(micros) : std::nullopt;
}

QJsonObject RecordToJson(const QK::RecordTime& record) {
    return {{QStringLiteral("title"), record.title},
            {QStringLiteral("start"), MicrosText(record.startTime)},
            {QStringLiteral("duration"), QString::number(record.duration.count())},
            {QStringLiteral("tag"), record.tag},
            {QStringLiteral("mode"), static_cast<int>(record.mode)}};
}

std::optional<QK::RecordTime> RecordFromJson(const QJsonObject& json) {
    const auto start = MicrosFrom(json.value(QStringLiteral("start")));
    const auto duration = MicrosFrom(json.value(QStringLiteral("duration")));
    const int mode = json.value(QStringLiteral("mode")).toInt(-1);
    if (!start || !duration || mode < 0 || mode > 2) {
        return std::nullopt;
    }
    QK::RecordTime record;
    record.title = json.value(QStringLiteral("title")).toString();
    record.startTime = Time::TimePoint(Time::Microseconds(*start));
    record.duration = Time::Microseconds(*duration);
    record.tag = json.value(QStringLiteral("tag")).toInt(-1);
    record.mode = static_cast<QK::RecordMode>(mode);
    return record;
}

}  // namespace Vexlor::ScheduleTool
