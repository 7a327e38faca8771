#include "platform/BusProbe.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstddef>
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
#include <vector>

namespace Vexlor::Platform::Bus {

namespace {

using Outcome = Probe::Outcome;
using Result = Probe::Result;
using SteadyClock = std::chrono::steady_clock;

// What libdbus falls back to when DBUS_SYSTEM_BUS_ADDRESS is not set (/var/run is /run).
const char* const DEFAULT_SYSTEM_BUS = "unix:path=/var/run/dbus/system_bus_socket";

// The most that is read of one answer: the authentication line, the reply to Hello and the
// signals a bus may send before it are a few hundred bytes each.
constexpr std::size_t MAX_ANSWER = 64 * 1024;

// The serial of the Hello call, which its reply names.
constexpr std::uint32_t HELLO_SERIAL = 1;

// Message types and header fields of the D-Bus wire protocol.
constexpr char METHOD_RETURN = 2;
constexpr char ERROR_REPLY = 3;
constexpr unsigned char FIELD_ERROR_NAME = 4;
constexpr unsigned char FIELD_REPLY_SERIAL = 5;

class Deadline {
public:
    explicit Deadline(std::chrono::milliseconds timeout) : end(SteadyClock::now() + timeout) {}

    // For poll: whole milliseconds left, rounded up; 0 once the deadline has passed.
    int LeftMs() const {
        const auto left = end - SteadyClock::now();
        if (left <= SteadyClock::duration::zero()) {
            return 0;
        }
        return static_cast<int>(std::min<long long>(
            std::chrono::ceil<std::chrono::milliseconds>(left).count(), INT_MAX));
    }

private:
    SteadyClock::time_point end;
};

class Socket {
public:
    Socket() = default;
    explicit Socket(int fd) : fd(fd) {}
    ~Socket() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    Socket(Socket&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    Socket& operator=(Socket&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int Get() const { return fd; }

private:
    int fd = -1;
};

Result Failed(Outcome outcome, std::string detail) {
    Result result;
    result.outcome = outcome;
    result.detail = std::move(detail);
    return result;
}

std::string ErrorText(int error) {
    return std::strerror(error);
}

// At most 80 bytes of what a peer sent, control bytes shown as '?', for a log line.
std::string Printable(std::string_view text) {
    std::string shown(text.substr(0, 80));
    for (char& c : shown) {
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7f) {
            c = '?';
        }
    }
    return shown;
}

// ---- Addresses ----

// One entry of an address list, "unix:path=/run/user/1000/bus,guid=...", values unescaped.
struct Entry {
    std::string transport;
    std::vector<std::pair<std::string, std::string>> keys;

