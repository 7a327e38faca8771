#include "fakes/FakeDBusServices.h"

#include <poll.h>
#include <unistd.h>

#include <QDBusConnection>
#include <QMetaObject>

#include "fakes/PrivateBus.h"

namespace Vexlor::Testing {

namespace {

const QString NOTIFICATIONS_NAME = QStringLiteral("org.freedesktop.Notifications");
const QString NOTIFICATIONS_PATH = QStringLiteral("/org/freedesktop/Notifications");
const QString LOGIN_NAME = QStringLiteral("org.freedesktop.login1");
const QString LOGIN_PATH = QStringLiteral("/org/freedesktop/login1");

}  // namespace

void FakeNotificationServer::SetCapabilities(const QStringList& list) {
    std::lock_guard<std::mutex> lock(mutex);
    capabilities = list;
}

void FakeNotificationServer::SetSilent(bool value) {
    silent = value;
}

std::vector<FakeNotificationServer::Notice> FakeNotificationServer::Notices() const {
    std::lock_guard<std::mutex> lock(mutex);
    return notices;
}

std::vector<uint> FakeNotificationServer::Closed() const {
    std::lock_guard<std::mutex> lock(mutex);
    return closed;
}

int FakeNotificationServer::CapabilityQueries() const {
    std::lock_guard<std::mutex> lock(mutex);
    return capabilityQueries;
}

bool FakeNotificationServer::Unanswered() {
    if (silent) {
        // The reply is left to us and never sent: the caller waits until its own timeout.
        setDelayedReply(true);
        return true;
    }
    return false;
}

QStringList FakeNotificationServer::GetCapabilities() {
    std::lock_guard<std::mutex> lock(mutex);
    ++capabilityQueries;
    if (Unanswered()) {
        return {};
    }
    return capabilities;
}

uint FakeNotificationServer::Notify(const QString& appName, uint replacesId, const QString& appIcon,
                                    const QString& summary, const QString& body,
                                    const QStringList& actions, const QVariantMap& hints,
                                    int expireTimeout) {
    std::lock_guard<std::mutex> lock(mutex);
    const uint id = replacesId != 0 ? replacesId : nextId++;
    notices.push_back(
        {appName, replacesId, appIcon, summary, body, actions, hints, expireTimeout, id});
    if (Unanswered()) {
        return 0;
    }
    return id;
}

void FakeNotificationServer::CloseNotification(uint id) {
    std::lock_guard<std::mutex> lock(mutex);
    closed.push_back(id);
    Unanswered();
}

FakeLoginManager::~FakeLoginManager() {
    for (const Inhibition& inhibition : inhibitions) {
        ::close(inhibition.keptEnd);
    }
}

void FakeLoginManager::SetSilent(bool value) {
    silent = value;
}

std::vector<FakeLoginManager::Inhibition> FakeLoginManager::Inhibitions() const {
    std::lock_guard<std::mutex> lock(mutex);
    return inhibitions;
}

bool FakeLoginManager::Released(std::size_t index, std::chrono::milliseconds wait) const {
    int fd = -1;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (index >= inhibitions.size()) {
            return false;
        }
        fd = inhibitions[index].keptEnd;
    }
    pollfd entry{fd, POLLIN, 0};
    const int ready = ::poll(&entry, 1, static_cast<int>(wait.count()));
    return ready == 1 && (entry.revents & POLLHUP) != 0;
}

QDBusUnixFileDescriptor FakeLoginManager::Inhibit(const QString& what, const QString& who,
                                                  const QString& why, const QString& mode) {
    if (silent) {
        setDelayedReply(true);
        return {};
    }
    int ends[2];
    if (::pipe(ends) != 0) {
        sendErrorReply(QDBusError::Failed, QStringLiteral("pipe failed"));
        return {};
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        inhibitions.push_back({what, who, why, mode, ends[0]});
    }
    // The returned object holds a duplicate; ours is not needed past this point.
    QDBusUnixFileDescriptor handedOut(ends[1]);
    ::close(ends[1]);
    return handedOut;
}

FakeBusServices::FakeBusServices() {
    static std::atomic<int> counter{0};
    connectionName = QStringLiteral("vexlor-fake-services-%1").arg(counter++);
    context = new QObject;
    context->moveToThread(&thread);
    thread.start();
    InThread([this] {
        QDBusConnection::connectToBus(PrivateBusEnvironment::Address(), connectionName);
        notifications = new FakeNotificationServer;
        login = new FakeLoginManager;
    });
}

FakeBusServices::~FakeBusServices() {
    InThread([this] {
        QDBusConnection bus(connectionName);
        bus.unregisterService(NOTIFICATIONS_NAME);
        bus.unregisterService(LOGIN_NAME);
        bus.unregisterObject(NOTIFICATIONS_PATH);
        bus.unregisterObject(LOGIN_PATH);
        delete notifications;
        delete login;
        QDBusConnection::disconnectFromBus(connectionName);
    });
    thread.quit();
    thread.wait();
    delete context;
}

bool FakeBusServices::PublishNotifications() {
    bool ok = false;
    InThread([this, &ok] {
        QDBusConnection bus(connectionName);
        ok = bus.registerObject(NOTIFICATIONS_PATH, notifications,
                                QDBusConnection::ExportAllSlots) &&
             bus.registerService(NOTIFICATIONS_NAME);
    });
    return ok;
}

void FakeBusServices::WithdrawNotifications() {
    InThread([this] {
        QDBusConnection bus(connectionName);
        bus.unregisterService(NOTIFICATIONS_NAME);
        bus.unregisterObject(NOTIFICATIONS_PATH);
    });
}

bool FakeBusServices::PublishLogin() {
    bool ok = false;
    InThread([this, &ok] {
        QDBusConnection bus(connectionName);
        ok = bus.registerObject(LOGIN_PATH, login, QDBusConnection::ExportAllSlots) &&
             bus.registerService(LOGIN_NAME);
    });
    return ok;
}

void FakeBusServices::WithdrawLogin() {
    InThread([this] {
        QDBusConnection bus(connectionName);
        bus.unregisterService(LOGIN_NAME);
        bus.unregisterObject(LOGIN_PATH);
    });
}

void FakeBusServices::InThread(const std::function<void()>& work) {
    QMetaObject::invokeMethod(context, work, Qt::BlockingQueuedConnection);
}

}  // namespace Vexlor::Testing
