#pragma once

#include <functional>
#include <memory>

#include <QSocketNotifier>

namespace Vexlor::ScheduleTool {

// Turns SIGINT, SIGTERM and SIGHUP into a call on the event loop: the handler only writes
// the signal number into a socket pair, whose other end a QSocketNotifier reads. SIGPIPE is
// ignored meanwhile, so that a closed output shows up as EPIPE. One instance at a time; the
// previous handlers come back when it is destroyed.
class SignalRelay {
public:
    explicit SignalRelay(std::function<void(int signal)> onSignal);
    ~SignalRelay();

    SignalRelay(const SignalRelay&) = delete;
    SignalRelay& operator=(const SignalRelay&) = delete;

private:
    std::function<void(int)> onSignal;
    std::unique_ptr<QSocketNotifier> notifier;
};

}  // namespace Vexlor::ScheduleTool
