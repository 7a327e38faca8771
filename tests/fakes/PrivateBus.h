#pragma once

#include <memory>

#include <gtest/gtest.h>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

namespace Vexlor::Testing {

// A dbus-daemon of this test process's own, serving as both session and system bus. Set-up
// starts it and points DBUS_SESSION_BUS_ADDRESS and DBUS_SYSTEM_BUS_ADDRESS at it; this must
// happen before anything in the process touches QDBusConnection, whose default connections
// read those variables once. Tear-down kills it.
class PrivateBusEnvironment : public testing::Environment {
public:
    void SetUp() override;
    void TearDown() override;

    static QString Address();

private:
    std::unique_ptr<QTemporaryDir> dir;
    std::unique_ptr<QProcess> daemon;
};

}  // namespace Vexlor::Testing
