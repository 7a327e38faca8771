#pragma once

#include "interfaces/UiSettings.h"
#include "vexlor_platform_export.h"

namespace Vexlor::QK {

// User-interface settings fixed at construction, for hosts without a settings dialog.
class VEXLOR_PLATFORM_EXPORT FixedUiSettings : public IUiSettings {
public:
    FixedUiSettings(bool leadEnabled, Time::Microseconds lead);

    bool IsLeadTimeEnabled() const override;
    Time::Microseconds GetLeadTime() const override;

private:
    bool leadEnabled;
    Time::Microseconds lead;
};

}  // namespace Vexlor::QK
