#pragma once

#include <memory>
#include <string>
#include <vector>

#include <QString>

#include "interfaces/DesktopNotification.h"

namespace Vexlor::Testing {

// Records what it is asked to show and withdraw.
class RecordingPresenter : public DesktopNotification::IPresenter {
public:
    struct Call {
        std::string operation;  // "Show" or "Hide"
        std::shared_ptr<DesktopNotification::INotification> notification;
    };

    void Show(std::shared_ptr<DesktopNotification::INotification> notification) override {
        calls.push_back({"Show", std::move(notification)});
    }
    void Hide(std::shared_ptr<DesktopNotification::INotification> notification) override {
        calls.push_back({"Hide", std::move(notification)});
    }
    bool SupportsFeature(int feature) const override {
        featureQueries.push_back(feature);
        return richText;
    }

    bool richText = true;
    std::vector<Call> calls;
    mutable std::vector<int> featureQueries;
};

// Makes the process-wide presenter factory hand out `presenter` and remember what it was
// asked for; puts the previous creator back at the end.
class ScopedPresenterCreator {
public:
    struct Request {
        int style;
        int priority;
        QString category;
    };

    explicit ScopedPresenterCreator(std::shared_ptr<DesktopNotification::IPresenter> presenter) {
        previous = DesktopNotification::Presenter::Factory::GetInstance().SetCreator(
            [this, presenter](int style, int priority, const QString& category) {
                requests.push_back({style, priority, category});
                return presenter;
            });
    }
    ~ScopedPresenterCreator() {
        DesktopNotification::Presenter::Factory::GetInstance().SetCreator(previous);
    }
    ScopedPresenterCreator(const ScopedPresenterCreator&) = delete;
    ScopedPresenterCreator& operator=(const ScopedPresenterCreator&) = delete;

    std::vector<Request> requests;

private:
    DesktopNotification::Presenter::Factory::Creator previous;
};

}  // namespace Vexlor::Testing
