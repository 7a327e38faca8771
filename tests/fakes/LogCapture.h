#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <glog/logging.h>

namespace Vexlor::Testing {

// Collects what glog is asked to write while it exists.
class LogCapture : public google::LogSink {
public:
    struct Entry {
        google::LogSeverity severity;
        std::string message;
    };

    LogCapture();
    ~LogCapture() override;

    void send(google::LogSeverity severity, const char* fullFilename, const char* baseFilename,
              int line, const struct ::tm* tmTime, const char* message, size_t messageLen) override;

    std::vector<Entry> Entries() const;

private:
    mutable std::mutex mutex;
    std::vector<Entry> entries;
};

}  // namespace Vexlor::Testing
