#include "store/StoredSettings.h"

#include <memory>

#include "Scheduler/SchedulerSettings.h"
#include "platform/IniSettingsManager.h"
#include "store/RetryingSettingsManager.h"
#include "store/SettingsFileCheck.h"

namespace Vexlor::ScheduleTool {

StoredSettings ReadStoredSettings(const QString& path) {
    CheckSettingsFile(path);
    auto manager = std::make_shared<App::IniSettingsManager>(path);
    QK::SchedulerSettings settings(manager);
    StoredSettings stored;
    stored.enabled = settings.IsSchedulerEnabled();
    try {
        stored.schedule = settings.GetSchedule();
        stored.plans = ReadPlans(*manager, path);
    } catch (const std::logic_error& error) {  // the decoder's; file errors are runtime errors
        throw UnreadableSchedule("the schedule stored in " + path.toStdString() +
                                 " is unreadable (" + error.what() +
                                 "); \"vexlor-schedule clear\" replaces it with an empty one");
    }
    return stored;
}

void WriteStoredSettings(const QString& path, const StoredSettings& wanted) {
    // Held and written as one change: schedule, flag and plans in one rewrite of the file.
    RetryingSettingsManager storage(std::make_shared<App::IniSettingsManager>(path),
                                    std::chrono::milliseconds(0), nullptr);
    {
        const RetryingSettingsManager::Batch batch(storage);
        auto manager = std::shared_ptr<RetryingSettingsManager>(&storage, [](auto*) {});
        QK::SchedulerSettings settings(manager);
        try {
            settings.SetSchedule(wanted.schedule);
        } catch (const std::logic_error&) {
            // The old value does not decode, so the settings object cannot compare with it.
            storage.remove(OurKeys().schedule);
            settings.SetSchedule(wanted.schedule);
        }
        settings.SetSchedulerEnabled(wanted.enabled);
        WritePlans(storage, wanted.plans);
    }
    if (storage.HasPending()) {
        throw std::runtime_error(storage.Failure().value_or("the settings were not written"));
    }
}

PlanBook ReadPlans(const App::ISettingsManager& manager, const QString& path) {
    const std::vector<unsigned char> bytes = manager.getByteArray(OurKeys().plans, {});
    const auto plans = DecodePlans(
        QByteArray(reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size())));
    if (!plans) {
        throw UnreadableSchedule("the plans stored in " + path.toStdString() +
                                 " are unreadable; \"vexlor-schedule clear\" replaces them");
    }
    return *plans;
}

void WritePlans(App::ISettingsManager& manager, const PlanBook& plans) {
    const std::vector<unsigned char> old = manager.getByteArray(OurKeys().plans, {});
    const QByteArray encoded = plans.empty() ? QByteArray() : EncodePlans(plans);
    if (QByteArray(reinterpret_cast<const char*>(old.data()), static_cast<int>(old.size())) ==
        encoded) {
        return;
    }
    if (encoded.isEmpty()) {
        manager.remove(OurKeys().plans);
    } else {
        manager.setByteArray(OurKeys().plans,
                             std::vector<unsigned char>(encoded.begin(), encoded.end()));
    }
}

}  // namespace Vexlor::ScheduleTool
