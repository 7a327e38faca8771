#include "fakes/MockBus.h"

#include <signal.h>

#include <gtest/gtest.h>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusVariant>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>

namespace Vexlor::Testing {

namespace {

QString busAddress;

// Serves as session and system bus. It must be up before anything touches QDBusConnection,
// whose default connections read the addresses once. Its configuration lists no service
// folders: a name nobody owns is an error at once, never the activation of a desktop's real
// service.
class PrivateBus : public testing::Environment {
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        QFile config(dir.filePath(QStringLiteral("bus.conf")));
        ASSERT_TRUE(config.open(QIODevice::WriteOnly));
        config.write(QStringLiteral("<busconfig><type>session</type><listen>unix:path=%1</listen>"
                                    "<policy context='default'><allow send_destination='*' "
                                    "eavesdrop='true'/><allow eavesdrop='true'/><allow own='*'/>"
                                    "</policy></busconfig>")
                         .arg(dir.filePath(QStringLiteral("bus")))
                         .toUtf8());
        config.close();
        daemon.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        daemon.start(QStringLiteral("dbus-daemon"),
                     {QStringLiteral("--nofork"), QStringLiteral("--print-address=1"),
                      QStringLiteral("--config-file=") + config.fileName()});
        // The address is printed once the bus listens.
        while (!daemon.canReadLine()) {
            ASSERT_TRUE(daemon.waitForReadyRead(5000)) << "dbus-daemon prints no address";
        }
        busAddress = QString::fromUtf8(daemon.readLine()).trimmed();
        qputenv("DBUS_SESSION_BUS_ADDRESS", busAddress.toUtf8());
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", busAddress.toUtf8());
        qunsetenv("DBUS_STARTER_ADDRESS");
        qunsetenv("DBUS_STARTER_BUS_TYPE");
    }
    void TearDown() override {
        daemon.kill();
        daemon.waitForFinished(5000);
    }

    QTemporaryDir dir;
    QProcess daemon;
};

testing::Environment* const privateBus = testing::AddGlobalTestEnvironment(new PrivateBus);

// The tests' own connection, apart from the default ones that the code under test uses.
QDBusConnection TestConnection() {
    return QDBusConnection::connectToBus(busAddress, QStringLiteral("vexlor-test"));
}

// Hands `read` each structure of the array that is the reply's first argument.
template <typename Read>
void ForEachStructure(const QDBusMessage& reply, Read read) {
    const QDBusArgument list = reply.arguments().value(0).value<QDBusArgument>();
    list.beginArray();
    while (!list.atEnd()) {
        list.beginStructure();
        read(list);
        list.endStructure();
    }
    list.endArray();
}

}  // namespace

bool NameIs(const QString& name, bool owned) {
    QElapsedTimer clock;
    clock.start();
    while (TestConnection().interface()->isServiceRegistered(name) != owned) {
        if (clock.elapsed() > 10000) {
            return false;
        }
        QThread::msleep(20);
    }
    return true;
}

MockService::MockService(const QString& templateName, const QString& parameters) {
    const bool logind = templateName == QLatin1String("logind");
    name = logind ? QStringLiteral("org.freedesktop.login1")
                  : QStringLiteral("org.freedesktop.Notifications");
    path = QLatin1Char('/') + QString(name).replace(QLatin1Char('.'), QLatin1Char('/'));
    process.setStandardOutputFile(QProcess::nullDevice());  // its call log, read over the bus
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    // Debian's interpreter, which has python3-dbusmock, whatever else comes first on PATH.
    process.start(QStringLiteral(VEXLOR_TEST_PYTHON),
                  {"-m", "dbusmock", "--template", templateName, "--parameters", parameters});
    up = process.waitForStarted(5000) && NameIs(name, true);
}

MockService::~MockService() {
    process.kill();  // also when stopped
    process.waitForFinished(5000);
}

void MockService::Pause(bool paused) {
    ::kill(static_cast<pid_t>(process.processId()), paused ? SIGSTOP : SIGCONT);
}

QDBusMessage MockService::Call(const QString& interface, const QString& method,
                               const QVariantList& arguments) const {
    QDBusMessage message = QDBusMessage::createMethodCall(name, path, interface, method);
    message.setArguments(arguments);
    return TestConnection().call(message, QDBus::Block, 5000);
}

bool MockService::Emit(const QString& interface, const QString& member, const QString& signature,
                       const QVariantList& arguments) const {
    return Call(QStringLiteral("org.freedesktop.DBus.Mock"), QStringLiteral("EmitSignal"),
                {interface, member, signature, arguments})
               .type() == QDBusMessage::ReplyMessage;
}

QList<QVariantList> MockService::Calls(const QString& method) const {
    QList<QVariantList> calls;
    ForEachStructure(Call(QStringLiteral("org.freedesktop.DBus.Mock"),
                          QStringLiteral("GetMethodCalls"), {method}),
                     [&calls](const QDBusArgument& call) {
                         qulonglong time;
                         QList<QDBusVariant> arguments;
                         call >> time >> arguments;
                         calls.append(QVariantList());
                         for (const QDBusVariant& argument : arguments) {
                             calls.back().append(argument.variant());
                         }
                     });
    return calls;
}

QList<QStringList> MockService::Locks(int count, int waitMs) const {
    QElapsedTimer clock;
    clock.start();
    for (;;) {
        QList<QStringList> locks;
        ForEachStructure(Call(QStringLiteral("org.freedesktop.login1.Manager"),
                              QStringLiteral("ListInhibitors")),
                         [&locks](const QDBusArgument& lock) {
                             QString what, who, why, mode;
                             lock >> what >> who >> why >> mode;  // then uid and pid
                             locks.append({what, who, why, mode});
                         });
        if (count < 0 || locks.size() == count || clock.elapsed() >= waitMs) {
            return locks;
        }
        QThread::msleep(20);
    }
}

}  // namespace Vexlor::Testing
