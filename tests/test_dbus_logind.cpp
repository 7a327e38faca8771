#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <vector>

#include <gtest/gtest.h>
#include <QElapsedTimer>

#include "fakes/FakeDBusServices.h"
#include "platform/LogindPowerManager.h"

namespace Vexlor::App {
namespace {

using namespace std::chrono_literals;
const QString WHO = QStringLiteral("vexlor-schedule");
const QString WHY = QStringLiteral("A scheduled recording is planned");

class LogindLock : public testing::Test {
protected:
    std::vector<bool> changes;
    LogindPowerManager::ChangeCallback record = [this](bool on) { changes.push_back(on); };
    Testing::FakeBusServices services;
    Testing::FakeLoginManager& logind = services.login;
};

TEST_F(LogindLock, EachArmedPeriodHoldsOneSleepBlockLockUntilAllowSleep) {
    ASSERT_TRUE(services.PublishLogin());
    auto power = LogindPowerManager::Create(WHO, WHY, record);
    ASSERT_NE(power, nullptr);
    power->AllowSleep();
    power->PreventSleep();
    power->PreventSleep();
    const auto inhibitions = logind.Inhibitions();
    ASSERT_EQ(inhibitions.size(), 1u);
    EXPECT_EQ(inhibitions[0].what, QStringLiteral("sleep"));
    EXPECT_EQ(inhibitions[0].who, WHO);
    EXPECT_EQ(inhibitions[0].why, WHY);
    EXPECT_EQ(inhibitions[0].mode, QStringLiteral("block"));
    EXPECT_FALSE(logind.Released(0));
    EXPECT_TRUE(power->IsSleepPrevented());

    power->AllowSleep();
    EXPECT_TRUE(logind.Released(0, 1000));
    EXPECT_FALSE(power->IsSleepPrevented());
    // A second close of the old number would hit whatever reuses it now.
    int bystander[2];
    ASSERT_EQ(::pipe(bystander), 0);
    power->AllowSleep();
    for (const int fd : bystander) {
        EXPECT_NE(::fcntl(fd, F_GETFD), -1);
        ::close(fd);
    }

    power->PreventSleep();
    ASSERT_EQ(logind.Inhibitions().size(), 2u);
    EXPECT_FALSE(logind.Released(1));
    EXPECT_EQ(changes, (std::vector<bool>{true, false, true}));
}

TEST_F(LogindLock, DestructionReleasesAHeldLockEvenWhenLogindHasLeft) {
    ASSERT_TRUE(services.PublishLogin());
    auto power = LogindPowerManager::Create(WHO, WHY, record);
    ASSERT_NE(power, nullptr);
    power->PreventSleep();
    services.Withdraw();

    power.reset();
    EXPECT_TRUE(logind.Released(0, 1000));
    EXPECT_EQ(changes, (std::vector<bool>{true, false}));
}

TEST_F(LogindLock, AMissingOrSilentLogindCostsAtMostTheTimeoutAndTakesNoLock) {
    QElapsedTimer elapsed;
    elapsed.start();
    EXPECT_EQ(LogindPowerManager::Create(WHO, WHY, record), nullptr);
    LogindPowerManager power(WHO, WHY, record, 300ms);
    power.PreventSleep();
    EXPECT_LT(elapsed.restart(), 2000);

    ASSERT_TRUE(services.PublishLogin());
    logind.silent = true;
    power.PreventSleep();
    EXPECT_GE(elapsed.elapsed(), 250);
    EXPECT_LT(elapsed.elapsed(), 3000);
    EXPECT_FALSE(power.IsSleepPrevented());
    EXPECT_TRUE(changes.empty());
}

}  // namespace
}  // namespace Vexlor::App
