#pragma once

#include <functional>
#include <memory>

#include <QString>

#include "vexlor_host_core_export.h"

namespace Vexlor::DesktopNotification {

class INotification {
public:
    virtual ~INotification() = default;
    virtual QString GetAcceptButtonText() const = 0;
    virtual QString GetRejectButtonText() const = 0;
    virtual QString GetTitleText() const = 0;
    virtual QString GetInformationText() const = 0;
    virtual bool HasAcceptButton() const = 0;
    virtual void Accept() = 0;
    virtual void Reject() = 0;
};

// Feature numbers understood by IPresenter::SupportsFeature.
enum PresenterFeature : int {
    // The information text may carry <font color='...'> markup.
    RichTextColor = 0,
};

class IPresenter {
public:
    virtual ~IPresenter() = default;
    virtual void Show(std::shared_ptr<INotification> notification) = 0;
    virtual void Hide(std::shared_ptr<INotification> notification) = 0;
    virtual bool SupportsFeature(int feature) const = 0;
};

namespace Presenter {

// Process-wide source of presenters. The application chooses what it makes with
// SetCreator; without a creator, or when the creator returns null, it makes a console
// presenter, so the result is never null.
class VEXLOR_HOST_CORE_EXPORT Factory {
public:
    using Creator = std::function<std::shared_ptr<IPresenter>(int style, int priority,
                                                              const QString& category)>;

    static Factory& GetInstance();

    std::shared_ptr<IPresenter> CreateNativePresenterOrCustomWithParams(int style, int priority,
                                                                        const QString& category);

    // Returns the previous creator, so a caller can put it back.
    Creator SetCreator(Creator creator);

private:
    Factory() = default;
    struct State;
    static State& state();
};

}  // namespace Presenter
}  // namespace Vexlor::DesktopNotification
