#pragma once

namespace Vexlor::Core {

template <typename Observer>
class EventPublisher {
public:
    virtual void RegisterEventHandler(Observer* handler) = 0;
    virtual void UnregisterEventHandler(Observer* handler) = 0;
    virtual ~EventPublisher() = default;
};

}  // namespace Vexlor::Core