    std::optional<std::string> Value(std::string_view key) const {
        for (const auto& [name, value] : keys) {
            if (name == key) {
                return value;
            }
        }
        return std::nullopt;
    }
};

int HexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

std::optional<std::string> Unescape(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        if (i + 2 >= text.size()) {
            return std::nullopt;
        }
        const int high = HexValue(text[i + 1]);
        const int low = HexValue(text[i + 2]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        out += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return out;
}

// The entries of an address list separated by ';', in order; null with `error` set when the
// list is malformed.
std::optional<std::vector<Entry>> ParseAddress(std::string_view text, std::string& error) {
    std::vector<Entry> entries;
    while (!text.empty()) {
        const std::size_t semicolon = text.find(';');
        const std::string_view item = text.substr(0, semicolon);
        text =
            semicolon == std::string_view::npos ? std::string_view() : text.substr(semicolon + 1);
        if (item.empty()) {
            continue;
        }
        const std::size_t colon = item.find(':');
        if (colon == std::string_view::npos || colon == 0) {
            error = "no transport in \"" + Printable(item) + "\"";
            return std::nullopt;
        }
        Entry entry;
        entry.transport = std::string(item.substr(0, colon));
        std::string_view pairs = item.substr(colon + 1);
        while (!pairs.empty()) {
            const std::size_t comma = pairs.find(',');
            const std::string_view pair = pairs.substr(0, comma);
            pairs = comma == std::string_view::npos ? std::string_view() : pairs.substr(comma + 1);
            const std::size_t equals = pair.find('=');
            std::optional<std::string> value;
            if (equals != std::string_view::npos && equals != 0) {
                value = Unescape(pair.substr(equals + 1));
            }
            if (!value) {
                error = "malformed key in \"" + Printable(item) + "\"";
                return std::nullopt;
            }
            entry.keys.emplace_back(std::string(pair.substr(0, equals)), std::move(*value));
        }
        entries.push_back(std::move(entry));
    }
    if (entries.empty()) {
        error = "empty address";
        return std::nullopt;
    }
    return entries;
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

struct Endpoint {
    sockaddr_un address{};
    socklen_t length = 0;
};

// Where a client connects for `entry`; null with `error` set for a transport that the probe
// cannot check. dir=, tmpdir= and runtime= name a place for a server to listen, not a socket.
std::optional<Endpoint> EndpointOf(const Entry& entry, std::string& error) {
    if (entry.transport != "unix") {
        error = "transport \"" + Printable(entry.transport) + "\" cannot be checked";
        return std::nullopt;
    }
    const std::optional<std::string> path = entry.Value("path");
    const std::optional<std::string> abstract = entry.Value("abstract");
    if (path.has_value() == abstract.has_value()) {
        error = "a unix address needs one of path= and abstract=";
        return std::nullopt;
    }
    const std::string& name = path ? *path : *abstract;
    // An abstract name starts after a NUL byte; a path ends with one.
    const std::size_t lead = path ? 0 : 1;
    Endpoint endpoint;
    if (name.empty() || name.find('\0') != std::string::npos ||
        lead + name.size() + 1 > sizeof endpoint.address.sun_path) {
        error = "unusable socket name \"" + Printable(name) + "\"";
        return std::nullopt;
    }
    endpoint.address.sun_family = AF_UNIX;
    std::memcpy(endpoint.address.sun_path + lead, name.data(), name.size());
    endpoint.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + lead + name.size());
    return endpoint;
}

// ---- Waiting on the socket ----

// The events that came, or 0 when the deadline passed first.
short WaitFor(int fd, short events, const Deadline& deadline) {
    for (;;) {
        pollfd entry{fd, events, 0};
        const int ready = ::poll(&entry, 1, deadline.LeftMs());
        if (ready > 0) {
            return entry.revents;
        }
        if (ready == 0) {
            if (deadline.LeftMs() == 0) {
                return 0;
            }
        } else if (errno != EINTR) {
            return POLLERR;
        }
    }
}

enum class Connection { Made, Unreachable, Silent };

Connection Connect(const Endpoint& endpoint, const Deadline& deadline, Socket& connected,
                   std::string& detail) {
    for (;;) {
        Socket socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        if (socket.Get() < 0) {
            detail = "socket: " + ErrorText(errno);
            return Connection::Unreachable;
        }
        if (::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&endpoint.address),
                      endpoint.length) == 0) {
            connected = std::move(socket);
            return Connection::Made;
        }
        const int error = errno;
        if (error == EAGAIN) {
            // The listener's queue is full: it takes no connections now. A client that
            // blocks would wait here, so try again until the deadline.
            if (deadline.LeftMs() == 0) {
                detail = "the bus takes no connection";
                return Connection::Silent;
            }
            ::poll(nullptr, 0, std::min(20, deadline.LeftMs()));
            continue;
        }
        if (error != EINPROGRESS && error != EINTR) {
            detail = "connect: " + ErrorText(error);
            return Connection::Unreachable;
        }
        if (WaitFor(socket.Get(), POLLOUT, deadline) == 0) {
            detail = "connecting timed out";
            return Connection::Silent;
        }
        int socketError = 0;
        socklen_t size = sizeof socketError;
        if (::getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &socketError, &size) != 0) {
            socketError = errno;
        }
        if (socketError != 0) {
            detail = "connect: " + ErrorText(socketError);
            return Connection::Unreachable;
        }
        connected = std::move(socket);
        return Connection::Made;
    }
}

// One conversation with a bus over a connected socket, all within one deadline.
class Conversation {
public:
    Conversation(int fd, const Deadline& deadline) : fd(fd), deadline(deadline) {}

