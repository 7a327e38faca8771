#include <signal.h>

#include <gtest/gtest.h>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QThread>

#include "RunnerHarness.h"
#include "capture/RecordingNote.h"

// `run --capture screen` on an X server of the test's own, painted red so that a captured
// frame tells the screen from a blank one.
namespace {

using Vexlor::Testing::Eventually;
using Vexlor::Testing::FileContents;
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

    // The command line of every process now, the arguments joined by spaces.
    static QStringList CommandLines() {
        QStringList lines;
        for (const QString& pid : QDir("/proc").entryList({"[0-9]*"}, QDir::Dirs)) {
            lines << QString::fromUtf8(
                FileContents("/proc/" + pid + "/cmdline").replace('\0', ' '));
        }
        return lines;
    }

    // The command line of the ffmpeg recording into videos/, once it runs.
    QString RecordingFfmpeg() const {
        QString found;
        Eventually(
            [&] {
                for (const QString& line : CommandLines()) {
                    if (line.contains("x11grab") && line.contains(FilePath("videos/"))) {
                        found = line;
                    }
                }
                return !found.isEmpty();
            },
            5000);
        return found;
    }

    XServer server{folder, "320x240x24"};
};

TEST_F(ScreenTest, RecordsThePlannedWindowIntoANewFileWithASafeName) {
    // Unique, so that no other process on the machine has it by chance.
    const QString secret = QString::number(QRandomGenerator::global()->generate64(), 36);
    const QString title = "Review/1 \"a\" 'b' $(touch pwned) " + secret;
    // A whole second, so that the file's name is known ahead.
    const QDateTime start = QDateTime::fromSecsSinceEpoch(QDateTime::currentSecsSinceEpoch() + 5);
    const QString name =
        "Review_1 \"a\" 'b' $(touch pwned) " + secret + " " + start.toString("yyyy-MM-dd HH-mm-ss");
    Add({title, "--at", start.toString("yyyy-MM-dd HH:mm:ss"), "--for", "3s", "--enable"});
    // Back to back: its capture starts while the first one's still runs.
    const QDateTime next = start.addSecs(3);
    const QString nextName = "Next " + next.toString("yyyy-MM-dd HH-mm-ss") + ".mkv";
    Add({"Next", "--at", next.toString("yyyy-MM-dd HH:mm:ss"), "--for", "2s"});
    ASSERT_TRUE(QDir().mkpath(FilePath("videos")));
    QFile taken(FilePath("videos/" + name + ".mkv"));
    ASSERT_TRUE(taken.open(QIODevice::WriteOnly) && taken.write("kept") == 4 && taken.flush());
    // As a killed run leaves a video, but with nothing to tell its title.
    const QString unknown = ".vexlor-recording-00000000000000ab.mkv.part";
    QFile left(FilePath("videos/" + unknown));
    ASSERT_TRUE(left.open(QIODevice::WriteOnly) && left.write("left") == 4 && left.flush());

    auto running = Start(QStringList{"run", "--until-empty", "--audio"} + SCREEN);
    ASSERT_TRUE(WaitForOutput(*running, "recording started", 10000));
    // Every local user can read command lines: the title stays off them all.
    const QString ffmpeg = RecordingFfmpeg();
    EXPECT_TRUE(ffmpeg.contains(".mkv.part")) << ffmpeg.toStdString();
    for (const QString& line : CommandLines()) {
        EXPECT_FALSE(line.contains(secret)) << line.toStdString();
    }
    Outcome run = Finish(*running);
    run.out.prepend(seen);
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_TRUE(run.out.contains(", as planned, saved to")) << run.out.toStdString();
    EXPECT_TRUE(
        run.out.contains("recording left by an earlier run: " + FilePath("videos/" + unknown) +
                         ", title unknown (no metadata file beside it), kept under that name"))
        << run.out.toStdString();
    EXPECT_EQ(run.err.count("warning: no PulseAudio or PipeWire source"), 1)
        << run.err.toStdString();
    EXPECT_EQ(
        Videos().join(" | ").toStdString(),
        (unknown + " | " + nextName + " | " + name + " (2).mkv | " + name + ".mkv").toStdString());
    EXPECT_EQ(ReadFile("videos/" + name + ".mkv"), "kept");
    EXPECT_EQ(ReadFile("videos/" + unknown), "left");
    EXPECT_FALSE(QFile::exists(FilePath("pwned")));
    EXPECT_EQ(Probe(name + " (2).mkv", "format_tags=title"), title);

    // Time 0 is the planned start; the file ends at its last frame's end.
    const double first = Probe(name + " (2).mkv", "format=start_time").toDouble();
    EXPECT_TRUE(first >= 0.0 && first < 0.5) << first;  // not the grab clock's time
    EXPECT_NEAR(Probe(name + " (2).mkv", "format=duration").toDouble() - first, 3.0, 0.3)
        << run.out.toStdString();
    EXPECT_EQ(Probe(name + " (2).mkv", "stream=codec_type"), "video");  // and no sound
    const double nextFirst = Probe(nextName, "format=start_time").toDouble();
    EXPECT_TRUE(nextFirst >= 0.0 && nextFirst < 0.5) << nextFirst;
    EXPECT_NEAR(Probe(nextName, "format=duration").toDouble() - nextFirst, 2.0, 0.3)
        << run.out.toStdString();

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
    // What the title's metadata file escapes, and a newline that a file name cannot hold.
    const QString title = "Open =;#\\\n2";
    Add({title, "--in", "1s", "--enable"});
    auto run = Start(QStringList{"run"} + SCREEN);
    ASSERT_TRUE(
        WaitForOutput(*run, "recording started: \"Open =;#\\\\\\n2\", no planned end", 10000));
    QThread::msleep(3000);
    // The name stays the video's, but the file under it is empty until the end.
    const QString reserved =
        Videos().filter(QRegularExpression("^Open =;#\\\\_2 .*\\.mkv$")).value(0);
    ASSERT_FALSE(reserved.isEmpty()) << Videos().join(" | ").toStdString();
    EXPECT_EQ(QFileInfo(FilePath("videos/" + reserved)).size(), 0);
    if (GetParam() == SIGTERM) {
        // Someone else's file took the name meanwhile: it is kept.
        QFile mine(FilePath("videos/" + reserved));
        ASSERT_TRUE(mine.open(QIODevice::WriteOnly) && mine.write("mine") == 4 && mine.flush());
    }
    ::kill(static_cast<pid_t>(run->processId()), GetParam());
    ASSERT_TRUE(run->waitForFinished(10000));
    QString video = reserved;
    if (GetParam() == SIGTERM) {
        EXPECT_EQ(run->exitCode(), 0);
        EXPECT_TRUE(WaitForOutput(*run, "stopped on request, saved to", 0));
        EXPECT_EQ(ReadFile("videos/" + reserved), "mine");
        video = reserved.chopped(4) + " (2).mkv";
        EXPECT_EQ(Videos().join(" | ").toStdString(), (video + " | " + reserved).toStdString());
    } else {
        // After kill -9 of run, ffmpeg finishes the file on the guardian's SIGTERM, under its
        // neutral name; the next run gives it its name.
        EXPECT_EQ(Videos().filter(".vexlor-recording-").size(), 2)
            << Videos().join(" | ").toStdString();
        const Outcome next = Run(QStringList{"run", "--until-empty"} + SCREEN);
        EXPECT_TRUE(
            next.out.contains("recording left by an earlier run: \"Open =;#\\\\\\n2\", saved to " +
                              FilePath("videos/" + reserved)))
            << next.out.toStdString();
        EXPECT_EQ(Videos().join(" | ").toStdString(), reserved.toStdString());
    }
    // The duration is written with the file's last part: an unfinished file has none.
    double duration = -1;
    Eventually([&] { return (duration = Probe(video, "format=duration").toDouble()) > 1.0; },
               10000);
    EXPECT_GT(duration, 1.0);
    EXPECT_EQ(Probe(video, "format_tags=title"), title);
}

