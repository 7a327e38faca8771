#include "capture/CaptureProcess.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <QFileInfo>

#include "base/Diagnostics.h"

namespace Vexlor::ScheduleTool {

// Everything up to the exec of the shell runs in the forked child of a process with
// threads: only async-signal-safe calls, no allocation. _Fork, unlike fork, takes no locks
// that another thread of the runner may have held at the fork.
namespace {

void PrintError(const char* text) {
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text, ::strlen(text));
}

// Leaves the guardian with standard input, the pipe's read end, and nothing else: no copy
// of the write end, of the command's output or of the runner's descriptors.
void KeepOnlyStandardInput(int readFd) {
    if (readFd != STDIN_FILENO) {
        ::dup2(readFd, STDIN_FILENO);
    }
    if (::close_range(STDIN_FILENO + 1, ~0U, 0) == 0) {
        return;
    }
    rlimit limit = {};
    const int highest = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < 65536
                            ? static_cast<int>(limit.rlim_cur)
                            : 65536;
    for (int fd = STDIN_FILENO + 1; fd < highest; ++fd) {
        ::close(fd);
    }
}

[[noreturn]] void RunGuardian(int readFd, pid_t group) {
    ::setpgid(0, 0);  // out of the group it is going to end
    [[maybe_unused]] const int moved = ::chdir("/");
    KeepOnlyStandardInput(readFd);
    char byte = 0;
    for (;;) {
        const ssize_t read = ::read(STDIN_FILENO, &byte, 1);
        if (read == 0 || (read < 0 && errno != EINTR)) {
            break;
        }
    }
    if (::kill(-group, SIGTERM) == 0) {
        constexpr int STEP_MS = 100;
        const timespec step = {0, STEP_MS * 1000000L};
        for (int waited = 0; waited < CaptureProcess::KILL_DELAY_MS; waited += STEP_MS) {
            ::nanosleep(&step, nullptr);
            if (::kill(-group, 0) != 0) {
                ::_exit(0);
            }
        }
        ::kill(-group, SIGKILL);
    }
    ::_exit(0);
}

// Forks the guardian through a middle process that exits at once, so that the guardian is
// orphaned to init and never a child the command has to reap. Returns once the guardian is
// in its own group, before the command can signal the group it is still part of.
bool StartGuardian(int readFd, pid_t group) {
    const pid_t middle = ::_Fork();
    if (middle < 0) {
        return false;
    }
    if (middle == 0) {
        const pid_t guardian = ::_Fork();
        if (guardian == 0) {
            RunGuardian(readFd, group);
        }
        if (guardian > 0) {
            ::setpgid(guardian, guardian);
        }
        ::_exit(guardian > 0 ? 0 : 1);
    }
    int status = 0;
    while (::waitpid(middle, &status, 0) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

void CaptureProcess::Process::setupChildProcess() {
    // The runner's handlers must not run here, nor in the guardian, which never execs; the
    // command gets SIGPIPE back, which the runner ignores for its own sake.
    struct sigaction byDefault = {};
    byDefault.sa_handler = SIG_DFL;
    sigemptyset(&byDefault.sa_mask);
    for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGPIPE, SIGCHLD}) {
        ::sigaction(signal, &byDefault, nullptr);
    }
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);

    ::setpgid(0, 0);
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != owner.runner) {
        ::_exit(127);  // the runner died before the line above
    }
    if (!StartGuardian(owner.guardianRead, ::getpid())) {
        // Without it, what the command leaves behind could outlive the capture.
        PrintError(owner.guardianFailure.constData());
        ::_exit(127);
    }
    if (!owner.quitInput.isEmpty()) {
        // ffmpeg aborts the writing of its file at a second SIGTERM: from here on the
        // guardian's, when the runner dies, is the only one.
        ::prctl(PR_SET_PDEATHSIG, 0);
    }
}

namespace {

// Why `program` did not start, in the system's words: QProcess names only the call that
// failed.
QString StartFailure(const QString& program, const QString& processError) {
    const QFileInfo file(program);
    if (!file.exists()) {
        return QStringLiteral("%1: %2").arg(program, QString::fromLocal8Bit(::strerror(ENOENT)));
    }
    if (file.isDir() || !file.isExecutable()) {
        return QStringLiteral("%1 is not executable").arg(program);
    }
    return QStringLiteral("%1: %2").arg(program, processError);
}

}  // namespace

