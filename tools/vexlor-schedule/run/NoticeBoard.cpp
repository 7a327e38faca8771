#include "run/NoticeBoard.h"

namespace Vexlor::ScheduleTool {

class NoticeBoard::Watcher : public DesktopNotification::IPresenter {
public:
    using INotification = DesktopNotification::INotification;

    Watcher(std::shared_ptr<IPresenter> inner, std::shared_ptr<Map> shown)
        : inner(std::move(inner)), shown(std::move(shown)) {}
    void Show(std::shared_ptr<INotification> notification) override {
        inner->Show(notification);
        (*shown)[notification.get()] = {notification->GetTitleText().simplified(),
                                        notification->GetInformationText().simplified()};
    }
    void Hide(std::shared_ptr<INotification> notification) override {
        inner->Hide(notification);
        shown->erase(notification.get());
    }
    bool SupportsFeature(int feature) const override { return inner->SupportsFeature(feature); }

private:
    std::shared_ptr<IPresenter> inner;
    std::shared_ptr<Map> shown;
};

DesktopNotification::Presenter::Factory::Creator NoticeBoard::Watch(
    DesktopNotification::Presenter::Factory::Creator inner) {
    return [shown = shown, inner = std::move(inner)](int style, int priority,
                                                     const QString& category) {
        return std::make_shared<Watcher>(inner(style, priority, category), shown);
    };
}

QList<LiveNotice> NoticeBoard::Shown() const {
    QList<LiveNotice> notices;
    for (const auto& [notification, notice] : *shown) {
        notices << notice;
    }
    return notices;
}

}  // namespace Vexlor::ScheduleTool
