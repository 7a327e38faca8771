#include "fakes/FakeDBusServices.h"

#include <poll.h>
#include <unistd.h>

#include <memory>

#include <gtest/gtest.h>
#include <QDBusConnection>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

namespace Vexlor::Testing {

namespace {

const QString NOTIFICATIONS = QStringLiteral("org.freedesktop.Notifications");
const QString LOGIN = QStringLiteral("org.freedesktop.login1");
QString busAddress;

// Both services sit at the path spelled like their name.
QString PathOf(QString name) {
    return QLatin1Char('/') + name.replace(QLatin1Char('.'), QLatin1Char('/'));
}

// Serves as session and system bus. It must be up before anything touches QDBusConnection,
// whose default connections read the addresses once.
class PrivateBus : public testing::Environment {
    void SetUp() override {
        dir = std::make_unique<QTemporaryDir>();
        QFile config(dir->filePath(QStringLiteral("bus.conf")));
        ASSERT_TRUE(config.open(QIODevice::WriteOnly));
        // No service directories: a name that nobody owns is an error at once, not an activation.
        config.write(QStringLiteral("<busconfig><type>session</type><listen>unix:path=%1</listen>"
                                    "<policy context='default'><allow send_destination='*' "
                                    "eavesdrop='true'/><allow eavesdrop='true'/><allow own='*'/>"
                                    "</policy></busconfig>")
                         .arg(dir->filePath(QStringLiteral("bus")))
                         .toUtf8());
        config.close();
        daemon = std::make_unique<QProcess>();
        daemon->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        daemon->start(QStringLiteral("dbus-daemon"),
                      {QStringLiteral("--nofork"), QStringLiteral("--print-address=1"),
                       QStringLiteral("--config-file=") + config.fileName()});
        // The address is printed once the bus listens.
        while (!daemon->canReadLine()) {
            ASSERT_TRUE(daemon->waitForReadyRead(5000)) << "dbus-daemon prints no address";
        }
        busAddress = QString::fromUtf8(daemon->readLine()).trimmed();
        qputenv("DBUS_SESSION_BUS_ADDRESS", busAddress.toUtf8());
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", busAddress.toUtf8());
        qunsetenv("DBUS_STARTER_ADDRESS");
        qunsetenv("DBUS_STARTER_BUS_TYPE");
    }
    void TearDown() override {
        daemon->kill();
        daemon->waitForFinished(5000);
        daemon.reset();
        dir.reset();
    }

    std::unique_ptr<QTemporaryDir> dir;
    std::unique_ptr<QProcess> daemon;
};

testing::Environment* const privateBus = testing::AddGlobalTestEnvironment(new PrivateBus);

}  // namespace

std::vector<FakeNotificationServer::Notice> FakeNotificationServer::Notices() const {
    std::lock_guard<std::mutex> lock(mutex);
    return notices;
}

std::vector<uint> FakeNotificationServer::Closed() const {
    std::lock_guard<std::mutex> lock(mutex);
    return closed;
}

// A silent server keeps the reply to itself and never sends it: callers wait out their timeout.
QStringList FakeNotificationServer::GetCapabilities() {
    setDelayedReply(silent);
    std::lock_guard<std::mutex> lock(mutex);
    return capabilities;
}

uint FakeNotificationServer::Notify(const QString& appName, uint replacesId, const QString&,
                                    const QString& summary, const QString& body, const QStringList&,
                                    const QVariantMap&, int expireTimeout) {
    setDelayedReply(silent);
    std::lock_guard<std::mutex> lock(mutex);
    const uint id = replacesId != 0 ? replacesId : nextId++;
    notices.push_back({appName, replacesId, summary, body, expireTimeout, id});
    return id;
}

void FakeNotificationServer::CloseNotification(uint id) {
    setDelayedReply(silent);
    std::lock_guard<std::mutex> lock(mutex);
    closed.push_back(id);
}

FakeLoginManager::~FakeLoginManager() {
    for (const Inhibition& inhibition : inhibitions) {
        ::close(inhibition.keptEnd);
    }
}

std::vector<FakeLoginManager::Inhibition> FakeLoginManager::Inhibitions() const {
    std::lock_guard<std::mutex> lock(mutex);
    return inhibitions;
}

bool FakeLoginManager::Released(std::size_t index, int waitMs) const {
    const std::vector<Inhibition> all = Inhibitions();
    pollfd entry{index < all.size() ? all[index].keptEnd : -1, POLLIN, 0};
    return ::poll(&entry, 1, waitMs) == 1 && (entry.revents & POLLHUP) != 0;
}

QDBusUnixFileDescriptor FakeLoginManager::Inhibit(const QString& what, const QString& who,
                                                  const QString& why, const QString& mode) {
    setDelayedReply(silent);
    int ends[2];
    if (silent || ::pipe(ends) != 0) {
        return {};
    }
    std::lock_guard<std::mutex> lock(mutex);
    inhibitions.push_back({what, who, why, mode, ends[0]});
    QDBusUnixFileDescriptor handedOut(ends[1]);  // holds a duplicate
    ::close(ends[1]);
    return handedOut;
}

FakeBusServices::FakeBusServices()
    : connection(QStringLiteral("fake-services-%1").arg(quintptr(this))) {
    QDBusConnection::connectToBus(busAddress, connection);
    notifications.moveToThread(&thread);
    login.moveToThread(&thread);
    thread.start();
}

FakeBusServices::~FakeBusServices() {
    Withdraw();
    thread.quit();
    thread.wait();
    QDBusConnection::disconnectFromBus(connection);
}

bool FakeBusServices::PublishNotifications(const QStringList& capabilities) {
    {
        std::lock_guard<std::mutex> lock(notifications.mutex);
        notifications.capabilities = capabilities;
    }
    return Publish(NOTIFICATIONS, &notifications);
}

bool FakeBusServices::PublishLogin() {
    return Publish(LOGIN, &login);
}

bool FakeBusServices::Publish(const QString& name, QObject* service) {
    QDBusConnection bus(connection);
    return bus.registerObject(PathOf(name), service, QDBusConnection::ExportAllSlots) &&
           bus.registerService(name);
}

void FakeBusServices::Withdraw() {
    QDBusConnection bus(connection);
    for (const QString& name : {NOTIFICATIONS, LOGIN}) {
        bus.unregisterService(name);
        bus.unregisterObject(PathOf(name));
    }
}

}  // namespace Vexlor::Testing