    Result Run() {
        if (!Authenticate() || !Send("BEGIN\r\n" + HelloMessage()) || !AwaitHelloReply()) {
            return failure;
        }
        Result answered;
        answered.outcome = Outcome::Answered;
        return answered;
    }

private:
    // SASL EXTERNAL: the bus checks the uid against the socket's credentials.
    bool Authenticate() {
        std::string request(1, '\0');
        request += "AUTH EXTERNAL ";
        static const char* const hex = "0123456789abcdef";
        for (const char digit : std::to_string(::geteuid())) {
            request += hex[static_cast<unsigned char>(digit) >> 4];
            request += hex[static_cast<unsigned char>(digit) & 0xf];
        }
        request += "\r\n";
        if (!Send(request)) {
            return false;
        }
        std::size_t end;
        while ((end = received.find("\r\n")) == std::string::npos) {
            if (!Receive("authentication")) {
                return false;
            }
        }
        const std::string line = received.substr(0, end);
        received.erase(0, end + 2);
        if (line.compare(0, 3, "OK ") != 0) {
            return Fail(Outcome::Refused, "authentication refused: " + Printable(line));
        }
        return true;
    }

    bool AwaitHelloReply() {
        for (;;) {
            Header header;
            switch (ReadHeader(header)) {
                case Parsed::Malformed:
                    return Fail(Outcome::Refused, "the answer to Hello is not D-Bus");
                case Parsed::Incomplete:
                    if (!Receive("Hello")) {
                        return false;
                    }
                    continue;
                case Parsed::Complete:
                    break;
            }
            if (header.replySerial == HELLO_SERIAL && header.type == METHOD_RETURN) {
                return true;
            }
            if (header.replySerial == HELLO_SERIAL && header.type == ERROR_REPLY) {
                return Fail(Outcome::Refused, "Hello refused: " + Printable(header.errorName));
            }
            received.erase(0, header.size);  // a signal or other message before the reply
        }
    }

    // org.freedesktop.DBus.Hello(), little-endian, no body.
    static std::string HelloMessage() {
        std::string message{'l', 1 /* method call */, 0 /* flags */, 1 /* version */};
        const auto pad = [&message](std::size_t alignment) {
            message.resize((message.size() + alignment - 1) / alignment * alignment, '\0');
        };
        const auto u32 = [&](std::uint32_t value) {
            pad(4);
            for (int shift = 0; shift < 32; shift += 8) {
                message += static_cast<char>((value >> shift) & 0xff);
            }
        };
        const auto field = [&](char code, char type, std::string_view value) {
            pad(8);
            message += code;
            message += '\1';  // signature of one type
            message += type;
            message += '\0';
            u32(static_cast<std::uint32_t>(value.size()));
            message += value;
            message += '\0';
        };
        u32(0);             // body length
        u32(HELLO_SERIAL);  // serial
        u32(0);             // header fields' length, filled in below
        field(1, 'o', "/org/freedesktop/DBus");
        field(6, 's', "org.freedesktop.DBus");
        field(2, 's', "org.freedesktop.DBus");
        field(3, 's', "Hello");
        const auto fieldsLength = static_cast<std::uint32_t>(message.size() - 16);
        for (int i = 0; i < 4; ++i) {
            message[12 + i] = static_cast<char>((fieldsLength >> (8 * i)) & 0xff);
        }
        pad(8);  // the body would start here
        return message;
    }

    enum class Parsed { Incomplete, Complete, Malformed };

    struct Header {
        char type = 0;
        std::uint32_t replySerial = 0;
        std::string errorName;
        std::size_t size = 0;  // of the whole message
    };

    std::uint32_t U32(std::size_t at) const {
        std::uint32_t value = 0;
        for (int i = 0; i < 4; ++i) {
            const std::uint32_t byte = static_cast<unsigned char>(received[at + i]);
            value |= byte << (littleEndian ? 8 * i : 8 * (3 - i));
        }
        return value;
    }

