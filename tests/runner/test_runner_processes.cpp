#include <signal.h>

#include <gtest/gtest.h>
#include <QProcess>

#include "RunnerHarness.h"

// Nothing that a capture command starts may outlive the capture or the runner.
namespace {

using Vexlor::Testing::ProcessEnded;
using Vexlor::Testing::RunnerTest;

// The shell and a child it put in the background, both in the capture's process group.
const QString BACKGROUND_CHILD =
    QStringLiteral("echo $$ > shell.pid; sleep 60 & echo $! > child.pid");

class ProcessesTest : public RunnerTest {
protected:
    void TearDown() override {
        // Whatever a failed case left behind.
        for (const long long pid : {PidIn("run.pid"), PidIn("shell.pid"), PidIn("child.pid")}) {
            if (pid > 0 && !ProcessEnded(pid)) {
                ::kill(static_cast<pid_t>(pid), SIGKILL);
            }
        }
    }

    long long PidIn(const QString& name) const { return ReadFile(name).trimmed().toLongLong(); }
    long long WaitForPid(const QString& name) const {
        Vexlor::Testing::Eventually([&] { return PidIn(name) > 0; }, 5000);
        return PidIn(name);
    }
    static bool EndsWithin(long long pid, int timeoutMs) {
        return Vexlor::Testing::Eventually([pid] { return ProcessEnded(pid); }, timeoutMs);
    }
};

// A name, and the signal sent to run once the capture runs (0 for none).
using Leftover = std::pair<std::string, int>;

class LeftoverTest : public ProcessesTest, public testing::WithParamInterface<Leftover> {};

TEST_P(LeftoverTest, CaptureProcessesEndWithTheCaptureOrTheRunner) {
    const int signal = GetParam().second;
    Add({"Capture", "--in", "1s", "--for", signal != 0 ? "30s" : "2s", "--enable"});
    auto run = Start({"run", "--until-empty", "--notify", "none", "--no-keep-awake", "--exec",
                      BACKGROUND_CHILD + (signal != 0 ? "; wait" : "")});
    ASSERT_TRUE(WaitForOutput(*run, "recording started", 10000));
    const long long shell = WaitForPid("shell.pid"), child = WaitForPid("child.pid");
    ASSERT_TRUE(shell > 0 && child > 0);
    if (signal != 0) {
        ASSERT_FALSE(ProcessEnded(child));
        ::kill(static_cast<pid_t>(run->processId()), signal);
    }
    // From the signal on, or from the start of the 2 s capture.
    EXPECT_TRUE(EndsWithin(shell, signal != 0 ? 4000 : 5000));
    EXPECT_TRUE(EndsWithin(child, signal != 0 ? 4000 : 5000));

    ASSERT_TRUE(run->waitForFinished(10000));
    EXPECT_EQ(run->exitStatus(), signal == SIGKILL ? QProcess::CrashExit : QProcess::NormalExit);
    if (signal != SIGKILL) {
        EXPECT_EQ(run->exitCode(), 0) << run->readAllStandardError().toStdString();
        EXPECT_TRUE(WaitForOutput(*run, "recording finished: \"Capture\"", 0));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, LeftoverTest,
    testing::Values(Leftover{"Terminated", SIGTERM},
                    Leftover{"HangUp", SIGHUP},  // the terminal closed: stopped as on SIGTERM
                    Leftover{"RunnerKilled", SIGKILL},
                    // The shell exits at once; its child must not run past the planned end.
                    Leftover{"CommandLeavesAChild", 0}),
    [](const testing::TestParamInfo<Leftover>& info) { return info.param.first; });

TEST_F(ProcessesTest, ReaderClosingThePipeEndsRunQuietly) {
    Add({"Piped", "--in", "1s", "--for", "30s", "--enable"});
    QProcess pipeline;
    pipeline.setWorkingDirectory(folder.path());
    pipeline.setProcessEnvironment(Environment());
    QElapsedTimer clock;
    clock.start();
    pipeline.start(QStringLiteral("/bin/bash"),
                   {"-c",
                    "(echo $BASHPID > run.pid; exec \"$0\" --settings \"$1\" run --until-empty "
                    "--notify none --no-keep-awake --exec \"$2\") 2> run-err.txt | head -1; "
                    "echo \"${PIPESTATUS[0]}\" > status.txt",
                    VEXLOR_SCHEDULE_PROGRAM, SettingsFile(), BACKGROUND_CHILD + "; wait"});
    // The recording would last 30 s: run must end with the next line it cannot write.
    ASSERT_TRUE(pipeline.waitForFinished(15000));
    EXPECT_LT(clock.elapsed(), 8000);
    EXPECT_EQ(ReadFile("status.txt").trimmed(), "0");  // 141 when SIGPIPE ended it
    EXPECT_EQ(ReadFile("run-err.txt"), QByteArray());
    EXPECT_TRUE(pipeline.readAllStandardOutput().contains("scheduler running"));
    // The capture may have started before run noticed; then it is stopped as well.
    for (const char* pidFile : {"shell.pid", "child.pid"}) {
        EXPECT_TRUE(PidIn(pidFile) <= 0 || EndsWithin(PidIn(pidFile), 4000)) << pidFile;
    }
}

}  // namespace
