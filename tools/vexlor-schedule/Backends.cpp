#include "Backends.h"

#include "platform/ConsolePresenter.h"
#include "platform/StatePowerManager.h"

namespace Vexlor::ScheduleTool {

namespace {

// --notify none: notices go nowhere.
class SilentPresenter : public DesktopNotification::IPresenter {
public:
    void Show(std::shared_ptr<DesktopNotification::INotification>) override {}
    void Hide(std::shared_ptr<DesktopNotification::INotification>) override {}
    bool SupportsFeature(int) const override { return false; }
};

}  // namespace

std::shared_ptr<App::IPowerManager> MakePowerManager(std::function<void(bool)> onChange) {
    return std::make_shared<App::StatePowerManager>(std::move(onChange));
}

DesktopNotification::Presenter::Factory::Creator MakePresenterCreator(
    NoticeChoice choice, std::function<void(const QString&)> report) {
    if (choice == NoticeChoice::None) {
        return [](int, int, const QString&) -> std::shared_ptr<DesktopNotification::IPresenter> {
            return std::make_shared<SilentPresenter>();
        };
    }
    return [report = std::move(report)](
               int, int, const QString&) -> std::shared_ptr<DesktopNotification::IPresenter> {
        return std::make_shared<DesktopNotification::ConsolePresenter>(report);
    };
}

}  // namespace Vexlor::ScheduleTool
