// An application that brings its own services instead of the package's stand-ins: settings
// in memory, timers on QTimer, a gateway that starts the capture from the event loop and a
// power manager that only remembers. It links Vexlor::Scheduler alone, which brings the
// interfaces and the host's core, lets one scheduled recording start, and checks that the
// stand-in library was never loaded.
#include <link.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <QCoreApplication>
#include <QTimer>

#include <Scheduler/Scheduler.h>
#include <Scheduler/SchedulerSettings.h>
#include <interfaces/InstanceRegistry.h>
#include <interfaces/SettingsManager.h>

using namespace Vexlor;

class MemorySettings : public QK::IApplicationSettingsManager {
public:
    void setBool(const std::string& key, bool value) override { flags[key] = value; }
    void setByteArray(const std::string& key, const std::vector<unsigned char>& value) override {
        bytes[key] = value;
    }
    bool getBool(const std::string& key, bool defaultValue) const override {
        auto it = flags.find(key);
        return it == flags.end() ? defaultValue : it->second;
    }
    std::vector<unsigned char> getByteArray(
        const std::string& key, const std::vector<unsigned char>& defaultValue) const override {
        auto it = bytes.find(key);
        return it == bytes.end() ? defaultValue : it->second;
    }
    bool contains(const std::string& key) const override {
        return flags.count(key) != 0 || bytes.count(key) != 0;
    }
    void remove(const std::string& key) override {
        flags.erase(key);
        bytes.erase(key);
    }

private:
    std::map<std::string, bool> flags;
    std::map<std::string, std::vector<unsigned char>> bytes;
};

// Single-shot QTimers on the calling thread; enough for the scheduler's polls, not for
// deadlines beyond what one QTimer interval holds.
class OneShotTimers : public Time::IDurationTimer {
public:
    using IDurationTimer::Start;

    Time::TimerId* Start(const Time::Microseconds& duration, Callback callback) override {
        Armed armed;
        armed.id = std::make_unique<Time::TimerId>();
        armed.id->value = ++lastId;
        armed.timer = std::make_unique<QTimer>();
        armed.timer->setSingleShot(true);
        armed.callback = std::move(callback);
        Time::TimerId* id = armed.id.get();
        QObject::connect(armed.timer.get(), &QTimer::timeout, [this, id] { Fire(id); });
        const long long millis = (std::max<long long>(duration.count(), 0) + 999) / 1000;
        armed.timer->start(
            static_cast<int>(std::min<long long>(millis, std::numeric_limits<int>::max())));
        timers.emplace(id, std::move(armed));
        return id;
    }

    void Stop(Time::TimerId* id) override { timers.erase(id); }

private:
    struct Armed {
        std::unique_ptr<Time::TimerId> id;
        std::unique_ptr<QTimer> timer;
        Callback callback;
    };

    void Fire(Time::TimerId* id) {
        auto it = timers.find(id);
        if (it == timers.end()) {
            return;
        }
        Callback callback = std::move(it->second.callback);
        it->second.timer.release()->deleteLater();  // it is emitting right now
        timers.erase(it);
        callback(ITimer::FinishReason::Elapsed);
    }

    std::map<Time::TimerId*, Armed> timers;
    unsigned long long lastId = 0;
};

class LoopGateway : public ExternalStimulus::IGateway {
public:
    explicit LoopGateway(std::function<void(ExternalStimulus::Stimulus)> handler)
        : handler(std::move(handler)) {}
    void SendStimulus(ExternalStimulus::Stimulus stimulus) override {
        QTimer::singleShot(0, qApp, [this, stimulus] { handler(stimulus); });
    }

private:
    std::function<void(ExternalStimulus::Stimulus)> handler;
};

struct RememberingPower : App::IPowerManager {
    void PreventSleep() override { prevented = true; }
    void AllowSleep() override { prevented = false; }
    bool prevented = false;
};

struct NoLeadTime : QK::IUiSettings {
    bool IsLeadTimeEnabled() const override { return false; }
    Time::Microseconds GetLeadTime() const override { return Time::Microseconds(0); }
};

class StartedObserver : public QK::ISchedulerObserver {
public:
    void OnScheduledCaptureStarted(const QK::RecordTime& record) override { title = record.title; }
    QString title;
};

bool IsLoaded(const char* library) {
    struct Search {
        const char* name;
        bool found;
    } search{library, false};
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* data) {
            auto* s = static_cast<Search*>(data);
            if (info->dlpi_name != nullptr && std::strstr(info->dlpi_name, s->name) != nullptr) {
                s->found = true;
            }
            return 0;
        },
        &search);
    return search.found;
}

int main(int argc, char** argv) {
    using namespace std::chrono_literals;
    QCoreApplication app(argc, argv);
    QK::InstanceRegistry registry;
    QK::ScopedInstanceRegistry scope(&registry);

    auto clock = std::make_shared<Time::SystemClock>();
    auto store = std::make_shared<MemorySettings>();
    auto settings = std::make_shared<QK::SchedulerSettings>(store);
    QK::RecordTime record;
    record.title = QStringLiteral("Own services");
    record.startTime = clock->Now() + 200ms;
    record.duration = 5s;
    settings->SetSchedule({record});
    settings->SetSchedulerEnabled(true);
    const bool stored = store->contains("QK/Scheduler/schedule") &&
                        store->getBool("QK/Scheduler/scheduler_enabled", false);

    auto gateway = std::make_shared<LoopGateway>([&app](ExternalStimulus::Stimulus stimulus) {
        if (stimulus.name == "RECORD_SCHEDULE") {
            stimulus.callback();
            app.quit();
        }
    });
    auto power = std::make_shared<RememberingPower>();
    QK::Scheduler scheduler(settings, std::make_shared<NoLeadTime>(), gateway, power, clock,
                            std::make_shared<OneShotTimers>());
    StartedObserver observer;
    scheduler.RegisterEventHandler(&observer);
    const bool polling = scheduler.IsEnabled() && power->prevented;

    QTimer::singleShot(5000, &app, &QCoreApplication::quit);
    app.exec();

    const bool ran = observer.title == record.title && !scheduler.IsEnabled() &&
                     settings->GetSchedule().empty() &&
                     !store->getBool("QK/Scheduler/scheduler_enabled", true);
    // The host core must be seen, or the search proves nothing about the stand-ins.
    const bool layered = IsLoaded("libvexlor-host-core.so") && !IsLoaded("libvexlor-platform.so");
    const bool ok = stored && polling && ran && layered;
    std::printf("own services %s (stored %d, polling %d, ran %d, without stand-ins %d)\n",
                ok ? "ok" : "FAILED", stored, polling, ran, layered);
    return ok ? 0 : 1;
}
