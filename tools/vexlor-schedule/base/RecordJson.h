#pragma once

#include <optional>

#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include "interfaces/RecordTime.h"

namespace Vexlor::ScheduleTool {

// A record as stored beside the schedule and sent over the control socket. Times and
// durations are microseconds as decimal text: a JSON number (a double) would round them.
QJsonObject RecordToJson(const QK::RecordTime& record);
// Nothing for an object that is not a record.
std::optional<QK::RecordTime> RecordFromJson(const QJsonObject& json);

QString MicrosText(Time::TimePoint instant);
std::optional<long long> MicrosFrom(const QJsonValue& value);

}  // namespace Vexlor::ScheduleTool
