#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Scheduler/NotificationHelperImpl.h"
#include "platform/ConsolePresenter.h"

namespace Vexlor::DesktopNotification {
namespace {

using Notification::Information;

TEST(ConsolePresenterTest, WritesOneLinePerShowAndHideAndHasNoFeatures) {
    std::vector<QString> lines;
    ConsolePresenter presenter([&lines](const QString& line) { lines.push_back(line); });
    const auto notice = std::make_shared<Information>("Title", "first\nsecond");
    presenter.Show(notice);
    presenter.Hide(notice);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], QStringLiteral("Notice: Title: first second"));
    EXPECT_EQ(lines[1], QStringLiteral("Notice withdrawn: Title"));
    EXPECT_FALSE(presenter.SupportsFeature(RichTextColor));
}

TEST(ConsolePresenterTest, PrintsToStandardOutputByDefault) {
    ConsolePresenter presenter;
    testing::internal::CaptureStdout();
    presenter.Show(std::make_shared<Information>(QString::fromUtf8("T\xC3\xBC"), "text"));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Notice: T\xC3\xBC: text\n");
}

// Restores the factory's creator whatever a test does to it.
class FactoryTest : public testing::Test {
protected:
    ~FactoryTest() override { factory.SetCreator(saved); }
    Presenter::Factory& factory = Presenter::Factory::GetInstance();
    Presenter::Factory::Creator saved = factory.SetCreator({});
};

TEST_F(FactoryTest, FallsBackToTheConsoleWithoutACreatorOrOnNull) {
    EXPECT_NE(std::dynamic_pointer_cast<ConsolePresenter>(
                  factory.CreateNativePresenterOrCustomWithParams(0, 1, "x")),
              nullptr);
    factory.SetCreator([](int, int, const QString&) { return nullptr; });
    EXPECT_NE(std::dynamic_pointer_cast<ConsolePresenter>(
                  factory.CreateNativePresenterOrCustomWithParams(0, 1, "x")),
              nullptr);
}

TEST_F(FactoryTest, UsesTheCreatorAndHandsBackThePreviousOne) {
    const auto mine = std::make_shared<ConsolePresenter>([](const QString&) {});
    std::string seen;
    factory.SetCreator([&](int style, int priority, const QString& category) {
        seen =
            std::to_string(style) + "," + std::to_string(priority) + "," + category.toStdString();
        return mine;
    });
    EXPECT_EQ(factory.CreateNativePresenterOrCustomWithParams(2, 3, "cat"), mine);
    EXPECT_EQ(seen, "2,3,cat");
    const auto previous = factory.SetCreator({});
    ASSERT_TRUE(previous);
    EXPECT_EQ(previous(0, 0, "again"), mine);
}

}  // namespace
}  // namespace Vexlor::DesktopNotification
