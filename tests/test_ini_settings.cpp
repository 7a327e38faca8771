#include <signal.h>

#include <chrono>
#include <memory>
#include <random>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include "Scheduler/SchedulerSettings.h"
#include "platform/IniSettingsManager.h"
#include "support/NumberedSchedule.h"

namespace Vexlor::App {
namespace {

using QK::SchedulerSettings;
using Testing::NumberedSchedule;

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

TEST_F(IniSettingsTest, FileThatCannotBeWrittenIsReported) {
    QFile notADirectory(path);
    ASSERT_TRUE(notADirectory.open(QIODevice::WriteOnly));
    EXPECT_THROW(IniSettingsManager(path + "/settings.ini").setBool("key", true),
                 std::runtime_error);
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
