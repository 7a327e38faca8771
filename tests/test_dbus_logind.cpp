#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <vector>

#include <gtest/gtest.h>
#include <QElapsedTimer>

#include "fakes/FakeDBusServices.h"
#include "platform/LogindPowerManager.h"

namespace Vexlor::App {
namespace {

using namespace std::chrono_literals;
using Testing::FakeBusServices;
using Testing::FakeLoginManager;

const QString WHO = QStringLiteral("vexlor-schedule");
const QString WHY = QStringLiteral("A scheduled recording is planned");
constexpr auto HANG_UP_WAIT = 1000ms;

class LogindLock : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(services.PublishLogin()); }

    std::shared_ptr<LogindPowerManager> Make() {
        return LogindPowerManager::Create(WHO, WHY,
                                          [this](bool prevented) { changes.push_back(prevented); });
    }

    FakeBusServices services;
    FakeLoginManager& logind = services.Login();
    std::vector<bool> changes;
};

TEST_F(LogindLock, RepeatedPreventSleepTakesOneSleepBlockLockAndHoldsIt) {
    auto power = Make();
    ASSERT_NE(power, nullptr);

    power->PreventSleep();
    power->PreventSleep();
    power->PreventSleep();

    const auto inhibitions = logind.Inhibitions();
    ASSERT_EQ(inhibitions.size(), 1u);
    EXPECT_EQ(inhibitions[0].what, QStringLiteral("sleep"));
    EXPECT_EQ(inhibitions[0].who, WHO);
    EXPECT_EQ(inhibitions[0].why, WHY);
    EXPECT_EQ(inhibitions[0].mode, QStringLiteral("block"));
    EXPECT_FALSE(logind.Released(0, 0ms));
    EXPECT_TRUE(power->IsSleepPrevented());
    EXPECT_EQ(changes, std::vector<bool>{true});
}

TEST_F(LogindLock, AllowSleepReleasesTheLockAndRepeatingItClosesNothingElse) {
    auto power = Make();
    ASSERT_NE(power, nullptr);
    power->PreventSleep();

    power->AllowSleep();
    EXPECT_TRUE(logind.Released(0, HANG_UP_WAIT));
    EXPECT_FALSE(power->IsSleepPrevented());

    // A second close of the old number would hit whatever now reuses it.
    int bystander[2];
    ASSERT_EQ(::pipe(bystander), 0);
    power->AllowSleep();
    EXPECT_NE(::fcntl(bystander[0], F_GETFD), -1);
    EXPECT_NE(::fcntl(bystander[1], F_GETFD), -1);
    ::close(bystander[0]);
    ::close(bystander[1]);

    EXPECT_EQ(changes, (std::vector<bool>{true, false}));
}

TEST_F(LogindLock, EachArmedPeriodHasItsOwnLock) {
    auto power = Make();
    ASSERT_NE(power, nullptr);

    power->AllowSleep();
    power->PreventSleep();
    power->AllowSleep();
    power->PreventSleep();

    ASSERT_EQ(logind.Inhibitions().size(), 2u);
    EXPECT_TRUE(logind.Released(0, HANG_UP_WAIT));
    EXPECT_FALSE(logind.Released(1, 0ms));
    EXPECT_EQ(changes, (std::vector<bool>{true, false, true}));
}

TEST_F(LogindLock, DestructionReleasesAHeldLock) {
    auto power = Make();
    ASSERT_NE(power, nullptr);
    power->PreventSleep();

    power.reset();

    EXPECT_TRUE(logind.Released(0, HANG_UP_WAIT));
    EXPECT_EQ(changes, (std::vector<bool>{true, false}));
}

TEST_F(LogindLock, TheLockEndsEvenWhenLogindHasLeftTheBus) {
    auto power = Make();
    ASSERT_NE(power, nullptr);
    power->PreventSleep();
    services.WithdrawLogin();

    power->AllowSleep();
    EXPECT_TRUE(logind.Released(0, HANG_UP_WAIT));

    // Gone: no lock, no change reported, and the state stays "allowed".
    QElapsedTimer elapsed;
    elapsed.start();
    power->PreventSleep();
    EXPECT_LT(elapsed.elapsed(), 3000);
    EXPECT_FALSE(power->IsSleepPrevented());
    EXPECT_EQ(logind.Inhibitions().size(), 1u);
    EXPECT_EQ(changes, (std::vector<bool>{true, false}));
}

TEST_F(LogindLock, AbsentLogindMeansNoManagerAtOnce) {
    services.WithdrawLogin();
    QElapsedTimer elapsed;
    elapsed.start();
    EXPECT_FALSE(LogindPowerManager::IsAvailable());
    EXPECT_EQ(Make(), nullptr);
    EXPECT_LT(elapsed.elapsed(), 2000);
}

TEST_F(LogindLock, ALogindThatNeverAnswersCostsOnlyTheTimeout) {
    logind.SetSilent(true);
    LogindPowerManager power(
        WHO, WHY, [this](bool prevented) { changes.push_back(prevented); }, 300ms);

    QElapsedTimer elapsed;
    elapsed.start();
    power.PreventSleep();
    const qint64 ms = elapsed.elapsed();
    EXPECT_GE(ms, 250);
    EXPECT_LT(ms, 3000);
    EXPECT_FALSE(power.IsSleepPrevented());
    EXPECT_TRUE(changes.empty());
}

}  // namespace
}  // namespace Vexlor::App
