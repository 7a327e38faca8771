#include "fakes/PrivateBus.h"

#include <QFile>

namespace Vexlor::Testing {

namespace {

QString busAddress;

// A session-type bus that anyone may use; no service directories, so a name that nobody owns
// is an immediate error rather than an activation attempt.
QByteArray Config(const QString& socketPath) {
    return QStringLiteral(
               R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=%1</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)")
        .arg(socketPath)
        .toUtf8();
}

}  // namespace

void PrivateBusEnvironment::SetUp() {
    dir = std::make_unique<QTemporaryDir>();
    ASSERT_TRUE(dir->isValid());
    const QString configPath = dir->filePath(QStringLiteral("bus.conf"));
    QFile config(configPath);
    ASSERT_TRUE(config.open(QIODevice::WriteOnly));
    config.write(Config(dir->filePath(QStringLiteral("bus"))));
    config.close();

    daemon = std::make_unique<QProcess>();
    daemon->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    daemon->start(
        QStringLiteral("dbus-daemon"),
        {QStringLiteral("--nofork"), QStringLiteral("--nopidfile"),
         QStringLiteral("--print-address=1"), QStringLiteral("--config-file=") + configPath});
    ASSERT_TRUE(daemon->waitForStarted(5000)) << "dbus-daemon does not start";
    // The address is printed once the bus listens.
    while (!daemon->canReadLine()) {
        ASSERT_TRUE(daemon->waitForReadyRead(5000)) << "dbus-daemon prints no address";
    }
    busAddress = QString::fromUtf8(daemon->readLine()).trimmed();
    ASSERT_FALSE(busAddress.isEmpty());

    qputenv("DBUS_SESSION_BUS_ADDRESS", busAddress.toUtf8());
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", busAddress.toUtf8());
    qunsetenv("DBUS_STARTER_ADDRESS");
    qunsetenv("DBUS_STARTER_BUS_TYPE");
}

void PrivateBusEnvironment::TearDown() {
    if (daemon) {
        daemon->kill();
        daemon->waitForFinished(5000);
        daemon.reset();
    }
    dir.reset();
}

QString PrivateBusEnvironment::Address() {
    return busAddress;
}

}  // namespace Vexlor::Testing
