#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/EventHandlerList.h"
#include "interfaces/Gateway.h"
#include "interfaces/ICaptureSchedulerSettings.h"
#include "interfaces/PowerManager.h"
#include "interfaces/Timer.h"
#include "interfaces/UiSettings.h"

namespace Vexlor::Testing {

// Arms nothing by itself: the test fires the armed timers.
class FakeTimer : public Time::IDurationTimer {
public:
    using Time::IDurationTimer::Start;

    struct Armed {
        std::unique_ptr<Time::TimerId> id;
        Time::Microseconds duration;
        Callback callback;
    };

    Time::TimerId* Start(const Time::Microseconds& duration, Callback callback) override {
        ++starts;
        auto id = std::make_unique<Time::TimerId>();
        id->value = ++lastId;
        Time::TimerId* raw = id.get();
        armed.push_back({std::move(id), duration, std::move(callback)});
        return raw;
    }

    void Stop(Time::TimerId* id) override {
        ++stops;
        for (auto it = armed.begin(); it != armed.end(); ++it) {
            if (it->id.get() == id) {
                armed.erase(it);
                return;
            }
        }
    }

    // Finishes the oldest armed timer with `reason`; false when none is armed.
    bool Fire(FinishReason reason = FinishReason::Elapsed) {
        if (armed.empty()) {
            return false;
        }
        Armed timer = std::move(armed.front());
        armed.erase(armed.begin());
        timer.callback(reason);
        return true;
    }

    std::vector<Armed> armed;
    int starts = 0;
    int stops = 0;
    unsigned long long lastId = 0;
};

class FakeGateway : public ExternalStimulus::IGateway {
public:
    void SendStimulus(ExternalStimulus::Stimulus stimulus) override {
        sent.push_back(std::move(stimulus));
    }
    std::vector<ExternalStimulus::Stimulus> sent;
};

class FakePowerManager : public App::IPowerManager {
public:
    void PreventSleep() override { calls.push_back("PreventSleep"); }
    void AllowSleep() override { calls.push_back("AllowSleep"); }
    std::vector<std::string> calls;
};

class FakeUiSettings : public QK::IUiSettings {
public:
    bool IsLeadTimeEnabled() const override { return leadEnabled; }
    Time::Microseconds GetLeadTime() const override { return lead; }
    bool leadEnabled = false;
    Time::Microseconds lead{0};
};

// In-memory scheduler settings that count their writes and notify on change only.
class FakeSchedulerSettings : public QK::ICaptureSchedulerSettings {
public:
    void RegisterEventHandler(QK::ICaptureSchedulerSettingsObserver* handler) override {
        observers.RegisterEventHandler(handler);
    }
    void UnregisterEventHandler(QK::ICaptureSchedulerSettingsObserver* handler) override {
        observers.UnregisterEventHandler(handler);
    }
    bool IsSchedulerEnabled() const override { return enabled; }
    void SetSchedulerEnabled(bool value) override {
        ++enabledWrites;
        if (value != enabled) {
            enabled = value;
            observers.PerformAll(&QK::ICaptureSchedulerSettingsObserver::OnSchedulerEnabledChanged,
                                 value);
        }
    }
    QK::RecordTimeList GetSchedule() const override { return schedule; }
    void SetSchedule(const QK::RecordTimeList& value) override {
        ++scheduleWrites;
        if (value != schedule) {
            schedule = value;
            observers.PerformAll(&QK::ICaptureSchedulerSettingsObserver::OnScheduleChanged, value);
        }
    }

    bool enabled = false;
    QK::RecordTimeList schedule;
    int enabledWrites = 0;
    int scheduleWrites = 0;
    Core::EventHandlerList<QK::ICaptureSchedulerSettingsObserver, Core::SyncExecutePolicy>
        observers;
};

}  // namespace Vexlor::Testing
