#pragma once

namespace Vexlor::QK {

// Types of the application's capture module. The scheduler passes them through and never
// looks inside.
class IProject {
public:
    virtual ~IProject() = default;
};

struct CaptureSettings {};
struct Provider {};

enum class CapturePauseReason : int { User = 0, System = 1 };
enum class CaptureStopReason : int { User = 0, DurationLimit = 1, Error = 2, Scheduled = 3 };

}  // namespace Vexlor::QK
