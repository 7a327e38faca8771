#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <memory>
#include <vector>

#include <gtest/gtest.h>
#include <QElapsedTimer>

#include "fakes/MockBus.h"
#include "fakes/TextNotice.h"
#include "platform/DBusNotificationPresenter.h"
#include "platform/LogindPowerManager.h"

// The presenter and the sleep lock against python3-dbusmock's notification server and logind.
namespace Vexlor {
namespace {

using namespace std::chrono_literals;
using App::LogindPowerManager;
using DesktopNotification::DBusNotificationPresenter;
using Testing::MockService;
const QString APP = QStringLiteral("vexlor-schedule");
const QString WHY = QStringLiteral("A scheduled recording is planned");

std::shared_ptr<DesktopNotification::INotification> Notice(
    const char* title, const char* text = "A recording is scheduled for 14:05.") {
    return std::make_shared<Testing::TextNotice>(title, text);
}

// Notify's arguments: app name, replaced id, icon, summary, body, actions, hints, timeout.
// Colour is never offered, since the protocol's markup has none; the summary is plain text in
// the protocol, so the user's title goes out as written.
TEST(DBusPresenter, ShowsNoticesWithoutMarkupTheServerCannotReadUntilHideClosesThem) {
    const std::vector<std::array<const char*, 3>> rows{
        // capabilities, text, body sent
        {"body", "R&D <weekly> at <font color='#00bef9'>09:07</font>", "R&D <weekly> at 09:07"},
        {"body body-markup", "R&D <weekly> at <FONT color=\"red\">09:07</FONT>",
         "R&amp;D &lt;weekly&gt; at 09:07"}};
    for (const auto& [capabilities, text, body] : rows) {
        MockService server(QStringLiteral("notification_daemon"),
                           QStringLiteral("{\"capabilities\": \"%1\"}").arg(capabilities));
        ASSERT_TRUE(server.Up());
        auto presenter = DBusNotificationPresenter::Create(APP);
        ASSERT_NE(presenter, nullptr);
        EXPECT_FALSE(presenter->SupportsFeature(DesktopNotification::RichTextColor));
        auto first = Notice("R&D <weekly>", text);
        auto second = Notice("second");

        presenter->Show(first);
        presenter->Show(second);
        presenter->Show(first);  // already out: replaced in place, not stacked
        presenter->Hide(first);
        presenter->Hide(first);
        presenter->Hide(Notice("never shown"));
        presenter->Hide(second);

        const QList<QVariantList> notices = server.Calls(QStringLiteral("Notify"));
        ASSERT_EQ(notices.size(), 3);
        EXPECT_EQ(notices[0].mid(0, 5), (QVariantList{APP, 0u, "", "R&D <weekly>", body}));
        EXPECT_EQ(notices[0][7], 0);
        // The mock numbers its notices 1, 2, ...
        EXPECT_EQ(notices[1][1], 0u);
        EXPECT_EQ(notices[2][1], 1u);
        EXPECT_EQ(server.Calls(QStringLiteral("CloseNotification")),
                  (QList<QVariantList>{{1}, {2}}));
    }
}

TEST(LogindLock, EachArmedPeriodHoldsOneSleepBlockLockUntilAllowSleepOrDestruction) {
    MockService logind(QStringLiteral("logind"));
    ASSERT_TRUE(logind.Up());
    std::vector<bool> changes;
    auto power = LogindPowerManager::Create(APP, WHY, [&](bool on) { changes.push_back(on); });
    ASSERT_NE(power, nullptr);
    power->AllowSleep();
    power->PreventSleep();
    power->PreventSleep();
    EXPECT_EQ(logind.Calls(QStringLiteral("Inhibit")).size(), 1);
    EXPECT_EQ(logind.Locks(), (QList<QStringList>{{"sleep", APP, WHY, "block"}}));
    EXPECT_TRUE(power->IsSleepPrevented());

    power->AllowSleep();
    EXPECT_TRUE(logind.Locks(0, 1000).isEmpty());
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
    EXPECT_EQ(logind.Locks(1, 1000).size(), 1);
    // Dropping the descriptor is the release: no answer from logind is needed.
    logind.Pause(true);
    power.reset();
    logind.Pause(false);
    EXPECT_TRUE(logind.Locks(0, 1000).isEmpty());
    EXPECT_EQ(changes, (std::vector<bool>{true, false, true, false}));
}

QStringList warnings;

// A missing service is known at once; a stopped one costs the timeout. Neither gets a call
// that could show a notice or take a lock, and each failure is a warning of the back-ends'
// category.
TEST(DBusBackEnds, AMissingOrSilentServiceCostsAtMostTheTimeoutAndGetsNothing) {
    QElapsedTimer elapsed;
    elapsed.start();
    EXPECT_EQ(DBusNotificationPresenter::Create(APP), nullptr);
    EXPECT_EQ(LogindPowerManager::Create(APP, WHY), nullptr);
    int changes = 0;
    LogindPowerManager power(
        APP, WHY, [&changes](bool) { ++changes; }, 300ms);
    power.PreventSleep();
    EXPECT_LT(elapsed.elapsed(), 2000);

    MockService server(QStringLiteral("notification_daemon"));
    MockService logind(QStringLiteral("logind"));
    ASSERT_TRUE(server.Up() && logind.Up());
    server.Pause(true);
    logind.Pause(true);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext& context, const QString& text) {
        warnings << context.category + QStringLiteral(": ") + text;
    });
    elapsed.restart();
    EXPECT_EQ(DBusNotificationPresenter::Create(APP, 300ms), nullptr);
    EXPECT_GE(elapsed.restart(), 250);
    DBusNotificationPresenter(APP, 300ms).Show(Notice("title"));
    power.PreventSleep();
    EXPECT_GE(elapsed.elapsed(), 500);
    EXPECT_LT(elapsed.elapsed(), 3000);
    qInstallMessageHandler(nullptr);
    server.Pause(false);
    EXPECT_TRUE(server.Calls(QStringLiteral("Notify")).isEmpty());
    EXPECT_FALSE(power.IsSleepPrevented());
    EXPECT_EQ(changes, 0);
    EXPECT_EQ(warnings.filter(QStringLiteral("vexlor.platform.dbus: ")).size(), 2)
        << warnings.join('\n').toStdString();
}

}  // namespace
}  // namespace Vexlor
