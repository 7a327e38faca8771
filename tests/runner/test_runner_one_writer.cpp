#include <sys/mount.h>

#include <errno.h>

#include <cstring>

#include <gtest/gtest.h>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QSettings>
#include <QThread>

#include "RunnerHarness.h"

// Several processes on one schedule, and storage failing under a run: no edit that was
// acknowledged is lost, and no due record is skipped or run twice.
namespace {

using Vexlor::Testing::Outcome;
using Vexlor::Testing::RunnerTest;

class OneWriterTest : public RunnerTest {
protected:
    std::unique_ptr<QProcess> StartRun(const QStringList& arguments) {
        auto run = Start(QStringList{QStringLiteral("run")} + arguments);
        EXPECT_TRUE(WaitForOutput(*run, seen, "scheduler running", 10000));
        return run;
    }

    Outcome Stop(QProcess& run) {
        Outcome stopped = RunnerTest::Stop(run);
        seen += stopped.out;
        return stopped;
    }

    QStringList Listed(const QStringList& settings = {}) {
        return Run(settings + QStringList{QStringLiteral("list")})
            .out.split('\n', Qt::SkipEmptyParts);
    }

    QString seen;
};

class ConcurrentAddTest : public OneWriterTest, public testing::WithParamInterface<bool> {};

TEST_P(ConcurrentAddTest, FiftyAddsFromSeparateProcessesAllHold) {
    std::unique_ptr<QProcess> run;
    if (GetParam()) {
        run = StartRun({});
    }
    std::vector<std::unique_ptr<QProcess>> adds;
    for (int i = 0; i < 50; ++i) {
        adds.push_back(Start({"add", QStringLiteral("Meeting %1").arg(i), "--in",
                              QStringLiteral("%1h").arg(i + 1), "--for", "30m"}));
    }
    for (auto& add : adds) {
        const Outcome added = Finish(*add);
        EXPECT_EQ(added.exitCode, 0) << added.err.toStdString();
        EXPECT_TRUE(added.out.startsWith("added")) << added.out.toStdString();
    }
    EXPECT_EQ(Listed().size(), 50);
    if (run) {
        Stop(*run);
        // What the run held is what it wrote.
        EXPECT_EQ(Listed().size(), 50);
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, ConcurrentAddTest, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& info) {
                             return info.param ? "WithRunActive" : "WithoutRun";
                         });

TEST_F(OneWriterTest, EditsRacingARunThatStartsRecordingsAllHoldAndEachRecordRunsOnce) {
    const QStringList due{"Due 1", "Due 2", "Due 3", "Due 4"};
    for (int i = 0; i < due.size(); ++i) {
        Add({due[i], "--in", QStringLiteral("%1s").arg(2 + 2 * i), "--for", "1s"});
    }
    ASSERT_EQ(Run({"enable"}).exitCode, 0);
    auto run = StartRun({"--exec", "printf '%s\\n' \"$VEXLOR_TITLE\" >> captured.txt"});

    // Far-future adds, every other one removed again, two processes at a time, while the
    // run starts its recordings.
    QStringList kept;
    int edits = 0;
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; !seen.contains("recording finished: \"Due 4\"") && clock.elapsed() < 20000;
         ++i) {
        const QString title = QStringLiteral("Far %1").arg(i);
        auto add = Start({"add", title, "--in", QStringLiteral("%1h").arg(24 + i)});
        auto other = Start({"add", title + " b", "--in", QStringLiteral("%1h").arg(200 + i)});
        ASSERT_EQ(Finish(*add).exitCode, 0);
        ASSERT_EQ(Finish(*other).exitCode, 0);
        if (i % 2 == 0) {
            ASSERT_EQ(Run({"remove", title}).exitCode, 0);
        } else {
            kept << title;
        }
        kept << title + " b";
        edits += 3;
        run->waitForReadyRead(1);
        seen += QString::fromUtf8(run->readAllStandardOutput());
    }
    ASSERT_TRUE(WaitForOutput(*run, seen, "recording finished: \"Due 4\"", 5000));
    EXPECT_GT(edits, 20);

    QStringList inRun = Listed();
    Stop(*run);
    QStringList inFile = Listed();
    for (const QStringList* listed : {&inRun, &inFile}) {
        EXPECT_EQ(listed->size(), kept.size()) << listed->join('\n').toStdString();
        for (const QString& title : kept) {
            EXPECT_EQ(listed->filter(QStringLiteral("\"%1\"").arg(title)).size(), 1)
                << title.toStdString();
        }
    }
    EXPECT_EQ(QString::fromUtf8(ReadFile("captured.txt")).split('\n', Qt::SkipEmptyParts), due);
    EXPECT_FALSE(seen.contains("records dropped")) << seen.toStdString();
}

