#include <memory>
#include <stdexcept>

#include <gtest/gtest.h>
#include <QTemporaryDir>

#include "Scheduler/SchedulerSettings.h"
#include "core/NotNull.h"
#include "fakes/RecordingRegistry.h"
#include "platform/IniSettingsManager.h"

namespace Vexlor::QK {
namespace {

struct Holder {
    Holder(const std::shared_ptr<int>& a, const std::shared_ptr<char>& b,
           const std::shared_ptr<int>& c)
        : a(a), b(b), c(c) {}
    Core::NotNull<std::shared_ptr<int>> a;
    Core::NotNull<std::shared_ptr<char>> b;
    Core::NotNull<std::shared_ptr<int>> c;
};

TEST(NotNull, FirstNullThrowsTheMessageAndEarlierMembersLetGo) {
    auto a = std::make_shared<int>(1);
    auto b = std::make_shared<char>('b');
    try {
        Holder holder(a, b, nullptr);
        FAIL() << "no exception";
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "NotNull can not initialized by null");
    }
    EXPECT_EQ(a.use_count(), 1);
    EXPECT_EQ(b.use_count(), 1);
    // The guard holds one reference, and access hands out another for the call.
    Core::NotNull<std::shared_ptr<int>> guarded(a);
    EXPECT_EQ(guarded.get().use_count(), 3);
}

TEST(InstanceRegistry, DemangleGivesTheReadableKeys) {
    EXPECT_EQ(InstanceRegistry::Demangle("N6Vexlor2QK10ISchedulerE"), "Vexlor::QK::IScheduler");
    EXPECT_EQ(InstanceRegistry::Demangle("N6Vexlor2QK29ICaptureDurationLimitSettingsE"),
              "Vexlor::QK::ICaptureDurationLimitSettings");
    EXPECT_EQ(InstanceRegistry::Demangle("N6Vexlor2QK25ICaptureSchedulerSettingsE"),
              "Vexlor::QK::ICaptureSchedulerSettings");
}

class Registration : public testing::Test {
protected:
    QTemporaryDir dir;
    std::unique_ptr<SchedulerSettings> MakeTwoInterfaceObject() const {
        return std::make_unique<SchedulerSettings>(
            std::make_shared<App::IniSettingsManager>(dir.filePath(QStringLiteral("s.ini"))));
    }
};

TEST_F(Registration, EachInterfaceIsPublishedWithItsOwnBaseAddress) {
    Testing::RecordingRegistry registry;
    auto object = MakeTwoInterfaceObject();
    void* limit = static_cast<ICaptureDurationLimitSettings*>(object.get());
    void* schedule = static_cast<ICaptureSchedulerSettings*>(object.get());
    ASSERT_NE(limit, schedule);
    EXPECT_EQ(registry.Find<ICaptureSchedulerSettings>(), schedule);
    object.reset();
    const std::string limitKey = "Vexlor::QK::ICaptureDurationLimitSettings";
    const std::string scheduleKey = "Vexlor::QK::ICaptureSchedulerSettings";
    ASSERT_EQ(registry.calls.size(), 4u);
    EXPECT_EQ(registry.calls[0], (Testing::RecordingRegistry::Call{"register", limitKey, limit}));
    EXPECT_EQ(registry.calls[1],
              (Testing::RecordingRegistry::Call{"register", scheduleKey, schedule}));
    EXPECT_EQ(registry.calls[2],
              (Testing::RecordingRegistry::Call{"unregister", scheduleKey, schedule}));
    EXPECT_EQ(registry.calls[3], (Testing::RecordingRegistry::Call{"unregister", limitKey, limit}));
    EXPECT_EQ(registry.Find<ICaptureSchedulerSettings>(), nullptr);
}

TEST_F(Registration, WithoutARegistryNothingIsCalledAndALateOneIsOnlyAskedToRemove) {
    EXPECT_EQ(InstanceRegistry::Instance(), nullptr);
    auto object = MakeTwoInterfaceObject();
    Testing::RecordingRegistry late;
    object.reset();
    ASSERT_EQ(late.calls.size(), 2u);
    EXPECT_EQ(late.calls[0].op, "unregister");
    EXPECT_EQ(late.Find<ICaptureSchedulerSettings>(), nullptr);
}

}  // namespace
}  // namespace Vexlor::QK
