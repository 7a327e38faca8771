#include <signal.h>

#include <gtest/gtest.h>
#include <QElapsedTimer>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>

#include "RunnerHarness.h"
#include "fakes/FakeDBusServices.h"
#include "fakes/SilentBus.h"

// The runner with its default back-ends, against fake desktop services on the private bus whose
// addresses the program inherits, or against buses that never answer.
namespace {

using Vexlor::Testing::FakeBusServices;
using Vexlor::Testing::Outcome;
using Vexlor::Testing::RunnerTest;
using Vexlor::Testing::SilentBus;

const QString NO_LOGIND = QStringLiteral("logind does not answer on the system bus");
const QString NO_NOTICES = QStringLiteral("no notification service answers on the session bus");

class DesktopRunnerTest : public RunnerTest {
protected:
    void SetUp() override {
        RunnerTest::SetUp();
        InheritBuses();
    }

    bool WaitForOutput(QProcess& process, const QString& needle, int timeoutMs) {
        return RunnerTest::WaitForOutput(process, seen, needle, timeoutMs);
    }

    // Ends `run`, which must exit 0, and keeps everything it wrote to standard error.
    void StopRun(QProcess& process) {
        const Outcome stopped = Stop(process);
        EXPECT_EQ(stopped.exitCode, 0);
        seen += stopped.out;
        warnings = stopped.err;
    }

