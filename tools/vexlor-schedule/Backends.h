#pragma once

#include <functional>
#include <memory>

#include <QString>

#include "CommandLine.h"
#include "interfaces/DesktopNotification.h"
#include "interfaces/PowerManager.h"

namespace Vexlor::ScheduleTool {

// The two places where a desktop back-end is chosen. The wiring of `run` only asks these
// for a power manager and a presenter creator, so other back-ends plug in here alone.

// `onChange` is told each time the keep-awake state really changes.
std::shared_ptr<App::IPowerManager> MakePowerManager(std::function<void(bool)> onChange);

// `report` receives each line that a console presenter writes.
DesktopNotification::Presenter::Factory::Creator MakePresenterCreator(
    NoticeChoice choice, std::function<void(const QString&)> report);

}  // namespace Vexlor::ScheduleTool
