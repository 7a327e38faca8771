#pragma once

#include <QString>

#include "interfaces/RecordTime.h"

namespace Vexlor::Testing {

// A distinct schedule for every n >= 1, of varying length and byte size; its first
// record's tag is n, so a schedule read back names the write it came from.
inline QK::RecordTimeList NumberedSchedule(int n) {
    QK::RecordTimeList schedule;
    for (int j = 0; j <= n % 5; ++j) {
        QK::RecordTime record;
        record.title = QString("recording %1.%2 %3").arg(n).arg(j).arg(QString(n % 7, QChar(0xE9)));
        record.startTime = Time::TimePoint(Time::Microseconds(1700000000000000LL + n * 1000LL + j));
        record.duration = Time::Microseconds(60000000LL * j);
        record.tag = n;
        record.mode = static_cast<QK::RecordMode>(j % 3);
        schedule.push_back(record);
    }
    return schedule;
}

}  // namespace Vexlor::Testing
