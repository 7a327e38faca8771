#pragma once

#include <chrono>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QString>
#include <QVariantList>

#include "platform/BusProbe.h"

namespace Vexlor::Platform::Bus {

// One bound shared by several steps: what is left of `timeout` from the moment of construction.
class Deadline {
public:
    explicit Deadline(std::chrono::milliseconds timeout);
    // Never negative.
    std::chrono::milliseconds Left() const;

private:
    std::chrono::steady_clock::time_point end;
};

// The session or system bus through QtDBus, but only once Probe has found that it answers,
// waiting at most `timeout` for that. Otherwise a connection that is not connected, on which
// every call fails at once. QDBusConnection::sessionBus() and systemBus() are called nowhere
// else: on a bus that does not answer they block without limit.
QDBusConnection Connect(Kind kind, std::chrono::milliseconds timeout);

struct Target {
    QString service;
    QString path;
    QString interface;
};

// One blocking method call that gives up after `timeout`. QDBusInterface is avoided on
// purpose: its constructor introspects the remote object with the default 25-second wait.
QDBusMessage Call(const QDBusConnection& bus, const Target& target, const QString& method,
                  const QVariantList& arguments, std::chrono::milliseconds timeout);

bool IsReply(const QDBusMessage& message);

// "name: text" of an error reply, for the log.
std::string Describe(const QDBusMessage& message);

// Whether `service` answers org.freedesktop.DBus.Peer.Ping, which the D-Bus library of every
// peer answers by itself, within `timeout`.
bool Answers(const QDBusConnection& bus, const QString& service, std::chrono::milliseconds timeout);

}  // namespace Vexlor::Platform::Bus
