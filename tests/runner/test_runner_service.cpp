#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>
#include <QProcess>
#include <QScopeGuard>
#include <QThread>

#include "RunnerHarness.h"
#include "fakes/MockBus.h"

// The runner as a user service, and against real desktop services (a notification server
// under Xvfb, logind mocked by dbusmock) on the test process's private bus.
namespace {

using Vexlor::Testing::MockService;
using Vexlor::Testing::RunnerTest;

class ServiceTest : public RunnerTest {};

// logind suspends despite the sleep lock when the lid closes. SIGSTOP stands in for the
// suspend, so that the record falls due while the runner is frozen.
TEST_F(ServiceTest, SleepDespiteTheLockIsReportedAndTheMissedRecordNamed) {
    inheritBuses = true;
    MockService logind(QStringLiteral("logind"));
    ASSERT_TRUE(logind.Up());
    QElapsedTimer sinceAdd;
    sinceAdd.start();
    Add({"Missed", "--in", "5s", "--for", "1s"});
    Add({"Later", "--in", "4h", "--enable"});
    auto run = Start({"run", "--notify", "none"});
    // Listening from this line on.
    ASSERT_TRUE(WaitForOutput(*run, "scheduler running: scheduling on", 5000));
    ASSERT_TRUE(seen.contains("sleep prevented: logind lock taken")) << seen.toStdString();

    ASSERT_TRUE(logind.Emit("org.freedesktop.login1.Manager", "PrepareForSleep", "b", {true}));
    ASSERT_TRUE(WaitForOutput(
        *run, "machine going to sleep: 2 recording(s) planned, the next \"Missed\" at", 3000));
    ::kill(static_cast<pid_t>(run->processId()), SIGSTOP);
    QThread::msleep(static_cast<unsigned long>(std::max<qint64>(0, 6500 - sinceAdd.elapsed())));
    ASSERT_TRUE(logind.Emit("org.freedesktop.login1.Manager", "PrepareForSleep", "b", {false}));
    ::kill(static_cast<pid_t>(run->processId()), SIGCONT);
    ASSERT_TRUE(WaitForOutput(*run, "machine woke up: missed while asleep: \"Missed\" at", 5000));
    Stop(*run);
    EXPECT_FALSE(seen.contains("recording started")) << seen.toStdString();
    EXPECT_FALSE(seen.contains("\"Later\" at")) << seen.toStdString();  // not missed
}

// dunst on an X server of the test's own; what it shows is kept in the build tree as
// VEXLOR_TEST_ARTEFACTS/notice-on-dunst.png.
TEST_F(ServiceTest, NoticeShownByARealNotificationServerAndClosedOnRemove) {
    inheritBuses = true;
    const Vexlor::Testing::XServer server(folder, "800x200x24");
    ASSERT_FALSE(server.display.isEmpty()) << "Xvfb did not start";
    QFile config(FilePath("dunstrc"));
    ASSERT_TRUE(config.open(QIODevice::WriteOnly));
    config.write(
        "[global]\nidle_threshold = 0\nwidth = 780\norigin = top-left\noffset = 10x10\n"
        "[urgency_normal]\ntimeout = 0\n");
    config.close();
    QProcessEnvironment environment = Environment();
    environment.insert("DISPLAY", server.display);
    QProcess dunst;
    dunst.setProcessEnvironment(environment);
    dunst.start("dunst", {"-config", config.fileName()});
    const auto stopDunst = qScopeGuard([&dunst] {
        dunst.terminate();
        dunst.waitForFinished(5000);
    });
    ASSERT_TRUE(Vexlor::Testing::NameIs("org.freedesktop.Notifications"));
    const auto dunstctl = [&environment](const QStringList& arguments) {
        QProcess control;
        control.setProcessEnvironment(environment);
        control.start("dunstctl", arguments);
        control.waitForFinished(10000);
        return QString::fromUtf8(control.readAllStandardOutput()).trimmed();
    };

    Add({"Later", "--in", "4h", "--enable"});
    const QString at = Run({"list"}).out.section(' ', 1, 1).left(5);  // HH:MM
    auto run = Start({"run", "--notify", "desktop", "--no-keep-awake"});
    ASSERT_TRUE(WaitForOutput(*run, "Notice on the desktop", 15000));
    EXPECT_EQ(dunstctl({"count", "displayed"}), "1");
    const QString picture = VEXLOR_TEST_ARTEFACTS "/notice-on-dunst.png";
    QProcess::execute("ffmpeg", {"-loglevel", "error", "-y", "-f", "x11grab", "-i", server.display,
                                 "-frames:v", "1", picture});
    EXPECT_GT(QFileInfo(picture).size(), 0);

    ASSERT_EQ(Run({"remove", "Later"}).exitCode, 0);
    ASSERT_TRUE(WaitForOutput(*run, "Notice withdrawn from the desktop", 12000));
    EXPECT_TRUE(Vexlor::Testing::Eventually(
        [&dunstctl] {
            return dunstctl({"count", "displayed"}) == "0";
        },
        3000));
    // A closed notice goes to the server's history, with what it showed.
    const QJsonValue history = QJsonDocument::fromJson(dunstctl({"history"}).toUtf8())["data"][0];
    ASSERT_EQ(history.toArray().size(), 1);
    EXPECT_EQ(history[0]["summary"]["data"].toString(), "vexlor-schedule");
    EXPECT_TRUE(history[0]["body"]["data"].toString().contains(at)) << at.toStdString();
    Stop(*run);
}

// systemd starts what waits for the service once READY=1 comes: by then the scheduler polls,
// or, with scheduling off, the run takes the `enable` that switches it on. The first run
// starts with scheduling off, the second with it on.
TEST_F(ServiceTest, ReadyOnceSchedulingIsArmedAndStoppingOnTheWayOut) {
    if (!VEXLOR_RUNNER_NOTIFIES) {
        GTEST_SKIP() << "the runner was built without libsystemd";
    }
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(socket, 0);
    const auto closeSocket = qScopeGuard([socket] { ::close(socket); });
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    const QByteArray path = FilePath("notify").toUtf8();
    std::copy(path.begin(), path.end(), name.sun_path);
    ASSERT_EQ(::bind(socket, reinterpret_cast<sockaddr*>(&name), sizeof name), 0);
    environmentChanges["NOTIFY_SOCKET"] = path;
    // What came until `what` did, or until nothing came for 10 s.
    const auto receive = [socket](const QString& what) {
        QStringList got;
        pollfd ready{socket, POLLIN, 0};
        while (!got.contains(what) && ::poll(&ready, 1, 10000) == 1) {
            char buffer[4096];
            const ssize_t size = ::recv(socket, buffer, sizeof buffer, 0);
            got +=
                QString::fromUtf8(buffer, static_cast<int>(std::max<ssize_t>(size, 0))).split('\n');
        }
        return got;
    };
    const QString on = "STATUS=scheduling on, 1 recording(s) ahead";

    Add({"Later", "--in", "4h"});
    for (const bool enabled : {false, true}) {
        auto run = Start({"run", "--notify", "none"});
        const QStringList sent = receive("READY=1");
        ASSERT_TRUE(sent.contains("READY=1")) << sent.join('|').toStdString();
        EXPECT_TRUE(sent.contains(
            enabled ? on : "STATUS=scheduling off: `vexlor-schedule enable` switches it on"))
            << sent.join('|').toStdString();
        // Printed before READY=1, once the scheduler was set up with the stored flag.
        EXPECT_TRUE(WaitForOutput(
            *run, QStringLiteral("scheduler running: scheduling %1").arg(enabled ? "on" : "off"),
            0));
        if (!enabled) {
            ASSERT_EQ(Run({"enable"}).exitCode, 0);
            EXPECT_TRUE(receive(on).contains(on));
        }
        ::kill(static_cast<pid_t>(run->processId()), SIGTERM);
        EXPECT_TRUE(receive("STOPPING=1").contains("STOPPING=1"));
        EXPECT_EQ(Finish(*run).exitCode, 0);
    }
}

}  // namespace