CaptureProcess::CaptureProcess(std::function<void(const QString&)> onFinished)
    : onFinished(std::move(onFinished)),
      guardianFailure(
          ErrorLine(QStringLiteral("cannot start the process that guards the capture"))) {
    quitTimer.setSingleShot(true);
    quitTimer.setInterval(QUIT_GRACE_MS);
    QObject::connect(&quitTimer, &QTimer::timeout, [this] {
        Signal(SIGTERM);
        killTimer.start();
    });
    killTimer.setSingleShot(true);
    killTimer.setInterval(KILL_DELAY_MS);
    QObject::connect(&killTimer, &QTimer::timeout, [this] { Kill(); });
    QObject::connect(&process, qOverload<int, QProcess::ExitStatus>(&QProcess::finished),
                     [this](int exitCode, QProcess::ExitStatus status) {
                         ReadErrors();
                         if (stopped) {
                             // Ended as asked, whatever status a program that handles SIGTERM
                             // gives.
                             Finished(*stopped == StopReason::DurationOver
                                          ? QStringLiteral("duration over, command stopped")
                                          : QStringLiteral("stopped on request"));
                         } else if (status == QProcess::NormalExit) {
                             Finished(QStringLiteral("exit status %1").arg(exitCode));
                         } else {
                             Finished(QStringLiteral("ended by a signal"));
                         }
                     });
    QObject::connect(&process, &QProcess::errorOccurred, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart) {
            failedToStart = true;
            if (!quitInput.isEmpty()) {
                // The runner reads this program's errors in the user's place, and its own
                // account of the capture says only that it did not start: the reason is here.
                Error(QStringLiteral("%1 failed to start: %2")
                          .arg(QFileInfo(process.program()).fileName(),
                               StartFailure(process.program(), process.errorString())));
            }
            Finished(QStringLiteral("the command failed to start: %1").arg(process.errorString()));
        }
    });
    QObject::connect(&process, &QProcess::readyReadStandardError, [this] { ReadErrors(); });
}

CaptureProcess::~CaptureProcess() {
    QObject::disconnect(&process, nullptr, nullptr, nullptr);
    if (IsRunning()) {
        Kill();
        process.waitForFinished(1000);
    }
    EndGroup();
    if (guardianRead >= 0) {
        ::close(guardianRead);
    }
}

void CaptureProcess::Start(const QString& command, const QProcessEnvironment& environment) {
    // The title and the other values reach the command only through its environment.
    Start(Launch{QStringLiteral("/bin/sh"), {QStringLiteral("-c"), command}, environment, {}});
}

void CaptureProcess::Start(const Launch& launch) {
    int fds[2] = {-1, -1};
    // Close-on-exec: no other program this runner starts may hold the write end.
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        failedToStart = true;
        Finished(QStringLiteral("the command failed to start: no pipe for its guardian: %1")
                     .arg(QString::fromLocal8Bit(::strerror(errno))));
        return;
    }
    guardianRead = fds[0];
    guardianWrite = fds[1];
    runner = ::getpid();
    quitInput = launch.quitInput;
    process.setProcessEnvironment(launch.environment);
    if (quitInput.isEmpty()) {
        process.setProcessChannelMode(QProcess::ForwardedChannels);
        // Its own process group has no terminal to read from.
        process.setStandardInputFile(QProcess::nullDevice());
    } else {
        process.setStandardOutputFile(QProcess::nullDevice());
    }
    process.start(launch.program, launch.arguments);
    if (guardianRead >= 0) {
        ::close(guardianRead);  // the child has its copy
        guardianRead = -1;
    }
    group = static_cast<pid_t>(process.processId());
    if (group > 0) {
        // Also set from this side, so that a signal sent right away reaches the group.
        ::setpgid(group, group);
    }
}

void CaptureProcess::Terminate(StopReason reason) {
    stopped = reason;
    if (!quitInput.isEmpty() && IsRunning()) {
        process.write(quitInput);
        quitTimer.start();
        return;
    }
    Signal(SIGTERM);
    killTimer.start();
}

void CaptureProcess::Kill() {
    Signal(SIGKILL);
}

void CaptureProcess::Signal(int signal) {
    if (!IsRunning() || group <= 0) {
        return;
    }
    if (::kill(-group, signal) != 0) {
        ::kill(group, signal);
    }
}

void CaptureProcess::EndGroup() {
    if (guardianWrite >= 0) {
        ::close(guardianWrite);
        guardianWrite = -1;
    }
}

void CaptureProcess::ReadErrors() {
    if (quitInput.isEmpty()) {
        return;
    }
    errorTail += process.readAllStandardError();
    // Only the last line is kept: a program that writes without end costs no memory.
    for (int newline = errorTail.indexOf('\n'); newline >= 0; newline = errorTail.indexOf('\n')) {
        const QString line = QString::fromLocal8Bit(errorTail.left(newline)).trimmed();
        if (!line.isEmpty()) {
            lastErrorLine = line;
        }
        errorTail.remove(0, newline + 1);
    }
    constexpr int LONGEST_LINE = 4096;
    if (errorTail.size() > LONGEST_LINE) {
        errorTail = errorTail.right(LONGEST_LINE);
    }
    if (process.state() == QProcess::NotRunning && !errorTail.trimmed().isEmpty()) {
        lastErrorLine = QString::fromLocal8Bit(errorTail).trimmed();
        errorTail.clear();
    }
}

void CaptureProcess::Finished(const QString& how) {
    quitTimer.stop();
    killTimer.stop();
    // The command has ended; the guardian ends what it left in the group.
    EndGroup();
    if (onFinished) {
        onFinished(how);
    }
}

}  // namespace Vexlor::ScheduleTool
