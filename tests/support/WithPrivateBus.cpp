// Linked into the test binaries that talk to fake services: gives the process its own bus.
#include "fakes/PrivateBus.h"

namespace {
testing::Environment* const privateBus =
    testing::AddGlobalTestEnvironment(new Vexlor::Testing::PrivateBusEnvironment);
}  // namespace
