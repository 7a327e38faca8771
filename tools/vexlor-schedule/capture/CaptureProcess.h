#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>

#include <QByteArray>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTimer>

namespace Vexlor::ScheduleTool {

// One capture program in a process group of its own: `/bin/sh -c COMMAND` with standard
// output and error shared with the runner and no standard input, or a program that is asked
// to end through its standard input and whose errors the runner reads (ffmpeg).
//
// Nothing in that group outlives the capture or the runner. The shell gets SIGTERM when the
// runner dies (PDEATHSIG; a program with a quit input only until its guardian runs, since
// one SIGTERM is all ffmpeg takes to finish its file), and a guardian process outside the
// group waits on a pipe whose
// write end only the runner holds: when the runner closes it at the capture's end, or dies,
// the guardian sends SIGTERM to the group, SIGKILL 5 s later to what is left, and exits.
class CaptureProcess {
public:
    static constexpr int KILL_DELAY_MS = 5000;

    // How the program is asked to end before it is signalled.
    static constexpr int QUIT_GRACE_MS = 3000;

    enum class StopReason { DurationOver, Requested };

    struct Launch {
        QString program;
        QStringList arguments;  // handed over as they are, never through a shell
        QProcessEnvironment environment;
        // Empty: no standard input, and standard error shared with the runner. Else written
        // to the program's standard input to ask it to end, QUIT_GRACE_MS before SIGTERM;
        // its standard error is read for LastErrorLine().
        QByteArray quitInput;
    };

    // `onFinished` gets how the command ended: "exit status N", "ended by a signal", the
    // reason it was stopped, or why it failed to start. It is called from inside a signal of
    // the process: the object must outlive the call.
    explicit CaptureProcess(std::function<void(const QString& how)> onFinished);
    // A command still running is killed; the guardian ends the rest of its group.
    ~CaptureProcess();

    CaptureProcess(const CaptureProcess&) = delete;
    CaptureProcess& operator=(const CaptureProcess&) = delete;

    // Once per object.
    void Start(const QString& command, const QProcessEnvironment& environment);
    void Start(const Launch& launch);
    bool IsRunning() const { return process.state() != QProcess::NotRunning; }

    // The quit input if there is one, SIGTERM to the group (after QUIT_GRACE_MS if so),
    // SIGKILL KILL_DELAY_MS later.
    void Terminate(StopReason reason);
    // A Terminate is waiting for the group to end.
    bool IsTerminating() const { return quitTimer.isActive() || killTimer.isActive(); }
    // SIGKILL to the group now.
    void Kill();

    // After the end: whether Terminate asked for it, and how the program ended.
    std::optional<StopReason> Stopped() const { return stopped; }
    bool ExitedNormally() const { return process.exitStatus() == QProcess::NormalExit; }
    int ExitCode() const { return process.exitCode(); }
    bool FailedToStart() const { return failedToStart; }
    // The last line the program wrote to standard error, with quitInput set.
    QString LastErrorLine() const { return lastErrorLine; }

private:
    class Process : public QProcess {
    public:
        explicit Process(CaptureProcess& owner) : owner(owner) {}

    protected:
        void setupChildProcess() override;

    private:
        CaptureProcess& owner;
    };

    void Signal(int signal);
    void EndGroup();
    void Finished(const QString& how);
    void ReadErrors();

    std::function<void(const QString&)> onFinished;
    std::optional<StopReason> stopped;  // why this side signalled the command, if it did
    bool failedToStart = false;
    QByteArray quitInput;
    QByteArray errorTail;  // standard error since its last complete line
    QString lastErrorLine;
    QByteArray guardianFailure;  // written by the forked child, which must not allocate
    QTimer quitTimer;
    QTimer killTimer;
    pid_t runner = 0;
    pid_t group = 0;
    int guardianRead = -1;   // open in the runner only while a child is forked
    int guardianWrite = -1;  // closing it (or dying) makes the guardian end the group
    Process process{*this};
};

}  // namespace Vexlor::ScheduleTool
