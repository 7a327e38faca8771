#include "store/EditClient.h"

#include <QDir>
#include <QFileInfo>
#include <QLocalSocket>

#include "schedule/Edits.h"
#include "store/ControlChannel.h"
#include "store/FileLock.h"
#include "store/Protocol.h"
#include "store/StoredSettings.h"

namespace Vexlor::ScheduleTool {

namespace {

constexpr std::chrono::seconds EDIT_LOCK_PATIENCE{30};
constexpr int RUN_ANSWER_PATIENCE_MS = 30000;

EditOutcome Failure(const QString& message) {
    return {EXIT_REFUSED, {}, message, std::nullopt};
}

bool Writes(CommandName command) {
    return command != CommandName::List && command != CommandName::Status &&
           command != CommandName::Export && command != CommandName::Upcoming;
}

// No run is active and the edit lock is held: read, edit and write the file here.
EditOutcome EditFile(const QString& path, const EditRequest& request) {
    const EditContext context{Time::SystemClock().Now(), std::nullopt, std::nullopt};
    StoredSettings stored;
    try {
        stored = ReadStoredSettings(path);
    } catch (const UnreadableSchedule& error) {
        if (request.command != CommandName::Clear) {
            throw;
        }
        // What cannot be read can still be cleared.
    }
    EditOutcome outcome =
        ApplyEdit({stored.schedule, stored.enabled, stored.plans}, request, context);
    if (outcome.changed) {
        if (Writes(request.command) && !QDir().mkpath(QFileInfo(path).absolutePath())) {
            throw std::runtime_error("cannot create the folder of " + path.toStdString());
        }
        WriteStoredSettings(
            path, {outcome.changed->schedule, outcome.changed->enabled, outcome.changed->plans});
    }
    return outcome;
}

}  // namespace

EditOutcome Ask(const ScheduleLocation& location, const EditRequest& request) {
    const QByteArray encoded = EncodeRequest(request);
    // A run that ends between our connect and its answer never took the edit; the next
    // round finds the socket gone and edits the file.
    for (int round = 0; round < 3; ++round) {
        FileLock lock = FileLock::Take(location.editLockPath, EDIT_LOCK_PATIENCE);
        QLocalSocket socket;
        if (!ControlClient::Connect(socket, location.socketPath)) {
            if (request.command == CommandName::Stop) {
                return Failure(
                    QStringLiteral("no run is active on %1, so nothing is being recorded")
                        .arg(location.settingsPath));
            }
            return EditFile(location.settingsPath, request);
        }
        // The run owns the schedule; it takes the edit lock only while it starts and never
        // waits for it afterwards, but nothing needs it held while the run answers.
        lock.Release();
        const ControlAnswer answer =
            ControlClient::Exchange(socket, encoded, RUN_ANSWER_PATIENCE_MS);
        if (answer.kind == ControlAnswer::Answered) {
            if (const auto outcome = DecodeOutcome(answer.answer)) {
                return *outcome;
            }
            return Failure(QStringLiteral("the running scheduler gave an answer that is not one"));
        }
        if (socket.state() == QLocalSocket::ConnectedState) {
            return Failure(
                QStringLiteral("the running scheduler (pid %1) did not answer within %2 s")
                    .arg(FileLock::HolderPid(location.runLockPath))
                    .arg(RUN_ANSWER_PATIENCE_MS / 1000));
        }
    }
    return Failure(QStringLiteral("the running scheduler kept going away before it answered"));
}

}  // namespace Vexlor::ScheduleTool
