#pragma once

#include <vector>

#include "interfaces/IScheduler.h"

namespace Vexlor::Testing {

class RecordingSchedulerObserver : public QK::ISchedulerObserver {
public:
    void OnScheduledCaptureStarted(const QK::RecordTime& record) override {
        started.push_back(record);
    }
    std::vector<QK::RecordTime> started;
};

}  // namespace Vexlor::Testing
