#include "NotificationHelperImpl.h"

#include <chrono>
#include <ctime>
#include <exception>
#include <string>
#include <utility>

#include <glog/logging.h>
#include <QCoreApplication>
#include <QDateTime>
#include <QLocale>
#include <QObject>

#include "core/Saturating.h"

namespace Vexlor::DesktopNotification::Notification {

Information::Information(QString titleText, QString informationText)
    : titleText(std::move(titleText)), informationText(std::move(informationText)) {}

Information::~Information() = default;

QString Information::GetAcceptButtonText() const {
    return QString();
}

QString Information::GetRejectButtonText() const {
    return QObject::tr("Close");
}

QString Information::GetTitleText() const {
    return titleText;
}

QString Information::GetInformationText() const {
    return informationText;
}

bool Information::HasAcceptButton() const {
    return false;
}

void Information::Accept() {}

void Information::Reject() {}

}  // namespace Vexlor::DesktopNotification::Notification

namespace Vexlor::QK {

namespace {

const QString TIME_COLOR = QStringLiteral("#00bef9");

using namespace std::chrono_literals;

// Both bounds of the notice interval belong to it.
constexpr Time::Microseconds NOTICE_LEAD_MAX = 4h + 30min;
constexpr Time::Microseconds NOTICE_LEAD_MIN = 3h + 30min;
constexpr Time::Microseconds WITHDRAW_LEAD = 30s;

}  // namespace

NotificationHelper::Impl::Impl(
    const std::shared_ptr<ICaptureSchedulerSettings>& settings,
    const std::shared_ptr<App::ICustomizationManager>& customizationManager,
    const std::shared_ptr<App::ILookAndFeelManager>& lookAndFeelManager)
    : settings(settings),
      customizationManager(customizationManager),
      lookAndFeelManager(lookAndFeelManager),
      presenter(DesktopNotification::Presenter::Factory::GetInstance()
                    .CreateNativePresenterOrCustomWithParams(
                        0, 1, QStringLiteral("SchedulerNotifications"))) {
    timer.setInterval(CHECK_INTERVAL);
    timer.setSingleShot(false);
    // The timer is the context object, so the connection dies with it and no tick can
    // reach a half-destroyed Impl.
    QObject::connect(
        &timer, &QTimer::timeout, &timer, [this] { OnTimeout(); }, Qt::DirectConnection);
    timer.start();
}

NotificationHelper::Impl::~Impl() = default;

void NotificationHelper::Impl::OnTimeout() {
    // An exception must not unwind through the Qt event loop; the next tick tries again.
    try {
        ShowScheduleNotification();
    } catch (const std::exception& error) {
        LOG(ERROR) << __PRETTY_FUNCTION__ << ": Schedule check failed: " << error.what();
    } catch (...) {
        LOG(ERROR) << __PRETTY_FUNCTION__ << ": Schedule check failed: unknown exception";
    }
}

void NotificationHelper::Impl::ShowScheduleNotification() {
    const RecordTimeList schedule = settings->GetSchedule();
    if (schedule.empty()) {
        Withdraw();
        return;
    }

    // The stored order decides which record is first; it is deliberately not searched.
    const RecordTime& first = schedule.front();
    const Time::TimePoint now = Time::SystemClock().Now();
    const Time::Microseconds lead = Core::SaturatingDiff(first.startTime, now);

    if (lead <= WITHDRAW_LEAD) {
        Withdraw();
        return;
    }
    if (lead < NOTICE_LEAD_MIN || lead > NOTICE_LEAD_MAX) {
        return;
    }
    if (first.startTime != lastStartTime) {
        lastStartTime = first.startTime;
        // A notice on the screen is about another recording; this one's follows on the
        // next tick.
        if (Withdraw()) {
            return;
        }
    }
    if (notificationShown) {
        return;
    }
    notification = MakeNotification(first);
    presenter->Show(notification);
    notificationShown = true;
}

bool NotificationHelper::Impl::Withdraw() {
    if (!notificationShown) {
        return false;
    }
    presenter->Hide(notification);
    notificationShown = false;
    return true;
}

std::shared_ptr<DesktopNotification::INotification> NotificationHelper::Impl::MakeNotification(
    const RecordTime& record) const {
    const QString text = QCoreApplication::translate(
        "SchedulerNotifications",
        "A recording is scheduled for %1. Don't turn off your PC and configure your capture "
        "area.");

    // Only the time of day is shown, in the local time zone.
    const std::time_t seconds = Time::SystemClock().ToTimeT(record.startTime);
    const QDateTime startTime = QDateTime::fromTime_t(static_cast<uint>(seconds));

    QString frame = QStringLiteral("%1");
    if (presenter->SupportsFeature(DesktopNotification::RichTextColor)) {
        frame = QStringLiteral("<font color='%1'>%2</font>").arg(TIME_COLOR);
    }

    const std::string& language = lookAndFeelManager->GetLanguage();
    const QLocale locale(QString::fromUtf8(language.data(), static_cast<int>(language.size())));
    const QString timeText = locale.toString(
        startTime.time(), QCoreApplication::translate("SchedulerNotifications", "hh:mm"));

    const std::string title = customizationManager->GetApplicationTitle();
    return std::make_shared<DesktopNotification::Notification::Information>(
        QString::fromUtf8(title.data(), static_cast<int>(title.size())),
        text.arg(frame.arg(timeText)));
}

NotificationHelper::NotificationHelper(
    const std::shared_ptr<ICaptureSchedulerSettings>& settings,
    const std::shared_ptr<App::ICustomizationManager>& customizationManager,
    const std::shared_ptr<App::ILookAndFeelManager>& lookAndFeelManager)
    : impl(std::make_unique<Impl>(settings, customizationManager, lookAndFeelManager)) {}

NotificationHelper::~NotificationHelper() = default;

}  // namespace Vexlor::QK
