#include "platform/IniSettingsManager.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>

#include <QByteArray>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QVariant>

namespace Vexlor::App {

namespace {

const char* StatusText(QSettings::Status status) {
    switch (status) {
        case QSettings::NoError:
            return "no error";
        case QSettings::AccessError:
            return "access error";
        case QSettings::FormatError:
            return "format error";
    }
    return "unknown error";
}

// QSettings' lock file is created empty, locked (flock) and then filled in. A writer killed
// in between leaves an empty file that QSettings only takes for stale after 30 s, stalling
// the next write that long. An empty lock file that nobody holds and that is older than
// any live writer's create-to-fill moment is such a leftover; it is removed the way Qt
// removes stale locks (holding the native lock while unlinking).
void RemoveAbandonedLockFiles(const QString& path) {
    constexpr auto SETTLE_TIME = std::chrono::milliseconds(100);
    for (const QString& suffix : {QStringLiteral(".lock"), QStringLiteral(".lock.rmlock")}) {
        const QByteArray lockPath = QFile::encodeName(path + suffix);
        for (int attempt = 0; attempt < 3; ++attempt) {
            const int fd = ::open(lockPath.constData(), O_RDWR | O_CLOEXEC);
            if (fd < 0) {
                break;
            }
            struct stat info {};
            bool young = false;
            if (::flock(fd, LOCK_EX | LOCK_NB) == 0 && ::fstat(fd, &info) == 0 &&
                info.st_size == 0) {
                timespec now{};
                ::clock_gettime(CLOCK_REALTIME, &now);
                const auto age = std::chrono::seconds(now.tv_sec - info.st_mtim.tv_sec) +
                                 std::chrono::nanoseconds(now.tv_nsec - info.st_mtim.tv_nsec);
                if (age >= SETTLE_TIME) {
                    ::unlink(lockPath.constData());
                } else {
                    young = true;
                }
            }
            ::close(fd);
            if (!young) {
                break;
            }
            std::this_thread::sleep_for(SETTLE_TIME);
        }
    }
}

// One QSettings per operation: QSettings keeps its first error forever, so a long-lived one
// could not tell a failure now from one long past. Opening re-reads the file if it changed
// since this process last read it, which is how other processes' writes become visible.
class SettingsFile {
public:
    SettingsFile(const QString& path, const char* operation)
        : path(path), settings(path, QSettings::IniFormat) {
        // Never fall back to rewriting the file in place, which a crash could leave torn.
        settings.setAtomicSyncRequired(true);
        Check(operation);
    }

    QSettings* operator->() { return &settings; }

    // Writes pending changes through a temporary file and a rename, then makes the rename
    // itself durable.
    void Commit(const char* operation) {
        RemoveAbandonedLockFiles(path);
        settings.sync();
        Check(operation);
        SyncDirectory();
    }

private:
    void Check(const char* operation) const {
        if (settings.status() != QSettings::NoError) {
            throw std::runtime_error(std::string("settings file ") + path.toStdString() + ": " +
                                     operation + " failed (" + StatusText(settings.status()) + ")");
        }
    }

    // Best effort: the data is already synced; some file systems refuse fsync on a directory.
    void SyncDirectory() const {
        const QByteArray directory = QFile::encodeName(QFileInfo(path).absolutePath());
        const int fd = ::open(directory.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd >= 0) {
            ::fsync(fd);
            ::close(fd);
        }
    }

    QString path;
    QSettings settings;
};

QString ToKey(const std::string& key) {
    return QString::fromStdString(key);
}

}  // namespace

IniSettingsManager::IniSettingsManager(const QString& filePath) : path(filePath) {}

IniSettingsManager::~IniSettingsManager() = default;

void IniSettingsManager::setBool(const std::string& key, bool value) {
    SettingsFile file(path, "write");
    file->setValue(ToKey(key), value);
    file.Commit("write");
}

void IniSettingsManager::setByteArray(const std::string& key,
                                      const std::vector<unsigned char>& value) {
    if (value.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        throw std::length_error("settings value too large for key " + key);
    }
    SettingsFile file(path, "write");
    // Stored as a QByteArray variant, which the INI format keeps byte for byte.
    file->setValue(ToKey(key), QByteArray(reinterpret_cast<const char*>(value.data()),
                                          static_cast<int>(value.size())));
    file.Commit("write");
}

bool IniSettingsManager::getBool(const std::string& key, bool defaultValue) const {
    SettingsFile file(path, "read");
    return file->value(ToKey(key), defaultValue).toBool();
}

std::vector<unsigned char> IniSettingsManager::getByteArray(
    const std::string& key, const std::vector<unsigned char>& defaultValue) const {
    SettingsFile file(path, "read");
    const QVariant value = file->value(ToKey(key));
    if (!value.isValid()) {
        return defaultValue;
    }
    const QByteArray bytes = value.toByteArray();
    return std::vector<unsigned char>(bytes.constBegin(), bytes.constEnd());
}

bool IniSettingsManager::contains(const std::string& key) const {
    SettingsFile file(path, "read");
    return file->contains(ToKey(key));
}

void IniSettingsManager::remove(const std::string& key) {
    SettingsFile file(path, "write");
    file->remove(ToKey(key));
    file.Commit("write");
}

}  // namespace Vexlor::App
