#include "store/StoredSettings.h"

#include <memory>

#include "Scheduler/SchedulerSettings.h"
#include "platform/IniSettingsManager.h"

namespace Vexlor::ScheduleTool {

namespace {

// Where the settings object keeps the schedule; a schedule that does not decode can only be
// replaced below it.
const std::string SCHEDULE_KEY = "QK/Scheduler/schedule";
const std::string PLANS_KEY = "Runner/plans";

}  // namespace

StoredSettings ReadStoredSettings(const QString& path) {
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
    auto manager = std::make_shared<App::IniSettingsManager>(path);
    QK::SchedulerSettings settings(manager);
    try {
        settings.SetSchedule(wanted.schedule);
    } catch (const std::logic_error&) {
        // The old value does not decode, so the settings object cannot compare with it.
        manager->remove(SCHEDULE_KEY);
        settings.SetSchedule(wanted.schedule);
    }
    settings.SetSchedulerEnabled(wanted.enabled);
    WritePlans(*manager, wanted.plans);
}

PlanBook ReadPlans(const App::ISettingsManager& manager, const QString& path) {
    const std::vector<unsigned char> bytes = manager.getByteArray(PLANS_KEY, {});
    const auto plans = DecodePlans(
        QByteArray(reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size())));
    if (!plans) {
        throw UnreadableSchedule("the plans stored in " + path.toStdString() +
                                 " are unreadable; \"vexlor-schedule clear\" replaces them");
    }
    return *plans;
}

void WritePlans(App::ISettingsManager& manager, const PlanBook& plans) {
    const std::vector<unsigned char> old = manager.getByteArray(PLANS_KEY, {});
    const QByteArray encoded = plans.empty() ? QByteArray() : EncodePlans(plans);
    if (QByteArray(reinterpret_cast<const char*>(old.data()), static_cast<int>(old.size())) ==
        encoded) {
        return;
    }
    if (encoded.isEmpty()) {
        manager.remove(PLANS_KEY);
    } else {
        manager.setByteArray(PLANS_KEY, std::vector<unsigned char>(encoded.begin(), encoded.end()));
    }
}

}  // namespace Vexlor::ScheduleTool
