#pragma once

#include <functional>
#include <memory>

#include <QString>

#include "interfaces/DesktopNotification.h"
#include "interfaces/PowerManager.h"

namespace Vexlor::ScheduleTool {

enum class NoticeChoice { Desktop, Console, None };

// The places where a desktop back-end is chosen. The wiring of `run` only asks these for a
// power manager and a presenter creator, so other back-ends plug in here alone. A desktop
// back-end whose service does not answer gives one warning on standard error and the
// printing stand-in instead.

// Without --notify: Desktop when the process runs in a desktop session, that is when any of
// DBUS_SESSION_BUS_ADDRESS, WAYLAND_DISPLAY, DISPLAY or XDG_CURRENT_DESKTOP is set and not
// empty; Console otherwise, and always in a build without D-Bus.
NoticeChoice DefaultNoticeChoice();

// Told each time a logind sleep lock is taken (true) or released (false). Without a lock
// nothing is reported, since nothing keeps the machine awake.
using SleepCallback = std::function<void(bool sleepPrevented)>;

// With `keepAwake`, a logind sleep lock when logind answers on the system bus; otherwise,
// after one warning when `keepAwake` asked for a lock, a manager that only keeps the state.
// Waits at most 2 s for the system bus and logind.
std::shared_ptr<App::IPowerManager> MakePowerManager(bool keepAwake, SleepCallback onChange);

// Calls `onSleep` with true when logind is about to put the machine to sleep and with false
// once it woke up, until the returned holder is dropped; null without a system bus (or D-Bus).
std::shared_ptr<void> WatchSleep(std::function<void(bool goingToSleep)> onSleep);

// `report` receives one line for each notice shown or withdrawn. With Desktop this starts
// checking the session bus in the background at once; called before MakePowerManager, the two
// buses are checked side by side. The creator waits for what is left of that check.
DesktopNotification::Presenter::Factory::Creator MakePresenterCreator(
    NoticeChoice choice, std::function<void(const QString&)> report);

}  // namespace Vexlor::ScheduleTool
