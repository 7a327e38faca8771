#include <grp.h>
#include <linux/securebits.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <QDir>

#include "RunnerHarness.h"
#include "store/Protocol.h"
#include "store/ScheduleLocation.h"

// Who can reach the control socket: the runtime folder must be the user's and closed to
// others, and each end of the socket checks the other's user before a byte of a request
// passes.
namespace {

using testing::AllOf;
using testing::HasSubstr;
using Vexlor::Testing::Outcome;
using Vexlor::Testing::RunnerTest;

constexpr uid_t NOBODY = 65534;

// What the children below report when they could not do their part.
constexpr long long FAILED = -1;
constexpr long long NO_CAPABILITIES = -2;

bool BecomeNobody() {
    return ::setgroups(0, nullptr) == 0 && ::setresgid(NOBODY, NOBODY, NOBODY) == 0 &&
           ::setresuid(NOBODY, NOBODY, NOBODY) == 0;
}

// Reads what comes in on `fd` until the other end closes it or 3 s pass without a byte.
long long Drain(int fd) {
    long long received = 0;
    char buffer[4096];
    pollfd wait{fd, POLLIN, 0};
    while (::poll(&wait, 1, 3000) > 0) {
        const ssize_t got = ::read(fd, buffer, sizeof(buffer));
        if (got <= 0) {
            break;
        }
        received += got;
    }
    return received;
}

// A process forked from this one, ended with the test, that reports numbers on a pipe. The
// child makes system calls only: the test process has threads.
class Child {
public:
    template <typename Body>
    explicit Child(Body body) {
        if (::pipe(fds) != 0) {
            return;
        }
        pid = ::fork();
        if (pid == 0) {
            ::close(fds[0]);
            body(fds[1]);
            ::_exit(0);
        }
        ::close(fds[1]);
    }
    ~Child() {
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
        ::close(fds[0]);
    }

    // The next number the child reports, if it does within `timeoutMs`. Qt's handler of
    // SIGCHLD interrupts the wait whenever one of the programs started by the test ends.
    std::optional<long long> Next(int timeoutMs) {
        QElapsedTimer clock;
        clock.start();
        long long value = 0;
        pollfd wait{fds[0], POLLIN, 0};
        for (int left = timeoutMs; left >= 0;
             left = timeoutMs - static_cast<int>(clock.elapsed())) {
            const int ready = ::poll(&wait, 1, left);
            if (ready > 0) {
                return ::read(fds[0], &value, sizeof(value)) == sizeof(value)
                           ? std::optional<long long>(value)
                           : std::nullopt;
            }
            if (ready == 0 || errno != EINTR) {
                break;
            }
        }
        return std::nullopt;
    }

private:
    int fds[2] = {-1, -1};
    pid_t pid = -1;
};

void Report(int fd, long long value) {
    [[maybe_unused]] const ssize_t written = ::write(fd, &value, sizeof(value));
}

sockaddr_un AddressOf(const QString& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const QByteArray name = QFile::encodeName(path);
    std::memcpy(address.sun_path, name.constData(),
                std::min<size_t>(name.size(), sizeof(address.sun_path) - 1));
    return address;
}

class PrivacyTest : public RunnerTest {
protected:
    // A runtime folder of the test's own, for the programs and for this process, which
    // computes where they look for the socket.
    void SetUp() override {
        RunnerTest::SetUp();
        ASSERT_TRUE(QDir().mkdir(FilePath("runtime")));
        ASSERT_EQ(::chmod(QFile::encodeName(FilePath("runtime")).constData(), 0700), 0);
        UseRuntime(FilePath("runtime"));
    }
    void TearDown() override {
        old ? qputenv("XDG_RUNTIME_DIR", *old) : qunsetenv("XDG_RUNTIME_DIR");
    }

    void UseRuntime(const QString& folder) {
        environmentChanges["XDG_RUNTIME_DIR"] = folder;
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(folder));
    }

    QString SocketPath() const {
        return Vexlor::ScheduleTool::LocateSchedule(SettingsFile()).socketPath;
    }

    std::optional<QByteArray> old = qEnvironmentVariableIsSet("XDG_RUNTIME_DIR")
                                        ? std::optional<QByteArray>(qgetenv("XDG_RUNTIME_DIR"))
                                        : std::nullopt;
};

