#pragma once

#include <signal.h>
#include <time.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>

#include <gtest/gtest.h>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

// Drives the built program on a settings file of its own in a temporary folder.
namespace Vexlor::Testing {

struct Outcome {
    int exitCode = -1;
    QString out;
    QString err;
};

// Polls `done` until it holds or `timeoutMs` has passed; returns whether it held.
inline bool Eventually(const std::function<bool()>& done, int timeoutMs) {
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > timeoutMs) {
            return false;
        }
        QThread::msleep(20);
    }
    return true;
}

// Empty when the file cannot be read.
inline QByteArray FileContents(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

inline bool ProcessEnded(long long pid) {
    // A zombie has ended too; whether it is reaped depends on the machine's init.
    const QByteArray text = FileContents(QStringLiteral("/proc/%1/stat").arg(pid));
    return text.isEmpty() || text.mid(text.lastIndexOf(')') + 2, 1) == "Z";
}

// Sets TZ for one test and puts the old value back.
class ZoneGuard {
public:
    explicit ZoneGuard(const char* zone) {
        if (qEnvironmentVariableIsSet("TZ")) {
            old = qgetenv("TZ");
        }
        qputenv("TZ", zone);
        ::tzset();
    }
    ~ZoneGuard() {
        old ? qputenv("TZ", *old) : qunsetenv("TZ");
        ::tzset();
    }

private:
    std::optional<QByteArray> old;
};

// An X server of the test's own. Xvfb picks a free display and writes its number to a file in
// `folder`; it ends when the shell's standard input closes, even if the test crashes.
class XServer {
public:
    XServer(const QTemporaryDir& folder, const QString& screen) {
        const QString numberFile = folder.filePath(QStringLiteral("display"));
        shell.start(QStringLiteral("/bin/bash"),
                    {"-c",
                     "Xvfb -displayfd 3 -nolisten tcp -noreset -br -screen 0 " + screen +
                         " 3>\"$0\" 2>/dev/null & read -r _; kill $!; wait",
                     numberFile});
        if (Eventually([&] { return FileContents(numberFile).endsWith('\n'); }, 10000)) {
            display = ":" + QString::fromUtf8(FileContents(numberFile)).trimmed();
        }
    }
    ~XServer() {
        shell.closeWriteChannel();
        shell.waitForFinished(5000);
    }

    QString display;  // ":N", or empty when Xvfb did not start

private:
    QProcess shell;
};

class RunnerTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(folder.isValid()); }

    QString SettingsFile() const { return folder.filePath(settingsName); }
    QString FilePath(const QString& name) const { return folder.filePath(name); }

    // Unless told otherwise, both buses refuse at once: no notices or sleep locks on the
    // machine running the tests.
    // The settings file is named with --settings, or else through the environment.
    QProcessEnvironment Environment() const {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        const QString settingsVariable = QStringLiteral("VEXLOR_SCHEDULE_SETTINGS");
        settingsFromEnvironment ? environment.insert(settingsVariable, SettingsFile())
                                : environment.remove(settingsVariable);
        if (!inheritBuses) {
            const QString address = busAddress.isEmpty()
                                        ? QStringLiteral("unix:path=") + FilePath("no-bus")
                                        : busAddress;
            environment.insert("DBUS_SESSION_BUS_ADDRESS", address);
            environment.insert("DBUS_SYSTEM_BUS_ADDRESS", address);
        }
        for (const auto& [name, value] : environmentChanges) {
            value ? environment.insert(name, *value) : environment.remove(name);
        }
        return environment;
    }

    std::unique_ptr<QProcess> Start(const QStringList& arguments) {
        auto process = std::make_unique<QProcess>();
        process->setWorkingDirectory(folder.path());
        process->setProcessEnvironment(Environment());
        process->start(QStringLiteral(VEXLOR_SCHEDULE_PROGRAM),
                       settingsFromEnvironment
                           ? arguments
                           : QStringList{"--settings", SettingsFile()} + arguments);
        EXPECT_TRUE(process->waitForStarted(5000));
        return process;
    }

    Outcome Finish(QProcess& process, int timeoutMs = 20000) {
        EXPECT_TRUE(process.waitForFinished(timeoutMs)) << "still running after " << timeoutMs;
        EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
        return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
                QString::fromUtf8(process.readAllStandardError())};
    }

    // Stops a running `run` as SIGTERM does and takes what it printed since it was last read,
    // adding it to `seen` as well.
    Outcome Stop(QProcess& run) {
        ::kill(static_cast<pid_t>(run.processId()), SIGTERM);
        const Outcome stopped = Finish(run);
        seen += stopped.out;
        return stopped;
    }

    Outcome Run(const QStringList& arguments, int timeoutMs = 20000) {
        return Finish(*Start(arguments), timeoutMs);
    }

    // Reads standard output of a running program into `seen` until `needle` shows up; a
    // failure shows all that was seen.
    testing::AssertionResult WaitForOutput(QProcess& process, QString& seen, const QString& needle,
                                           int timeoutMs) {
        const bool shown = Eventually(
            [&] {
                process.waitForReadyRead(1);
                seen += QString::fromUtf8(process.readAllStandardOutput());
                return seen.contains(needle);
            },
            timeoutMs);
        return shown ? testing::AssertionSuccess()
                     : testing::AssertionFailure() << "output so far: " << seen.toStdString();
    }
    testing::AssertionResult WaitForOutput(QProcess& process, const QString& needle,
                                           int timeoutMs) {
        return WaitForOutput(process, seen, needle, timeoutMs);
    }

    QByteArray ReadFile(const QString& name) const { return FileContents(FilePath(name)); }

    void Add(const QStringList& arguments) {
        const Outcome added = Run(QStringList{QStringLiteral("add")} + arguments);
        ASSERT_EQ(added.exitCode, 0) << added.err.toStdString();
    }

    QTemporaryDir folder;
    QString seen;  // what the waits without a `seen` of their own have read
    QString settingsName = QStringLiteral("settings.ini");  // in `folder`
    // Set or (nullopt) removed in the environment of the programs started from now on.
    std::map<QString, std::optional<QString>> environmentChanges;
    bool settingsFromEnvironment = false;
    QString busAddress;         // both buses of the programs started from now on
    bool inheritBuses = false;  // the test process's own buses (a private bus with mocks)
};

}  // namespace Vexlor::Testing
