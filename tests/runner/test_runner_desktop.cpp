#include <gtest/gtest.h>
#include <QElapsedTimer>
#include <QProcess>

#include "RunnerHarness.h"
#include "fakes/MockBus.h"
#include "fakes/SilentBus.h"

// The runner with its default back-ends, against mock desktop services on the private bus whose
// addresses the program inherits, or against buses that never answer.
namespace {

using Vexlor::Testing::MockService;
using Vexlor::Testing::Outcome;
using Vexlor::Testing::RunnerTest;
using Vexlor::Testing::SilentBus;

const QString NO_LOGIND = QStringLiteral("logind does not answer on the system bus");
const QString NO_NOTICES = QStringLiteral("no notification service answers on the session bus");

class DesktopRunnerTest : public RunnerTest {
protected:
    void SetUp() override {
        RunnerTest::SetUp();
        inheritBuses = true;
    }

    testing::AssertionResult WaitForOutput(QProcess& process, const QString& needle,
                                           int timeoutMs) {
        return RunnerTest::WaitForOutput(process, seen, needle, timeoutMs);
    }

    // Ends `run`, which must exit 0, and keeps everything it wrote to standard error.
    void StopRun(QProcess& process) {
        const Outcome stopped = Stop(process);
        EXPECT_EQ(stopped.exitCode, 0);
        seen += stopped.out;
        warnings = stopped.err;
    }

    QString seen;      // standard output so far
    QString warnings;  // standard error, once stopped
};

TEST_F(DesktopRunnerTest, LockHeldWhileArmedAndNoticeShownThenWithdrawnButNoLockIfTold) {
    MockService server(QStringLiteral("notification_daemon"), R"({"capabilities": "body"})");
    MockService logind(QStringLiteral("logind"));
    ASSERT_TRUE(server.Up() && logind.Up());
    // Within the notice window from the helper's first check, 10 s after the start.
    Add({"Later", "--in", "4h", "--enable"});
    auto run = Start({"run"});

    ASSERT_TRUE(WaitForOutput(*run, "sleep prevented: logind lock taken", 5000));
    EXPECT_EQ(logind.Locks(), (QList<QStringList>{{"sleep", "vexlor-schedule",
                                                   "A scheduled recording is planned", "block"}}));

    ASSERT_TRUE(WaitForOutput(*run, "Notice on the desktop", 13000));
    const QList<QVariantList> notices = server.Calls(QStringLiteral("Notify"));
    ASSERT_EQ(notices.size(), 1);
    EXPECT_EQ(notices[0][0], "vexlor-schedule");
    EXPECT_EQ(notices[0][7], 0);  // no expiry
    // The event line repeats what the server got; without body-markup the text is plain.
    const QString summary = notices[0][3].toString(), body = notices[0][4].toString();
    EXPECT_FALSE(body.isEmpty());
    EXPECT_TRUE(seen.contains(summary + ": " + body)) << seen.toStdString();

    // Emptying the schedule from another process ends the armed period at once and withdraws
    // the notice at the helper's next check.
    ASSERT_EQ(Run({"remove", "Later"}).exitCode, 0);
    ASSERT_TRUE(WaitForOutput(*run, "sleep allowed: logind lock released", 3000));
    EXPECT_TRUE(logind.Locks(0, 1000).isEmpty());
    ASSERT_TRUE(WaitForOutput(*run, "Notice withdrawn from the desktop", 12000));
    // The mock numbers its notices from 1.
    EXPECT_EQ(server.Calls(QStringLiteral("CloseNotification")), QList<QVariantList>{{1}});

    StopRun(*run);
    EXPECT_TRUE(warnings.isEmpty()) << warnings.toStdString();

    // With --no-keep-awake nothing keeps the machine awake, though logind would, and no line or
    // warning says otherwise.
    seen.clear();
    Add({"Later", "--in", "4h"});
    run = Start({"run", "--no-keep-awake"});
    ASSERT_TRUE(WaitForOutput(*run, "scheduler running: scheduling on", 5000));
    ASSERT_EQ(Run({"disable"}).exitCode, 0);
    ASSERT_TRUE(WaitForOutput(*run, "settings changed: scheduling off", 3000));
    StopRun(*run);
    EXPECT_FALSE(seen.contains("sleep")) << seen.toStdString();
    EXPECT_EQ(logind.Calls(QStringLiteral("Inhibit")).size(), 1);  // the first run's
    EXPECT_TRUE(warnings.isEmpty()) << warnings.toStdString();
}

// Both buses take the connection and never answer, as a stopped or deadlocked dbus-daemon
// does. The bus checks run side by side and give up after 2 s, so the scheduler runs in time
// for a recording due 3 s after the start.
TEST_F(DesktopRunnerTest, BusesThatNeverAnswerCostTwoSecondsOnceAndTheRecordingRuns) {
    SilentBus bus;
    busAddress = QString::fromStdString(bus.Address());
    inheritBuses = false;
    ASSERT_EQ(Run({"add", "Soon", "--in", "3s", "--for", "1s"}).exitCode, 0);
    ASSERT_EQ(Run({"enable"}).exitCode, 0);

    QElapsedTimer sinceStart;
    sinceStart.start();
    auto run = Start({"run"});
    ASSERT_TRUE(WaitForOutput(*run, "scheduler running", 3000))
        << "after " << sinceStart.elapsed() << " ms; " << warnings.toStdString();
    EXPECT_GE(sinceStart.elapsed(), 1500);  // the checks did wait for an answer
    EXPECT_GE(bus.Accepted(), 2);           // one check per bus reached the silent socket
    ASSERT_TRUE(WaitForOutput(*run, "recording started: \"Soon\"", 4000));
    ASSERT_TRUE(WaitForOutput(*run, "recording finished: \"Soon\"", 4000));
    EXPECT_FALSE(seen.contains("records dropped")) << seen.toStdString();
    StopRun(*run);

    EXPECT_EQ(warnings.count(NO_LOGIND), 1) << warnings.toStdString();
    EXPECT_EQ(warnings.count(NO_NOTICES), 1) << warnings.toStdString();
    EXPECT_EQ(warnings.count('\n'), 2) << warnings.toStdString();
    EXPECT_FALSE(seen.contains("sleep prevented")) << seen.toStdString();
}

}  // namespace
