#include "cli/Requests.h"

#include "base/WallTime.h"
#include "core/Saturating.h"

namespace Vexlor::ScheduleTool {

EditRequest MakeEditRequest(const Invocation& invocation, Time::TimePoint now) {
    EditRequest request;
    request.command = invocation.command;
    if (invocation.command == CommandName::Add) {
        const AddOptions& add = invocation.add;
        request.record.title = add.title;
        request.record.startTime = add.at ? *add.at : Core::SaturatingAdd(now, *add.in);
        request.record.duration = add.duration;
        request.record.tag = add.tag;
        request.record.mode = static_cast<QK::RecordMode>(add.mode);
        request.allowOverlap = add.allowOverlap;
        request.enable = add.enable;
        if (add.repeat) {
            request.rule = *add.repeat;
            // Whole seconds on the local clock, not before the moment asked for.
            request.wallStart = add.at ? add.atWall
                                       : WallTimeAt(Core::SaturatingAdd(request.record.startTime,
                                                                        Time::Microseconds(999999)),
                                                    QString());
        }
    }
    request.title = invocation.removeTitle;
    request.count = invocation.count;
    request.json = invocation.json;
    return request;
}

}  // namespace Vexlor::ScheduleTool
