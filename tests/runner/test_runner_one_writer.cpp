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
    void TearDown() override {
        for (const QByteArray& point : mounted) {
            ::umount2(point.constData(), MNT_DETACH);
        }
    }

    // A tmpfs on the new folder `name`, unmounted after the test; false where mounting is
    // not allowed.
    bool MountTmpfs(const QString& name, unsigned long flags, const char* options) {
        const QByteArray point = QFile::encodeName(FilePath(name));
        if (QDir().mkdir(FilePath(name)) &&
            ::mount("tmpfs", point.constData(), "tmpfs", flags, options) == 0) {
            mounted << point;
        }
        return mounted.contains(point);
    }

    std::unique_ptr<QProcess> StartRun(const QStringList& arguments = {}) {
        auto run = Start(QStringList{QStringLiteral("run")} + arguments);
        EXPECT_TRUE(WaitForOutput(*run, "scheduler running", 10000));
        return run;
    }

    QStringList Listed() { return Run({"list"}).out.split('\n', Qt::SkipEmptyParts); }

    QList<QByteArray> mounted;
};

// Fifty adds at once, each a process of its own: first with no run, then with one active.
TEST_F(OneWriterTest, FiftyAddsFromSeparateProcessesAllHold) {
    std::unique_ptr<QProcess> run;
    for (const int from : {0, 50}) {
        std::vector<std::unique_ptr<QProcess>> adds;
        for (int i = from; i < from + 50; ++i) {
            adds.push_back(Start({"add", QStringLiteral("Meeting %1").arg(i), "--in",
                                  QStringLiteral("%1h").arg(i + 1), "--for", "30m"}));
        }
        for (auto& add : adds) {
            const Outcome added = Finish(*add);
            EXPECT_EQ(added.exitCode, 0) << added.err.toStdString();
            EXPECT_TRUE(added.out.startsWith("added")) << added.out.toStdString();
        }
        EXPECT_EQ(Listed().size(), from + 50);
        if (!run) {
            run = StartRun();
        }
    }
    Stop(*run);
    EXPECT_EQ(Listed().size(), 100);  // what the run held is what it wrote
}

TEST_F(OneWriterTest, EditsRacingARunThatStartsRecordingsAllHoldAndEachRecordRunsOnce) {
    const QStringList due{"Due 1", "Due 2", "Due 3", "Due 4"};
    for (int i = 0; i < due.size(); ++i) {
        Add({due[i], "--in", QStringLiteral("%1s").arg(2 + 2 * i), "--for", "1s", "--enable"});
    }
    auto run = StartRun({"--exec", "printf '%s\\n' \"$VEXLOR_TITLE\" >> captured.txt"});

    // Far-future adds, every other one removed again, two processes at a time, while the
    // run starts its recordings.
    const QString last = QStringLiteral("recording finished: \"Due 4\"");
    QStringList kept;
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; !WaitForOutput(*run, last, 0) && clock.elapsed() < 20000; ++i) {
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
    }
    ASSERT_TRUE(WaitForOutput(*run, last, 5000));
    EXPECT_GE(kept.size(), 10);  // seven rounds of three edits or more

    const QStringList inRun = Listed();
    Stop(*run);
    for (const QStringList& listed : {inRun, Listed()}) {
        EXPECT_EQ(listed.size(), kept.size()) << listed.join('\n').toStdString();
        for (const QString& title : kept) {
            EXPECT_EQ(listed.filter(QStringLiteral("\"%1\"").arg(title)).size(), 1)
                << title.toStdString();
        }
    }
    EXPECT_EQ(QString::fromUtf8(ReadFile("captured.txt")).split('\n', Qt::SkipEmptyParts), due);
    EXPECT_FALSE(seen.contains("records dropped")) << seen.toStdString();
}

