#include "platform/FixedUiSettings.h"

namespace Vexlor::QK {

FixedUiSettings::FixedUiSettings(bool leadEnabled, Time::Microseconds lead)
    : leadEnabled(leadEnabled), lead(lead) {}

bool FixedUiSettings::IsLeadTimeEnabled() const {
    return leadEnabled;
}

Time::Microseconds FixedUiSettings::GetLeadTime() const {
    return lead;
}

}  // namespace Vexlor::QK
