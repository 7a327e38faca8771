#pragma once

#include <string>
#include <vector>

#include <QString>

#include "interfaces/SettingsManager.h"
#include "vexlor_platform_export.h"

namespace Vexlor::App {

// The application's settings in an INI file. Every operation opens the file afresh, so
// writes by other processes sharing the file are seen at the next read (QSettings notices a
// change by size and modification time: a rewrite of the same size within one timestamp
// tick of the file system can go unseen until the next change). Every write is flushed to
// disk (temporary file, fsync, atomic rename, directory fsync) before it returns.
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

    const QString& filePath() const { return path; }

private:
    QString path;
};

}  // namespace Vexlor::App
