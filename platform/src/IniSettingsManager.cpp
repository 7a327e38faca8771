#include "platform/IniSettingsManager.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <variant>
#include <vector>

#include <QByteArray>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QSettings>
#include <QStringList>
#include <QVariant>

namespace Vexlor::App {

// What one full read of the file found.
struct IniSettingsManager::Snapshot {
    struct stat status {};
    bool trusted = false;  // the file last changed long enough before it was read
    QByteArray bytes;
    QMap<QString, QVariant> values;  // by key as QSettings normalises it
};

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

// Reads `fd` to its end, appending to `bytes`: the errno of a failed read, or 0.
int ReadToEnd(int fd, QByteArray& bytes) {
    for (;;) {
        if (bytes.size() == bytes.capacity()) {
            bytes.reserve(std::max(bytes.capacity() * 2, 16384));
        }
        const ssize_t got = ::read(fd, bytes.data() + bytes.size(),
                                   static_cast<size_t>(bytes.capacity() - bytes.size()));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return got < 0 ? errno : 0;
        }
        bytes.resize(bytes.size() + static_cast<int>(got));
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
    QByteArray bytes;
    const int error = ReadToEnd(fd, bytes);
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

// As QSettings looks keys up: no empty sections, so no leading, trailing or doubled '/'.
QString NormalisedKey(const std::string& key) {
    return ToKey(key).split(QLatin1Char('/'), Qt::SkipEmptyParts).join(QLatin1Char('/'));
}

bool SameTime(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// Every change to a file's contents sets its change time, which nobody can set back.
bool SameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           SameTime(a.st_mtim, b.st_mtim) && SameTime(a.st_ctim, b.st_ctim);
}

// QSettings keeps each file it parsed and parses it again only when the size or the
// modification time (in ms) differ, so it would miss a rewrite in place that keeps both. The
// bytes read are therefore parsed from a scratch file of the process's own, an anonymous
// file named through /proc, whose modification time is moved on for every parse.
class Scratch {
public:
    static Scratch& Instance() {
        static Scratch scratch;
        return scratch;
    }

    // False when there is no scratch file (no memfd or no /proc): the caller parses the file
    // itself, as QSettings sees it.
    bool Parse(const QByteArray& bytes, QMap<QString, QVariant>& values,
               QSettings::Status& status) {
        std::lock_guard<std::mutex> lock(mutex);
        // Written over the last contents, which keeps their pages, then cut to length.
        if (fd < 0 ||
            ::pwrite(fd, bytes.constData(), static_cast<size_t>(bytes.size()), 0) != bytes.size() ||
            ::ftruncate(fd, bytes.size()) != 0) {
            return false;
        }
        const timespec times[2] = {{0, UTIME_OMIT}, {++generation, 0}};
        if (::futimens(fd, times) != 0) {
            return false;
        }
        const QSettings settings(alias, QSettings::IniFormat);
        status = settings.status();
        for (const QString& key : settings.allKeys()) {
            values.insert(key, settings.value(key));
        }
        return true;
    }

private:
    Scratch() : fd(::memfd_create("vexlor-settings", MFD_CLOEXEC)) {
        alias = QStringLiteral("/proc/self/fd/%1").arg(fd);
        if (fd >= 0 && ::access(QFile::encodeName(alias).constData(), R_OK) != 0) {
            ::close(fd);
            fd = -1;
        }
    }

    std::mutex mutex;
    int fd;
    QString alias;
    time_t generation = 0;
};

// At most the bytes that storing a value of `valueBytes` bytes under `key` adds to the file:
// the INI format escapes a byte in up to four and a key character in up to three, and a new
// group adds a header line.
std::size_t EntryBytes(const std::string& key, std::size_t valueBytes) {
    return 3 * key.size() + 4 * valueBytes + 32;
}

}  // namespace

IniSettingsManager::IniSettingsManager(const QString& filePath) : path(filePath) {}

IniSettingsManager::~IniSettingsManager() = default;

std::shared_ptr<const IniSettingsManager::Snapshot> IniSettingsManager::Current() const {
    const QByteArray file = QFile::encodeName(path);
    const auto fail = [&](int error, QSettings::Status status) {
        std::string message = "settings file " + path.toStdString() + ": read failed";
        message += error != 0 ? ": " + std::generic_category().message(error)
                              : std::string(" (") + StatusText(status) + ")";
        throw std::runtime_error(message);
    };
    std::lock_guard<std::mutex> lock(mutex);
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    auto fresh = std::make_shared<Snapshot>();
    if (::stat(file.constData(), &fresh->status) != 0) {
        if (errno == ENOENT) {  // a missing file reads as empty
            return fresh;
        }
        fail(errno, QSettings::AccessError);
    }
    if (held && held->trusted && SameFile(held->status, fresh->status)) {
        return held;
    }

    const int fd = ::open(file.constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        if (errno == ENOENT) {
            return fresh;
        }
        fail(errno, QSettings::AccessError);
    }
    QByteArray& bytes = fresh->bytes;
    bytes.reserve(static_cast<int>(std::min<off_t>(fresh->status.st_size + 1, 1 << 30)));
    int error = ReadToEnd(fd, bytes);
    // The status that goes with the bytes is the one after reading them.
    if (error == 0 && ::fstat(fd, &fresh->status) != 0) {
        error = errno;
    }
    ::close(fd);
    if (error != 0) {
        fail(error, QSettings::AccessError);
    }
    const auto changed = std::chrono::seconds(fresh->status.st_ctim.tv_sec) +
                         std::chrono::nanoseconds(fresh->status.st_ctim.tv_nsec);
    const auto read = std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
    fresh->trusted = changed + TRUST_AFTER < read;
    if (held && bytes == held->bytes) {  // touched or rewritten as it was: no parse
        fresh->bytes = held->bytes;
        fresh->values = held->values;
        held = fresh;
        return held;
    }
    QSettings::Status status = QSettings::NoError;
    if (!bytes.isEmpty() && !Scratch::Instance().Parse(bytes, fresh->values, status)) {
        SettingsFile settings(path, "read");
        for (const QString& key : settings->allKeys()) {
            fresh->values.insert(key, settings->value(key));
        }
    }
    if (status != QSettings::NoError) {
        fail(0, status);
    }
    held = fresh;
    return held;
}

void IniSettingsManager::setBool(const std::string& key, bool value) {
    Apply({{key, Value(value)}});
}

void IniSettingsManager::setByteArray(const std::string& key,
                                      const std::vector<unsigned char>& value) {
    Apply({{key, Value(value)}});
}

void IniSettingsManager::Apply(
    const std::vector<std::pair<std::string, std::optional<Value>>>& changes) {
    std::size_t growth = 0;
    for (const auto& [key, value] : changes) {
        const auto* bytes = value ? std::get_if<std::vector<unsigned char>>(&*value) : nullptr;
        if (bytes && bytes->size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
            throw std::length_error("settings value too large for key " + key);
        }
        growth += !value ? 0 : EntryBytes(key, bytes ? bytes->size() : 5);
    }
    SettingsFile file(path, "write");
    file.Edit("write", growth, [&](QSettings& settings) {
        for (const auto& [key, value] : changes) {
            if (!value) {
                settings.remove(ToKey(key));
            } else if (const bool* flag = std::get_if<bool>(&*value)) {
                settings.setValue(ToKey(key), *flag);
            } else {
                // Stored as a QByteArray variant, which the INI format keeps byte for byte.
                const auto& bytes = std::get<std::vector<unsigned char>>(*value);
                settings.setValue(ToKey(key),
                                  QByteArray(reinterpret_cast<const char*>(bytes.data()),
                                             static_cast<int>(bytes.size())));
            }
        }
    });
}

bool IniSettingsManager::getBool(const std::string& key, bool defaultValue) const {
    const QVariant value = Current()->values.value(NormalisedKey(key));
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
    const QVariant value = Current()->values.value(NormalisedKey(key));
    if (!value.isValid()) {
        return defaultValue;
    }
    const QByteArray bytes = value.toByteArray();
    return std::vector<unsigned char>(bytes.constBegin(), bytes.constEnd());
}

bool IniSettingsManager::contains(const std::string& key) const {
    return Current()->values.contains(NormalisedKey(key));
}

void IniSettingsManager::remove(const std::string& key) {
    Apply({{key, std::nullopt}});
}

}  // namespace Vexlor::App
