#include "store/ControlChannel.h"

#include <stdexcept>

#include <QElapsedTimer>
#include <QFileInfo>
#include <QLocalServer>
#include <QLocalSocket>
#include <QPointer>

namespace Vexlor::ScheduleTool {

namespace {

// A title may be up to 128 KiB; anything far beyond is not a request of ours.
constexpr qint64 MAX_LINE = 1 << 20;

}  // namespace

ControlServer::ControlServer(const QString& socketPath, Handler handler)
    : handler(std::move(handler)), server(std::make_unique<QLocalServer>()) {
    QLocalServer::removeServer(socketPath);
    server->setSocketOptions(QLocalServer::UserAccessOption);
    if (!server->listen(socketPath)) {
        throw std::runtime_error("cannot listen for edits on " + socketPath.toStdString() + ": " +
                                 server->errorString().toStdString());
    }
    QObject::connect(server.get(), &QLocalServer::newConnection, [this] {
        while (QLocalSocket* socket = server->nextPendingConnection()) {
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
    return socket.waitForConnected(2000);
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