INSTANTIATE_TEST_SUITE_P(Signals, StopTest, testing::Values(SIGTERM, SIGKILL),
                         [](const testing::TestParamInfo<int>& info) {
                             return std::string(info.param == SIGTERM ? "Sigterm" : "Sigkill");
                         });

// What a recording keeps beside its video comes back as it was written, through the
// escapes of its format; text that is not such a note is refused.
TEST(RecordingNoteTest, ReadsBackWhatItWritesAndRefusesOtherText) {
    using Vexlor::ScheduleTool::DecodeNote;
    using Vexlor::ScheduleTool::EncodeNote;
    using Vexlor::ScheduleTool::RecordingNote;
    const Vexlor::Time::TimePoint start{Vexlor::Time::Microseconds(1795000000123456)};
    const std::pair<QString, QString> titles[] = {
        {"a=b;c#d\\e\nf", "a=b;c#d\\e\nf"},
        {"ends in \\", "ends in \\"},
        {"\n;title=x", "\n;title=x"},
        {"Ünïcode ✓", "Ünïcode ✓"},
        {QString::fromUtf8("a\0b", 3), "ab"}};  // no NUL in a tag
    for (const auto& [title, read] : titles) {
        const RecordingNote note{title, start, "x=;#\\ 2026.mkv", {12, 34}};
        const auto back = DecodeNote(EncodeNote(note));
        ASSERT_TRUE(back) << title.toStdString();
        EXPECT_EQ(back->title, read);
        EXPECT_EQ(back->plannedStart, start);
        EXPECT_EQ(back->reservedName, note.reservedName);
        EXPECT_EQ(back->reserved.device, 12U);
        EXPECT_EQ(back->reserved.inode, 34U);
    }
    const QByteArray note = EncodeNote({"t", start, "t.mkv", {1, 2}});
    for (const QByteArray& text :
         {note.mid(1), QByteArray(note).replace(";vexlor-start=", ";other="),
          QByteArray(note).replace("t.mkv", "../t.mkv"), QByteArray(note).replace(":2", ":x")}) {
        EXPECT_FALSE(DecodeNote(text)) << text.toStdString();
    }
}

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
