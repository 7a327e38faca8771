#include "store/FileLock.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <thread>

#include <QFile>

namespace Vexlor::ScheduleTool {

FileLock::~FileLock() {
    Release();
}

void FileLock::Release() {
    if (fd >= 0) {
        ::close(fd);  // also drops the flock
        fd = -1;
    }
}

std::optional<FileLock> FileLock::TryTake(const QString& path, bool writePid) {
    const QByteArray name = QFile::encodeName(path);
    const int fd = ::open(name.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        throw std::runtime_error("cannot open the lock file " + name.toStdString() + ": " +
                                 std::strerror(errno));
    }
    FileLock lock(fd);
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK || errno == EINTR) {
            return std::nullopt;
        }
        throw std::runtime_error("cannot lock " + name.toStdString() + ": " + std::strerror(errno));
    }
    if (writePid) {
        const QByteArray pid = QByteArray::number(static_cast<qlonglong>(::getpid())) + '\n';
        if (::ftruncate(fd, 0) == 0) {
            [[maybe_unused]] const ssize_t written = ::pwrite(fd, pid.constData(), pid.size(), 0);
        }
    }
    return lock;
}

FileLock FileLock::Take(const QString& path, std::chrono::milliseconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    for (;;) {
        if (auto lock = TryTake(path)) {
            return std::move(*lock);
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            throw std::runtime_error("the schedule stayed locked by another process for " +
                                     std::to_string(patience.count() / 1000) + " s (" +
                                     QFile::encodeName(path).toStdString() + ")");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

long long FileLock::HolderPid(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return 0;
    }
    return file.readLine(32).trimmed().toLongLong();
}

}  // namespace Vexlor::ScheduleTool