// One schedule whatever path names it; and a run whose folder is removed writes it back and
// goes on watching the file.
TEST_F(OneWriterTest, ALinkOrARelativePathIsTheSameScheduleAndARemovedFolderIsWrittenBack) {
    settingsName = "store/settings.ini";
    Add({"Later", "--in", "1h", "--enable"});  // the file must exist for the link to resolve
    ASSERT_TRUE(QFile::link(SettingsFile(), FilePath("link.ini")));
    auto run = StartRun();

    const Outcome second = Run({"--settings", FilePath("link.ini"), "run"});
    EXPECT_EQ(second.exitCode, 1);
    EXPECT_TRUE(second.err.contains("another run is active")) << second.err.toStdString();
    EXPECT_EQ(Run({"--settings", "link.ini", "add", "Via link", "--in", "2h"}).exitCode, 0);
    EXPECT_TRUE(WaitForOutput(*run, "2 recording(s) stored", 3000));

    ASSERT_TRUE(QDir(FilePath("store")).removeRecursively());
    ASSERT_TRUE(WaitForOutput(*run, "settings file was gone", 3000));
    EXPECT_EQ(Listed().size(), 2);
    QSettings(SettingsFile(), QSettings::IniFormat)
        .setValue("QK/Scheduler/scheduler_enabled", false);
    EXPECT_TRUE(WaitForOutput(*run, "settings changed: scheduling off", 3000));
    Stop(*run);
    EXPECT_EQ(Listed().size(), 2);
}

TEST_F(OneWriterTest, ARecordUnderWayIsStartedAtOnceNeverAcceptedAndSkipped) {
    // Begun a moment ago, planned to go on for a few seconds more.
    const QString begunAt =
        QDateTime::currentDateTime().addMSecs(-1000).toString("yyyy-MM-dd HH:mm:ss");
    const Outcome begun = Run({"add", "Begun", "--at", begunAt, "--for", "4s", "--enable"});
    ASSERT_EQ(begun.exitCode, 0) << begun.err.toStdString();
    EXPECT_TRUE(begun.out.contains("it has begun")) << begun.out.toStdString();
    auto run = StartRun();
    EXPECT_TRUE(WaitForOutput(*run, "recording started: \"Begun\"", 2000));
    // Begun too, while "Begun" is recorded: what is left of it follows.
    const QString besideAt =
        QDateTime::currentDateTime().addMSecs(-1000).toString("yyyy-MM-dd HH:mm:ss");
    EXPECT_EQ(Run({"add", "Beside", "--at", besideAt, "--for", "6s", "--allow-overlap", "--enable"})
                  .exitCode,
              0);
    ASSERT_TRUE(WaitForOutput(*run, "recording finished: \"Begun\"", 6000));
    EXPECT_TRUE(WaitForOutput(*run, "recording started: \"Beside\"", 1000));
    EXPECT_TRUE(seen.contains("(began late: \"Begun\" overlaps it")) << seen.toStdString();
    ASSERT_TRUE(WaitForOutput(*run, "recording finished: \"Beside\"", 6000));

    EXPECT_EQ(Run({"add", "Now", "--in", "0", "--for", "1s", "--enable"}).exitCode, 0);
    EXPECT_TRUE(WaitForOutput(*run, "recording started: \"Now\"", 2000));
    Stop(*run);
    EXPECT_FALSE(seen.contains("records dropped")) << seen.toStdString();
}

TEST_F(OneWriterTest, LeadStartsTheCaptureEarlyAndItRunsToThePlannedEnd) {
    Add({"Ahead", "--in", "4s", "--for", "2s", "--enable"});
    const qint64 plannedEnd = QDateTime::currentMSecsSinceEpoch() + 6000;
    auto run = StartRun({"--lead", "2s", "--exec",
                         "trap 'date +%s%3N > ended.txt; exit 0' TERM; date +%s%3N > began.txt; "
                         "echo $VEXLOR_DURATION_MS > duration.txt; sleep 30 & wait"});
    ASSERT_TRUE(WaitForOutput(*run, "recording finished: \"Ahead\"", 10000));
    EXPECT_NEAR(plannedEnd - ReadFile("began.txt").trimmed().toLongLong(), 4000, 500);
    EXPECT_NEAR(ReadFile("ended.txt").trimmed().toLongLong() - plannedEnd, 0, 500);
    EXPECT_EQ(ReadFile("duration.txt").trimmed(), "2000");  // requested early: nothing is cut
    Stop(*run);
}

