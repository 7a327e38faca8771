#include <memory>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "core/NotNull.h"
#include "fakes/RecordingRegistry.h"
#include "interfaces/ICaptureDurationLimitSettings.h"
#include "interfaces/ICaptureSchedulerSettings.h"
#include "interfaces/IScheduler.h"

namespace Vexlor::QK {
namespace {

struct ServiceA {};
struct ServiceB {};

// Three guarded members initialised in order, as the public classes do.
struct Holder {
    Holder(const std::shared_ptr<ServiceA>& a, const std::shared_ptr<ServiceB>& b,
           const std::shared_ptr<ServiceA>& c)
        : a(a), b(b), c(c) {}
    Core::NotNull<std::shared_ptr<ServiceA>> a;
    Core::NotNull<std::shared_ptr<ServiceB>> b;
    Core::NotNull<std::shared_ptr<ServiceA>> c;
};

TEST(NotNull, NullThrowsExactMessageAndReleasesEarlierMembers) {
    auto a = std::make_shared<ServiceA>();
    auto b = std::make_shared<ServiceB>();
    try {
        Holder holder(a, b, nullptr);
        FAIL() << "no exception";
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "NotNull can not initialized by null");
    }
    EXPECT_EQ(a.use_count(), 1);
    EXPECT_EQ(b.use_count(), 1);
}

TEST(NotNull, AccessHoldsItsOwnReferenceForTheCall) {
    auto a = std::make_shared<ServiceA>();
    Core::NotNull<std::shared_ptr<ServiceA>> guarded(a);
    EXPECT_EQ(a.use_count(), 2);
    EXPECT_EQ(guarded.get().use_count(), 3);
    EXPECT_EQ(guarded.get().get(), a.get());
}

// Implements two published interfaces, as the scheduler settings do.
class TwoInterfaces : public ICaptureDurationLimitSettings, public ICaptureSchedulerSettings {
public:
    void RegisterEventHandler(ICaptureDurationLimitSettingsObserver*) override {}
    void UnregisterEventHandler(ICaptureDurationLimitSettingsObserver*) override {}
    void RegisterEventHandler(ICaptureSchedulerSettingsObserver*) override {}
    void UnregisterEventHandler(ICaptureSchedulerSettingsObserver*) override {}
    bool IsDurationLimitEnabled() const override { return false; }
    void SetDurationLimitEnabled(bool) override {}
    Time::Microseconds GetDurationLimit() const override { return {}; }
    void SetDurationLimit(const Time::Microseconds&) override {}
    bool IsSchedulerEnabled() const override { return false; }
    void SetSchedulerEnabled(bool) override {}
    RecordTimeList GetSchedule() const override { return {}; }
    void SetSchedule(const RecordTimeList&) override {}
};

TEST(InstanceRegistry, DemangleGivesTheReadableKeys) {
    EXPECT_EQ(InstanceRegistry::Demangle("N6Vexlor2QK10ISchedulerE"), "Vexlor::QK::IScheduler");
    EXPECT_EQ(InstanceRegistry::Demangle("N6Vexlor2QK29ICaptureDurationLimitSettingsE"),
              "Vexlor::QK::ICaptureDurationLimitSettings");
    EXPECT_EQ(InstanceRegistry::Demangle("N6Vexlor2QK25ICaptureSchedulerSettingsE"),
              "Vexlor::QK::ICaptureSchedulerSettings");
    EXPECT_EQ(InstanceRegistry::Demangle(typeid(IScheduler).name()), "Vexlor::QK::IScheduler");
}

TEST(InstanceRegistry, RegistrationsUseTheBaseAddressAndEndInReverse) {
    Testing::RecordingRegistry registry;
    TwoInterfaces object;
    ICaptureDurationLimitSettings* limit = &object;
    ICaptureSchedulerSettings* schedule = &object;
    ASSERT_NE(static_cast<void*>(limit), static_cast<void*>(schedule));
    {
        auto first = std::make_unique<InstanceRegistration<ICaptureDurationLimitSettings>>(limit);
        auto second = std::make_unique<InstanceRegistration<ICaptureSchedulerSettings>>(schedule);
        EXPECT_EQ(registry.Find<ICaptureSchedulerSettings>(), schedule);
        EXPECT_EQ(registry.Find<ICaptureDurationLimitSettings>(), limit);
        second.reset();
        first.reset();
    }
    ASSERT_EQ(registry.calls.size(), 4u);
    const std::string limitKey = "Vexlor::QK::ICaptureDurationLimitSettings";
    const std::string scheduleKey = "Vexlor::QK::ICaptureSchedulerSettings";
    EXPECT_EQ(registry.calls[0].key, limitKey);
    EXPECT_EQ(registry.calls[0].instance, static_cast<void*>(limit));
    EXPECT_EQ(registry.calls[1].key, scheduleKey);
    EXPECT_EQ(registry.calls[1].instance, static_cast<void*>(schedule));
    EXPECT_EQ(registry.calls[2].op, "unregister");
    EXPECT_EQ(registry.calls[2].key, scheduleKey);
    EXPECT_EQ(registry.calls[3].key, limitKey);
    EXPECT_EQ(registry.Find<ICaptureSchedulerSettings>(), nullptr);
}

TEST(InstanceRegistry, NoRegistryMeansNoCallsAndNothingLeaksBetweenScopes) {
    EXPECT_EQ(InstanceRegistry::Instance(), nullptr);
    TwoInterfaces object;
    std::unique_ptr<InstanceRegistration<ICaptureSchedulerSettings>> orphan;
    {
        Testing::RecordingRegistry registry;
        EXPECT_EQ(InstanceRegistry::Instance(), &registry);
    }
    EXPECT_EQ(InstanceRegistry::Instance(), nullptr);
    orphan = std::make_unique<InstanceRegistration<ICaptureSchedulerSettings>>(&object);

    // A registry that appears later is asked to remove a record it never had.
    Testing::RecordingRegistry late;
    orphan.reset();
    ASSERT_EQ(late.calls.size(), 1u);
    EXPECT_EQ(late.calls[0].op, "unregister");
    EXPECT_EQ(late.Find<ICaptureSchedulerSettings>(), nullptr);
}

}  // namespace
}  // namespace Vexlor::QK
