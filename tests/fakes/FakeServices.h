#pragma once

#include <functional>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "interfaces/Gateway.h"
#include "interfaces/ICaptureSchedulerSettings.h"
#include "interfaces/PowerManager.h"
#include "interfaces/SettingsManager.h"
#include "interfaces/Timer.h"
#include "interfaces/UiSettings.h"

namespace Vexlor::Testing {

// Arms nothing by itself: the test fires the armed timers.
class FakeTimer : public Time::IDurationTimer {
public:
    using Time::IDurationTimer::Start;
    struct Armed {
        Time::TimerId id;
        Time::Microseconds duration;
        Callback callback;
    };

    Time::TimerId* Start(const Time::Microseconds& duration, Callback callback) override {
        armed.push_back({{}, duration, std::move(callback)});
        return &armed.back().id;
    }
    void Stop(Time::TimerId* id) override {
        armed.remove_if([id](const Armed& timer) { return &timer.id == id; });
    }
    // Finishes the oldest armed timer, whose id stays valid meanwhile; false when none is.
    bool Fire(FinishReason reason = FinishReason::Elapsed) {
        if (armed.empty()) {
            return false;
        }
        std::list<Armed> fired;
        fired.splice(fired.end(), armed, armed.begin());
        fired.front().callback(reason);
        return true;
    }

    std::list<Armed> armed;
};

struct FakeGateway : ExternalStimulus::IGateway {
    void SendStimulus(ExternalStimulus::Stimulus s) override { sent.push_back(std::move(s)); }
    std::vector<ExternalStimulus::Stimulus> sent;
};

struct FakePowerManager : App::IPowerManager {
    void PreventSleep() override { calls.push_back("PreventSleep"); }
    void AllowSleep() override { calls.push_back("AllowSleep"); }
    std::vector<std::string> calls;
};

struct FakeUiSettings : QK::IUiSettings {
    bool IsLeadTimeEnabled() const override { return leadEnabled; }
    Time::Microseconds GetLeadTime() const override { return lead; }
    bool leadEnabled = false;
    Time::Microseconds lead{0};
};

// In memory, counting writes; `onSetSchedule` runs after each schedule write, as an
// application's settings observer would.
struct FakeSchedulerSettings : QK::ICaptureSchedulerSettings {
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

// A settings file in memory, counting writes; a bool is kept as one byte.
struct FakeSettingsManager : QK::IApplicationSettingsManager {
    using Bytes = std::vector<unsigned char>;
    void setBool(const std::string& key, bool value) override { setByteArray(key, {value}); }
    void setByteArray(const std::string& key, const Bytes& value) override {
        ++writes;
        values[key] = value;
    }
    bool getBool(const std::string& key, bool defaultValue) const override {
        return getByteArray(key, {defaultValue}).at(0) != 0;
    }
    Bytes getByteArray(const std::string& key, const Bytes& defaultValue) const override {
        return values.count(key) ? values.at(key) : defaultValue;
    }
    bool contains(const std::string& key) const override { return values.count(key) != 0; }
    void remove(const std::string& key) override { values.erase(key); }

    std::map<std::string, Bytes> values;
    int writes = 0;
};

}  // namespace Vexlor::Testing
