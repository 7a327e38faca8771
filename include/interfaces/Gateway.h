#pragma once

#include <functional>
#include <string>

namespace Vexlor::ExternalStimulus {

// A request from a module to the application, identified by name. The application runs
// the callback when it has carried the request out.
struct Stimulus {
    std::string name;
    std::function<void()> callback;
};

class IGateway {
public:
    virtual ~IGateway() = default;
    virtual void SendStimulus(Stimulus stimulus) = 0;
};

}  // namespace Vexlor::ExternalStimulus
