#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include <QDBusContext>
#include <QDBusUnixFileDescriptor>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QThread>
#include <QVariantMap>

namespace Vexlor::Testing {

// A notification server that records what it is asked. Its slots run in the service thread
// of FakeBusServices; the accessors may be called from any thread.
class FakeNotificationServer : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

public:
    struct Notice {
        QString appName;
        uint replacesId;
        QString appIcon;
        QString summary;
        QString body;
        QStringList actions;
        QVariantMap hints;
        int expireTimeout;
        uint returnedId;
    };

    // Ids start away from 0 and 1 so that a made-up id does not pass by chance.
    static constexpr uint FIRST_ID = 41;

    void SetCapabilities(const QStringList& capabilities);
    // A silent server takes calls and never answers them.
    void SetSilent(bool silent);

    std::vector<Notice> Notices() const;
    std::vector<uint> Closed() const;
    int CapabilityQueries() const;

public slots:
    QStringList GetCapabilities();
    uint Notify(const QString& appName, uint replacesId, const QString& appIcon,
                const QString& summary, const QString& body, const QStringList& actions,
                const QVariantMap& hints, int expireTimeout);
    void CloseNotification(uint id);

private:
    bool Unanswered();

    mutable std::mutex mutex;
    QStringList capabilities;
    std::vector<Notice> notices;
    std::vector<uint> closed;
    int capabilityQueries = 0;
    uint nextId = FIRST_ID;
    std::atomic<bool> silent{false};
};

// logind's manager as far as sleep locks go. Like logind it hands out the writing end of a
// pipe and keeps the reading end, which reports a hang-up once every copy of the writing end
// is closed.
class FakeLoginManager : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.login1.Manager")

public:
    struct Inhibition {
        QString what;
        QString who;
        QString why;
        QString mode;
        int keptEnd;
    };

    ~FakeLoginManager() override;

    void SetSilent(bool silent);
    std::vector<Inhibition> Inhibitions() const;

    // Whether the holder of inhibition `index` has closed its descriptor, waiting up to `wait`.
    bool Released(std::size_t index, std::chrono::milliseconds wait) const;

public slots:
    QDBusUnixFileDescriptor Inhibit(const QString& what, const QString& who, const QString& why,
                                    const QString& mode);

private:
    mutable std::mutex mutex;
    std::vector<Inhibition> inhibitions;
    std::atomic<bool> silent{false};
};

// Runs the fake services on a thread of their own, with their own connection to the private
// bus: the code under test makes blocking calls from the main thread, so the answers must come
// from elsewhere.
class FakeBusServices {
public:
    FakeBusServices();
    ~FakeBusServices();
    FakeBusServices(const FakeBusServices&) = delete;
    FakeBusServices& operator=(const FakeBusServices&) = delete;

    FakeNotificationServer& Notifications() { return *notifications; }
    FakeLoginManager& Login() { return *login; }

    // Take and give up the well-known names; the objects and their records stay. Publishing
    // answers whether the bus accepted object and name.
    bool PublishNotifications();
    void WithdrawNotifications();
    bool PublishLogin();
    void WithdrawLogin();

private:
    void InThread(const std::function<void()>& work);

    QString connectionName;
    QThread thread;
    QObject* context = nullptr;
    FakeNotificationServer* notifications = nullptr;
    FakeLoginManager* login = nullptr;
};

}  // namespace Vexlor::Testing