// Each command refuses a runtime folder that others may write or that is not the user's,
// naming it, and touches nothing there or in the settings file.
TEST_F(PrivacyTest, ARuntimeFolderThatIsNotPrivateIsRefusedByEveryCommand) {
    Add({"Kept", "--in", "1h"});  // through the private folder of SetUp
    const QByteArray stored = ReadFile(settingsName);
    struct Row {
        const char* name;
        mode_t mode;
        uid_t owner;
        const char* why;
    };
    const Row rows[] = {
        {"WritableByAll", 0777, ::getuid(), "may be written by other users (mode 0777)"},
        {"StickyLikeTmp", 01777, ::getuid(), "may be written by other users (mode 1777)"},
        {"GroupWritable", 0730, ::getuid(), "may be written by other users (mode 0730)"},
        {"Another%2Users", 0700, NOBODY, "belongs to uid 65534, not to this user"},
    };
    for (const Row& row : rows) {
        const QString folder = FilePath(row.name);
        const QByteArray name = QFile::encodeName(folder);
        ASSERT_TRUE(QDir().mkdir(folder));
        ASSERT_EQ(::chmod(name.constData(), row.mode), 0);
        if (row.owner != ::getuid() && ::chown(name.constData(), row.owner, row.owner) != 0) {
            GTEST_SKIP() << "cannot give a folder to uid " << row.owner << ": "
                         << std::strerror(errno);
        }
        UseRuntime(folder);
        for (const QStringList& command : {QStringList{"add", "Secret", "--in", "2h"},
                                           {"remove", "Kept"},
                                           {"list"},
                                           {"stop"},
                                           {"run"}}) {
            const Outcome outcome = Run(command);
            EXPECT_EQ(outcome.exitCode, 1) << row.name << " " << command.front().toStdString();
            EXPECT_THAT(outcome.err.toStdString(),
                        AllOf(HasSubstr(folder.toStdString()), HasSubstr(row.why)));
        }
        EXPECT_TRUE(QDir(folder).isEmpty()) << row.name;  // no lock, no socket
    }
    EXPECT_EQ(ReadFile(settingsName), stored);
}

// Another user's process listening where our run's socket belongs: the client says so and
// sends it nothing, not even the title.
TEST_F(PrivacyTest, ASocketServedByAnotherUserGetsNoRequest) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can run a process as another user";
    }
    const sockaddr_un address = AddressOf(SocketPath());
    // Bound as root, in our folder; the kernel gives clients the user it listens as.
    Child listener([&address](int report) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        if (fd < 0 ||
            ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
            !BecomeNobody() || ::listen(fd, 4) != 0) {
            Report(report, FAILED);
            return;
        }
        Report(report, 0);
        for (int client; (client = ::accept(fd, nullptr, nullptr)) >= 0; ::close(client)) {
            Report(report, Drain(client));
        }
    });
    ASSERT_EQ(listener.Next(5000), 0) << "the listener did not start";

    const Outcome refused = Run({"add", "Secret title", "--in", "1h"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_THAT(refused.err.toStdString(),
                AllOf(HasSubstr(SocketPath().toStdString()), HasSubstr("served by uid 65534")));
    EXPECT_EQ(listener.Next(5000), 0) << "bytes received on the first connection";
    EXPECT_FALSE(QFile::exists(SettingsFile()));
}

// A process of another user that reaches a running scheduler's socket (here by keeping the
// permission to pass file permissions, as a folder that others may enter would let it) is
// dropped before its request is read: nothing is cleared, nothing is answered.
TEST_F(PrivacyTest, ARunDropsAConnectionFromAnotherUserUnread) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can run a process as another user";
    }
    Add({"Kept", "--in", "1h"});
    auto run = Start({"run"});
    ASSERT_TRUE(WaitForOutput(*run, "scheduler running", 10000));

    Vexlor::ScheduleTool::EditRequest clear;
    clear.command = Vexlor::ScheduleTool::CommandName::Clear;
    const QByteArray request = Vexlor::ScheduleTool::EncodeRequest(clear) + '\n';
    const sockaddr_un address = AddressOf(SocketPath());
    Child client([&address, &request](int report) {
        if (::prctl(PR_SET_SECUREBITS, SECBIT_NO_SETUID_FIXUP) != 0 || !BecomeNobody()) {
            Report(report, NO_CAPABILITIES);
            return;
        }
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        if (fd < 0 ||
            ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            Report(report, FAILED);
            return;
        }
        // The run may have closed the connection already: no SIGPIPE for that.
        [[maybe_unused]] const ssize_t sent =
            ::send(fd, request.constData(), request.size(), MSG_NOSIGNAL);
        Report(report, Drain(fd));
    });
    const std::optional<long long> answered = client.Next(10000);
    ASSERT_TRUE(answered) << "the client did not finish";
    if (*answered == NO_CAPABILITIES) {
        GTEST_SKIP() << "cannot keep the capabilities across the change of user here";
    }
    EXPECT_EQ(*answered, 0) << "bytes answered to another user";
    const Outcome listed = Run({"list"});
    EXPECT_TRUE(listed.out.contains("\"Kept\"")) << listed.out.toStdString();
    Stop(*run);
}

// sun_path holds 107 bytes and a NUL: a longer socket path is named, with why, and edits
// without a run still work.
TEST_F(PrivacyTest, ARuntimeFolderTooDeepForASocketIsNamedWithTheReason) {
    const QString deep = FilePath(QString(90, QLatin1Char('r')));
    ASSERT_TRUE(QDir().mkdir(deep));
    UseRuntime(deep);
    const Outcome refused = Run({"run"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_THAT(refused.err.toStdString(),
                AllOf(HasSubstr(SocketPath().toStdString()), HasSubstr("holds at most 107")));
    EXPECT_EQ(Run({"add", "Later", "--in", "1h"}).exitCode, 0);
}

}  // namespace
