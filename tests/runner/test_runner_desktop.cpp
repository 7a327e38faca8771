#include <signal.h>

#include <gtest/gtest.h>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>

#include "fakes/FakeDBusServices.h"

// The runner with its default back-ends, against fake desktop services on the private bus whose
// addresses the program inherits.
namespace {

using Vexlor::Testing::FakeBusServices;

class DesktopRunnerTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(folder.isValid());
        ASSERT_TRUE(services.PublishNotifications());
        ASSERT_TRUE(services.PublishLogin());
    }

    std::unique_ptr<QProcess> Start(const QStringList& arguments) {
        auto process = std::make_unique<QProcess>();
        process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
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

    bool WaitForOutput(QProcess& process, const QString& needle, int timeoutMs) {
        QElapsedTimer clock;
        clock.start();
        while (!seen.contains(needle) && clock.elapsed() < timeoutMs) {
            process.waitForReadyRead(100);
            seen += QString::fromUtf8(process.readAllStandardOutput());
        }
        return seen.contains(needle);
    }

    QTemporaryDir folder;
    FakeBusServices services;
    QString seen;
};

TEST_F(DesktopRunnerTest, LockHeldWhileArmedAndNoticeShownThenWithdrawn) {
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

    ::kill(static_cast<pid_t>(run->processId()), SIGTERM);
    ASSERT_TRUE(run->waitForFinished(5000));
    EXPECT_EQ(run->exitCode(), 0);
}

}  // namespace
