#pragma once

#include "interfaces/RecordTime.h"

namespace Vexlor::Testing {

// Distinct for every n >= 1, of varying length and byte size; every record's tag is n, so a
// schedule read back names the write it came from.
inline QK::RecordTimeList NumberedSchedule(int n) {
    QK::RecordTimeList schedule(1 + n % 5);
    for (int j = 0; j <= n % 5; ++j) {
        schedule[j] = {QString(n % 7 + j, QChar(0xE9)) + QString::number(n),
                       Time::TimePoint(Time::Microseconds(1700000000000000LL + n * 1000LL + j)),
                       Time::Microseconds(60000000LL * j), n, static_cast<QK::RecordMode>(j % 3)};
    }
    return schedule;
}

}  // namespace Vexlor::Testing
