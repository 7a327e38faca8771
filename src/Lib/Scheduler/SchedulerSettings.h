#pragma once

#include <memory>

#include "interfaces/ICaptureDurationLimitSettings.h"
#include "interfaces/ICaptureSchedulerSettings.h"
#include "interfaces/SettingsManager.h"
#include "vexlor_scheduler_export.h"

namespace Vexlor::QK {

// The scheduler's settings. The enabled flag and the schedule live in the application's
// settings under "QK/Scheduler/" and are read afresh on every call; the capture duration
// limit lives in memory only and starts off at 120 s. Setters store first and then notify
// their own interface's observers, and only when the value really changed.
//
// Published in the instance registry as ICaptureDurationLimitSettings and as
// ICaptureSchedulerSettings for its lifetime.
class VEXLOR_SCHEDULER_EXPORT SchedulerSettings : public ICaptureDurationLimitSettings,
                                                  public ICaptureSchedulerSettings {
public:
    explicit SchedulerSettings(
        const std::shared_ptr<IApplicationSettingsManager>& applicationSettingsManager);

    void RegisterEventHandler(ICaptureDurationLimitSettingsObserver* handler) override;
    void UnregisterEventHandler(ICaptureDurationLimitSettingsObserver* handler) override;

    ~SchedulerSettings() override;

    SchedulerSettings(const SchedulerSettings&) = delete;
    SchedulerSettings& operator=(const SchedulerSettings&) = delete;

    bool IsDurationLimitEnabled() const override;
    void SetDurationLimitEnabled(bool enabled) override;
    Time::Microseconds GetDurationLimit() const override;
    void SetDurationLimit(const Time::Microseconds& limit) override;

    bool IsSchedulerEnabled() const override;
    void SetSchedulerEnabled(bool enabled) override;
    RecordTimeList GetSchedule() const override;
    void SetSchedule(const RecordTimeList& schedule) override;

    void RegisterEventHandler(ICaptureSchedulerSettingsObserver* handler) override;
    void UnregisterEventHandler(ICaptureSchedulerSettingsObserver* handler) override;

    class Impl;

private:
    std::unique_ptr<Impl> impl;
};

}  // namespace Vexlor::QK
