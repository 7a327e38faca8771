#include "desktop/DesktopBackends.h"

#include <utility>

#include "base/Diagnostics.h"
#include "platform/ConsolePresenter.h"
#include "platform/StatePowerManager.h"
#ifdef VEXLOR_SCHEDULE_WITH_DBUS
#include "platform/BusProbe.h"
#include "platform/DBusNotificationPresenter.h"
#include "platform/LogindPowerManager.h"
#include "platform/LogindSleepSignal.h"
#endif

namespace Vexlor::ScheduleTool {

namespace {

using DesktopNotification::INotification;
using DesktopNotification::IPresenter;

// --notify none: notices go nowhere.
class SilentPresenter : public IPresenter {
public:
    void Show(std::shared_ptr<INotification>) override {}
    void Hide(std::shared_ptr<INotification>) override {}
    bool SupportsFeature(int) const override { return false; }
};

#ifdef VEXLOR_SCHEDULE_WITH_DBUS
// The desktop shows the notice; the event line records that it was handed over.
class ReportingPresenter : public IPresenter {
public:
    ReportingPresenter(std::shared_ptr<IPresenter> desktop,
                       std::function<void(const QString&)> report)
        : desktop(std::move(desktop)), report(std::move(report)) {}

    void Show(std::shared_ptr<INotification> notification) override {
        desktop->Show(notification);
        report(QStringLiteral("Notice on the desktop: %1").arg(OneLine(*notification)));
    }
    void Hide(std::shared_ptr<INotification> notification) override {
        desktop->Hide(notification);
        report(QStringLiteral("Notice withdrawn from the desktop: %1")
                   .arg(notification->GetTitleText().simplified()));
    }
    bool SupportsFeature(int feature) const override { return desktop->SupportsFeature(feature); }

private:
    static QString OneLine(const INotification& notification) {
        return notification.GetTitleText().simplified() + QStringLiteral(": ") +
               notification.GetInformationText().simplified();
    }

    std::shared_ptr<IPresenter> desktop;
    std::function<void(const QString&)> report;
};
#endif

}  // namespace

NoticeChoice DefaultNoticeChoice() {
#ifndef VEXLOR_SCHEDULE_WITH_DBUS
    return NoticeChoice::Console;
#endif
    for (const char* name :
         {"DBUS_SESSION_BUS_ADDRESS", "WAYLAND_DISPLAY", "DISPLAY", "XDG_CURRENT_DESKTOP"}) {
        if (!qEnvironmentVariableIsEmpty(name)) {
            return NoticeChoice::Desktop;
        }
    }
    return NoticeChoice::Console;
}

std::shared_ptr<App::IPowerManager> MakePowerManager(bool keepAwake,
                                                     [[maybe_unused]] SleepCallback onChange) {
#ifdef VEXLOR_SCHEDULE_WITH_DBUS
    if (keepAwake) {
        auto logind = App::LogindPowerManager::Create(
            QStringLiteral("vexlor-schedule"), QStringLiteral("A scheduled recording is planned"),
            std::move(onChange));
        if (logind) {
            return logind;
        }
        Warn("logind does not answer on the system bus; the machine may sleep");
    }
#else
    if (keepAwake) {
        Warn("built without D-Bus; the machine may sleep");
    }
#endif
    // Without a lock nothing keeps the machine awake, so nothing is reported: a "sleep
    // prevented" line would claim the opposite of the warning (or of --no-keep-awake).
    return std::make_shared<App::StatePowerManager>();
}

std::shared_ptr<void> WatchSleep([[maybe_unused]] std::function<void(bool)> onSleep) {
#ifdef VEXLOR_SCHEDULE_WITH_DBUS
    return App::LogindSleepSignal::Create(std::move(onSleep));
#else
    return nullptr;
#endif
}

DesktopNotification::Presenter::Factory::Creator MakePresenterCreator(
    NoticeChoice choice, std::function<void(const QString&)> report) {
#ifdef VEXLOR_SCHEDULE_WITH_DBUS
    if (choice == NoticeChoice::Desktop) {
        // Checked in the background from now on, beside the system bus that MakePowerManager
        // checks, so that two buses that do not answer cost one bound and not two.
        Platform::Bus::Probe::Start(Platform::Bus::Kind::Session,
                                    DesktopNotification::DBusNotificationPresenter::DefaultTimeout);
    }
    // The sleep signal comes over the system bus also with --no-keep-awake.
    Platform::Bus::Probe::Start(Platform::Bus::Kind::System,
                                App::LogindSleepSignal::DefaultTimeout);
#endif
    if (choice == NoticeChoice::None) {
        return [](int, int, const QString&) -> std::shared_ptr<IPresenter> {
            return std::make_shared<SilentPresenter>();
        };
    }
    return [choice, report = std::move(report)](int, int,
                                                const QString&) -> std::shared_ptr<IPresenter> {
        if (choice == NoticeChoice::Desktop) {
#ifdef VEXLOR_SCHEDULE_WITH_DBUS
            if (auto desktop = DesktopNotification::DBusNotificationPresenter::Create(
                    QStringLiteral("vexlor-schedule"))) {
                return std::make_shared<ReportingPresenter>(std::move(desktop), report);
            }
            Warn("no notification service answers on the session bus; notices go to the console");
#else
            Warn("built without D-Bus; notices go to the console");
#endif
        }
        return std::make_shared<DesktopNotification::ConsolePresenter>(report);
    };
}

}  // namespace Vexlor::ScheduleTool
