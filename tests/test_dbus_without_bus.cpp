#include <chrono>

#include <gtest/gtest.h>
#include <QElapsedTimer>

#include "platform/DBusNotificationPresenter.h"
#include "platform/LogindPowerManager.h"

namespace Vexlor {
namespace {

// Both buses point at a socket that does not exist, as on a machine without D-Bus. Runs in a
// binary of its own, since the process's default connections are made once.
class WithoutBus : public testing::Test {
protected:
    static void SetUpTestSuite() {
        const QByteArray nowhere = "unix:path=/nonexistent/vexlor-test-bus";
        qputenv("DBUS_SESSION_BUS_ADDRESS", nowhere);
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", nowhere);
        qunsetenv("DBUS_STARTER_ADDRESS");
        qunsetenv("DBUS_STARTER_BUS_TYPE");
    }
};

class PlainNotice : public DesktopNotification::INotification {
public:
    QString GetAcceptButtonText() const override { return {}; }
    QString GetRejectButtonText() const override { return {}; }
    QString GetTitleText() const override { return QStringLiteral("title"); }
    QString GetInformationText() const override { return QStringLiteral("text"); }
    bool HasAcceptButton() const override { return false; }
    void Accept() override {}
    void Reject() override {}
};

TEST_F(WithoutBus, NeitherBackEndIsOfferedAndBothStayHarmless) {
    QElapsedTimer elapsed;
    elapsed.start();
    EXPECT_EQ(DesktopNotification::DBusNotificationPresenter::Create(QStringLiteral("app")),
              nullptr);
    EXPECT_EQ(App::LogindPowerManager::Create(QStringLiteral("app"), QStringLiteral("why")),
              nullptr);

    DesktopNotification::DBusNotificationPresenter presenter(QStringLiteral("app"));
    auto notice = std::make_shared<PlainNotice>();
    presenter.Show(notice);
    presenter.Hide(notice);

    int changes = 0;
    App::LogindPowerManager power(QStringLiteral("app"), QStringLiteral("why"),
                                  [&changes](bool) { ++changes; });
    power.PreventSleep();
    EXPECT_FALSE(power.IsSleepPrevented());
    power.AllowSleep();
    EXPECT_EQ(changes, 0);
    EXPECT_LT(elapsed.elapsed(), 2000);
}

}  // namespace
}  // namespace Vexlor
