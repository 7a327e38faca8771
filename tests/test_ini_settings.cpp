#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <numeric>
#include <optional>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include "Scheduler/SchedulerSettings.h"
#include "platform/IniSettingsManager.h"
#include "support/NumberedSchedule.h"

namespace Vexlor::App {
namespace {

using QK::SchedulerSettings;
using testing::HasSubstr;
using Testing::NumberedSchedule;

std::string FailureOf(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "nothing thrown";
}

class IniSettingsTest : public testing::Test {
protected:
    QTemporaryDir dir;
    QString path = dir.filePath("settings.ini");
};

TEST_F(IniSettingsTest, AnotherProcessReadsOurWritesAndWeReadItsWrites) {
    SchedulerSettings settings(std::make_shared<IniSettingsManager>(path));
    settings.SetSchedulerEnabled(true);
    settings.SetSchedule(NumberedSchedule(3));
    EXPECT_EQ(QProcess::execute(SETTINGS_FILE_HELPER, {path, "2"}), 1);
    EXPECT_EQ(QProcess::execute(SETTINGS_FILE_HELPER, {path, "3"}), 0);
    EXPECT_EQ(settings.GetSchedule(), NumberedSchedule(4));
}

TEST_F(IniSettingsTest, FailuresNameTheSystemsReason) {
    ASSERT_TRUE(QDir().mkdir(path));
    IniSettingsManager directory(path);
    const std::string named = "settings file " + path.toStdString() + ": ";
    EXPECT_THAT(FailureOf([&] { directory.getBool("key", false); }),
                HasSubstr(named + "read failed: Is a directory"));
    EXPECT_THAT(FailureOf([&] { directory.setBool("key", true); }),
                HasSubstr(named + "write failed: Is a directory"));

    QFile notADirectory(dir.filePath("file"));
    ASSERT_TRUE(notADirectory.open(QIODevice::WriteOnly));
    IniSettingsManager underAFile(notADirectory.fileName() + "/settings.ini");
    EXPECT_THAT(FailureOf([&] { underAFile.setBool("key", true); }),
                HasSubstr("write failed: Not a directory"));
}

// Another writer rewrites the file in place between two reads and keeps its size and
// modification time (and the stored schedule's byte length): just after the file was
// written, and again once it is older than the trust margin, when the manager holds it.
TEST_F(IniSettingsTest, RewriteKeepingSizeAndModificationTimeIsSeen) {
    SchedulerSettings settings(std::make_shared<IniSettingsManager>(path));
    const auto rewrite = [&](char from, char to) {
        QFile inPlace(path);
        struct stat before {};
        ASSERT_TRUE(inPlace.open(QIODevice::ReadWrite) && ::fstat(inPlace.handle(), &before) == 0);
        const QByteArray contents = inPlace.readAll().replace(from, to);
        ASSERT_TRUE(inPlace.seek(0) && inPlace.write(contents) == contents.size() &&
                    inPlace.flush());
        const timespec times[2] = {before.st_atim, before.st_mtim};
        ASSERT_EQ(::futimens(inPlace.handle(), times), 0);
    };
    QK::RecordTimeList schedule = NumberedSchedule(1);
    schedule[0].title = "PP";
    settings.SetSchedule(schedule);
    ASSERT_EQ(settings.GetSchedule(), schedule);
    rewrite('P', 'R');
    schedule[0].title = "RR";
    EXPECT_EQ(settings.GetSchedule(), schedule);

    std::this_thread::sleep_for(IniSettingsManager::TRUST_AFTER + std::chrono::milliseconds(200));
    ASSERT_EQ(settings.GetSchedule(), schedule);
    rewrite('R', 'T');
    schedule[0].title = "TT";
    EXPECT_EQ(settings.GetSchedule(), schedule);
}

// The settings on a 64 KiB file system of their own, unmounted again whatever happens.
class FullDiskTest : public IniSettingsTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(QDir().mkdir(mountPoint));
        if (::mount("tmpfs", QFile::encodeName(mountPoint).constData(), "tmpfs", 0, "size=64k") !=
            0) {
            GTEST_SKIP() << "mounting a tmpfs is not permitted here (" << std::strerror(errno)
                         << "), so a full disk cannot be made";
        }
        mounted = true;
    }
    void TearDown() override {
        if (mounted) {
            ::umount2(QFile::encodeName(mountPoint).constData(), MNT_DETACH);
        }
    }

