#pragma once

#include <chrono>
#include <memory>

#include <QString>
#include <QTimer>

#include "Scheduler/NotificationHelper.h"
#include "core/NotNull.h"
#include "interfaces/Clock.h"
#include "interfaces/DesktopNotification.h"

namespace Vexlor::DesktopNotification::Notification {

// A notice with a title, a text and a single "Close" button that reports to nobody.
class Information : public virtual INotification {
public:
    Information(QString titleText, QString informationText);
    ~Information() override;

    QString GetAcceptButtonText() const override;
    QString GetRejectButtonText() const override;
    QString GetTitleText() const override;
    QString GetInformationText() const override;
    bool HasAcceptButton() const override;
    void Accept() override;
    void Reject() override;

private:
    const QString titleText;
    const QString informationText;
};

}  // namespace Vexlor::DesktopNotification::Notification

namespace Vexlor::QK {

class NotificationHelper::Impl {
public:
    static constexpr std::chrono::milliseconds CHECK_INTERVAL{10000};

    Impl(const std::shared_ptr<ICaptureSchedulerSettings>& settings,
         const std::shared_ptr<App::ICustomizationManager>& customizationManager,
         const std::shared_ptr<App::ILookAndFeelManager>& lookAndFeelManager);
    ~Impl();

    // One check of the stored schedule; run by the timer.
    void ShowScheduleNotification();
    // Hides the notice on the screen, if any; true when there was one.
    bool Withdraw();
    // The timer's slot: a tick that keeps any exception away from the event loop.
    void OnTimeout();

    std::shared_ptr<DesktopNotification::INotification> MakeNotification(
        const RecordTime& record) const;

    // Field order matters: null services are refused in this order, and destruction runs
    // in reverse, so the timer stops before anything it uses goes away.
    Core::NotNull<std::shared_ptr<ICaptureSchedulerSettings>> settings;
    Core::NotNull<std::shared_ptr<App::ICustomizationManager>> customizationManager;
    Core::NotNull<std::shared_ptr<App::ILookAndFeelManager>> lookAndFeelManager;
    std::shared_ptr<DesktopNotification::IPresenter> presenter;
    std::shared_ptr<DesktopNotification::INotification> notification;
    Time::TimePoint lastStartTime{};
    bool notificationShown = false;
    QTimer timer;
};

}  // namespace Vexlor::QK
