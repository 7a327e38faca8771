#pragma once

#include <sys/types.h>

#include <functional>

#include <QByteArray>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QTimer>

namespace Vexlor::ScheduleTool {

// One capture command: `/bin/sh -c COMMAND` in a process group of its own, with standard
// output and error shared with the runner and no standard input.
//
// Nothing in that group outlives the capture or the runner. The shell gets SIGTERM when the
// runner dies (PDEATHSIG), and a guardian process outside the group waits on a pipe whose
// write end only the runner holds: when the runner closes it at the capture's end, or dies,
// the guardian sends SIGTERM to the group, SIGKILL 5 s later to what is left, and exits.
class CaptureProcess {
public:
    static constexpr int KILL_DELAY_MS = 5000;

    enum class StopReason { DurationOver, Requested };

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
    bool IsRunning() const { return process.state() != QProcess::NotRunning; }

    // SIGTERM to the group, SIGKILL KILL_DELAY_MS later.
    void Terminate(StopReason reason);
    // A Terminate is waiting for the group to end.
    bool IsTerminating() const { return killTimer.isActive(); }
    // SIGKILL to the group now.
    void Kill();

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

    std::function<void(const QString&)> onFinished;
    QString stopReason;          // why this side signalled the command, if it did
    QByteArray guardianFailure;  // written by the forked child, which must not allocate
    QTimer killTimer;
    pid_t runner = 0;
    pid_t group = 0;
    int guardianRead = -1;   // open in the runner only while a child is forked
    int guardianWrite = -1;  // closing it (or dying) makes the guardian end the group
    Process process{*this};
};

}  // namespace Vexlor::ScheduleTool