    QString mountPoint = dir.filePath("small");
    bool mounted = false;
};

// A little room is left, enough for a small write but not for the new file.
TEST_F(FullDiskTest, WriteNamesTheFullDiskAndKeepsTheStoredValue) {
    IniSettingsManager settings(mountPoint + "/settings.ini");
    const std::vector<unsigned char> stored(100, 's');
    settings.setByteArray("value", stored);
    struct statvfs room {};
    ASSERT_EQ(::statvfs(QFile::encodeName(mountPoint).constData(), &room), 0);
    QFile filler(mountPoint + "/filler");
    ASSERT_TRUE(filler.open(QIODevice::WriteOnly));
    ASSERT_EQ(::posix_fallocate(filler.handle(), 0, room.f_bavail * room.f_bsize - 8192), 0);

    std::vector<unsigned char> larger(16384);
    std::iota(larger.begin(), larger.end(), 0);  // every byte value, escaped in the file
    EXPECT_THAT(FailureOf([&] { settings.setByteArray("value", larger); }),
                HasSubstr(mountPoint.toStdString() +
                          "/settings.ini: write failed: No space left on device"));
    EXPECT_EQ(settings.getByteArray("value", {}), stored);
    EXPECT_EQ(QDir(mountPoint).entryList(QDir::Files | QDir::Hidden, QDir::Name),
              (QStringList{"filler", "settings.ini"}));
}

// QVariant would take any text but "", "0" and "false" for true.
TEST_F(IniSettingsTest, OnlyTrueOrFalseOneOrZeroIsAFlag) {
    const std::string key = "QK/Scheduler/scheduler_enabled";
    const struct {
        const char* text;
        std::optional<bool> read;  // empty: refused
    } rows[] = {{"True", true},          {"false", false},    {"1", true},       {"0", false},
                {"maybe", std::nullopt}, {"2", std::nullopt}, {"", std::nullopt}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QByteArray("[QK]\nScheduler\\scheduler_enabled=") + row.text + "\n");
        file.close();
        const IniSettingsManager settings(path);
        if (row.read) {
            EXPECT_EQ(settings.getBool(key, !*row.read), *row.read);
        } else {
            EXPECT_THAT(FailureOf([&] { settings.getBool(key, false); }),
                        HasSubstr(path.toStdString() + ": " + key + " holds \"" + row.text +
                                  "\", which is neither true nor false"));
        }
    }
}

// Every kill leaves a whole schedule, and none older than the writer said it had stored.
TEST_F(IniSettingsTest, WriterKilledMidWriteLeavesAWholeSchedule) {
    std::mt19937 random(20261122);
    int stored = 0;
    for (int kill = 0; kill < 100; ++kill) {
        QProcess writer;
        writer.start(SETTINGS_FILE_HELPER, {path, QString::number(stored + 1), "loop"});
        ASSERT_TRUE(writer.waitForReadyRead(30000)) << "kill " << kill;
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
        ::kill(static_cast<pid_t>(writer.processId()), SIGKILL);
        writer.waitForFinished();
        const QK::RecordTimeList schedule =
            SchedulerSettings(std::make_shared<IniSettingsManager>(path)).GetSchedule();
        ASSERT_FALSE(schedule.empty()) << "kill " << kill;
        ASSERT_GT(schedule[0].tag, stored) << "kill " << kill;
        stored = schedule[0].tag;
        ASSERT_EQ(schedule, NumberedSchedule(stored)) << "kill " << kill;
    }
}

}  // namespace
}  // namespace Vexlor::App