TEST_F(OneWriterTest, ASymlinkOrARelativePathIsTheSameSchedule) {
    ASSERT_TRUE(QFile::link(SettingsFile(), FilePath("link.ini")));
    Add({"Later", "--in", "1h"});  // the file must exist for the link to resolve
    auto run = StartRun({});

    const Outcome second = Run({"--settings", FilePath("link.ini"), "run"});
    EXPECT_EQ(second.exitCode, 1);
    EXPECT_TRUE(second.err.contains("another run is active")) << second.err.toStdString();

    EXPECT_EQ(Run({"--settings", "link.ini", "add", "Via link", "--in", "2h"}).exitCode, 0);
    EXPECT_TRUE(WaitForOutput(*run, seen, "2 recording(s) stored", 3000));
    Stop(*run);
    EXPECT_EQ(Listed().size(), 2);
}

QString LocalTime(qint64 fromNowMs) {
    return QDateTime::currentDateTime().addMSecs(fromNowMs).toString("yyyy-MM-dd HH:mm:ss");
}

TEST_F(OneWriterTest, ARecordUnderWayIsStartedAtOnceNeverAcceptedAndSkipped) {
    // Begun a moment ago, planned to go on for a few seconds more.
    const Outcome begun =
        Run({"add", "Begun", "--at", LocalTime(-1000), "--for", "4s", "--enable"});
    ASSERT_EQ(begun.exitCode, 0) << begun.err.toStdString();
    EXPECT_TRUE(begun.out.contains("it has begun")) << begun.out.toStdString();
    auto run = StartRun({});
    EXPECT_TRUE(WaitForOutput(*run, seen, "recording started: \"Begun\"", 2000));
    ASSERT_TRUE(WaitForOutput(*run, seen, "recording finished: \"Begun\"", 6000));

    EXPECT_EQ(Run({"add", "Now", "--in", "0", "--for", "1s", "--enable"}).exitCode, 0);
    EXPECT_TRUE(WaitForOutput(*run, seen, "recording started: \"Now\"", 2000));
    Stop(*run);
    EXPECT_FALSE(seen.contains("records dropped")) << seen.toStdString();
}

TEST_F(OneWriterTest, LeadStartsTheCaptureEarlyAndItRunsToThePlannedEnd) {
    Add({"Ahead", "--in", "4s", "--for", "2s"});
    ASSERT_EQ(Run({"enable"}).exitCode, 0);
    const QDateTime plannedEnd = QDateTime::currentDateTime().addSecs(6);
    auto run = StartRun({"--lead", "2s", "--exec",
                         "trap 'date +%s%3N > ended.txt; exit 0' TERM; date +%s%3N > began.txt; "
                         "echo $VEXLOR_DURATION_MS > duration.txt; sleep 30 & wait"});
    ASSERT_TRUE(WaitForOutput(*run, seen, "recording finished: \"Ahead\"", 10000));
    const qint64 began = ReadFile("began.txt").trimmed().toLongLong();
    const qint64 ended = ReadFile("ended.txt").trimmed().toLongLong();
    EXPECT_NEAR(plannedEnd.toMSecsSinceEpoch() - began, 4000, 500);
    EXPECT_NEAR(ended - plannedEnd.toMSecsSinceEpoch(), 0, 500);
    EXPECT_EQ(ReadFile("duration.txt").trimmed(), "2000");  // requested early: nothing is cut
    Stop(*run);
}

TEST_F(OneWriterTest, AStoredValueThatIsNoScheduleIsReportedAndCanBeCleared) {
    {
        QSettings settings(SettingsFile(), QSettings::IniFormat);
        settings.setValue("QK/Scheduler/schedule", QByteArray("\x68\x65\x6c\x6c\x6f", 5));
    }
    const Outcome listed = Run({"list"});
    EXPECT_EQ(listed.exitCode, 1);
    EXPECT_TRUE(listed.err.contains("unreadable")) << listed.err.toStdString();
    EXPECT_EQ(Run({"run"}).exitCode, 1);
    EXPECT_EQ(Run({"add", "New", "--in", "1h"}).exitCode, 1);
    EXPECT_EQ(Run({"clear"}).exitCode, 0);
    EXPECT_EQ(Run({"list"}).exitCode, 0);
}

void HandEdit(const QString& path, bool enabled) {
    QSettings file(path, QSettings::IniFormat);
    file.setValue("QK/Scheduler/scheduler_enabled", enabled);
}

TEST_F(OneWriterTest, ARemovedSettingsFolderIsWrittenBackAndStillWatched) {
    const QString settings = FilePath("store/settings.ini");
    ASSERT_EQ(Run({"--settings", settings, "add", "Later", "--in", "1h"}).exitCode, 0);
    ASSERT_EQ(Run({"--settings", settings, "enable"}).exitCode, 0);
    auto run = Start({"--settings", settings, "run"});
    ASSERT_TRUE(WaitForOutput(*run, seen, "scheduler running", 10000));

    ASSERT_TRUE(QDir(FilePath("store")).removeRecursively());
    ASSERT_TRUE(WaitForOutput(*run, seen, "settings file was gone", 3000));
    EXPECT_EQ(Listed({"--settings", settings}).size(), 1);
    HandEdit(settings, false);
    EXPECT_TRUE(WaitForOutput(*run, seen, "settings changed: scheduling off", 3000));
    Stop(*run);
}

