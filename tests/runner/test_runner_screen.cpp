#include <signal.h>

#include <gtest/gtest.h>
#include <QDateTime>
#include <QDir>
#include <QThread>

#include "RunnerHarness.h"

// `run --capture screen` on an X server of the test's own, painted red so that a captured
// frame tells the screen from a blank one.
namespace {

using Vexlor::Testing::Outcome;
using Vexlor::Testing::RunnerTest;
using Vexlor::Testing::XServer;

const QStringList SCREEN = {"--notify", "none",     "--no-keep-awake", "--capture",
                            "screen",   "--output", "videos"};

class ScreenTest : public RunnerTest {
protected:
    void SetUp() override {
        RunnerTest::SetUp();
        ASSERT_FALSE(server.display.isEmpty()) << "Xvfb did not start";
        ASSERT_EQ(QProcess::execute("xsetroot", {"-display", server.display, "-solid", "red"}), 0);
        environmentChanges["DISPLAY"] = server.display;
        environmentChanges["PULSE_SERVER"] = "unix:" + FilePath("no-sound");
    }

    QStringList Videos() const {
        return QDir(FilePath("videos")).entryList(QDir::Files | QDir::Hidden, QDir::Name);
    }

    // `ffprobe` on a file of videos/: the values of `entries`, one a line.
    QString Probe(const QString& name, const QString& entries) const {
        QProcess probe;
        probe.start("ffprobe", {"-v", "error", "-show_entries", entries, "-of",
                                "default=noprint_wrappers=1:nokey=1", FilePath("videos/" + name)});
        probe.waitForFinished(10000);
        return QString::fromUtf8(probe.readAllStandardOutput()).trimmed();
    }

