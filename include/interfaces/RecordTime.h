#pragma once

#include <vector>

#include <QString>

#include "interfaces/Clock.h"

namespace Vexlor::QK {

// Attached by the application; the scheduler only keeps it.
enum class RecordMode : int { Mode0 = 0, Mode1 = 1, Mode2 = 2 };

struct RecordTime {
    QString title;
    Time::TimePoint startTime{};
    Time::Microseconds duration{0};  // 0: no planned end
    int tag = -1;
    RecordMode mode = RecordMode::Mode0;
};

inline bool operator==(const RecordTime& lhs, const RecordTime& rhs) {
    return lhs.title == rhs.title && lhs.startTime == rhs.startTime &&
           lhs.duration == rhs.duration && lhs.tag == rhs.tag && lhs.mode == rhs.mode;
}

inline bool operator!=(const RecordTime& lhs, const RecordTime& rhs) {
    return !(lhs == rhs);
}

using RecordTimeList = std::vector<RecordTime>;

}  // namespace Vexlor::QK
