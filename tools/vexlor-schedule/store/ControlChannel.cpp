#include "store/ControlChannel.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <stdexcept>

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QLocalServer>
#include <QLocalSocket>
#include <QPointer>

#include "plans/Calendar.h"

namespace Vexlor::ScheduleTool {

namespace {

// The longest request is an import: the calendar in base64 (4 bytes for 3). Beside it, or a
// title of up to 128 KiB, the rest of a request is far under 1 MiB; anything beyond is not
// a request of ours.
constexpr qint64 MAX_LINE = (MAX_CALENDAR_BYTES + 2) / 3 * 4 + (1 << 20);

// A socket's path goes into sockaddr_un's sun_path, NUL included.
constexpr int MAX_SOCKET_PATH = sizeof(sockaddr_un::sun_path) - 1;

// The user of the process at the other end, as the kernel recorded it when that process
// connected or listened.
std::optional<uid_t> PeerUser(const QLocalSocket& socket) {
    ucred peer{};
    socklen_t size = sizeof(peer);
    if (::getsockopt(static_cast<int>(socket.socketDescriptor()), SOL_SOCKET, SO_PEERCRED, &peer,
                     &size) != 0) {
        return std::nullopt;
    }
    return peer.uid;
}

}  // namespace

ControlServer::ControlServer(const QString& socketPath, Handler handler)
    : handler(std::move(handler)), server(std::make_unique<QLocalServer>()) {
    const qint64 length = QFile::encodeName(socketPath).size();
    if (length > MAX_SOCKET_PATH) {
        throw std::runtime_error(
            QStringLiteral("cannot listen for edits on %1: the path is %2 bytes long, and a local "
                           "socket's path (sun_path) holds at most %3; set XDG_RUNTIME_DIR to a "
                           "folder with a shorter path")
                .arg(socketPath, QString::number(length), QString::number(MAX_SOCKET_PATH))
                .toStdString());
    }
    QLocalServer::removeServer(socketPath);
    server->setSocketOptions(QLocalServer::UserAccessOption);
    if (!server->listen(socketPath)) {
        throw std::runtime_error("cannot listen for edits on " + socketPath.toStdString() + ": " +
                                 server->errorString().toStdString());
    }
    QObject::connect(server.get(), &QLocalServer::newConnection, [this] {
        while (QLocalSocket* socket = server->nextPendingConnection()) {
            // Another user's process is dropped unread and unanswered.
            if (PeerUser(*socket) != ::getuid()) {
                socket->abort();
                socket->deleteLater();
                continue;
            }
            QObject::connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
            QObject::connect(socket, &QLocalSocket::readyRead, socket,
                             [this, socket] { Serve(socket); });
            Serve(socket);
        }
    });
}

ControlServer::~ControlServer() {
    // Closing removes the socket file, so later edits take the lock and the file instead.
    server->close();
}

void ControlServer::Serve(QLocalSocket* socket) {
    if (socket->property("served").toBool()) {
        return;
    }
    if (!socket->canReadLine()) {
        if (socket->bytesAvailable() > MAX_LINE) {
            socket->abort();
        }
        return;
    }
    socket->setProperty("served", true);
    const QByteArray request = socket->readLine(MAX_LINE).trimmed();
    handler(request, [socket = QPointer<QLocalSocket>(socket)](const QByteArray& answer) {
        if (socket) {
            socket->write(answer + '\n');
            socket->disconnectFromServer();  // after the answer is written
        }
    });
}

bool ControlClient::Connect(QLocalSocket& socket, const QString& socketPath) {
    if (!QFileInfo::exists(socketPath)) {
        return false;
    }
    socket.connectToServer(socketPath);
    if (!socket.waitForConnected(2000)) {
        return false;
    }
    // Nothing goes to a server of another user's, which could read the request and answer
    // what it likes.
    const std::optional<uid_t> peer = PeerUser(socket);
    if (peer != ::getuid()) {
        socket.abort();
        throw std::runtime_error(
            QStringLiteral("the control socket %1 is served by %2, not by this user (uid %3); "
                           "nothing was sent to it")
                .arg(socketPath,
                     peer ? QStringLiteral("uid %1").arg(*peer)
                          : QStringLiteral("a process whose user cannot be told"),
                     QString::number(::getuid()))
                .toStdString());
    }
    return true;
}

ControlAnswer ControlClient::Exchange(QLocalSocket& socket, const QByteArray& request,
                                      int patienceMs) {
    socket.write(request + '\n');
    socket.flush();
    QElapsedTimer clock;
    clock.start();
    QByteArray received;
    while (!received.contains('\n')) {
        const int left = patienceMs - static_cast<int>(clock.elapsed());
        if (socket.bytesAvailable() == 0) {
            if (left <= 0 || socket.state() != QLocalSocket::ConnectedState ||
                !socket.waitForReadyRead(left)) {
                if (socket.bytesAvailable() == 0) {
                    return {ControlAnswer::Lost, {}};
                }
            }
        }
        received += socket.readAll();
    }
    return {ControlAnswer::Answered, received.left(received.indexOf('\n'))};
}

}  // namespace Vexlor::ScheduleTool