    // The header of the message at the start of `received`, once all of the message is there.
    Parsed ReadHeader(Header& header) {
        if (received.size() < 16) {
            return Parsed::Incomplete;
        }
        if ((received[0] != 'l' && received[0] != 'B') || received[3] != 1) {
            return Parsed::Malformed;
        }
        littleEndian = received[0] == 'l';
        const std::uint64_t fieldsEnd = 16 + std::uint64_t{U32(12)};
        const std::uint64_t size = (fieldsEnd + 7) / 8 * 8 + U32(4);
        if (size > MAX_ANSWER) {
            return Parsed::Malformed;
        }
        if (received.size() < size) {
            return Parsed::Incomplete;
        }
        header.type = received[1];
        header.size = static_cast<std::size_t>(size);
        std::size_t at = 16;
        const auto align = [&at](std::size_t alignment) {
            at = (at + alignment - 1) / alignment * alignment;
        };
        while (at < fieldsEnd) {
            // Each field is a struct of a code and a variant with a one-type signature.
            align(8);
            if (at + 4 > fieldsEnd || received[at + 1] != 1 || received[at + 3] != '\0') {
                return Parsed::Malformed;
            }
            const auto code = static_cast<unsigned char>(received[at]);
            const char type = received[at + 2];
            at += 4;
            if (type == 'u') {
                align(4);
                if (at + 4 > fieldsEnd) {
                    return Parsed::Malformed;
                }
                if (code == FIELD_REPLY_SERIAL) {
                    header.replySerial = U32(at);
                }
                at += 4;
            } else if (type == 's' || type == 'o' || type == 'g') {
                std::uint64_t length = 0;
                if (type == 'g') {
                    if (at + 1 > fieldsEnd) {
                        return Parsed::Malformed;
                    }
                    length = static_cast<unsigned char>(received[at]);
                    at += 1;
                } else {
                    align(4);
                    if (at + 4 > fieldsEnd) {
                        return Parsed::Malformed;
                    }
                    length = U32(at);
                    at += 4;
                }
                if (at + length + 1 > fieldsEnd) {
                    return Parsed::Malformed;
                }
                if (code == FIELD_ERROR_NAME) {
                    header.errorName = received.substr(at, static_cast<std::size_t>(length));
                }
                at += static_cast<std::size_t>(length) + 1;
            } else {
                return Parsed::Malformed;  // no header field of the protocol has another type
            }
        }
        return Parsed::Complete;
    }

    bool Send(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent > 0) {
                bytes.remove_prefix(static_cast<std::size_t>(sent));
            } else if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                if (WaitFor(fd, POLLOUT, deadline) == 0) {
                    return Fail(Outcome::Silent, "the bus reads nothing");
                }
            } else if (sent < 0 && errno != EINTR) {
                return Fail(Outcome::Refused, "send: " + ErrorText(errno));
            }
        }
        return true;
    }

    bool Receive(const char* awaited) {
        for (;;) {
            if (received.size() >= MAX_ANSWER) {
                return Fail(Outcome::Refused,
                            std::string("the answer to ") + awaited + " is too long");
            }
            char chunk[4096];
            const ssize_t got = ::recv(fd, chunk, sizeof chunk, 0);
            if (got > 0) {
                received.append(chunk, static_cast<std::size_t>(got));
                return true;
            }
            if (got == 0) {
                return Fail(Outcome::Refused, std::string("the bus hung up during ") + awaited);
            }
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                if (WaitFor(fd, POLLIN, deadline) == 0) {
                    return Fail(Outcome::Silent, std::string("no answer to ") + awaited);
                }
            } else if (errno != EINTR) {
                return Fail(Outcome::Refused, "recv: " + ErrorText(errno));
            }
        }
    }

    bool Fail(Outcome outcome, std::string detail) {
        failure = Failed(outcome, std::move(detail));
        return false;
    }

    int fd;
    const Deadline& deadline;
    std::string received;
    bool littleEndian = true;
    Result failure;
};

Result CheckWithin(const std::string& address, const Deadline& deadline) {
    if (address.empty()) {
        return Failed(Outcome::NoAddress, "no bus address");
    }
    std::string error;
    const std::optional<std::vector<Entry>> entries = ParseAddress(address, error);
    if (!entries) {
        return Failed(Outcome::Unsupported, error);
    }
    // As libdbus does: the first entry that takes the connection is the bus.
    std::string unreachable;
    for (const Entry& entry : *entries) {
        const std::optional<Endpoint> endpoint = EndpointOf(entry, error);
        if (!endpoint) {
            return Failed(Outcome::Unsupported, error);
        }
        Socket socket;
        switch (Connect(*endpoint, deadline, socket, error)) {
            case Connection::Unreachable:
                unreachable = error;
                continue;
            case Connection::Silent:
                return Failed(Outcome::Silent, error);
            case Connection::Made:
                return Conversation(socket.Get(), deadline).Run();
        }
    }
    return Failed(Outcome::Unreachable, unreachable);
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
    Result result = CheckWithin(address, Deadline(timeout));
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
