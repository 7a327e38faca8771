#pragma once

#include <chrono>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QString>
#include <QVariantList>

namespace Vexlor::Platform::Bus {

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
