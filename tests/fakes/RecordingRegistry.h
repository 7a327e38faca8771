#pragma once

#include <string>
#include <vector>

#include "interfaces/InstanceRegistry.h"

namespace Vexlor::Testing {

// A real registry that also keeps a log of every call; installed for the lifetime of the
// object only, so nothing leaks from one test into the next.
class RecordingRegistry : public QK::InstanceRegistry {
public:
    struct Call {
        std::string op;
        std::string key;
        void* instance;
        bool operator==(const Call& other) const {
            return op == other.op && key == other.key && instance == other.instance;
        }
    };

    RecordingRegistry() : scope(this) {}

    void DoRegister(const std::string& key, void* instance) override {
        calls.push_back({"register", key, instance});
        InstanceRegistry::DoRegister(key, instance);
    }
    void DoUnregister(const std::string& key, void* instance) override {
        calls.push_back({"unregister", key, instance});
        InstanceRegistry::DoUnregister(key, instance);
    }

    std::vector<Call> calls;

private:
    QK::ScopedInstanceRegistry scope;
};

}  // namespace Vexlor::Testing
