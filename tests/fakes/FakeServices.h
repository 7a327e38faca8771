#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

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
        armed.push_back({std::make_unique<Time::TimerId>(), duration, std::move(callback)});
        return armed.back().id.get();
    }
    void Stop(Time::TimerId* id) override {
        const auto same = [id](const Armed& timer) { return timer.id.get() == id; };
        armed.erase(std::remove_if(armed.begin(), armed.end(), same), armed.end());
    }
    // Finishes the oldest armed timer with `reason`; false when none is armed.
    bool Fire(FinishReason reason = FinishReason::Elapsed) {
        if (armed.empty()) {
            return false;
        }
        Armed timer = std::move(armed.front());  // its id stays valid during the callback
        armed.erase(armed.begin());
        timer.callback(reason);
        return true;
    }

    std::vector<Armed> armed;
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

// In-memory scheduler settings that count their writes. `onSetSchedule` runs after every
// schedule write, as an application's settings observer would.
class FakeSchedulerSettings : public QK::ICaptureSchedulerSettings {
public:
    void RegisterEventHandler(QK::ICaptureSchedulerSettingsObserver*) override {}
    void UnregisterEventHandler(QK::ICaptureSchedulerSettingsObserver*) override {}
    bool IsSchedulerEnabled() const override { return enabled; }
    void SetSchedulerEnabled(bool value) override {
        ++writes;
        enabled = value;
    }
    QK::RecordTimeList GetSchedule() const override { return schedule; }
    void SetSchedule(const QK::RecordTimeList& value) override {
        ++writes;
        schedule = value;
        if (onSetSchedule) {
            onSetSchedule();
        }
    }

    bool enabled = false;
    QK::RecordTimeList schedule;
    int writes = 0;
    std::function<void()> onSetSchedule;
};

}  // namespace Vexlor::Testing
