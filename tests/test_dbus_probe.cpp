#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <QDir>
#include <QElapsedTimer>
#include <QTemporaryDir>

#include "fakes/MockBus.h"
#include "platform/BusProbe.h"

namespace Vexlor::Platform::Bus {
namespace {

using namespace std::chrono_literals;
using Outcome = Probe::Outcome;

// The private bus that the mock services run on, "unix:path=...,guid=...".
std::string TestBus() {
    return qgetenv("DBUS_SESSION_BUS_ADDRESS").toStdString();
}

sockaddr_un Where(const std::string& path) {
    sockaddr_un where{};
    where.sun_family = AF_UNIX;
    std::memcpy(where.sun_path, path.c_str(), path.size());
    return where;
}

// A socket listening at `path`; the caller closes it.
int Listen(const std::string& path, int backlog = 4) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un where = Where(path);
    EXPECT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&where), sizeof where), 0);
    EXPECT_EQ(::listen(fd, backlog), 0);
    return fd;
}

// Nothing listens, or the probe cannot check the transport (so QtDBus never gets the bus). The
// first entry that takes the connection is the bus, also when its path is escaped.
TEST(BusProbe, EachAddressGetsItsOutcomeAtOnce) {
    const std::string testPath = TestBus().substr(10, TestBus().find(',') - 10);  // "unix:path="
    const std::string escaped =
        QByteArray::fromStdString(testPath).toPercentEncoding().toStdString();  // '/' as %2F
    const std::vector<std::pair<std::string, Outcome>> rows{
        {TestBus(), Outcome::Answered},
        {"unix:path=/nonexistent/vexlor-bus;unix:path=" + escaped + ",guid=00", Outcome::Answered},
        {"", Outcome::NoAddress},
        {"unix:path=/nonexistent/vexlor-bus", Outcome::Unreachable},
        {"unix:abstract=vexlor-nobody", Outcome::Unreachable},
        {"tcp:host=127.0.0.1,port=1", Outcome::Unsupported},
        {"unix:path=/nonexistent/vexlor-bus;tcp:host=127.0.0.1", Outcome::Unsupported},
        {"unix:runtime=yes", Outcome::Unsupported},  // where a server listens, not a socket
        {"/run/user/0/bus", Outcome::Unsupported},
        {"unix:path=/tmp/%zz", Outcome::Unsupported},
        {"unix:path=/tmp/%2", Outcome::Unsupported},
        {"unix:path=/tmp/" + std::string(103, '0'), Outcome::Unsupported}};  // no room for NUL
    for (const auto& [address, outcome] : rows) {
        QElapsedTimer clock;
        clock.start();
        const Probe::Result result = Probe::Check(address, 2000ms);
        EXPECT_EQ(result.outcome, outcome) << address << ": " << result.detail;
        EXPECT_EQ(result.detail.empty(), outcome == Outcome::Answered) << address;
        EXPECT_LT(clock.elapsed(), 1000) << address;
    }
}

// The bus's queue of connections is full and nobody takes them: even connecting has to wait,
// and the check ends at its deadline. (A bus that takes the connection and never answers is
// test_dbus_silent_bus's.)
TEST(BusProbe, GivesUpAtTheDeadlineWhenTheBusTakesNoConnection) {
    QTemporaryDir folder;
    const std::string path = folder.filePath("bus").toStdString();
    const sockaddr_un where = Where(path);
    std::vector<int> sockets{Listen(path, 0)};
    do {
        sockets.push_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    } while (sockets.size() < 9 &&
             ::connect(sockets.back(), reinterpret_cast<const sockaddr*>(&where), sizeof where) ==
                 0);
    ASSERT_EQ(errno, EAGAIN);
    QElapsedTimer clock;
    clock.start();
    const Probe::Result result = Probe::Check("unix:path=" + path, 400ms);
    EXPECT_GE(clock.elapsed(), 390);
    EXPECT_LT(clock.elapsed(), 1500);
    EXPECT_EQ(result.outcome, Outcome::Silent);
    EXPECT_EQ(result.detail, "the bus takes no connection");
    for (const int fd : sockets) {
        ::close(fd);
    }
}

// Peers that answer each write of the probe with the next answer, as a bus would, then stay
// silent until the probe hangs up. Passing the login is not enough: only the reply to Hello
// shows that the bus works. One peer takes the rows' connections in turn.
TEST(BusProbe, OnlyAReplyToHelloPasses) {
    const std::string LOGIN = "DATA\r\nOK 0123456789abcdef0123456789abcdef\r\nAGREE_UNIX_FD\r\n";
    // The peer's answers, then what the probe makes of them.
    const std::vector<std::tuple<std::vector<std::string>, Outcome, std::string>> rows{
        {{"REJECTED EXTERNAL\r\nERROR\r\nERROR\r\n"},
         Outcome::Refused,
         "authentication failed: Operation not permitted"},
        {{LOGIN}, Outcome::Silent, "no answer to Hello"},
        {{LOGIN, "HTTP/1.1 400 Bad Request\r\n\r\n"},
         Outcome::Refused,
         "Hello failed: Bad message"}};
    QTemporaryDir folder;
    const std::string path = folder.filePath("bus").toStdString();
    const int listener = Listen(path);
    std::thread peer([&] {
        for (const auto& row : rows) {
            const int client = ::accept(listener, nullptr, nullptr);
            char chunk[1024];
            for (const std::string& answer : std::get<0>(row)) {
                ::recv(client, chunk, sizeof chunk, 0);  // the probe sends each step at once
                ::send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
            }
            while (::recv(client, chunk, sizeof chunk, 0) > 0) {
            }
            ::close(client);
        }
    });
    for (const auto& [answers, outcome, detail] : rows) {
        const Probe::Result result = Probe::Check("unix:path=" + path, 400ms);
        EXPECT_EQ(result.outcome, outcome) << detail;
        EXPECT_EQ(result.detail, detail);
    }
    ::shutdown(listener, SHUT_RDWR);  // a peer still waiting for a connection gets none
    peer.join();
    ::close(listener);
}

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
