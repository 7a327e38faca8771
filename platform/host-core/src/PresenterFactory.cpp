#include <mutex>
#include <utility>

#include "interfaces/DesktopNotification.h"
#include "platform/ConsolePresenter.h"

namespace Vexlor::DesktopNotification::Presenter {

struct Factory::State {
    std::mutex mutex;
    Creator creator;
};

Factory::State& Factory::state() {
    static State instance;
    return instance;
}

Factory& Factory::GetInstance() {
    static Factory instance;
    return instance;
}

std::shared_ptr<IPresenter> Factory::CreateNativePresenterOrCustomWithParams(
    int style, int priority, const QString& category) {
    Creator creator;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        creator = state().creator;
    }
    // Called outside the lock, so a creator may itself use the factory.
    std::shared_ptr<IPresenter> presenter;
    if (creator) {
        presenter = creator(style, priority, category);
    }
    if (!presenter) {
        presenter = std::make_shared<ConsolePresenter>();
    }
    return presenter;
}

Factory::Creator Factory::SetCreator(Creator creator) {
    std::lock_guard<std::mutex> lock(state().mutex);
    std::swap(state().creator, creator);
    return creator;
}

}  // namespace Vexlor::DesktopNotification::Presenter
