#include "BusCall.h"

#include <algorithm>
#include <climits>

namespace Vexlor::Platform::Bus {

Deadline::Deadline(std::chrono::milliseconds timeout)
    : end(std::chrono::steady_clock::now() + timeout) {}

std::chrono::milliseconds Deadline::Left() const {
    const auto left = end - std::chrono::steady_clock::now();
    return std::max(std::chrono::milliseconds::zero(),
                    std::chrono::ceil<std::chrono::milliseconds>(left));
}

QDBusConnection Connect(Kind kind, std::chrono::milliseconds timeout) {
    if (!Probe::Of(kind, timeout).Answered()) {
        return QDBusConnection(QString());  // an empty name: no connection
    }
    return kind == Kind::Session ? QDBusConnection::sessionBus() : QDBusConnection::systemBus();
}

QDBusMessage Call(const QDBusConnection& bus, const Target& target, const QString& method,
                  const QVariantList& arguments, std::chrono::milliseconds timeout) {
    QDBusMessage message =
        QDBusMessage::createMethodCall(target.service, target.path, target.interface, method);
    message.setArguments(arguments);
    // QtDBus reads a timeout of -1 or less as "the default"; keep ours at one millisecond or more.
    const auto ms = std::clamp<long long>(timeout.count(), 1, INT_MAX);
    return bus.call(message, QDBus::Block, static_cast<int>(ms));
}

bool IsReply(const QDBusMessage& message) {
    return message.type() == QDBusMessage::ReplyMessage;
}

std::string Describe(const QDBusMessage& message) {
    if (message.type() != QDBusMessage::ErrorMessage) {
        return "unexpected answer";
    }
    return (message.errorName() + QStringLiteral(": ") + message.errorMessage()).toStdString();
}

bool Answers(const QDBusConnection& bus, const QString& service,
             std::chrono::milliseconds timeout) {
    if (!bus.isConnected()) {
        return false;
    }
    // An empty path is refused by QtDBus; any object path will do for Peer.
    const Target peer{service, QStringLiteral("/"), QStringLiteral("org.freedesktop.DBus.Peer")};
    return IsReply(Call(bus, peer, QStringLiteral("Ping"), {}, timeout));
}

}  // namespace Vexlor::Platform::Bus
