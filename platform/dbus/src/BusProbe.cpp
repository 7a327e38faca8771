#include "platform/BusProbe.h"

#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

namespace Vexlor::Platform::Bus {

namespace {

using Outcome = Probe::Outcome;
using Result = Probe::Result;
using SteadyClock = std::chrono::steady_clock;

// What libdbus falls back to when DBUS_SYSTEM_BUS_ADDRESS is not set (/var/run is /run).
const char* const DEFAULT_SYSTEM_BUS = "unix:path=/var/run/dbus/system_bus_socket";

Result Failed(Outcome outcome, std::string detail) {
    Result result;
    result.outcome = outcome;
    result.detail = std::move(detail);
    return result;
}

// Keeps the bytes that an address may hold as they are and escapes the rest.
std::string EscapeValue(std::string_view raw) {
    static const char* const hex = "0123456789abcdef";
    std::string out;
    for (const char c : raw) {
        const auto byte = static_cast<unsigned char>(c);
        const bool alphanumeric =
            (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (alphanumeric || (c != '\0' && std::strchr("-_/.\\*", c) != nullptr)) {
            out += c;
        } else {
            out += '%';
            out += hex[byte >> 4];
            out += hex[byte & 0xf];
        }
    }
    return out;
}

// The first part of `text` up to `separator`, which is taken off `text` with it.
std::string_view TakeUntil(std::string_view& text, char separator) {
    const std::size_t at = std::min(text.find(separator), text.size());
    const std::string_view part = text.substr(0, at);
    text.remove_prefix(std::min(at + 1, text.size()));
    return part;
}

// The entry as sd-bus gets it, or null for a transport that is not checked: beyond unix
// sockets, sd-bus and libdbus (QtDBus's) need not read an address alike. guid= is left out:
// which server answers is for QtDBus to check, and sd-bus gives up on a guid it cannot parse
// before it even connects.
std::optional<std::string> CheckableEntry(std::string_view entry) {
    constexpr std::string_view UNIX = "unix:";
    if (entry.substr(0, UNIX.size()) != UNIX) {
        return std::nullopt;
    }
    entry.remove_prefix(UNIX.size());
    std::string kept(UNIX);
    while (!entry.empty()) {
        const std::string_view key = TakeUntil(entry, ',');
        if (key.substr(0, 5) != "guid=") {
            kept.append(kept.size() > UNIX.size() ? "," : "").append(key);
        }
    }
    return kept;
}

// Hello's reply, or the error in its place, as the outcome.
int OnHello(sd_bus_message* reply, void* answer, sd_bus_error*) {
    Result& result = static_cast<std::optional<Result>*>(answer)->emplace();
    if (const sd_bus_error* error = sd_bus_message_get_error(reply)) {
        result = Failed(Outcome::Refused, std::string("Hello refused: ") + error->name);
    } else {
        result.outcome = Outcome::Answered;
    }
    return 0;
}

// Connects and sends the authentication. sd-bus sends no Hello of its own: ours goes out once
// authentication is over, so that the two steps are told apart. Nor does sd-bus time the
// Hello: the deadline does.
int Connect(sd_bus* bus, const std::string& entry) {
    for (const int r : {sd_bus_set_address(bus, entry.c_str()), sd_bus_set_bus_client(bus, 0),
                        sd_bus_set_method_call_timeout(bus, UINT64_MAX)}) {
        if (r < 0) {
            return r;
        }
    }
    return sd_bus_start(bus);
}

// One entry of an address list on a connection of its own, all within the deadline.
Result CheckEntry(const std::string& entry, SteadyClock::time_point deadline) {
    std::optional<Result> answer;  // outlives the bus, which may call OnHello until it goes
    std::unique_ptr<sd_bus, decltype(&sd_bus_close_unref)> bus(nullptr, &sd_bus_close_unref);
    int r;
    for (;;) {
        sd_bus* made = nullptr;
        r = sd_bus_new(&made);
        bus.reset(made);
        if (r >= 0) {
            r = Connect(made, entry);
        }
        if (r != -EAGAIN) {
            break;
        }
        // The listener's queue is full: it takes no connections now. A client that blocks
        // would wait here, so try again until the deadline.
        const auto left = deadline - SteadyClock::now();
        if (left <= SteadyClock::duration::zero()) {
            return Failed(Outcome::Silent, "the bus takes no connection");
        }
        std::this_thread::sleep_for(
            std::min<SteadyClock::duration>(std::chrono::milliseconds(20), left));
    }
    if (r == -EINVAL || r == -E2BIG) {
        return Failed(Outcome::Unsupported,
                      "unusable address \"" + entry + "\": " + std::strerror(-r));
    }
    if (r < 0) {
        return Failed(Outcome::Unreachable, std::string("connect: ") + std::strerror(-r));
    }
    bool authenticated = false;
    for (;;) {
        r = sd_bus_process(bus.get(), nullptr);
        if (r >= 0 && !authenticated && sd_bus_is_ready(bus.get()) > 0) {
            authenticated = true;
            r = sd_bus_call_method_async(bus.get(), nullptr, "org.freedesktop.DBus",
                                         "/org/freedesktop/DBus", "org.freedesktop.DBus", "Hello",
                                         OnHello, &answer, nullptr);
        }
        if (answer) {
            return *answer;
        }
        const std::string step = authenticated ? "Hello" : "authentication";
        const auto left = deadline - SteadyClock::now();
        if (r == 0 && left > SteadyClock::duration::zero()) {
            r = sd_bus_wait(bus.get(), std::chrono::ceil<std::chrono::microseconds>(left).count());
        }
        if (r < 0 && r != -EINTR) {
            return Failed(Outcome::Refused, step + " failed: " + std::strerror(-r));
        }
        if (sd_bus_is_open(bus.get()) <= 0) {
            return Failed(Outcome::Refused, "the connection ended during " + step);
        }
        if (left <= SteadyClock::duration::zero()) {
            return Failed(Outcome::Silent, "no answer to " + step);
        }
    }
}

Result CheckWithin(const std::string& address, SteadyClock::time_point deadline) {
    if (address.empty()) {
        return Failed(Outcome::NoAddress, "no bus address");
    }
    // As libdbus does: the first entry that takes the connection is the bus.
    std::optional<Result> unreachable;
    for (std::string_view rest = address; !rest.empty();) {
        const std::string_view entry = TakeUntil(rest, ';');
        if (entry.empty()) {
            continue;
        }
        const std::optional<std::string> checkable = CheckableEntry(entry);
        if (!checkable) {
            return Failed(Outcome::Unsupported, "only unix: addresses can be checked, not \"" +
                                                    std::string(entry) + "\"");
        }
        Result result = CheckEntry(*checkable, deadline);
        if (result.outcome != Outcome::Unreachable) {
            return result;
        }
        unreachable = std::move(result);
    }
    return unreachable ? *unreachable : Failed(Outcome::Unsupported, "empty address");
}

// ---- The check of each bus, once per process ----

struct Slot {
    std::mutex mutex;
    std::condition_variable finished;
    bool started = false;
    std::string address;  // set before the check starts, read-only after
    std::optional<Result> result;
};

// Shared with the checking thread, which may outlive the statics at exit.
std::shared_ptr<Slot> SlotOf(Kind kind) {
    static const std::array<std::shared_ptr<Slot>, 2> slots{std::make_shared<Slot>(),
                                                            std::make_shared<Slot>()};
    return slots[kind == Kind::Session ? 0 : 1];
}

}  // namespace

Probe::Result Probe::Check(const std::string& address, std::chrono::milliseconds timeout) {
    Result result = CheckWithin(address, SteadyClock::now() + timeout);
    result.address = address;
    return result;
}

std::string Probe::AddressOf(Kind kind) {
    const char* const variable =
        kind == Kind::Session ? "DBUS_SESSION_BUS_ADDRESS" : "DBUS_SYSTEM_BUS_ADDRESS";
    if (const char* const address = std::getenv(variable)) {
        return address;
    }
    if (kind == Kind::System) {
        return DEFAULT_SYSTEM_BUS;
    }
    // libdbus then takes the user's bus in the runtime folder, if it is a socket of the user.
    const char* const runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime == nullptr || *runtime == '\0') {
        return {};
    }
    const std::string path = std::string(runtime) + "/bus";
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode) ||
        status.st_uid != ::getuid()) {
        return {};
    }
    return "unix:path=" + EscapeValue(path);
}

