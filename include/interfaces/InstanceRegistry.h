#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "vexlor_host_core_export.h"

namespace Vexlor::QK {

// Process-wide directory in which modules publish service objects under the readable name
// of an interface ("Vexlor::QK::IScheduler") and find them again. There is none until the
// application installs one; Instance() is then null and publishing is skipped.
class VEXLOR_HOST_CORE_EXPORT InstanceRegistry {
public:
    InstanceRegistry();
    virtual ~InstanceRegistry();
    InstanceRegistry(const InstanceRegistry&) = delete;
    InstanceRegistry& operator=(const InstanceRegistry&) = delete;

    static InstanceRegistry* Instance();
    // Makes `registry` the process-wide one (null removes it) and returns the previous one.
    static InstanceRegistry* Install(InstanceRegistry* registry);

    // Readable, fully qualified name of a type from its type-information name.
    static std::string Demangle(const std::string& name);

    virtual void DoRegister(const std::string& key, void* instance);
    // Harmless when there is no such record.
    virtual void DoUnregister(const std::string& key, void* instance);
    // The instance registered last under `key`, or null.
    virtual void* DoFind(const std::string& key) const;

    template <typename T>
    void Register(T* instance) {
        DoRegister(Demangle(typeid(T).name()), static_cast<void*>(instance));
    }

    template <typename T>
    void Unregister(T* instance) {
        DoUnregister(Demangle(typeid(T).name()), static_cast<void*>(instance));
    }

    template <typename T>
    T* Find() const {
        return static_cast<T*>(DoFind(Demangle(typeid(T).name())));
    }

private:
    mutable std::mutex mutex;
    std::map<std::string, std::vector<void*>> records;
};

// Installs a registry for the lifetime of this object and restores the previous one.
class ScopedInstanceRegistry {
public:
    explicit ScopedInstanceRegistry(InstanceRegistry* registry)
        : previous(InstanceRegistry::Install(registry)) {}
    ~ScopedInstanceRegistry() { InstanceRegistry::Install(previous); }
    ScopedInstanceRegistry(const ScopedInstanceRegistry&) = delete;
    ScopedInstanceRegistry& operator=(const ScopedInstanceRegistry&) = delete;

private:
    InstanceRegistry* previous;
};

// Publishes one object as interface T for the lifetime of this handle.
template <typename T>
class InstanceRegistration {
public:
    explicit InstanceRegistration(T* instance) : instance(instance) {
        if (InstanceRegistry* registry = InstanceRegistry::Instance()) {
            registry->Register<T>(instance);
        }
    }

    // noexcept: a registry that throws here ends the process rather than leaving a
    // dangling record behind.
    ~InstanceRegistration() noexcept {
        if (InstanceRegistry* registry = InstanceRegistry::Instance()) {
            registry->Unregister<T>(instance);
        }
    }

    InstanceRegistration(const InstanceRegistration&) = delete;
    InstanceRegistration& operator=(const InstanceRegistration&) = delete;

private:
    T* instance;
};

}  // namespace Vexlor::QK
