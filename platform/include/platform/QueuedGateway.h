#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "interfaces/Gateway.h"
#include "vexlor_platform_export.h"

class QObject;

namespace Vexlor::ExternalStimulus {

// Hands each stimulus to the handler registered for its name, always later, from the event
// loop of the thread that created the gateway (never inside SendStimulus). The handler is
// looked up at delivery; a stimulus without one is dropped with a warning. Deliveries still
// queued when the gateway is destroyed are dropped.
class VEXLOR_PLATFORM_EXPORT QueuedGateway : public IGateway {
public:
    using Handler = std::function<void(Stimulus)>;

    QueuedGateway();
    ~QueuedGateway() override;
    QueuedGateway(const QueuedGateway&) = delete;
    QueuedGateway& operator=(const QueuedGateway&) = delete;

    // Replaces any handler of that name.
    void RegisterHandler(const std::string& name, Handler handler);
    void UnregisterHandler(const std::string& name);

    // May be called from any thread.
    void SendStimulus(Stimulus stimulus) override;

private:
    void Deliver(Stimulus stimulus);

    std::unique_ptr<QObject> context;
    std::mutex mutex;
    std::map<std::string, Handler> handlers;
};

}  // namespace Vexlor::ExternalStimulus
