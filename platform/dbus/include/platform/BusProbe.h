#pragma once

#include <chrono>
#include <string>

#include "vexlor_platform_dbus_export.h"

namespace Vexlor::Platform::Bus {

enum class Kind { Session, System };

// Checks that a bus answers before QtDBus is let near it. QtDBus connects, authenticates and
// says Hello to the session and system bus without any time limit, in a thread of its own
// that every later connection waits behind, so a bus that takes the connection and never
// answers would hold the caller for good. The probe takes the same steps with sd-bus on a
// connection of its own (connect, SASL EXTERNAL, Hello and its reply) and gives up at a
// deadline.
//
// Only the transports `unix:path=` and `unix:abstract=` can be checked; an address that
// needs another one fails the check, and so QtDBus never gets that bus. A `guid=` in the
// address is not checked: which server answers is QtDBus's concern.
class VEXLOR_PLATFORM_DBUS_EXPORT Probe {
public:
    static constexpr std::chrono::milliseconds DefaultTimeout{2000};

    enum class Outcome {
        Answered,     // authenticated and answered Hello: the bus works
        NoAddress,    // no address to try (a session bus is not always there)
        Unsupported,  // the address is malformed or needs a transport the probe cannot check
        Unreachable,  // nothing listens there
        Refused,      // authentication refused, Hello answered with an error, or garbage
        Silent,       // no complete answer before the deadline
    };

    struct Result {
        Outcome outcome = Outcome::NoAddress;
        std::string address;
        std::string detail;  // what went wrong, for a log

        bool Answered() const { return outcome == Outcome::Answered; }
    };

    // Checks `address` (a D-Bus address list, "unix:path=/run/user/1000/bus") now, taking at
    // most `timeout`. Not cached; safe from any thread.
    static Result Check(const std::string& address, std::chrono::milliseconds timeout);

    // The address that the bus of `kind` has in this process's environment, as libdbus finds
    // it: DBUS_SESSION_BUS_ADDRESS, else $XDG_RUNTIME_DIR/bus when that socket exists and is
    // ours; DBUS_SYSTEM_BUS_ADDRESS, else unix:path=/var/run/dbus/system_bus_socket. Empty
    // when there is none (a variable that is set and empty counts as none).
    static std::string AddressOf(Kind kind);

    // The bus of `kind` is checked once per process, and its outcome is kept.

    // Starts that check in the background, with `timeout` as its own limit, unless it has
    // started already. Returns at once; lets both buses be checked side by side.
    static void Start(Kind kind, std::chrono::milliseconds timeout = DefaultTimeout);

    // The check's outcome, waiting at most `timeout` for it; a check not started yet starts
    // here with `timeout` as its limit. A check still under way when the wait ends counts as
    // Silent for this caller and goes on for the next one.
    static Result Of(Kind kind, std::chrono::milliseconds timeout = DefaultTimeout);
};

}  // namespace Vexlor::Platform::Bus