    XServer server{folder, "320x240x24"};
};

TEST_F(ScreenTest, RecordsThePlannedWindowIntoANewFileWithASafeName) {
    const QString title = "Review/1 \"a\" 'b' $(touch pwned)";
    // A whole second, so that the file's name is known ahead.
    const QDateTime start = QDateTime::fromSecsSinceEpoch(QDateTime::currentSecsSinceEpoch() + 5);
    const QString name =
        "Review_1 \"a\" 'b' $(touch pwned) " + start.toString("yyyy-MM-dd HH-mm-ss");
    Add({title, "--at", start.toString("yyyy-MM-dd HH:mm:ss"), "--for", "3s", "--enable"});
    ASSERT_TRUE(QDir().mkpath(FilePath("videos")));
    QFile taken(FilePath("videos/" + name + ".mkv"));
    ASSERT_TRUE(taken.open(QIODevice::WriteOnly) && taken.write("kept") == 4 && taken.flush());

    const Outcome run = Run(QStringList{"run", "--until-empty", "--audio"} + SCREEN);
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_TRUE(run.out.contains(", as planned, saved to")) << run.out.toStdString();
    EXPECT_EQ(run.err.count("warning: no PulseAudio or PipeWire source"), 1)
        << run.err.toStdString();
    EXPECT_EQ(Videos().join(" | ").toStdString(),
              (name + " (2).mkv | " + name + ".mkv").toStdString());
    EXPECT_EQ(ReadFile("videos/" + name + ".mkv"), "kept");
    EXPECT_FALSE(QFile::exists(FilePath("pwned")));

    // Time 0 is the planned start; the file ends at its last frame's end.
    const double first = Probe(name + " (2).mkv", "format=start_time").toDouble();
    EXPECT_TRUE(first >= 0.0 && first < 0.5) << first;  // not the grab clock's time
    EXPECT_NEAR(Probe(name + " (2).mkv", "format=duration").toDouble() - first, 3.0, 0.3)
        << run.out.toStdString();
    EXPECT_EQ(Probe(name + " (2).mkv", "stream=codec_type"), "video");  // and no sound

    QProcess frame;
    frame.start("ffmpeg",
                {"-v", "error", "-i", FilePath("videos/" + name + " (2).mkv"), "-frames:v", "1",
                 "-vf", "scale=1:1", "-f", "rawvideo", "-pix_fmt", "rgb24", "-"});
    ASSERT_TRUE(frame.waitForFinished(10000));
    const QByteArray rgb = frame.readAllStandardOutput();
    ASSERT_EQ(rgb.size(), 3);
    EXPECT_GT(static_cast<unsigned char>(rgb[0]), 200) << "not the red screen";
    EXPECT_LT(static_cast<unsigned char>(rgb[1]), 50);
}

class StopTest : public ScreenTest, public testing::WithParamInterface<int> {};

TEST_P(StopTest, AnOpenEndedCaptureEndsWithAFinishedFile) {
    Add({"Open", "--in", "1s", "--enable"});
    auto run = Start(QStringList{"run"} + SCREEN);
    ASSERT_TRUE(WaitForOutput(*run, "recording started: \"Open\", no planned end", 10000));
    QThread::msleep(3000);
    ::kill(static_cast<pid_t>(run->processId()), GetParam());
    ASSERT_TRUE(run->waitForFinished(10000));
    if (GetParam() == SIGTERM) {
        EXPECT_EQ(run->exitCode(), 0);
        EXPECT_TRUE(WaitForOutput(*run, "stopped on request, saved to", 0));
    }
    ASSERT_EQ(Videos().size(), 1);
    // The duration is written with the file's last part: an unfinished file has none. After
    // kill -9 of run, ffmpeg finishes it on the guardian's SIGTERM.
    double duration = -1;
    Vexlor::Testing::Eventually(
        [&] { return (duration = Probe(Videos().first(), "format=duration").toDouble()) > 1.0; },
        10000);
    EXPECT_GT(duration, 1.0);
}

INSTANTIATE_TEST_SUITE_P(Signals, StopTest, testing::Values(SIGTERM, SIGKILL),
                         [](const testing::TestParamInfo<int>& info) {
                             return std::string(info.param == SIGTERM ? "Sigterm" : "Sigkill");
                         });

// Each refusal leaves the run unstarted and the schedule as it was.
TEST_F(ScreenTest, RunThatCannotCaptureDoesNotStartAndKeepsTheSchedule) {
    Add({"Kept", "--in", "1h", "--enable"});
    // Found in PATH, but its interpreter is not there.
    ASSERT_TRUE(QDir().mkpath(FilePath("bin")));
    QFile broken(FilePath("bin/ffmpeg"));
    ASSERT_TRUE(broken.open(QIODevice::WriteOnly) && broken.write("#!/nonexistent/sh\n") > 0 &&
                broken.setPermissions(broken.permissions() | QFileDevice::ExeOwner));
    broken.close();
    const std::map<QString, std::optional<QString>> base = environmentChanges;
    const struct {
        QStringList arguments;
        std::map<QString, std::optional<QString>> environment;
        QString message;
    } rows[] = {{SCREEN, {{"PATH", "/nonexistent"}}, "ffmpeg is not installed"},
                {SCREEN, {{"DISPLAY", std::nullopt}}, "DISPLAY is not set"},
                {SCREEN, {{"DISPLAY", ":65000"}}, "ffmpeg cannot grab display :65000"},
                {SCREEN,
                 {{"PATH", FilePath("bin")}},
                 "ffmpeg failed to start: " + FilePath("bin/ffmpeg") +
                     ": execve: No such file or directory"},
                {{"--capture", "screen", "--output", "settings.ini"},
                 {},
                 "cannot create the output folder"}};
    for (const auto& row : rows) {
        environmentChanges = row.environment;
        environmentChanges.insert(base.begin(), base.end());  // the row's own values stay
        const Outcome run = Run(QStringList{"run", "--until-empty"} + row.arguments);
        SCOPED_TRACE(row.message.toStdString());
        EXPECT_EQ(run.exitCode, 1);
        EXPECT_TRUE(run.err.contains(row.message)) << run.err.toStdString();
        EXPECT_FALSE(run.out.contains("scheduler running"));
        EXPECT_TRUE(Run({"list"}).out.contains("Kept"));
    }
}

}  // namespace
