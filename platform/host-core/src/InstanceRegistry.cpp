#include "interfaces/InstanceRegistry.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>

#include <cxxabi.h>

namespace Vexlor::QK {

namespace {
std::atomic<InstanceRegistry*> current{nullptr};
}

InstanceRegistry::InstanceRegistry() = default;

InstanceRegistry::~InstanceRegistry() {
    // A registry destroyed while installed must not be handed out any more.
    InstanceRegistry* self = this;
    current.compare_exchange_strong(self, nullptr);
}

InstanceRegistry* InstanceRegistry::Instance() {
    return current.load();
}

InstanceRegistry* InstanceRegistry::Install(InstanceRegistry* registry) {
    return current.exchange(registry);
}

std::string InstanceRegistry::Demangle(const std::string& name) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> readable(
        abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status), std::free);
    if (status != 0 || !readable) {
        return name;
    }
    return readable.get();
}

void InstanceRegistry::DoRegister(const std::string& key, void* instance) {
    std::lock_guard<std::mutex> lock(mutex);
    records[key].push_back(instance);
}

void InstanceRegistry::DoUnregister(const std::string& key, void* instance) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = records.find(key);
    if (it == records.end()) {
        return;
    }
    auto& instances = it->second;
    auto found = std::find(instances.rbegin(), instances.rend(), instance);
    if (found != instances.rend()) {
        instances.erase(std::next(found).base());
    }
    if (instances.empty()) {
        records.erase(it);
    }
}

void* InstanceRegistry::DoFind(const std::string& key) const {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = records.find(key);
    return it == records.end() || it->second.empty() ? nullptr : it->second.back();
}

}  // namespace Vexlor::QK
