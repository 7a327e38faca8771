#pragma once

#include <atomic>
#include <mutex>
#include <vector>

#include <QDBusContext>
#include <QDBusUnixFileDescriptor>
#include <QObject>
#include <QStringList>
#include <QThread>
#include <QVariantMap>

// Linking these fakes gives the test process a dbus-daemon of its own, started before the first
// test: DBUS_SESSION_BUS_ADDRESS and DBUS_SYSTEM_BUS_ADDRESS both point at it.
namespace Vexlor::Testing {

// Records what it is sent. Slots run on the services' thread, the accessors on any thread.
class FakeNotificationServer : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

public:
    struct Notice {
        QString appName;
        uint replacesId;
        QString summary, body;
        int expireTimeout;
        uint returnedId;
    };
    std::atomic<bool> silent{false};  // takes calls and never answers them
    std::vector<Notice> Notices() const;
    std::vector<uint> Closed() const;

public slots:
    QStringList GetCapabilities();
    uint Notify(const QString& appName, uint replacesId, const QString& appIcon,
                const QString& summary, const QString& body, const QStringList& actions,
                const QVariantMap& hints, int expireTimeout);
    void CloseNotification(uint id);

private:
    friend class FakeBusServices;
    mutable std::mutex mutex;
    QStringList capabilities;
    std::vector<Notice> notices;
    std::vector<uint> closed;
    uint nextId = 41;  // away from 0 and 1, so that a made-up id does not pass by chance
};

// logind's sleep locks. Like logind it hands out one end of a pipe and keeps the other, which
// reports a hang-up once every copy of the handed-out end is closed.
class FakeLoginManager : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.login1.Manager")

public:
    struct Inhibition {
        QString what, who, why, mode;
        int keptEnd;
    };
    ~FakeLoginManager() override;
    std::atomic<bool> silent{false};  // takes calls and never answers them
    std::vector<Inhibition> Inhibitions() const;
    // Whether lock `index` has been released, waiting up to `waitMs` for it.
    bool Released(std::size_t index, int waitMs = 0) const;

public slots:
    QDBusUnixFileDescriptor Inhibit(const QString& what, const QString& who, const QString& why,
                                    const QString& mode);

private:
    mutable std::mutex mutex;
    std::vector<Inhibition> inhibitions;
};

// Both fakes, answering from a thread and bus connection of their own: the code under test
// blocks the main thread on its calls.
class FakeBusServices {
public:
    FakeBusServices();
    ~FakeBusServices();
    // Take a well-known name; true when the bus accepted it.
    bool PublishNotifications(const QStringList& capabilities = {QStringLiteral("body")});
    bool PublishLogin();
    // Gives up both names; the records stay.
    void Withdraw();

    FakeNotificationServer notifications;
    FakeLoginManager login;

private:
    bool Publish(const QString& name, QObject* service);
    QString connection;
    QThread thread;
};

}  // namespace Vexlor::Testing