void Probe::Start(Kind kind, std::chrono::milliseconds timeout) {
    const std::shared_ptr<Slot> slot = SlotOf(kind);
    {
        std::lock_guard<std::mutex> lock(slot->mutex);
        if (slot->started) {
            return;
        }
        slot->started = true;
        slot->address = AddressOf(kind);
    }
    auto check = [slot, timeout] {
        Result result = Check(slot->address, timeout);
        {
            std::lock_guard<std::mutex> lock(slot->mutex);
            slot->result = std::move(result);
        }
        slot->finished.notify_all();
    };
    try {
        // Detached: a check is bounded by its deadline, and exit need not wait for one.
        std::thread(check).detach();
    } catch (const std::system_error&) {
        check();
    }
}

Probe::Result Probe::Of(Kind kind, std::chrono::milliseconds timeout) {
    Start(kind, timeout);
    const std::shared_ptr<Slot> slot = SlotOf(kind);
    std::unique_lock<std::mutex> lock(slot->mutex);
    if (slot->finished.wait_for(lock, timeout, [&slot] { return slot->result.has_value(); })) {
        return *slot->result;
    }
    Result pending =
        Failed(Outcome::Silent, "still checking after " + std::to_string(timeout.count()) + " ms");
    pending.address = slot->address;
    return pending;
}

}  // namespace Vexlor::Platform::Bus
