#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include <QString>

#include "interfaces/SettingsManager.h"
#include "vexlor_platform_export.h"

namespace Vexlor::App {

// The application's settings in an INI file. Every read checks the file's status (device,
// inode, size, modification and change times to the nanosecond): while it is what it was at
// the last full read, the values read then are served again, without a parse; otherwise the
// file is read and parsed afresh, so writes by other processes sharing the file are seen at
// the next read, also a rewrite in place that keeps the size and sets the modification time
// back. A file whose status changed within TRUST_AFTER of a read has its bytes read again at
// the next read too, since a rewrite within the file system's timestamp granularity could
// leave its status as it was; they are parsed again only when they differ. Every write is flushed
// to disk (temporary file, fsync, atomic rename, directory fsync) before it returns. (Writes merge
// into QSettings' own view of the file, which notices a change by size and modification time only.)
//
// A file that cannot be read or written, or that is malformed, makes the operation throw
// std::runtime_error naming the path and the failure, with the system's reason where it can
// be found ("write failed: No space left on device"); nothing is silently dropped, and a
// write refused for want of room leaves the file as it was. (QSettings takes a short write
// for a whole one, so the room is checked just before writing; a disk that another process
// fills in between can still cut the file short.) Byte arrays round-trip exactly. getBool
// takes true, false, 1 and 0 in any case; any other stored value throws std::runtime_error
// naming the key and the value.
class VEXLOR_PLATFORM_EXPORT IniSettingsManager : public QK::IApplicationSettingsManager {
public:
    explicit IniSettingsManager(const QString& filePath);
    ~IniSettingsManager() override;

    void setBool(const std::string& key, bool value) override;
    void setByteArray(const std::string& key, const std::vector<unsigned char>& value) override;
    bool getBool(const std::string& key, bool defaultValue) const override;
    std::vector<unsigned char> getByteArray(
        const std::string& key, const std::vector<unsigned char>& defaultValue) const override;
    bool contains(const std::string& key) const override;
    void remove(const std::string& key) override;

    using Value = std::variant<bool, std::vector<unsigned char>>;
    // Several changes in one rewrite of the file, all or none; an empty optional removes the
    // key.
    void Apply(const std::vector<std::pair<std::string, std::optional<Value>>>& changes);

    const QString& filePath() const { return path; }

    // 2 s: the coarsest timestamps among Linux file systems (FAT's).
    static constexpr std::chrono::milliseconds TRUST_AFTER{2000};

    struct Snapshot;

private:
    // The file's values now: those held while the file is unchanged, else read afresh.
    std::shared_ptr<const Snapshot> Current() const;

    QString path;
    mutable std::mutex mutex;
    mutable std::shared_ptr<const Snapshot> held;  // the last read of the file's bytes
};

}  // namespace Vexlor::App
