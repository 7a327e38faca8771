#pragma once

#include <string>
#include <vector>

namespace Vexlor::App {

// Key-value store of the application's settings. Keys are full paths such as
// "QK/Scheduler/schedule".
class ISettingsManager {
public:
    virtual ~ISettingsManager() = default;

    virtual void setBool(const std::string& key, bool value) = 0;
    virtual void setByteArray(const std::string& key, const std::vector<unsigned char>& value) = 0;
    virtual bool getBool(const std::string& key, bool defaultValue) const = 0;
    virtual std::vector<unsigned char> getByteArray(
        const std::string& key, const std::vector<unsigned char>& defaultValue) const = 0;

    virtual bool contains(const std::string& key) const = 0;
    virtual void remove(const std::string& key) = 0;
};

}  // namespace Vexlor::App

namespace Vexlor::QK {

class IApplicationSettingsManager : public App::ISettingsManager {};

}  // namespace Vexlor::QK
