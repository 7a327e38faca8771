#pragma once

#include <string>

namespace Vexlor::App {

class ICustomizationManager {
public:
    virtual ~ICustomizationManager() = default;
    // UTF-8.
    virtual std::string GetApplicationTitle() const = 0;
};

class ILookAndFeelManager {
public:
    virtual ~ILookAndFeelManager() = default;
    // UTF-8 locale name as QLocale accepts it, such as "de" or "en_US".
    virtual const std::string& GetLanguage() const = 0;
};

}  // namespace Vexlor::App
