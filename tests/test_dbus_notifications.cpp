#include <chrono>
#include <memory>

#include <gtest/gtest.h>
#include <QElapsedTimer>

#include "fakes/FakeDBusServices.h"
#include "platform/DBusNotificationPresenter.h"

namespace Vexlor::DesktopNotification {
namespace {

using namespace std::chrono_literals;
using Testing::FakeBusServices;
using Testing::FakeNotificationServer;

const QString APP = QStringLiteral("vexlor-schedule");
const QString TEXT = QStringLiteral(
    "A recording is scheduled for 14:05. Don't turn off your PC and configure your capture "
    "area.");

class TextNotice : public INotification {
public:
    TextNotice(QString title, QString text) : title(std::move(title)), text(std::move(text)) {}
    QString GetAcceptButtonText() const override { return {}; }
    QString GetRejectButtonText() const override { return QStringLiteral("Close"); }
    QString GetTitleText() const override { return title; }
    QString GetInformationText() const override { return text; }
    bool HasAcceptButton() const override { return false; }
    void Accept() override {}
    void Reject() override {}

private:
    QString title;
    QString text;
};

std::shared_ptr<INotification> Notice(const QString& title, const QString& text = TEXT) {
    return std::make_shared<TextNotice>(title, text);
}

class DBusPresenter : public testing::Test {
protected:
    void Publish(const QStringList& capabilities) {
        services.Notifications().SetCapabilities(capabilities);
        ASSERT_TRUE(services.PublishNotifications());
    }

