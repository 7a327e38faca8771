#pragma once

#include "interfaces/Clock.h"

namespace Vexlor::QK {

class IUiSettings {
public:
    virtual ~IUiSettings() = default;
    // Whether captures are requested ahead of a record's start, and how far ahead.
    virtual bool IsLeadTimeEnabled() const = 0;
    virtual Time::Microseconds GetLeadTime() const = 0;
};

}  // namespace Vexlor::QK
