#include "Scheduler/SchedulerSettings.h"

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/EventHandlerList.h"
#include "core/NotNull.h"
#include "interfaces/InstanceRegistry.h"
#include "settings/SettingsWrapper.h"

namespace Vexlor::QK {

namespace {

const std::string settingsGroupPrefix = "QK/Scheduler/";
const RecordTimeList defaultSchedule;

}  // namespace

class SchedulerSettings::Impl {
public:
    explicit Impl(const std::shared_ptr<IApplicationSettingsManager>& manager)
        : applicationSettingsManager(manager),
          enabledSetting(manager, settingsGroupPrefix + "scheduler_enabled", false),
          scheduleSetting(manager, settingsGroupPrefix + "schedule", defaultSchedule),
          storedSchedule(manager, settingsGroupPrefix + "schedule",
                         App::ByteArrayConverter<RecordTimeList>()(defaultSchedule)) {}

    // What scheduleSetting.get() returns, decoded only when the stored bytes differ from
    // those decoded last: the notice reads the schedule every 10 s, and decoding a long one
    // costs far more than comparing its bytes.
    RecordTimeList ReadSchedule() const {
        std::vector<unsigned char> bytes = storedSchedule.get();
        std::lock_guard<std::mutex> lock(decodedMutex);
        if (!decoded || bytes != decodedFrom) {
            decoded.reset();
            RecordTimeList schedule = App::ByteArrayConverter<RecordTimeList>()(bytes);
            decodedFrom = std::move(bytes);
            decoded = std::move(schedule);
        }
        return *decoded;
    }

    // Declared order is the order of construction; destruction runs in reverse, so the
    // registrations end first and the manager is released last.
    Core::NotNull<std::shared_ptr<IApplicationSettingsManager>> applicationSettingsManager;
    App::SettingsWrapper<bool> enabledSetting;
    App::SettingsWrapper<RecordTimeList> scheduleSetting;
    App::SettingsWrapper<std::vector<unsigned char>> storedSchedule;  // the same key's bytes
    mutable std::mutex decodedMutex;
    mutable std::vector<unsigned char> decodedFrom;
    mutable std::optional<RecordTimeList> decoded;
    bool durationLimitEnabled = false;
    Time::Microseconds durationLimit{120000000};
    Core::EventHandlerList<ICaptureDurationLimitSettingsObserver, Core::SyncExecutePolicy>
        durationLimitObservers;
    Core::EventHandlerList<ICaptureSchedulerSettingsObserver, Core::SyncExecutePolicy>
        schedulerSettingsObservers;
    std::unique_ptr<InstanceRegistration<ICaptureDurationLimitSettings>> durationLimitRegistration;
    std::unique_ptr<InstanceRegistration<ICaptureSchedulerSettings>> schedulerSettingsRegistration;
};

SchedulerSettings::SchedulerSettings(
    const std::shared_ptr<IApplicationSettingsManager>& applicationSettingsManager)
    : impl(std::make_unique<Impl>(applicationSettingsManager)) {
    impl->durationLimitRegistration =
        std::make_unique<InstanceRegistration<ICaptureDurationLimitSettings>>(
            static_cast<ICaptureDurationLimitSettings*>(this));
    impl->schedulerSettingsRegistration =
        std::make_unique<InstanceRegistration<ICaptureSchedulerSettings>>(
            static_cast<ICaptureSchedulerSettings*>(this));
}

SchedulerSettings::~SchedulerSettings() = default;

void SchedulerSettings::RegisterEventHandler(ICaptureDurationLimitSettingsObserver* handler) {
    impl->durationLimitObservers.RegisterEventHandler(handler);
}

void SchedulerSettings::UnregisterEventHandler(ICaptureDurationLimitSettingsObserver* handler) {
    impl->durationLimitObservers.UnregisterEventHandler(handler);
}

bool SchedulerSettings::IsDurationLimitEnabled() const {
    return impl->durationLimitEnabled;
}

void SchedulerSettings::SetDurationLimitEnabled(bool enabled) {
    if (enabled == impl->durationLimitEnabled) {
        return;
    }
    impl->durationLimitEnabled = enabled;
    impl->durationLimitObservers.PerformAll(
        &ICaptureDurationLimitSettingsObserver::OnDurationLimitEnabledChanged, enabled);
}

Time::Microseconds SchedulerSettings::GetDurationLimit() const {
    return impl->durationLimit;
}

void SchedulerSettings::SetDurationLimit(const Time::Microseconds& limit) {
    if (limit == impl->durationLimit) {
        return;
    }
    impl->durationLimit = limit;
    impl->durationLimitObservers.PerformAll(
        &ICaptureDurationLimitSettingsObserver::OnDurationLimitChanged, limit);
}

bool SchedulerSettings::IsSchedulerEnabled() const {
    return impl->enabledSetting.get();
}

void SchedulerSettings::SetSchedulerEnabled(bool enabled) {
    if (impl->enabledSetting.set(enabled)) {
        impl->schedulerSettingsObservers.PerformAll(
            &ICaptureSchedulerSettingsObserver::OnSchedulerEnabledChanged, enabled);
    }
}

RecordTimeList SchedulerSettings::GetSchedule() const {
    return impl->ReadSchedule();
}

void SchedulerSettings::SetSchedule(const RecordTimeList& schedule) {
    // Writes only when the value differs from what reads back now, as SettingsWrapper::set.
    if (impl->ReadSchedule() != schedule) {
        impl->scheduleSetting.forceSet(schedule);
        impl->schedulerSettingsObservers.PerformAll(
            &ICaptureSchedulerSettingsObserver::OnScheduleChanged, schedule);
    }
}

void SchedulerSettings::RegisterEventHandler(ICaptureSchedulerSettingsObserver* handler) {
    impl->schedulerSettingsObservers.RegisterEventHandler(handler);
}

void SchedulerSettings::UnregisterEventHandler(ICaptureSchedulerSettingsObserver* handler) {
    impl->schedulerSettingsObservers.UnregisterEventHandler(handler);
}

}  // namespace Vexlor::QK
