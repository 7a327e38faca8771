#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "interfaces/Gateway.h"

namespace Vexlor::ScheduleTool {

// Passes stimuli on to the real gateway and tells `onSend` first, so that the runner knows
// of a capture request before the queued gateway delivers it.
class RequestGateway : public ExternalStimulus::IGateway {
public:
    RequestGateway(std::shared_ptr<ExternalStimulus::IGateway> inner,
                   std::function<void(const std::string& name)> onSend)
        : inner(std::move(inner)), onSend(std::move(onSend)) {}

    void SendStimulus(ExternalStimulus::Stimulus stimulus) override {
        onSend(stimulus.name);
        inner->SendStimulus(std::move(stimulus));
    }

private:
    std::shared_ptr<ExternalStimulus::IGateway> inner;
    std::function<void(const std::string&)> onSend;
};

}  // namespace Vexlor::ScheduleTool
