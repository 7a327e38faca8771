#include "platform/IniSettingsManager.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <limits>
#include <stdexcept>
#include <string>

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
