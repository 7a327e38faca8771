#pragma once

#include <chrono>
#include <optional>

#include <QString>

namespace Vexlor::ScheduleTool {

// An exclusive flock() on a lock file. The kernel drops it with the process, so a killed
// holder leaves no stale lock behind. The descriptor is close-on-exec: captures started
// while it is held do not inherit it.
class FileLock {
public:
    FileLock(FileLock&& other) noexcept : fd(other.fd) { other.fd = -1; }
    FileLock& operator=(FileLock&& other) noexcept {
        if (this != &other) {
            Release();
            fd = other.fd;
            other.fd = -1;
        }
        return *this;
    }
    FileLock(const FileLock&) = delete;
    ~FileLock();

    // Nothing when another process holds it; throws std::runtime_error, with the system's
    // reason, when the lock file cannot be opened. With `writePid`, the holder's process id
    // is written into the file, for the message of the next one that finds it taken.
    static std::optional<FileLock> TryTake(const QString& path, bool writePid = false);
    // Waits up to `patience`, then throws std::runtime_error.
    static FileLock Take(const QString& path, std::chrono::milliseconds patience);
    // The process id that the holder wrote, or 0.
    static long long HolderPid(const QString& path);

    void Release();

private:
    explicit FileLock(int fd) : fd(fd) {}
    int fd;
};

}  // namespace Vexlor::ScheduleTool
