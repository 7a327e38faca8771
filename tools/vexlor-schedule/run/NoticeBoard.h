#pragma once

#include <map>
#include <memory>

#include <QList>

#include "interfaces/DesktopNotification.h"
#include "schedule/EditRequest.h"

namespace Vexlor::ScheduleTool {

// Keeps what the presenters it wraps have on the screen, for `status`.
class NoticeBoard {
public:
    DesktopNotification::Presenter::Factory::Creator Watch(
        DesktopNotification::Presenter::Factory::Creator inner);

    QList<LiveNotice> Shown() const;

private:
    using Map = std::map<const DesktopNotification::INotification*, LiveNotice>;
    class Watcher;

    // Shared with the presenters, which the factory's users may keep past the session.
    std::shared_ptr<Map> shown = std::make_shared<Map>();
};

}  // namespace Vexlor::ScheduleTool
