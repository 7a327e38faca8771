#pragma once

#include <string>
#include <vector>

#include <glog/logging.h>

namespace Vexlor::Testing {

// Collects "SEVERITY: message" for what glog is asked to write while it exists. For tests
// that log from one thread only.
struct LogCapture : google::LogSink {
    LogCapture() { google::AddLogSink(this); }
    ~LogCapture() override { google::RemoveLogSink(this); }
    void send(google::LogSeverity severity, const char*, const char*, int, const struct ::tm*,
              const char* message, size_t length) override {
        entries.push_back(google::GetLogSeverityName(severity) +
                          (": " + std::string(message, length)));
    }

    std::vector<std::string> entries;
};

}  // namespace Vexlor::Testing