TEST_F(OneWriterTest, LocksThatCannotBeMadeAreRefusedWithTheSystemsReason) {
    const QString runtime = FilePath("runtime");
    ASSERT_TRUE(QDir().mkdir(runtime));
    if (::mount("tmpfs", QFile::encodeName(runtime).constData(), "tmpfs", MS_RDONLY, "size=16k") !=
        0) {
        GTEST_SKIP() << "cannot mount a read-only tmpfs here (" << std::strerror(errno) << ")";
    }
    const bool had = qEnvironmentVariableIsSet("XDG_RUNTIME_DIR");
    const QByteArray previous = qgetenv("XDG_RUNTIME_DIR");
    qputenv("XDG_RUNTIME_DIR", runtime.toUtf8());  // inherited by the program
    const Outcome run = Run({"run"});
    const Outcome add = Run({"add", "New", "--in", "1h"});
    had ? qputenv("XDG_RUNTIME_DIR", previous) : qunsetenv("XDG_RUNTIME_DIR");
    ::umount2(QFile::encodeName(runtime).constData(), MNT_DETACH);
    for (const Outcome& refused : {run, add}) {
        EXPECT_EQ(refused.exitCode, 1);
        EXPECT_TRUE(refused.err.contains("Read-only file system")) << refused.err.toStdString();
    }
}

// Storage that fails under a running scheduler: it keeps recording from what it holds,
// says what failed once, and writes everything when storage is back.
struct StorageFault {
    const char* name;
    bool fullDisk;  // else a directory takes the file's place
    const char* reason;
};

void PrintTo(const StorageFault& row, std::ostream* out) {
    *out << row.name;
}

class StorageFaultTest : public OneWriterTest, public testing::WithParamInterface<StorageFault> {
protected:
    void TearDown() override {
        if (mounted) {
            ::umount2(QFile::encodeName(FilePath("store")).constData(), MNT_DETACH);
        }
    }
    bool mounted = false;
};

TEST_P(StorageFaultTest, RunKeepsRecordingSaysWhyOnceAndCatchesUp) {
    const QString store = FilePath("store"), file = store + "/settings.ini";
    ASSERT_TRUE(QDir().mkdir(store));
    if (GetParam().fullDisk) {
        if (::mount("tmpfs", QFile::encodeName(store).constData(), "tmpfs", 0, "size=256k") != 0) {
            GTEST_SKIP() << "cannot mount a small tmpfs here (" << std::strerror(errno) << ")";
        }
        mounted = true;
    }
    const QStringList settings{"--settings", file};
    ASSERT_EQ(Run(settings + QStringList{"add", "Due", "--in", "4s", "--for", "1s"}).exitCode, 0);
    ASSERT_EQ(Run(settings + QStringList{"enable"}).exitCode, 0);
    auto run = Start(settings + QStringList{"run", "--exec", "true"});
    ASSERT_TRUE(WaitForOutput(*run, seen, "scheduler running", 10000));

    QFile filler(store + "/filler");
    if (GetParam().fullDisk) {
        ASSERT_TRUE(filler.open(QIODevice::WriteOnly));
        const QByteArray block(4096, 'x');
        while (filler.write(block) == block.size() && filler.flush()) {
        }
    } else {
        ASSERT_TRUE(QFile::remove(file) && QDir().mkdir(file));
    }
    const Outcome added = Run(settings + QStringList{"add", "Later", "--in", "1h"});
    EXPECT_EQ(added.exitCode, 0) << added.err.toStdString();
    EXPECT_TRUE(added.err.contains("not saved")) << added.err.toStdString();
    EXPECT_TRUE(WaitForOutput(*run, seen, "recording finished: \"Due\"", 8000));
    EXPECT_TRUE(seen.contains(GetParam().reason)) << seen.toStdString();
    QThread::msleep(2500);  // a retry or more, which must not repeat the message
    seen += QString::fromUtf8(run->readAllStandardOutput());
    EXPECT_EQ(seen.count("settings not saved"), 1) << seen.toStdString();

    filler.close();
    ASSERT_TRUE(GetParam().fullDisk ? QFile::remove(filler.fileName()) : QDir().rmdir(file));
    EXPECT_TRUE(WaitForOutput(*run, seen, "settings saved again", 5000));
    const QStringList listed = Listed(settings);
    ASSERT_EQ(listed.size(), 1) << listed.join('\n').toStdString();
    EXPECT_TRUE(listed[0].contains("\"Later\""));
    Stop(*run);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, StorageFaultTest,
    testing::Values(StorageFault{"DirectoryInItsPlace", false, "Is a directory"},
                    StorageFault{"FullDisk", true, "No space left on device"}),
    [](const testing::TestParamInfo<StorageFault>& info) { return std::string(info.param.name); });

}  // namespace
