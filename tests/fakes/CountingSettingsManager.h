#pragma once

#include <map>
#include <string>
#include <vector>

#include "interfaces/SettingsManager.h"

namespace Vexlor::Testing {

// In-memory settings manager that counts every call, so tests can tell a read from a write.
class CountingSettingsManager : public QK::IApplicationSettingsManager {
public:
    void setBool(const std::string& key, bool value) override {
        ++boolWrites;
        bools[key] = value;
    }
    void setByteArray(const std::string& key, const std::vector<unsigned char>& value) override {
        ++byteWrites;
        bytes[key] = value;
    }
    bool getBool(const std::string& key, bool defaultValue) const override {
        ++reads;
        auto it = bools.find(key);
        return it == bools.end() ? defaultValue : it->second;
    }
    std::vector<unsigned char> getByteArray(
        const std::string& key, const std::vector<unsigned char>& defaultValue) const override {
        ++reads;
        auto it = bytes.find(key);
        return it == bytes.end() ? defaultValue : it->second;
    }
    bool contains(const std::string& key) const override {
        return bools.count(key) != 0 || bytes.count(key) != 0;
    }
    void remove(const std::string& key) override {
        bools.erase(key);
        bytes.erase(key);
    }

    int writes() const { return boolWrites + byteWrites; }

    std::map<std::string, bool> bools;
    std::map<std::string, std::vector<unsigned char>> bytes;
    int boolWrites = 0;
    int byteWrites = 0;
    mutable int reads = 0;
};

}  // namespace Vexlor::Testing
