#pragma once

#include <chrono>
#include <memory>

#include <QString>

#include "interfaces/DesktopNotification.h"
#include "vexlor_platform_dbus_export.h"

namespace Vexlor::DesktopNotification {

// Puts notices on the desktop through the session bus's notification server
// (org.freedesktop.Notifications). A notice stays until Hide withdraws it.
//
// Every call waits at most `timeout` for an answer. A server that is gone or stuck costs that
// wait and a warning; nothing hangs and nothing throws. The session bus is used only once
// Platform::Bus::Probe has found that it answers (checked once per process).
//
// The server's body markup has no colour, so SupportsFeature(RichTextColor) is always false and
// the notice's text arrives as plain text. Colour tags that reach Show anyway are dropped. When
// the server announces "body-markup", the body is escaped so that text such as a recording
// title shows as written; the summary is plain text in the protocol and goes out unchanged.
// Destroying the presenter leaves notices on the screen: withdrawing them is the owner's call.
class VEXLOR_PLATFORM_DBUS_EXPORT DBusNotificationPresenter : public IPresenter {
public:
    static constexpr std::chrono::milliseconds DefaultTimeout{2000};

    // `appName` is the program's name as the server shows it.
    explicit DBusNotificationPresenter(QString appName,
                                       std::chrono::milliseconds timeout = DefaultTimeout);
    ~DBusNotificationPresenter() override;
    DBusNotificationPresenter(const DBusNotificationPresenter&) = delete;
    DBusNotificationPresenter& operator=(const DBusNotificationPresenter&) = delete;

    // True when a notification server answers on the session bus within `timeout`.
    static bool IsAvailable(std::chrono::milliseconds timeout = DefaultTimeout);

    // A presenter, or null when no notification server answers within `timeout`.
    static std::shared_ptr<DBusNotificationPresenter> Create(
        const QString& appName, std::chrono::milliseconds timeout = DefaultTimeout);

    // Showing a notice that is already out replaces it in place instead of stacking a second.
    void Show(std::shared_ptr<INotification> notification) override;
    // Withdraws a notice shown earlier; an unknown notice is ignored.
    void Hide(std::shared_ptr<INotification> notification) override;
    bool SupportsFeature(int feature) const override;

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

}  // namespace Vexlor::DesktopNotification
