#include "store/RetryingSettingsManager.h"

#include <exception>
#include <utility>

#include <QTimer>

#include "store/SettingsFileCheck.h"

namespace Vexlor::ScheduleTool {

namespace {

RetryingSettingsManager::Entry ReadEntry(const App::ISettingsManager& manager,
                                         const std::string& key, bool isBool) {
    RetryingSettingsManager::Entry entry;
    entry.isBool = isBool;
    if (!manager.contains(key)) {
        return entry;
    }
    if (isBool) {
        entry.value = manager.getBool(key, false);
    } else {
        entry.value = manager.getByteArray(key, {});
    }
    return entry;
}

}  // namespace

RetryingSettingsManager::RetryingSettingsManager(std::shared_ptr<App::IniSettingsManager> inner,
                                                 std::chrono::milliseconds retryInterval,
                                                 StorageCallback onStorage)
    : inner(std::move(inner)), onStorage(std::move(onStorage)), retry(std::make_unique<QTimer>()) {
    retry->setSingleShot(true);
    retry->setInterval(static_cast<int>(retryInterval.count()));
    QObject::connect(retry.get(), &QTimer::timeout, [this] { Flush(); });
}

RetryingSettingsManager::~RetryingSettingsManager() = default;

const RetryingSettingsManager::Entry& RetryingSettingsManager::Load(const std::string& key,
                                                                    bool isBool) const {
    auto found = held.find(key);
    if (found == held.end()) {
        found = held.emplace(key, ReadEntry(*inner, key, isBool)).first;
    }
    return found->second;
}

void RetryingSettingsManager::setBool(const std::string& key, bool value) {
    Store(key, Entry{true, value});
}

void RetryingSettingsManager::setByteArray(const std::string& key,
                                           const std::vector<unsigned char>& value) {
    Store(key, Entry{false, value});
}

bool RetryingSettingsManager::getBool(const std::string& key, bool defaultValue) const {
    const Entry& entry = Load(key, true);
    if (!entry.value) {
        return defaultValue;
    }
    if (const bool* flag = std::get_if<bool>(&*entry.value)) {
        return *flag;
    }
    return !std::get<std::vector<unsigned char>>(*entry.value).empty();
}

std::vector<unsigned char> RetryingSettingsManager::getByteArray(
    const std::string& key, const std::vector<unsigned char>& defaultValue) const {
    const Entry& entry = Load(key, false);
    if (!entry.value) {
        return defaultValue;
    }
    if (const auto* bytes = std::get_if<std::vector<unsigned char>>(&*entry.value)) {
        return *bytes;
    }
    return std::vector<unsigned char>{static_cast<unsigned char>(std::get<bool>(*entry.value))};
}

bool RetryingSettingsManager::contains(const std::string& key) const {
    const auto found = held.find(key);
    if (found != held.end()) {
        return found->second.value.has_value();
    }
    return inner->contains(key);
}

void RetryingSettingsManager::remove(const std::string& key) {
    const auto found = held.find(key);
    Store(key, Entry{found != held.end() && found->second.isBool, std::nullopt});
}

void RetryingSettingsManager::Store(const std::string& key, Entry entry) {
    held[key] = std::move(entry);
    dirty.insert(key);
    if (batches == 0) {
        Flush();
    }
}

bool RetryingSettingsManager::Flush() {
    if (!dirty.empty()) {
        std::vector<std::pair<std::string, std::optional<App::IniSettingsManager::Value>>> changes;
        for (const std::string& key : dirty) {
            changes.emplace_back(key, held.at(key).value);
        }
        try {
            CheckSettingsFile(inner->filePath());  // never written over with our keys
            inner->Apply(changes);
        } catch (const std::exception& error) {
            Report(std::string(error.what()));
            retry->start();
            return false;
        }
        dirty.clear();
    }
    retry->stop();
    Report(std::nullopt);
    return true;
}

bool RetryingSettingsManager::Rewrite() {
    for (const auto& [key, entry] : held) {
        dirty.insert(key);
    }
    return Flush();
}

bool RetryingSettingsManager::Reload() {
    CheckSettingsFile(inner->filePath());
    Snapshot fresh;
    for (const auto& [key, entry] : held) {
        fresh.emplace(key, ReadEntry(*inner, key, entry.isBool));
    }
    if (fresh == held) {
        return false;
    }
    held = std::move(fresh);
    dirty.clear();
    return true;
}

void RetryingSettingsManager::Report(const std::optional<std::string>& now) {
    if (now == failure) {
        return;
    }
    failure = now;
    if (onStorage) {
        onStorage(failure);
    }
}

}  // namespace Vexlor::ScheduleTool
