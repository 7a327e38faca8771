#include <gtest/gtest.h>

#include "platform/DBusNotificationPresenter.h"
#include "platform/LogindPowerManager.h"

namespace Vexlor {
namespace {

// Both buses point at a socket that does not exist, as on a machine without D-Bus. A binary of
// its own, since a process makes its default connections once.
TEST(WithoutBus, NeitherBackEndIsOfferedAndALockAttemptChangesNothing) {
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/vexlor-test-bus");
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/vexlor-test-bus");
    qunsetenv("DBUS_STARTER_BUS_TYPE");
    EXPECT_EQ(DesktopNotification::DBusNotificationPresenter::Create(QStringLiteral("app")),
              nullptr);
    EXPECT_EQ(App::LogindPowerManager::Create(QStringLiteral("app"), QStringLiteral("why")),
              nullptr);

    int changes = 0;
    App::LogindPowerManager power(QStringLiteral("app"), QStringLiteral("why"),
                                  [&changes](bool) { ++changes; });
    power.PreventSleep();
    power.AllowSleep();
    EXPECT_FALSE(power.IsSleepPrevented());
    EXPECT_EQ(changes, 0);
}

}  // namespace
}  // namespace Vexlor
