#include <chrono>
#include <memory>

#include <gtest/gtest.h>
#include <QElapsedTimer>

#include "fakes/FakeDBusServices.h"
#include "fakes/TextNotice.h"
#include "platform/DBusNotificationPresenter.h"

namespace Vexlor::DesktopNotification {
namespace {

using namespace std::chrono_literals;
const QString APP = QStringLiteral("vexlor-schedule");
const char* const TEXT = "A recording is scheduled for 14:05.";

std::shared_ptr<INotification> Notice(const char* title, const char* text = TEXT) {
    return std::make_shared<Testing::TextNotice>(title, text);
}

class DBusPresenter : public testing::Test {
protected:
    Testing::FakeBusServices services;
    Testing::FakeNotificationServer& server = services.notifications;
};

TEST_F(DBusPresenter, ShowsNoticesAsBuiltUntilHideClosesThemByTheIdNotifyReturned) {
    ASSERT_TRUE(services.PublishNotifications());
    auto presenter = DBusNotificationPresenter::Create(APP);
    ASSERT_NE(presenter, nullptr);
    auto first = Notice("first");
    auto second = Notice("second");

    presenter->Show(first);
    presenter->Show(second);
    presenter->Show(first);  // already out: replaced in place, not stacked
    presenter->Hide(first);
    presenter->Hide(first);
    presenter->Hide(Notice("never shown"));
    presenter->Hide(second);

    const auto notices = server.Notices();
    ASSERT_EQ(notices.size(), 3u);
    EXPECT_EQ(notices[0].appName, APP);
    EXPECT_EQ(notices[0].replacesId, 0u);
    EXPECT_EQ(notices[0].summary, QStringLiteral("first"));
    EXPECT_EQ(notices[0].body, TEXT);
    EXPECT_EQ(notices[0].expireTimeout, 0);
    EXPECT_NE(notices[1].returnedId, notices[0].returnedId);
    EXPECT_EQ(notices[2].replacesId, notices[0].returnedId);
    EXPECT_EQ(server.Closed(), (std::vector<uint>{notices[0].returnedId, notices[1].returnedId}));
}

struct MarkupRow {
    const char* name;
    bool serverReadsMarkup;
    const char* text;
    const char* expectedBody;
};

class DBusPresenterMarkup : public DBusPresenter, public testing::WithParamInterface<MarkupRow> {};

// Colour is never offered, since the protocol's markup has none; the summary is plain text in
// the protocol, so the user's title goes out as written.
TEST_P(DBusPresenterMarkup, BodyCarriesNoMarkupTheServerCannotReadAndUserTextStaysLiteral) {
    QStringList capabilities{QStringLiteral("body")};
    if (GetParam().serverReadsMarkup) {
        capabilities << QStringLiteral("body-markup");
    }
    ASSERT_TRUE(services.PublishNotifications(capabilities));
    auto presenter = DBusNotificationPresenter::Create(APP);
    ASSERT_NE(presenter, nullptr);
    EXPECT_FALSE(presenter->SupportsFeature(RichTextColor));

    presenter->Show(Notice("R&D <weekly>", GetParam().text));

    const auto notices = server.Notices();
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(notices[0].summary, QStringLiteral("R&D <weekly>"));
    EXPECT_EQ(notices[0].body, GetParam().expectedBody);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, DBusPresenterMarkup,
    testing::Values(MarkupRow{"PlainServer", false,
                              "R&D <weekly> at <font color='#00bef9'>09:07</font>",
                              "R&D <weekly> at 09:07"},
                    MarkupRow{"MarkupServer", true,
                              "R&D <weekly> at <FONT color=\"red\">09:07</FONT>",
                              "R&amp;D &lt;weekly&gt; at 09:07"}),
    [](const testing::TestParamInfo<MarkupRow>& info) { return std::string(info.param.name); });

TEST_F(DBusPresenter, AMissingOrSilentServerCostsAtMostTheTimeoutAndGetsNoNotice) {
    QElapsedTimer elapsed;
    elapsed.start();
    EXPECT_EQ(DBusNotificationPresenter::Create(APP), nullptr);
    EXPECT_LT(elapsed.restart(), 2000);

    ASSERT_TRUE(services.PublishNotifications());
    server.silent = true;
    EXPECT_EQ(DBusNotificationPresenter::Create(APP, 300ms), nullptr);
    EXPECT_GE(elapsed.elapsed(), 250);
    DBusNotificationPresenter(APP, 300ms).Show(Notice("title"));
    EXPECT_LT(elapsed.elapsed(), 3000);
    // No Notify for a server that leaves the capability query unanswered.
    EXPECT_TRUE(server.Notices().empty());
}

}  // namespace
}  // namespace Vexlor::DesktopNotification
