#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <QDir>
#include <QElapsedTimer>
#include <QTemporaryDir>

#include "fakes/MockBus.h"
#include "fakes/SilentBus.h"
#include "platform/BusProbe.h"

namespace Vexlor::Platform::Bus {
namespace {

using namespace std::chrono_literals;
using Testing::SilentBus;
using Outcome = Probe::Outcome;

// The private bus that the mock services run on, "unix:path=...,guid=...".
std::string TestBus() {
    return qgetenv("DBUS_SESSION_BUS_ADDRESS").toStdString();
}

// A listening socket at `path`; the caller closes it.
int Listen(const std::string& path) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un where{};
    where.sun_family = AF_UNIX;
    std::memcpy(where.sun_path, path.c_str(), path.size());
    EXPECT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&where), sizeof where), 0);
    EXPECT_EQ(::listen(fd, 4), 0);
    return fd;
}

TEST(BusProbe, TheTestBusPassesAlsoAfterAnEntryThatIsNotThereAndWithEscapedBytes) {
    EXPECT_EQ(Probe::Check(TestBus(), 2000ms).outcome, Outcome::Answered);
    std::string escaped = TestBus().substr(0, TestBus().find(','));
    for (std::size_t at = 0; (at = escaped.find('/', at)) != std::string::npos;) {
        escaped.replace(at, 1, "%2F");
    }
    const Probe::Result result =
        Probe::Check("unix:path=/nonexistent/vexlor-bus;" + escaped + ",guid=00", 2000ms);
    EXPECT_EQ(result.outcome, Outcome::Answered) << result.detail;
}

// The bus's queue of connections is full and nobody takes them: even connecting has to wait,
// and the check ends at its deadline. (A bus that takes the connection and never answers is
// test_dbus_silent_bus's.)
TEST(BusProbe, GivesUpAtTheDeadlineWhenTheBusTakesNoConnection) {
    SilentBus bus(SilentBus::Name::Path, SilentBus::Listener::Stuck);
    sockaddr_un where{};
    where.sun_family = AF_UNIX;
    const std::string path = bus.Address().substr(bus.Address().find('=') + 1);
    std::memcpy(where.sun_path, path.c_str(), path.size());
    std::vector<int> queued;
    do {
        queued.push_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    } while (queued.size() < 8 &&
             ::connect(queued.back(), reinterpret_cast<const sockaddr*>(&where), sizeof where) ==
                 0);
    ASSERT_EQ(errno, EAGAIN);
    QElapsedTimer clock;
    clock.start();
    const Probe::Result result = Probe::Check(bus.Address(), 400ms);
    EXPECT_GE(clock.elapsed(), 390);
    EXPECT_LT(clock.elapsed(), 1500);
    EXPECT_EQ(result.outcome, Outcome::Silent);
    EXPECT_EQ(result.detail, "the bus takes no connection");
    for (const int fd : queued) {
        ::close(fd);
    }
}

struct AddressRow {
    const char* name;
    const char* address;
    Outcome outcome;
};

void PrintTo(const AddressRow& row, std::ostream* out) {
    *out << row.name;
}

class ProbeAddress : public testing::TestWithParam<AddressRow> {};

// Nothing listens, or the probe cannot check the transport (so QtDBus never gets the bus).
TEST_P(ProbeAddress, FailsAtOnce) {
    QElapsedTimer clock;
    clock.start();
    const Probe::Result result = Probe::Check(GetParam().address, 2000ms);
    EXPECT_EQ(result.outcome, GetParam().outcome) << result.detail;
    EXPECT_FALSE(result.detail.empty());
    EXPECT_LT(clock.elapsed(), 1000);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ProbeAddress,
    testing::Values(
        AddressRow{"Empty", "", Outcome::NoAddress},
        AddressRow{"NoSocket", "unix:path=/nonexistent/vexlor-bus", Outcome::Unreachable},
        AddressRow{"NoAbstractSocket", "unix:abstract=vexlor-nobody", Outcome::Unreachable},
        AddressRow{"Tcp", "tcp:host=127.0.0.1,port=1", Outcome::Unsupported},
        AddressRow{"UnreachableThenTcp", "unix:path=/nonexistent/vexlor-bus;tcp:host=127.0.0.1",
                   Outcome::Unsupported},
        AddressRow{"ServerOnlyKey", "unix:runtime=yes", Outcome::Unsupported},
        AddressRow{"NoTransport", "/run/user/0/bus", Outcome::Unsupported},
        AddressRow{"BadEscape", "unix:path=/tmp/%zz", Outcome::Unsupported},
        AddressRow{"CutEscape", "unix:path=/tmp/%2", Outcome::Unsupported},
        AddressRow{"PathTooLong",
                   "unix:path=/tmp/0123456789012345678901234567890123456789"
                   "0123456789012345678901234567890123456789012345678901234567890123",
                   Outcome::Unsupported}),
    [](const testing::TestParamInfo<AddressRow>& info) { return std::string(info.param.name); });

