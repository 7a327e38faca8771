#include "store/StoredSettings.h"

#include <algorithm>
#include <memory>

#include <QTextCodec>

#include "Scheduler/SchedulerSettings.h"
#include "platform/IniSettingsManager.h"
#include "store/RetryingSettingsManager.h"
#include "store/SettingsFileCheck.h"

namespace Vexlor::ScheduleTool {

namespace {

// A hand edit that left text where the schedule's bytes belong reads as a record count of
// billions: name the text instead.
std::string NotAScheduleReason(const std::vector<unsigned char>& stored, const char* decoderError) {
    const QByteArray bytes(reinterpret_cast<const char*>(stored.data()),
                           static_cast<int>(stored.size()));
    QTextCodec::ConverterState state;
    const QString text =
        QTextCodec::codecForMib(106)->toUnicode(bytes.constData(), bytes.size(), &state);
    const bool printable =
        std::all_of(text.begin(), text.end(), [](QChar c) { return c.isPrint(); });
    if (bytes.isEmpty() || state.invalidChars > 0 || state.remainingChars > 0 || !printable) {
        return std::string(" (") + decoderError + ")";
    }
    constexpr int SHOWN = 40;
    const QString shown = text.size() > SHOWN ? text.left(SHOWN) + QStringLiteral("...") : text;
    return " but the text \"" + shown.toStdString() + "\"";
}

}  // namespace

QK::RecordTimeList ReadSchedule(const QK::SchedulerSettings& settings,
                                const App::ISettingsManager& manager, const QString& path) {
    try {
        return settings.GetSchedule();
    } catch (const std::logic_error& error) {  // the decoder's; file errors are runtime errors
        throw UnreadableSchedule(
            "the schedule stored in " + path.toStdString() + " is not a schedule" +
            NotAScheduleReason(manager.getByteArray(OurKeys().schedule, {}), error.what()) +
            "; \"vexlor-schedule clear\" replaces it with an empty one");
    }
}

StoredSettings ReadStoredSettings(const QString& path) {
    CheckSettingsFile(path);
    auto manager = std::make_shared<App::IniSettingsManager>(path);
    QK::SchedulerSettings settings(manager);
    StoredSettings stored;
    stored.enabled = settings.IsSchedulerEnabled();
    stored.schedule = ReadSchedule(settings, *manager, path);
    stored.plans = ReadPlans(*manager, path);
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
