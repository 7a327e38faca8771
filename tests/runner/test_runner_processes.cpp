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

struct Leftover {
    const char* name;
    const char* recordFor;
    QString command;
    int signal;        // sent to run once the capture runs, 0 for none
    int endsWithinMs;  // from then on, for the shell and its child
};

void PrintTo(const Leftover& row, std::ostream* out) {
    *out << row.name;
}

class LeftoverTest : public ProcessesTest, public testing::WithParamInterface<Leftover> {};

TEST_P(LeftoverTest, CaptureProcessesEndWithTheCaptureOrTheRunner) {
    const Leftover& row = GetParam();
    Add({"Capture", "--in", "1s", "--for", row.recordFor});
    ASSERT_EQ(Run({"enable"}).exitCode, 0);
    auto run = Start(
        {"run", "--until-empty", "--notify", "none", "--no-keep-awake", "--exec", row.command});
    QString seen;
    ASSERT_TRUE(WaitForOutput(*run, seen, "recording started", 10000));
    const long long shell = WaitForPid("shell.pid"), child = WaitForPid("child.pid");
    ASSERT_TRUE(shell > 0 && child > 0);
    if (row.signal != 0) {
        ASSERT_FALSE(ProcessEnded(child));
        ::kill(static_cast<pid_t>(run->processId()), row.signal);
    }
    EXPECT_TRUE(EndsWithin(shell, row.endsWithinMs));
    EXPECT_TRUE(EndsWithin(child, row.endsWithinMs));

    ASSERT_TRUE(run->waitForFinished(10000));
    EXPECT_EQ(run->exitStatus(),
              row.signal == SIGKILL ? QProcess::CrashExit : QProcess::NormalExit);
    if (row.signal != SIGKILL) {
        EXPECT_EQ(run->exitCode(), 0) << run->readAllStandardError().toStdString();
        seen += QString::fromUtf8(run->readAllStandardOutput());
        EXPECT_TRUE(seen.contains("recording finished: \"Capture\"")) << seen.toStdString();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, LeftoverTest,
    testing::Values(Leftover{"Terminated", "30s", BACKGROUND_CHILD + "; wait", SIGTERM, 4000},
                    // The terminal closed: stopped as on SIGTERM.
                    Leftover{"HangUp", "30s", BACKGROUND_CHILD + "; wait", SIGHUP, 4000},
                    Leftover{"RunnerKilled", "30s", BACKGROUND_CHILD + "; wait", SIGKILL, 4000},
                    // The shell exits at once; its child must not run past the planned end (2 s).
                    Leftover{"CommandLeavesAChild", "2s", BACKGROUND_CHILD, 0, 5000}),
    [](const testing::TestParamInfo<Leftover>& info) { return std::string(info.param.name); });

TEST_F(ProcessesTest, ReaderClosingThePipeEndsRunQuietly) {
    Add({"Piped", "--in", "1s", "--for", "30s"});
    ASSERT_EQ(Run({"enable"}).exitCode, 0);
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
        if (PidIn(pidFile) > 0) {
            EXPECT_TRUE(EndsWithin(PidIn(pidFile), 4000)) << pidFile;
        }
    }
}

}  // namespace
