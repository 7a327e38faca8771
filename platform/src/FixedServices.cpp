#include "platform/FixedServices.h"

#include <utility>

namespace Vexlor::App {

FixedCustomizationManager::FixedCustomizationManager(std::string title) : title(std::move(title)) {}

std::string FixedCustomizationManager::GetApplicationTitle() const {
    return title;
}

FixedLookAndFeelManager::FixedLookAndFeelManager(std::string language)
    : language(std::move(language)) {}

const std::string& FixedLookAndFeelManager::GetLanguage() const {
    return language;
}

}  // namespace Vexlor::App
