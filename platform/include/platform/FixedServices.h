#pragma once

#include <string>

#include "interfaces/ApplicationServices.h"
#include "vexlor_platform_export.h"

namespace Vexlor::App {

// An application title fixed at construction (UTF-8).
class VEXLOR_PLATFORM_EXPORT FixedCustomizationManager : public ICustomizationManager {
public:
    explicit FixedCustomizationManager(std::string title);
    std::string GetApplicationTitle() const override;

private:
    const std::string title;
};

// A locale name fixed at construction, such as "de" or "en_US".
class VEXLOR_PLATFORM_EXPORT FixedLookAndFeelManager : public ILookAndFeelManager {
public:
    explicit FixedLookAndFeelManager(std::string language);
    const std::string& GetLanguage() const override;

private:
    const std::string language;
};

}  // namespace Vexlor::App
