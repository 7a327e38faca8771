#include "platform/IniSettingsManager.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <limits>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

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

// QSettings only says that a read or a write failed. The system's reason comes from repeating
// the steps it takes by hand: each returns the errno of the first one that fails now, or 0.

// Reading: a file that is missing reads as empty, anything else must open and read.
int ReadFailure(const QString& path) {
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return errno == ENOENT ? 0 : errno;
    }
    int error = 0;
    char buffer[16384];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            error = errno;
        }
        if (got <= 0) {
            break;
        }
    }
    ::close(fd);
    return error;
}

// Writing: QSettings opens an existing file for reading and writing, then writes the new
// contents to a temporary file in the same folder and renames it over the file. The test file
// gets `bytes` bytes, at least what the new contents need, is synced when `sync` is set, and
// is removed again.
int WriteFailure(const QString& path, std::size_t bytes, bool sync) {
    const QByteArray file = QFile::encodeName(path);
    const int existing = ::open(file.constData(), O_RDWR | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (existing >= 0) {
        ::close(existing);
    } else if (errno != ENOENT) {
        return errno;
    }
    const QByteArray folder = QFile::encodeName(QFileInfo(path).absolutePath());
    const int folderFd = ::open(folder.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folderFd < 0) {
        return errno;
    }
    ::close(folderFd);
    QByteArray temporary = file + ".write-test-XXXXXX";
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    int error = 0;
    const std::vector<char> chunk(std::min<std::size_t>(bytes, 65536), '\n');
    for (std::size_t written = 0; written < bytes && error == 0;) {
        const ssize_t put = ::write(fd, chunk.data(), std::min(chunk.size(), bytes - written));
        if (put >= 0) {
            written += static_cast<std::size_t>(put);
        } else if (errno != EINTR) {
            error = errno;
        }
    }
    if (error == 0 && sync && ::fsync(fd) != 0) {
        error = errno;
    }
    if (::close(fd) != 0 && error == 0) {
        error = errno;
    }
    ::unlink(temporary.constData());
    return error;
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

    // Makes `change` and writes it through a temporary file and a rename, then makes the
    // rename itself durable. `growth` is at most how much longer the change makes the file.
    //
    // Qt 5 takes a short write for a whole one: on a disk with too little room QSettings
    // reports success and renames a file cut short over the old one. And a change that fails
    // to sync stays in QSettings' per-process cache of the file, where later reads see it and
    // a later write stores it. So the room is checked before the change is made (without
    // fsync, which is not where a short write comes from). Another process filling the disk
    // between the check and the write can still beat it.
    template <typename Change>
    void Edit(const char* operation, std::size_t growth, Change change) {
        const QFileInfo current(path);
        const std::size_t bytes =
            static_cast<std::size_t>(current.isFile() ? current.size() : 0) + growth;
        // A missing folder is for QSettings to make.
        if (QFileInfo(current.absolutePath()).isDir()) {
            if (const int error = WriteFailure(path, bytes, false)) {
                Fail(operation, error, QSettings::AccessError);
            }
        }
        change(settings);
        RemoveAbandonedLockFiles(path);
        settings.sync();
        Check(operation, bytes);
        SyncDirectory();
    }

private:
    static constexpr std::size_t NOT_WRITING = std::numeric_limits<std::size_t>::max();

    // `bytes`: what the write needs at most, when the failure may be the write's.
    void Check(const char* operation, std::size_t bytes = NOT_WRITING) const {
        const QSettings::Status status = settings.status();
        if (status == QSettings::NoError) {
            return;
        }
        int error = 0;
        if (status == QSettings::AccessError && bytes != NOT_WRITING) {
            error = WriteFailure(path, std::max<std::size_t>(bytes, 1), true);
        }
        if (status == QSettings::AccessError && error == 0) {
            error = ReadFailure(path);
        }
        Fail(operation, error, status);
    }

    [[noreturn]] void Fail(const char* operation, int error, QSettings::Status status) const {
        std::string message = "settings file " + path.toStdString() + ": " + operation + " failed";
        if (error != 0) {
            message += ": " + std::generic_category().message(error);
        } else {
            message += std::string(" (") + StatusText(status) + ")";
        }
        throw std::runtime_error(message);
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

// At most the bytes that storing a value of `valueBytes` bytes under `key` adds to the file:
// the INI format escapes a byte in up to four and a key character in up to three, and a new
// group adds a header line.
std::size_t EntryBytes(const std::string& key, std::size_t valueBytes) {
    return 3 * key.size() + 4 * valueBytes + 32;
}

}  // namespace

IniSettingsManager::IniSettingsManager(const QString& filePath) : path(filePath) {}

IniSettingsManager::~IniSettingsManager() = default;

void IniSettingsManager::setBool(const std::string& key, bool value) {
    SettingsFile file(path, "write");
    file.Edit("write", EntryBytes(key, 5),
              [&](QSettings& settings) { settings.setValue(ToKey(key), value); });
}

void IniSettingsManager::setByteArray(const std::string& key,
                                      const std::vector<unsigned char>& value) {
    if (value.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        throw std::length_error("settings value too large for key " + key);
    }
    SettingsFile file(path, "write");
    file.Edit("write", EntryBytes(key, value.size()), [&](QSettings& settings) {
        // Stored as a QByteArray variant, which the INI format keeps byte for byte.
        settings.setValue(ToKey(key), QByteArray(reinterpret_cast<const char*>(value.data()),
                                                 static_cast<int>(value.size())));
    });
}

bool IniSettingsManager::getBool(const std::string& key, bool defaultValue) const {
    SettingsFile file(path, "read");
    const QVariant value = file->value(ToKey(key));
    if (!value.isValid()) {
        return defaultValue;
    }
    if (value.userType() == QMetaType::Bool) {
        return value.toBool();
    }
    // Read back from the file a flag is text, and QVariant would take any text but "", "0" and
    // "false" for true: a hand-edited "maybe" must not switch anything on.
    const QString text = value.userType() == QMetaType::QStringList
                             ? value.toStringList().join(QStringLiteral(", "))
                             : value.toString();
    if (text.compare(QLatin1String("true"), Qt::CaseInsensitive) == 0 ||
        text == QLatin1String("1")) {
        return true;
    }
    if (text.compare(QLatin1String("false"), Qt::CaseInsensitive) == 0 ||
        text == QLatin1String("0")) {
        return false;
    }
    throw std::runtime_error("settings file " + path.toStdString() + ": " + key + " holds \"" +
                             text.toStdString() + "\", which is neither true nor false");
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
    file.Edit("write", 0, [&](QSettings& settings) { settings.remove(ToKey(key)); });
}

}  // namespace Vexlor::App
