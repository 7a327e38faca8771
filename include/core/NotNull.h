#pragma once

#include <stdexcept>
#include <utility>

namespace Vexlor::Core {

// Holds a service pointer that is never null. Access yields a copy of the pointer, so a
// call made through it keeps the service alive until the call returns.
template <typename P>
class NotNull {
public:
    NotNull(const P& pointer) : pointer(pointer) {  // NOLINT(google-explicit-constructor)
        if (!this->pointer) {
            throw std::logic_error("NotNull can not initialized by null");
        }
    }

    P get() const { return pointer; }
    P operator->() const { return pointer; }
    auto& operator*() const { return *pointer; }

private:
    P pointer;
};

}  // namespace Vexlor::Core