// Stored as bytes, and as text by a hand edit.
TEST_F(OneWriterTest, AStoredValueThatIsNoScheduleIsReportedAndCanBeCleared) {
    for (const QByteArray& value : {QByteArray("@ByteArray(hello)"), QByteArray("hello")}) {
        QFile file(SettingsFile());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly) &&
                    file.write("[QK]\nScheduler\\schedule=" + value + "\n") > 0);
        file.close();
        for (const QStringList& refused : {QStringList{"list"}, QStringList{"run"}}) {
            const Outcome outcome = Run(refused);
            EXPECT_EQ(outcome.exitCode, 1);
            EXPECT_TRUE(outcome.err.contains(
                "the schedule stored in " + SettingsFile() +
                " is not a schedule but the text \"hello\"; \"vexlor-schedule clear\" replaces it"))
                << outcome.err.toStdString();
        }
        EXPECT_EQ(Run({"add", "New", "--in", "1h"}).exitCode, 1);
        EXPECT_EQ(Run({"clear"}).exitCode, 0);
        EXPECT_EQ(Run({"list"}).exitCode, 0);
    }
}

TEST_F(OneWriterTest, LocksThatCannotBeMadeAreRefusedWithTheSystemsReason) {
    if (!MountTmpfs("runtime", MS_RDONLY, "size=16k,mode=0700")) {
        GTEST_SKIP() << "cannot mount a read-only tmpfs here (" << std::strerror(errno) << ")";
    }
    environmentChanges["XDG_RUNTIME_DIR"] = FilePath("runtime");
    for (const Outcome& refused : {Run({"run"}), Run({"add", "New", "--in", "1h"})}) {
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

class StorageFaultTest : public OneWriterTest, public testing::WithParamInterface<StorageFault> {};

TEST_P(StorageFaultTest, RunKeepsRecordingSaysWhyOnceAndCatchesUp) {
    settingsName = "store/settings.ini";
    if (GetParam().fullDisk && !MountTmpfs("store", 0, "size=256k")) {
        GTEST_SKIP() << "cannot mount a small tmpfs here (" << std::strerror(errno) << ")";
    }
    Add({"Due", "--in", "4s", "--for", "1s", "--enable"});
    auto run = StartRun({"--exec", "true"});

    QFile filler(FilePath("store/filler"));
    if (GetParam().fullDisk) {
        ASSERT_TRUE(filler.open(QIODevice::WriteOnly));
        const QByteArray block(4096, 'x');
        while (filler.write(block) == block.size() && filler.flush()) {
        }
    } else {
        ASSERT_TRUE(QFile::remove(SettingsFile()) && QDir().mkdir(SettingsFile()));
    }
    const Outcome added = Run({"add", "Later", "--in", "1h"});
    EXPECT_EQ(added.exitCode, 0) << added.err.toStdString();
    EXPECT_TRUE(added.err.contains("not saved")) << added.err.toStdString();
    EXPECT_TRUE(WaitForOutput(*run, "recording finished: \"Due\"", 8000));
    EXPECT_TRUE(seen.contains(GetParam().reason)) << seen.toStdString();
    QThread::msleep(2500);  // a retry or more, which must not repeat the message
    seen += QString::fromUtf8(run->readAllStandardOutput());
    EXPECT_EQ(seen.count("settings not saved"), 1) << seen.toStdString();

    filler.close();
    ASSERT_TRUE(GetParam().fullDisk ? filler.remove() : QDir().rmdir(SettingsFile()));
    EXPECT_TRUE(WaitForOutput(*run, "settings saved again", 5000));
    const QStringList listed = Listed();
    EXPECT_TRUE(listed.size() == 1 && listed[0].contains("\"Later\""))
        << listed.join('\n').toStdString();
    Stop(*run);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, StorageFaultTest,
    testing::Values(StorageFault{"DirectoryInItsPlace", false, "Is a directory"},
                    StorageFault{"FullDisk", true, "No space left on device"}),
    [](const testing::TestParamInfo<StorageFault>& info) { return std::string(info.param.name); });

}  // namespace