    FakeBusServices services;
    QString seen;      // standard output so far
    QString warnings;  // standard error, once stopped
};

TEST_F(DesktopRunnerTest, LockHeldWhileArmedAndNoticeShownThenWithdrawn) {
    ASSERT_TRUE(services.PublishNotifications());
    ASSERT_TRUE(services.PublishLogin());
    // Within the notice window from the helper's first check, 10 s after the start.
    ASSERT_EQ(Run({"add", "Later", "--in", "4h"}).exitCode, 0);
    ASSERT_EQ(Run({"enable"}).exitCode, 0);
    auto run = Start({"run"});

    ASSERT_TRUE(WaitForOutput(*run, "sleep prevented: logind lock taken", 5000))
        << seen.toStdString();
    const auto locks = services.login.Inhibitions();
    ASSERT_EQ(locks.size(), 1u);
    EXPECT_EQ(locks[0].what, "sleep");
    EXPECT_EQ(locks[0].who, "vexlor-schedule");
    EXPECT_EQ(locks[0].mode, "block");
    EXPECT_FALSE(services.login.Released(0));

    ASSERT_TRUE(WaitForOutput(*run, "Notice on the desktop", 13000)) << seen.toStdString();
    const auto notices = services.notifications.Notices();
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(notices[0].appName, "vexlor-schedule");
    EXPECT_EQ(notices[0].expireTimeout, 0);
    // The event line repeats what the server got; without body-markup the text is plain.
    EXPECT_FALSE(notices[0].body.isEmpty());
    EXPECT_TRUE(seen.contains(notices[0].summary + ": " + notices[0].body)) << seen.toStdString();

    // Emptying the schedule from another process ends the armed period at once and withdraws
    // the notice at the helper's next check.
    ASSERT_EQ(Run({"remove", "Later"}).exitCode, 0);
    ASSERT_TRUE(WaitForOutput(*run, "sleep allowed: logind lock released", 3000))
        << seen.toStdString();
    EXPECT_TRUE(services.login.Released(0, 1000));
    ASSERT_TRUE(WaitForOutput(*run, "Notice withdrawn from the desktop", 12000))
        << seen.toStdString();
    EXPECT_EQ(services.notifications.Closed(), std::vector<uint>{notices[0].returnedId});
    EXPECT_EQ(services.login.Inhibitions().size(), 1u);

    StopRun(*run);
    EXPECT_TRUE(warnings.isEmpty()) << warnings.toStdString();
}

// Both buses take the connection and never answer, as a stopped or deadlocked dbus-daemon
// does. The bus checks run side by side and give up after 2 s, so the scheduler runs in time
// for a recording due 3 s after the start.
TEST_F(DesktopRunnerTest, BusesThatNeverAnswerCostTwoSecondsOnceAndTheRecordingRuns) {
    SilentBus bus;
    UseBuses(QString::fromStdString(bus.Address()));
    ASSERT_EQ(Run({"add", "Soon", "--in", "3s", "--for", "1s"}).exitCode, 0);
    ASSERT_EQ(Run({"enable"}).exitCode, 0);

    QElapsedTimer sinceStart;
    sinceStart.start();
    auto run = Start({"run"});
    ASSERT_TRUE(WaitForOutput(*run, "scheduler running", 3000))
        << "after " << sinceStart.elapsed() << " ms: " << seen.toStdString()
        << warnings.toStdString();
    EXPECT_GE(sinceStart.elapsed(), 1500);  // the checks did wait for an answer
    EXPECT_GE(bus.Accepted(), 2);           // one check per bus reached the silent socket
    ASSERT_TRUE(WaitForOutput(*run, "recording started: \"Soon\"", 4000)) << seen.toStdString();
    ASSERT_TRUE(WaitForOutput(*run, "recording finished: \"Soon\"", 4000)) << seen.toStdString();
    EXPECT_FALSE(seen.contains("records dropped")) << seen.toStdString();
    StopRun(*run);

    EXPECT_EQ(warnings.count(NO_LOGIND), 1) << warnings.toStdString();
    EXPECT_EQ(warnings.count(NO_NOTICES), 1) << warnings.toStdString();
    EXPECT_EQ(warnings.count('\n'), 2) << warnings.toStdString();
    EXPECT_FALSE(seen.contains("sleep prevented")) << seen.toStdString();
}

struct NoLockRow {
    const char* name;
    bool logind;
    QStringList options;
    int warnings;
};

void PrintTo(const NoLockRow& row, std::ostream* out) {
    *out << row.name;
}

class DesktopRunnerWithoutLock : public DesktopRunnerTest,
                                 public testing::WithParamInterface<NoLockRow> {};

// Without a lock nothing keeps the machine awake, and no line says otherwise.
TEST_P(DesktopRunnerWithoutLock, NoLineSaysThatSleepIsPreventedOrAllowed) {
    ASSERT_TRUE(services.PublishNotifications());
    if (GetParam().logind) {
        ASSERT_TRUE(services.PublishLogin());
    }
    ASSERT_EQ(Run({"add", "Later", "--in", "4h"}).exitCode, 0);
    ASSERT_EQ(Run({"enable"}).exitCode, 0);
    auto run = Start(QStringList{"run"} + GetParam().options);
    ASSERT_TRUE(WaitForOutput(*run, "scheduler running: scheduling on", 5000))
        << seen.toStdString();
    ASSERT_EQ(Run({"disable"}).exitCode, 0);
    ASSERT_TRUE(WaitForOutput(*run, "settings changed: scheduling off", 3000))
        << seen.toStdString();
    StopRun(*run);

    EXPECT_FALSE(seen.contains("sleep")) << seen.toStdString();
    EXPECT_TRUE(services.login.Inhibitions().empty());
    EXPECT_EQ(warnings.count(NO_LOGIND), GetParam().warnings) << warnings.toStdString();
    EXPECT_EQ(warnings.count('\n'), GetParam().warnings) << warnings.toStdString();
}

INSTANTIATE_TEST_SUITE_P(Rows, DesktopRunnerWithoutLock,
                         testing::Values(NoLockRow{"NoLogind", false, {}, 1},
                                         NoLockRow{"NoKeepAwake", true, {"--no-keep-awake"}, 0}),
                         [](const testing::TestParamInfo<NoLockRow>& info) {
                             return std::string(info.param.name);
                         });

}  // namespace
