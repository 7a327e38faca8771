#include <signal.h>

#include <gtest/gtest.h>
#include <QElapsedTimer>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>

#include "fakes/FakeDBusServices.h"
#include "fakes/SilentBus.h"

// The runner with its default back-ends, against fake desktop services on the private bus whose
// addresses the program inherits, or against buses that never answer.
namespace {

using Vexlor::Testing::FakeBusServices;
using Vexlor::Testing::SilentBus;

const QString NO_LOGIND = QStringLiteral("logind does not answer on the system bus");
const QString NO_NOTICES = QStringLiteral("no notification service answers on the session bus");

class DesktopRunnerTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(folder.isValid()); }

    std::unique_ptr<QProcess> Start(const QStringList& arguments) {
        auto process = std::make_unique<QProcess>();
        process->setProcessEnvironment(environment);
        process->start(QStringLiteral(VEXLOR_SCHEDULE_PROGRAM),
                       QStringList{QStringLiteral("--settings"),
                                   folder.filePath(QStringLiteral("settings.ini"))} +
                           arguments);
        EXPECT_TRUE(process->waitForStarted(5000));
        return process;
    }

    int Run(const QStringList& arguments) {
        auto process = Start(arguments);
        EXPECT_TRUE(process->waitForFinished(10000));
        return process->exitCode();
    }

    // Reads both channels of `process` until standard output holds `needle`.
    bool WaitForOutput(QProcess& process, const QString& needle, int timeoutMs) {
        QElapsedTimer clock;
        clock.start();
        while (!seen.contains(needle) && clock.elapsed() < timeoutMs) {
            process.waitForReadyRead(50);
            Collect(process);
        }
        return seen.contains(needle);
    }

    void Collect(QProcess& process) {
        seen += QString::fromUtf8(process.readAllStandardOutput());
        warnings += QString::fromUtf8(process.readAllStandardError());
    }

    void Stop(QProcess& process) {
        ::kill(static_cast<pid_t>(process.processId()), SIGTERM);
        ASSERT_TRUE(process.waitForFinished(5000));
        EXPECT_EQ(process.exitCode(), 0);
        Collect(process);
    }

    // Both buses at `address` for the programs started from now on.
    void UseBuses(const QString& address) {
        environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), address);
        environment.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), address);
    }

    QTemporaryDir folder;
    FakeBusServices services;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    QString seen;      // standard output so far
    QString warnings;  // standard error so far
};

TEST_F(DesktopRunnerTest, LockHeldWhileArmedAndNoticeShownThenWithdrawn) {
    ASSERT_TRUE(services.PublishNotifications());
    ASSERT_TRUE(services.PublishLogin());
    // Within the notice window from the helper's first check, 10 s after the start.
    ASSERT_EQ(Run({"add", "Later", "--in", "4h"}), 0);
    ASSERT_EQ(Run({"enable"}), 0);
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
    ASSERT_EQ(Run({"remove", "Later"}), 0);
    ASSERT_TRUE(WaitForOutput(*run, "sleep allowed: logind lock released", 3000))
        << seen.toStdString();
    EXPECT_TRUE(services.login.Released(0, 1000));
    ASSERT_TRUE(WaitForOutput(*run, "Notice withdrawn from the desktop", 12000))
        << seen.toStdString();
    EXPECT_EQ(services.notifications.Closed(), std::vector<uint>{notices[0].returnedId});
    EXPECT_EQ(services.login.Inhibitions().size(), 1u);

    Stop(*run);
    EXPECT_TRUE(warnings.isEmpty()) << warnings.toStdString();
}

// Both buses take the connection and never answer, as a stopped or deadlocked dbus-daemon
// does. The bus checks run side by side and give up after 2 s, so the scheduler runs in time
// for a recording due 3 s after the start.
TEST_F(DesktopRunnerTest, BusesThatNeverAnswerCostTwoSecondsOnceAndTheRecordingRuns) {
    SilentBus bus;
    UseBuses(QString::fromStdString(bus.Address()));
    ASSERT_EQ(Run({"add", "Soon", "--in", "3s", "--for", "1s"}), 0);
    ASSERT_EQ(Run({"enable"}), 0);

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
    Stop(*run);

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
    ASSERT_EQ(Run({"add", "Later", "--in", "4h"}), 0);
    ASSERT_EQ(Run({"enable"}), 0);
    auto run = Start(QStringList{"run"} + GetParam().options);
    ASSERT_TRUE(WaitForOutput(*run, "scheduler running: scheduling on", 5000))
        << seen.toStdString();
    ASSERT_EQ(Run({"disable"}), 0);
    ASSERT_TRUE(WaitForOutput(*run, "settings changed: scheduling off", 3000))
        << seen.toStdString();
    Stop(*run);

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
