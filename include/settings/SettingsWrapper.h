#pragma once

#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "interfaces/SettingsManager.h"
#include "settings/ByteArrayConverter.h"

namespace Vexlor::App {

// Holds the settings manager that a persisted value reads and writes through.
class SettingsManagerKeeper {
public:
    SettingsManagerKeeper() = default;
    virtual ~SettingsManagerKeeper() = default;

    void setSettingsManager(const std::shared_ptr<ISettingsManager>& manager) {
        this->manager = manager;
    }

    // A copy, so that the manager outlives the call that uses it even if it is replaced.
    std::shared_ptr<ISettingsManager> settingsManager() const { return manager; }

private:
    std::shared_ptr<ISettingsManager> manager;
};

// One typed value in the application's settings under a full key, with a default for when
// nothing is stored. Nothing is cached: every read goes to the manager. bool and byte
// vectors are stored directly; any other T as the bytes that ByteArrayConverter<T> makes.
template <typename T>
class SettingsWrapper : public SettingsManagerKeeper {
public:
    using Bytes = std::vector<unsigned char>;

    SettingsWrapper(const std::string& key, const T& defaultValue)
        : defaultValue(defaultValue), key(key) {}

    SettingsWrapper(const std::shared_ptr<ISettingsManager>& manager, const std::string& key,
                    const T& defaultValue)
        : SettingsWrapper(key, defaultValue) {
        setSettingsManager(manager);
    }

    ~SettingsWrapper() override = default;

    SettingsWrapper(const SettingsWrapper&) = delete;
    SettingsWrapper& operator=(const SettingsWrapper&) = delete;

    T get() const {
        if constexpr (std::is_same_v<T, bool>) {
            return settingsManager()->getBool(key, defaultValue);
        } else if constexpr (std::is_same_v<T, Bytes>) {
            return settingsManager()->getByteArray(key, defaultValue);
        } else {
            SettingsWrapper<Bytes> bytes(key, ByteArrayConverter<T>()(defaultValue));
            bytes.setSettingsManager(settingsManager());
            return ByteArrayConverter<T>()(bytes.get());
        }
    }

    // Writes only when `value` differs from what reads back now; true when it wrote.
    bool set(const T& value) {
        if (get() == value) {
            return false;
        }
        forceSet(value);
        return true;
    }

    void forceSet(const T& value) {
        if constexpr (std::is_same_v<T, bool>) {
            settingsManager()->setBool(key, value);
        } else if constexpr (std::is_same_v<T, Bytes>) {
            settingsManager()->setByteArray(key, value);
        } else {
            const Bytes encoded = ByteArrayConverter<T>()(value);
            SettingsWrapper<Bytes> bytes(key, Bytes{});
            bytes.setSettingsManager(settingsManager());
            bytes.forceSet(encoded);
        }
    }

private:
    const T defaultValue;
    const std::string key;
};

}  // namespace Vexlor::App
