#include "platform/QueuedGateway.h"

#include <utility>

#include <QMetaObject>
#include <QObject>

#include "Logging.h"

namespace Vexlor::ExternalStimulus {

QueuedGateway::QueuedGateway() : context(std::make_unique<QObject>()) {}

// Destroying the context removes the deliveries still queued for it; it goes first, before
// the handlers those deliveries would use.
QueuedGateway::~QueuedGateway() {
    context.reset();
}

void QueuedGateway::RegisterHandler(const std::string& name, Handler handler) {
    std::lock_guard<std::mutex> lock(mutex);
    handlers[name] = std::move(handler);
}

void QueuedGateway::UnregisterHandler(const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex);
    handlers.erase(name);
}

void QueuedGateway::SendStimulus(Stimulus stimulus) {
    QMetaObject::invokeMethod(
        context.get(), [this, stimulus = std::move(stimulus)] { Deliver(stimulus); },
        Qt::QueuedConnection);
}

void QueuedGateway::Deliver(Stimulus stimulus) {
    Handler handler;
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto it = handlers.find(stimulus.name);
        if (it != handlers.end()) {
            handler = it->second;
        }
    }
    if (!handler) {
        qCWarning(Platform::lcPlatform, "QueuedGateway: no handler for stimulus \"%s\"; dropped",
                  stimulus.name.c_str());
        return;
    }
    // Copied out, so a handler may unregister itself or others.
    handler(std::move(stimulus));
}

}  // namespace Vexlor::ExternalStimulus
