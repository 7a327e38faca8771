#pragma once

#include <optional>
#include <stdexcept>
#include <string>

#include <QByteArray>
#include <QString>

namespace Vexlor::ScheduleTool {

// The keys this program writes: the scheduler settings' own, as the module writes them, and
// the runner's plans.
struct SettingsKeys {
    std::string schedule;
    std::string enabled;
    std::string plans;
};
const SettingsKeys& OurKeys();

// A file that --settings named by mistake (notes, JSON, a video): it is neither read as an
// empty schedule nor written over.
class NotASettingsFile : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Why `bytes` are not a settings file of ours, or nothing when they are one: empty, or UTF-8
// text in the INI format that QSettings writes, each line a section, a key=value line, blank
// or a comment (';'), with our keys and the sections that hold them alone.
std::optional<QString> WhyNotASettingsFile(const QByteArray& bytes);

// Throws NotASettingsFile ("PATH is not a settings file: WHY") unless the file at `path` is
// missing or one of ours. What is no regular file, or cannot be read, passes: reading or
// writing it fails with the system's reason.
void CheckSettingsFile(const QString& path);

}  // namespace Vexlor::ScheduleTool
