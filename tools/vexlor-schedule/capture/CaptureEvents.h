#pragma once

#include <QString>

#include "interfaces/RecordTime.h"

namespace Vexlor::ScheduleTool {

// What the capture controller tells whoever runs it, as it happens.
class ICaptureEvents {
public:
    virtual ~ICaptureEvents() = default;

    // A request that was ignored, or a stop that came before the capture began.
    virtual void CaptureNote(const QString& text) = 0;
    virtual void RecordingRequested() = 0;
    // `file`, if any, is where the capture goes; `note`, if any, why it began late.
    virtual void RecordingStarted(const QK::RecordTime& record, const QString& file,
                                  const QString& note) = 0;
    virtual void RecordingFinished(const QString& title, const QString& how) = 0;
};

}  // namespace Vexlor::ScheduleTool
