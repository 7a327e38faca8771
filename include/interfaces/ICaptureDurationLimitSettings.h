#pragma once

#include "core/EventPublisher.h"
#include "interfaces/Clock.h"

namespace Vexlor::QK {

class ICaptureDurationLimitSettingsObserver {
public:
    virtual ~ICaptureDurationLimitSettingsObserver() = default;
    virtual void OnDurationLimitEnabledChanged(bool enabled) = 0;
    virtual void OnDurationLimitChanged(const Time::Microseconds& limit) = 0;
};

// A limit on the length of a capture, kept in memory for other modules.
class ICaptureDurationLimitSettings
    : public Core::EventPublisher<ICaptureDurationLimitSettingsObserver> {
public:
    virtual bool IsDurationLimitEnabled() const = 0;
    virtual void SetDurationLimitEnabled(bool enabled) = 0;
    virtual Time::Microseconds GetDurationLimit() const = 0;
    virtual void SetDurationLimit(const Time::Microseconds& limit) = 0;
};

}  // namespace Vexlor::QK
