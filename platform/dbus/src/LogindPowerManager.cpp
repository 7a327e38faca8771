#include "platform/LogindPowerManager.h"

#include <utility>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusUnixFileDescriptor>

#include "BusCall.h"
#include "Logging.h"

namespace Vexlor::App {

namespace {

using Platform::Bus::Target;

const QString& Login1Service() {
    static const QString service = QStringLiteral("org.freedesktop.login1");
    return service;
}

const Target& Manager() {
    static const Target target{Login1Service(), QStringLiteral("/org/freedesktop/login1"),
                               QStringLiteral("org.freedesktop.login1.Manager")};
    return target;
}

}  // namespace

struct LogindPowerManager::Impl {
    QString who;
    QString why;
    ChangeCallback onChange;
    std::chrono::milliseconds timeout;
    // The lock: logind keeps it while any copy of this descriptor is open.
    QDBusUnixFileDescriptor lock;

    bool Held() const { return lock.isValid(); }

    void Take() {
        if (Held()) {
            return;
        }
        // Whether the bus answers is known after the first check; until then the check and
        // the call share the one bound.
        const Platform::Bus::Deadline deadline(timeout);
        const QDBusConnection bus = Platform::Bus::Connect(Platform::Bus::Kind::System, timeout);
        if (!bus.isConnected()) {
            qCWarning(Platform::Bus::lcDBus,
                      "LogindPowerManager: no system bus; the machine may sleep");
            return;
        }
        const QDBusMessage reply = Platform::Bus::Call(
            bus, Manager(), QStringLiteral("Inhibit"),
            {QStringLiteral("sleep"), who, why, QStringLiteral("block")}, deadline.Left());
        if (!Platform::Bus::IsReply(reply) || reply.arguments().size() != 1) {
            qCWarning(Platform::Bus::lcDBus,
                      "LogindPowerManager: Inhibit failed, the machine may sleep: %s",
                      Platform::Bus::Describe(reply).c_str());
            return;
        }
        // Without descriptor passing on the connection the argument arrives empty.
        auto descriptor = reply.arguments().front().value<QDBusUnixFileDescriptor>();
        if (!descriptor.isValid()) {
            qCWarning(Platform::Bus::lcDBus,
                      "LogindPowerManager: Inhibit gave no descriptor; the machine may sleep");
            return;
        }
        lock = std::move(descriptor);
        if (onChange) {
            onChange(true);
        }
    }

    void Release() {
        if (!Held()) {
            return;
        }
        // The reply that brought the descriptor is gone, so this is its last copy: dropping it
        // closes it, and logind sees the lock end.
        lock = QDBusUnixFileDescriptor();
        if (onChange) {
            onChange(false);
        }
    }
};

LogindPowerManager::LogindPowerManager(QString who, QString why, ChangeCallback onChange,
                                       std::chrono::milliseconds timeout)
    : impl(std::make_unique<Impl>()) {
    impl->who = std::move(who);
    impl->why = std::move(why);
    impl->onChange = std::move(onChange);
    impl->timeout = timeout;
}

LogindPowerManager::~LogindPowerManager() {
    impl->Release();
}

bool LogindPowerManager::IsAvailable(std::chrono::milliseconds timeout) {
    const Platform::Bus::Deadline deadline(timeout);
    const QDBusConnection bus = Platform::Bus::Connect(Platform::Bus::Kind::System, timeout);
    return Platform::Bus::Answers(bus, Login1Service(), deadline.Left());
}

std::shared_ptr<LogindPowerManager> LogindPowerManager::Create(const QString& who,
                                                               const QString& why,
                                                               ChangeCallback onChange,
                                                               std::chrono::milliseconds timeout) {
    if (!IsAvailable(timeout)) {
        return nullptr;
    }
    return std::make_shared<LogindPowerManager>(who, why, std::move(onChange), timeout);
}

void LogindPowerManager::PreventSleep() {
    impl->Take();
}

void LogindPowerManager::AllowSleep() {
    impl->Release();
}

bool LogindPowerManager::IsSleepPrevented() const {
    return impl->Held();
}

}  // namespace Vexlor::App
