#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <QFile>
#include <QTemporaryDir>

#include "Scheduler/SchedulerSettings.h"
#include "platform/IniSettingsManager.h"
#include "support/NumberedSchedule.h"

namespace Vexlor::App {
namespace {

using QK::SchedulerSettings;
using Testing::NumberedSchedule;

// Runs the helper program to completion; returns its exit status.
int RunHelper(const std::vector<std::string>& args) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        std::vector<char*> argv{const_cast<char*>(SETTINGS_FILE_HELPER)};
        for (const std::string& arg : args) {
            argv.push_back(const_cast<char*>(arg.c_str()));
        }
        argv.push_back(nullptr);
        ::execv(SETTINGS_FILE_HELPER, argv.data());
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Child side of the crash test: keeps storing NumberedSchedule(1), (2), ... and reports
// through `readyFd` once the first one is on disk. Never returns.
[[noreturn]] void WriteUntilKilled(const QString& path, int readyFd) {
    try {
        SchedulerSettings settings(std::make_shared<IniSettingsManager>(path));
        for (int n = 1;; ++n) {
            settings.SetSchedule(NumberedSchedule(n));
            if (n == 1 && ::write(readyFd, "ready\n", 6) != 6) {
                ::_exit(3);
            }
        }
    } catch (...) {
        ::_exit(2);
    }
}

class IniSettingsTest : public testing::Test {
protected:
    QTemporaryDir dir;
    QString path = dir.filePath("settings.ini");
    std::string file = path.toStdString();
};

TEST_F(IniSettingsTest, ValuesSurviveANewManagerOnTheSameFile) {
    std::vector<unsigned char> everyByte;
    for (int i = 0; i < 256; ++i) {
        everyByte.push_back(static_cast<unsigned char>(255 - i));
    }
    {
        IniSettingsManager manager(path);
        EXPECT_TRUE(manager.getBool("QK/Scheduler/scheduler_enabled", true));
        EXPECT_EQ(manager.getByteArray("QK/Scheduler/schedule", {7}),
                  std::vector<unsigned char>{7});
        manager.setBool("QK/Scheduler/scheduler_enabled", true);
        manager.setByteArray("QK/Scheduler/schedule", everyByte);
        manager.setByteArray("empty", {});
        manager.setBool("gone", true);
        manager.remove("gone");
    }
    IniSettingsManager reopened(path);
    EXPECT_TRUE(reopened.getBool("QK/Scheduler/scheduler_enabled", false));
    EXPECT_EQ(reopened.getByteArray("QK/Scheduler/schedule", {}), everyByte);
    EXPECT_TRUE(reopened.contains("empty"));
    EXPECT_TRUE(reopened.getByteArray("empty", {1}).empty());
    EXPECT_FALSE(reopened.contains("gone"));
}

TEST_F(IniSettingsTest, FileThatCannotBeWrittenIsReported) {
    QFile blocker(dir.filePath("not-a-directory"));
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    IniSettingsManager manager(dir.filePath("not-a-directory/settings.ini"));
    try {
        manager.setBool("key", true);
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find("not-a-directory/settings.ini"),
                  std::string::npos);
    }
}

TEST_F(IniSettingsTest, ProcessesSharingTheFileSeeEachOthersWrites) {
    auto manager = std::make_shared<IniSettingsManager>(path);
    SchedulerSettings settings(manager);
    settings.SetSchedulerEnabled(true);
    settings.SetSchedule(NumberedSchedule(3));
    EXPECT_EQ(RunHelper({"expect", file, "3"}), 0);
    EXPECT_EQ(RunHelper({"expect", file, "4"}), 1);

    // Written by the other process while this one keeps the file open.
    ASSERT_EQ(RunHelper({"write", file, "4"}), 0);
    EXPECT_EQ(settings.GetSchedule(), NumberedSchedule(4));
    EXPECT_TRUE(settings.IsSchedulerEnabled());
}

// A writer killed at random points never leaves a torn, empty or foreign schedule behind.
TEST_F(IniSettingsTest, WriterKilledMidWriteLeavesAWholeSchedule) {
    std::mt19937 random(20261122);
    std::uniform_int_distribution<int> delayMicroseconds(0, 20000);
    int latest = 0;
    for (int round = 0; round < 100; ++round) {
        int ready[2];
        ASSERT_EQ(::pipe(ready), 0);
        const pid_t pid = ::fork();
        if (pid == 0) {
            WriteUntilKilled(path, ready[1]);
        }
        ::close(ready[1]);
        char buffer[6] = {};
        const ssize_t got = ::read(ready[0], buffer, sizeof buffer);
        ::close(ready[0]);
        std::this_thread::sleep_for(std::chrono::microseconds(delayMicroseconds(random)));
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        ASSERT_EQ(got, 6) << "helper did not start in round " << round;

        const QK::RecordTimeList stored =
            SchedulerSettings(std::make_shared<IniSettingsManager>(path)).GetSchedule();
        ASSERT_FALSE(stored.empty()) << "round " << round;
        const int n = stored.front().tag;
        ASSERT_GE(n, 1) << "round " << round;
        ASSERT_EQ(stored, NumberedSchedule(n)) << "round " << round;
        latest = std::max(latest, n);
    }
    EXPECT_GT(latest, 1);
}

}  // namespace
}  // namespace Vexlor::App
