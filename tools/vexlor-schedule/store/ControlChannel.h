#pragma once

#include <functional>
#include <memory>
#include <optional>

#include <QByteArray>
#include <QString>

class QLocalServer;
class QLocalSocket;

namespace Vexlor::ScheduleTool {

// The local socket on which the active `run` takes edits from other processes: one request
// per connection, one line of bytes each way. Only the user's own processes may connect,
// and a connection from another user's process is dropped unread.
class ControlServer {
public:
    // Calls `answer` once, now or later; an answer for a client that has gone is dropped.
    using Handler = std::function<void(const QByteArray& request,
                                       std::function<void(const QByteArray&)> answer)>;

    // Clears a socket left behind by a killed run (the caller holds the run lock, so no other
    // run listens there) and listens. Throws std::runtime_error when it cannot.
    ControlServer(const QString& socketPath, Handler handler);
    ~ControlServer();

    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

private:
    void Serve(QLocalSocket* socket);

    Handler handler;
    std::unique_ptr<QLocalServer> server;
};

struct ControlAnswer {
    enum Kind { Answered, Lost } kind = Lost;
    QByteArray answer;  // Answered
};

// Connect: whether a run listens at `socketPath`; throws std::runtime_error, having sent
// nothing, when the process there is not this user's. Exchange hands it `request`; Lost: the
// run went away before it answered (it never took the edit), or did not answer within
// `patience` (whether it took the edit is unknown).
struct ControlClient {
    static bool Connect(QLocalSocket& socket, const QString& socketPath);
    static ControlAnswer Exchange(QLocalSocket& socket, const QByteArray& request, int patienceMs);
};

}  // namespace Vexlor::ScheduleTool