    FakeBusServices services;
    FakeNotificationServer& server = services.Notifications();
};

TEST_F(DBusPresenter, ShowSendsTheNoticeAsBuiltAndKeepsItUntilWithdrawn) {
    Publish({QStringLiteral("body")});
    auto presenter = DBusNotificationPresenter::Create(APP);
    ASSERT_NE(presenter, nullptr);

    presenter->Show(Notice(QStringLiteral("Vexlor Capture")));

    const auto notices = server.Notices();
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(notices[0].appName, APP);
    EXPECT_EQ(notices[0].replacesId, 0u);
    EXPECT_EQ(notices[0].appIcon, QString());
    EXPECT_EQ(notices[0].summary, QStringLiteral("Vexlor Capture"));
    EXPECT_EQ(notices[0].body, TEXT);
    EXPECT_TRUE(notices[0].actions.isEmpty());
    EXPECT_TRUE(notices[0].hints.isEmpty());
    EXPECT_EQ(notices[0].expireTimeout, 0);
    EXPECT_TRUE(server.Closed().empty());
}

TEST_F(DBusPresenter, HideClosesEachNoticeByTheIdItsNotifyReturnedOnce) {
    Publish({QStringLiteral("body")});
    auto presenter = DBusNotificationPresenter::Create(APP);
    ASSERT_NE(presenter, nullptr);
    auto first = Notice(QStringLiteral("first"));
    auto second = Notice(QStringLiteral("second"));

    presenter->Show(first);
    presenter->Show(second);
    presenter->Hide(first);
    presenter->Hide(first);
    presenter->Hide(Notice(QStringLiteral("never shown")));
    presenter->Hide(second);

    const auto notices = server.Notices();
    ASSERT_EQ(notices.size(), 2u);
    EXPECT_NE(notices[0].returnedId, notices[1].returnedId);
    EXPECT_EQ(server.Closed(), (std::vector<uint>{notices[0].returnedId, notices[1].returnedId}));
}

TEST_F(DBusPresenter, ShowingANoticeThatIsOutAgainReplacesItInsteadOfStacking) {
    Publish({QStringLiteral("body")});
    auto presenter = DBusNotificationPresenter::Create(APP);
    ASSERT_NE(presenter, nullptr);
    auto notice = Notice(QStringLiteral("Vexlor Capture"));

    presenter->Show(notice);
    presenter->Show(notice);
    presenter->Hide(notice);

    const auto notices = server.Notices();
    ASSERT_EQ(notices.size(), 2u);
    EXPECT_EQ(notices[1].replacesId, notices[0].returnedId);
    EXPECT_EQ(server.Closed(), std::vector<uint>{notices[0].returnedId});
}

struct MarkupRow {
    const char* name;
    bool serverReadsMarkup;
    const char* title;
    const char* text;
    const char* expectedBody;
};

void PrintTo(const MarkupRow& row, std::ostream* os) {
    *os << row.name;
}

class DBusPresenterMarkup : public DBusPresenter, public testing::WithParamInterface<MarkupRow> {};

// The summary is plain text in the protocol, so it goes out as written in every row; colour is
// never offered, since the protocol's markup has none.
TEST_P(DBusPresenterMarkup, BodyCarriesNoMarkupTheServerCannotReadAndUserTextStaysLiteral) {
    const MarkupRow& row = GetParam();
    QStringList capabilities{QStringLiteral("body"), QStringLiteral("actions")};
    if (row.serverReadsMarkup) {
        capabilities << QStringLiteral("body-markup");
    }
    Publish(capabilities);
    auto presenter = DBusNotificationPresenter::Create(APP);
    ASSERT_NE(presenter, nullptr);
    EXPECT_FALSE(presenter->SupportsFeature(RichTextColor));

    presenter->Show(Notice(QString::fromUtf8(row.title), QString::fromUtf8(row.text)));

    const auto notices = server.Notices();
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(notices[0].summary, QString::fromUtf8(row.title));
    EXPECT_EQ(notices[0].body, QString::fromUtf8(row.expectedBody));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, DBusPresenterMarkup,
    testing::Values(
        MarkupRow{"PlainServerPlainText", false, "Vexlor Capture", "Scheduled for 14:05.",
                  "Scheduled for 14:05."},
        MarkupRow{"PlainServerColourTagsDropped", false, "Vexlor Capture",
                  "Scheduled for <font color='#00bef9'>14:05</font>.", "Scheduled for 14:05."},
        MarkupRow{"PlainServerUserTextUntouched", false, "R&D <weekly>",
                  "Next: R&D <weekly> at 09:07", "Next: R&D <weekly> at 09:07"},
        MarkupRow{"MarkupServerUserTextEscaped", true, "R&D <weekly>",
                  "Next: R&D <weekly> at 09:07", "Next: R&amp;D &lt;weekly&gt; at 09:07"},
        MarkupRow{"MarkupServerColourTagsDropped", true, "Vexlor Capture",
                  "Scheduled for <FONT color=\"red\">14:05</FONT>.", "Scheduled for 14:05."}),
    [](const testing::TestParamInfo<MarkupRow>& info) { return std::string(info.param.name); });

TEST_F(DBusPresenter, NoServerMeansNoPresenterAtOnce) {
    QElapsedTimer elapsed;
    elapsed.start();
    EXPECT_FALSE(DBusNotificationPresenter::IsAvailable());
    EXPECT_EQ(DBusNotificationPresenter::Create(APP), nullptr);
    EXPECT_LT(elapsed.elapsed(), 2000);
}

TEST_F(DBusPresenter, AServerThatNeverAnswersCostsOnlyTheTimeout) {
    Publish({QStringLiteral("body")});
    server.SetSilent(true);

    QElapsedTimer elapsed;
    elapsed.start();
    EXPECT_EQ(DBusNotificationPresenter::Create(APP, 300ms), nullptr);
    const qint64 createMs = elapsed.restart();
    EXPECT_GE(createMs, 250);
    EXPECT_LT(createMs, 3000);

    DBusNotificationPresenter presenter(APP, 300ms);
    presenter.Show(Notice(QStringLiteral("Vexlor Capture")));
    EXPECT_LT(elapsed.elapsed(), 3000);
    // A server that does not answer the capability query is not sent the notice.
    EXPECT_TRUE(server.Notices().empty());
}

TEST_F(DBusPresenter, AServerThatVanishesAndComesBackIsUsedAgain) {
    Publish({QStringLiteral("body")});
    auto presenter = DBusNotificationPresenter::Create(APP, 500ms);
    ASSERT_NE(presenter, nullptr);
    auto lost = Notice(QStringLiteral("lost"));
    presenter->Show(lost);

    services.WithdrawNotifications();
    QElapsedTimer elapsed;
    elapsed.start();
    presenter->Hide(lost);
    presenter->Show(Notice(QStringLiteral("while gone")));
    EXPECT_LT(elapsed.elapsed(), 3000);
    EXPECT_EQ(server.Notices().size(), 1u);
    EXPECT_TRUE(server.Closed().empty());

    ASSERT_TRUE(services.PublishNotifications());
    auto back = Notice(QStringLiteral("back"));
    presenter->Show(back);
    presenter->Hide(back);
    const auto notices = server.Notices();
    ASSERT_EQ(notices.size(), 2u);
    EXPECT_EQ(notices[1].summary, QStringLiteral("back"));
    EXPECT_EQ(server.Closed(), std::vector<uint>{notices[1].returnedId});
}

}  // namespace
}  // namespace Vexlor::DesktopNotification
