#pragma once

#include <QDBusMessage>
#include <QList>
#include <QProcess>
#include <QStringList>
#include <QVariantList>

// Linking this gives the test process a dbus-daemon of its own, started before the first test:
// DBUS_SESSION_BUS_ADDRESS and DBUS_SYSTEM_BUS_ADDRESS both point at it. The desktop services
// on it are python3-dbusmock templates, each in a process of its own.
namespace Vexlor::Testing {

// Waits up to 10 s for `name` to be owned on the private bus, or to be free.
bool NameIs(const QString& name, bool owned = true);

class MockService {
public:
    // "notification_daemon" or "logind", with the template's parameters as JSON; returns once
    // the service's name is on the bus, or after 10 s (then Up() is false).
    explicit MockService(const QString& templateName,
                         const QString& parameters = QStringLiteral("{}"));
    ~MockService();

    bool Up() const { return up; }
    // A stopped service still has its name and gets the calls, but answers none.
    void Pause(bool paused);
    // The arguments of every call of `method` so far, from the mock's call log.
    QList<QVariantList> Calls(const QString& method) const;
    // logind: what, who, why and mode of each lock held now, waiting up to `waitMs` for there
    // to be `count` of them.
    QList<QStringList> Locks(int count = -1, int waitMs = 0) const;
    // Sends the signal `member` of the service's `interface`; returns whether the mock took it.
    bool Emit(const QString& interface, const QString& member, const QString& signature,
              const QVariantList& arguments) const;

private:
    QDBusMessage Call(const QString& interface, const QString& method,
                      const QVariantList& arguments = {}) const;

    QString name, path;
    QProcess process;
    bool up = false;
};

}  // namespace Vexlor::Testing
