#include "platform/DBusNotificationPresenter.h"

#include <map>
#include <optional>
#include <utility>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QRegularExpression>
#include <QStringList>
#include <QVariantMap>

#include "BusCall.h"
#include "Logging.h"

namespace Vexlor::DesktopNotification {

namespace {

using Platform::Bus::Target;

const Target& Server() {
    static const Target target{QStringLiteral("org.freedesktop.Notifications"),
                               QStringLiteral("/org/freedesktop/Notifications"),
                               QStringLiteral("org.freedesktop.Notifications")};
    return target;
}

// Empty when the server did not answer.
std::optional<QStringList> QueryCapabilities(const QDBusConnection& bus,
                                             std::chrono::milliseconds timeout) {
    if (!bus.isConnected()) {
        return std::nullopt;
    }
    const QDBusMessage reply =
        Platform::Bus::Call(bus, Server(), QStringLiteral("GetCapabilities"), {}, timeout);
    if (!Platform::Bus::IsReply(reply) || reply.arguments().size() != 1) {
        return std::nullopt;
    }
    return reply.arguments().front().toStringList();
}

// Only what the body-markup subset treats as special; "&quot;" is not understood everywhere.
QString EscapeMarkup(const QString& text) {
    QString escaped;
    escaped.reserve(text.size());
    for (const QChar c : text) {
        if (c == QLatin1Char('&')) {
            escaped += QLatin1String("&amp;");
        } else if (c == QLatin1Char('<')) {
            escaped += QLatin1String("&lt;");
        } else if (c == QLatin1Char('>')) {
            escaped += QLatin1String("&gt;");
        } else {
            escaped += c;
        }
    }
    return escaped;
}

// Colour cannot be shown by any server of this protocol: the font tags go, their text stays.
// What remains is plain text; a server that reads markup gets it escaped.
QString BodyFor(QString text, bool serverReadsMarkup) {
    static const QRegularExpression fontTag(QStringLiteral("</?font\\b[^>]*>"),
                                            QRegularExpression::CaseInsensitiveOption);
    text.remove(fontTag);
    return serverReadsMarkup ? EscapeMarkup(text) : text;
}

}  // namespace

struct DBusNotificationPresenter::Impl {
    struct Shown {
        // Held so that the address used as key cannot be reused by another notice meanwhile.
        std::shared_ptr<INotification> notification;
        uint id;
    };

    QString appName;
    std::chrono::milliseconds timeout;
    std::map<const INotification*, Shown> shown;

    void Show(const std::shared_ptr<INotification>& notification) {
        // Asked at every notice: the server may have been replaced since the last one, and
        // one that does not answer this is not worth a Notify. Until the bus is known to
        // answer, checking it and asking share the one bound.
        const Platform::Bus::Deadline deadline(timeout);
        const QDBusConnection bus = Platform::Bus::Connect(Platform::Bus::Kind::Session, timeout);
        const std::optional<QStringList> capabilities = QueryCapabilities(bus, deadline.Left());
        if (!capabilities) {
            qCWarning(
                Platform::Bus::lcDBus,
                "DBusNotificationPresenter: no notification server answers; notice not shown");
            return;
        }
        const bool markup = capabilities->contains(QStringLiteral("body-markup"));

        const auto previous = shown.find(notification.get());
        const uint replacesId = previous == shown.end() ? 0u : previous->second.id;
        const QVariantList arguments{appName,
                                     replacesId,
                                     QString(),
                                     notification->GetTitleText(),
                                     BodyFor(notification->GetInformationText(), markup),
                                     QStringList(),
                                     QVariantMap(),
                                     0};
        const QDBusMessage reply =
            Platform::Bus::Call(bus, Server(), QStringLiteral("Notify"), arguments, timeout);
        if (!Platform::Bus::IsReply(reply) || reply.arguments().size() != 1 ||
            reply.arguments().front().userType() != QMetaType::UInt) {
            qCWarning(Platform::Bus::lcDBus, "DBusNotificationPresenter: Notify failed: %s",
                      Platform::Bus::Describe(reply).c_str());
            return;
        }
        shown[notification.get()] = Shown{notification, reply.arguments().front().toUInt()};
    }

    void Hide(const std::shared_ptr<INotification>& notification) {
        const auto entry = shown.find(notification.get());
        if (entry == shown.end()) {
            return;
        }
        const uint id = entry->second.id;
        // Forgotten whatever the server says: a server that lost it has nothing to close.
        shown.erase(entry);
        const Platform::Bus::Deadline deadline(timeout);
        const QDBusConnection bus = Platform::Bus::Connect(Platform::Bus::Kind::Session, timeout);
        const QDBusMessage reply = Platform::Bus::Call(
            bus, Server(), QStringLiteral("CloseNotification"), {id}, deadline.Left());
        if (!Platform::Bus::IsReply(reply)) {
            qCWarning(Platform::Bus::lcDBus,
                      "DBusNotificationPresenter: CloseNotification failed: %s",
                      Platform::Bus::Describe(reply).c_str());
        }
    }
};

DBusNotificationPresenter::DBusNotificationPresenter(QString appName,
                                                     std::chrono::milliseconds timeout)
    : impl(std::make_unique<Impl>()) {
    impl->appName = std::move(appName);
    impl->timeout = timeout;
}

DBusNotificationPresenter::~DBusNotificationPresenter() = default;

bool DBusNotificationPresenter::IsAvailable(std::chrono::milliseconds timeout) {
    const Platform::Bus::Deadline deadline(timeout);
    const QDBusConnection bus = Platform::Bus::Connect(Platform::Bus::Kind::Session, timeout);
    return QueryCapabilities(bus, deadline.Left()).has_value();
}

std::shared_ptr<DBusNotificationPresenter> DBusNotificationPresenter::Create(
    const QString& appName, std::chrono::milliseconds timeout) {
    if (!IsAvailable(timeout)) {
        return nullptr;
    }
    return std::make_shared<DBusNotificationPresenter>(appName, timeout);
}

void DBusNotificationPresenter::Show(std::shared_ptr<INotification> notification) {
    if (notification) {
        impl->Show(notification);
    }
}

void DBusNotificationPresenter::Hide(std::shared_ptr<INotification> notification) {
    if (notification) {
        impl->Hide(notification);
    }
}

bool DBusNotificationPresenter::SupportsFeature(int) const {
    // The only feature asked about is colour, which the protocol's markup lacks.
    return false;
}

}  // namespace Vexlor::DesktopNotification
