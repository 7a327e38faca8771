#include <chrono>
#include <memory>

#include <gtest/gtest.h>
#include <QElapsedTimer>

#include "fakes/SilentBus.h"
#include "fakes/TextNotice.h"
#include "platform/BusProbe.h"
#include "platform/DBusNotificationPresenter.h"
#include "platform/LogindPowerManager.h"

namespace Vexlor {
namespace {

using namespace std::chrono_literals;
using Platform::Bus::Kind;
using Platform::Bus::Probe;

const QString WHO = QStringLiteral("vexlor-schedule");
const QString WHY = QStringLiteral("A scheduled recording is planned");

// Both buses take connections and never answer, as a stopped or deadlocked dbus-daemon does.
// A binary of its own: each bus is checked once per process, and QtDBus, once it has started
// connecting to such a bus, never lets go of it.
TEST(SilentBuses, EachBusCostsOneBoundOnceAndBothAreCheckedSideBySide) {
    Testing::SilentBus session;
    Testing::SilentBus system;
    qputenv("DBUS_SESSION_BUS_ADDRESS", QByteArray::fromStdString(session.Address()));
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", QByteArray::fromStdString(system.Address()));
    qunsetenv("DBUS_STARTER_BUS_TYPE");

    // As `run` does it: the session bus is checked in the background while logind is asked for.
    QElapsedTimer elapsed;
    elapsed.start();
    Probe::Start(Kind::Session, 1000ms);
    EXPECT_LT(elapsed.elapsed(), 200);  // Start does not wait
    // A caller that gives up first is told so; the check goes on for the next one.
    const Probe::Result early = Probe::Of(Kind::Session, 100ms);
    EXPECT_EQ(early.outcome, Probe::Outcome::Silent);
    EXPECT_EQ(early.detail, "still checking after 100 ms");
    EXPECT_GE(elapsed.elapsed(), 95);
    EXPECT_EQ(App::LogindPowerManager::Create(WHO, WHY, {}, 1000ms), nullptr);
    EXPECT_GE(elapsed.elapsed(), 950);
    EXPECT_EQ(DesktopNotification::DBusNotificationPresenter::Create(WHO, 1000ms), nullptr);
    EXPECT_LT(elapsed.elapsed(), 1600);  // side by side: one bound, not two

    // The outcome is kept: nothing waits again, whatever is asked.
    elapsed.restart();
    EXPECT_EQ(App::LogindPowerManager::Create(WHO, WHY), nullptr);
    EXPECT_FALSE(DesktopNotification::DBusNotificationPresenter::IsAvailable());
    int changes = 0;
    App::LogindPowerManager power(WHO, WHY, [&changes](bool) { ++changes; });
    power.PreventSleep();
    EXPECT_FALSE(power.IsSleepPrevented());
    DesktopNotification::DBusNotificationPresenter presenter(WHO);
    presenter.Show(std::make_shared<Vexlor::Testing::TextNotice>("title", "text"));
    EXPECT_LT(elapsed.elapsed(), 500);
    EXPECT_EQ(changes, 0);

    const Probe::Result outcome = Probe::Of(Kind::System, 0ms);
    EXPECT_EQ(outcome.outcome, Probe::Outcome::Silent);
    EXPECT_EQ(outcome.address, system.Address());
    EXPECT_EQ(outcome.detail, "no answer to authentication");
    // One check each reached the socket; QtDBus never did.
    EXPECT_EQ(session.Accepted(), 1);
    EXPECT_EQ(system.Accepted(), 1);
}

}  // namespace
}  // namespace Vexlor
