#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "interfaces/SettingsManager.h"
#include "platform/IniSettingsManager.h"

class QTimer;

namespace Vexlor::ScheduleTool {

// For the one process that owns some settings: holds them in memory and writes every change
// through to the settings file, all changes made within one Batch in one rewrite. A write that
// fails never throws: the change stays in memory, is reported, and is retried until it lands, so
// the owner keeps working from what it was told while storage is gone or full, or while the
// file is not a settings file (CheckSettingsFile), which is never written over.
//
// A key is read from the inner manager the first time it is asked for (failures of that
// first read do throw) and from memory afterwards. Reload() takes what others wrote to
// the file. For the thread that runs the Qt event loop only.
class RetryingSettingsManager : public QK::IApplicationSettingsManager {
public:
    // Called with the failure's text when writing starts failing or fails for another
    // reason, and with nothing once everything is written again.
    using StorageCallback = std::function<void(const std::optional<std::string>& failure)>;

    RetryingSettingsManager(std::shared_ptr<App::IniSettingsManager> inner,
                            std::chrono::milliseconds retryInterval, StorageCallback onStorage);
    ~RetryingSettingsManager() override;
    RetryingSettingsManager(const RetryingSettingsManager&) = delete;
    RetryingSettingsManager& operator=(const RetryingSettingsManager&) = delete;

    void setBool(const std::string& key, bool value) override;
    void setByteArray(const std::string& key, const std::vector<unsigned char>& value) override;
    bool getBool(const std::string& key, bool defaultValue) const override;
    std::vector<unsigned char> getByteArray(
        const std::string& key, const std::vector<unsigned char>& defaultValue) const override;
    bool contains(const std::string& key) const override;
    void remove(const std::string& key) override;

    // Holds back the writes of the changes made while it lives; the last one to go writes
    // them all at once. Without one, each change is written as it is made.
    class [[nodiscard]] Batch {
    public:
        explicit Batch(RetryingSettingsManager& owner) : owner(owner) { ++owner.batches; }
        ~Batch() {
            if (--owner.batches == 0 && owner.HasPending()) {
                owner.Flush();
            }
        }
        Batch(const Batch&) = delete;
        Batch& operator=(const Batch&) = delete;

    private:
        RetryingSettingsManager& owner;
    };

    // Changes that did not reach the inner manager yet.
    bool HasPending() const { return !dirty.empty(); }
    // The failure of the last write, while changes are pending.
    const std::optional<std::string>& Failure() const { return failure; }

    // Tries the pending writes now; true when nothing is pending afterwards.
    bool Flush();
    // Writes every key held, pending or not: for a file that was removed behind our back.
    bool Rewrite();

    struct Entry {
        bool isBool = false;
        std::optional<std::variant<bool, std::vector<unsigned char>>> value;  // empty: absent
        bool operator==(const Entry& other) const {
            return isBool == other.isBool && value == other.value;
        }
    };
    using Snapshot = std::map<std::string, Entry>;

    // Re-reads the keys held from the inner manager, all or nothing: when a read throws, or the
    // file is not a settings file, what is held stays as it was and the exception passes on.
    // Returns whether anything changed. Meant for when nothing is pending; pending changes
    // would be overwritten.
    bool Reload();
    Snapshot Hold() const { return held; }
    void Restore(Snapshot snapshot) { held = std::move(snapshot); }

private:
    const Entry& Load(const std::string& key, bool isBool) const;
    void Store(const std::string& key, Entry entry);
    void Report(const std::optional<std::string>& now);

    std::shared_ptr<App::IniSettingsManager> inner;
    int batches = 0;  // open Batch guards
    StorageCallback onStorage;
    mutable Snapshot held;
    std::set<std::string> dirty;
    std::optional<std::string> failure;
    std::unique_ptr<QTimer> retry;
};

}  // namespace Vexlor::ScheduleTool