struct PeerRow {
    const char* name;
    std::vector<std::string> answers;  // one for each line the probe sends
    Outcome outcome;
    const char* detail;
};

void PrintTo(const PeerRow& row, std::ostream* out) {
    *out << row.name;
}

class ProbePeer : public testing::TestWithParam<PeerRow> {};

// A peer that answers each line with the next answer, then stays silent until the probe hangs
// up. Passing the login is not enough: only the reply to Hello shows that the bus works.
TEST_P(ProbePeer, OnlyAReplyToHelloPasses) {
    QTemporaryDir folder;
    const int listener = Listen(folder.filePath("bus").toStdString());
    std::thread peer([listener, answers = GetParam().answers] {
        const int client = ::accept(listener, nullptr, nullptr);
        std::string got;
        char chunk[256];
        ssize_t n = 1;
        for (const std::string& answer : answers) {
            while (got.find("\r\n") == std::string::npos &&
                   (n = ::recv(client, chunk, sizeof chunk, 0)) > 0) {
                got.append(chunk, static_cast<std::size_t>(n));
            }
            got.erase(0, got.find("\r\n") + 2);
            ::send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
        }
        while (n > 0) {
            n = ::recv(client, chunk, sizeof chunk, 0);
        }
        ::close(client);
    });
    const Probe::Result result =
        Probe::Check("unix:path=" + folder.filePath("bus").toStdString(), 400ms);
    peer.join();
    ::close(listener);
    EXPECT_EQ(result.outcome, GetParam().outcome);
    EXPECT_EQ(result.detail, GetParam().detail);
}

const std::string OK = "OK 0123456789abcdef0123456789abcdef\r\n";
INSTANTIATE_TEST_SUITE_P(
    Rows, ProbePeer,
    testing::Values(PeerRow{"Rejected",
                            {"REJECTED EXTERNAL\r\n"},
                            Outcome::Refused,
                            "authentication refused: REJECTED EXTERNAL"},
                    PeerRow{"SilentAfterLogin", {OK}, Outcome::Silent, "no answer to Hello"},
                    PeerRow{"NoDBus",
                            {OK, "HTTP/1.1 400 Bad Request\r\n\r\n"},
                            Outcome::Refused,
                            "the answer to Hello is not D-Bus"}),
    [](const testing::TestParamInfo<PeerRow>& info) { return std::string(info.param.name); });

TEST(BusProbe, FindsTheAddressesAsLibdbusDoes) {
    const QByteArray bus = QByteArray::fromStdString(TestBus());
    const QByteArray runtimeBefore = qgetenv("XDG_RUNTIME_DIR");
    EXPECT_EQ(Probe::AddressOf(Kind::System), TestBus());
    EXPECT_EQ(Probe::AddressOf(Kind::Session), TestBus());
    qunsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    EXPECT_EQ(Probe::AddressOf(Kind::System), "unix:path=/var/run/dbus/system_bus_socket");
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "");
    EXPECT_EQ(Probe::AddressOf(Kind::System), "");

    // Without an address, the session bus is the user's socket in the runtime folder; odd
    // bytes in its path are escaped, so that the address leads back to it.
    QTemporaryDir runtime(QDir::tempPath() + QStringLiteral("/vexlor runtime,=;XXXXXX"));
    qunsetenv("DBUS_SESSION_BUS_ADDRESS");
    qputenv("XDG_RUNTIME_DIR", runtime.path().toUtf8());
    EXPECT_EQ(Probe::AddressOf(Kind::Session), "");
    const int listener = Listen(runtime.filePath("bus").toStdString());
    const std::string address = Probe::AddressOf(Kind::Session);
    EXPECT_EQ(address.find_first_of(" ,;"), std::string::npos) << address;
    EXPECT_EQ(Probe::Check(address, 200ms).outcome, Outcome::Silent) << address;
    ::close(listener);
    qunsetenv("XDG_RUNTIME_DIR");
    EXPECT_EQ(Probe::AddressOf(Kind::Session), "");

    // The private bus again for the tests that follow.
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", bus);
    qputenv("DBUS_SESSION_BUS_ADDRESS", bus);
    if (!runtimeBefore.isEmpty()) {
        qputenv("XDG_RUNTIME_DIR", runtimeBefore);
    }
}

}  // namespace
}  // namespace Vexlor::Platform::Bus
