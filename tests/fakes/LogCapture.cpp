#include "fakes/LogCapture.h"

namespace Vexlor::Testing {

LogCapture::LogCapture() {
    google::AddLogSink(this);
}

LogCapture::~LogCapture() {
    google::RemoveLogSink(this);
}

void LogCapture::send(google::LogSeverity severity, const char*, const char*, int,
                      const struct ::tm*, const char* message, size_t messageLen) {
    std::lock_guard<std::mutex> lock(mutex);
    entries.push_back({severity, std::string(message, messageLen)});
}

std::vector<LogCapture::Entry> LogCapture::Entries() const {
    std::lock_guard<std::mutex> lock(mutex);
    return entries;
}

}  // namespace Vexlor::Testing
