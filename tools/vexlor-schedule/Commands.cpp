#include "Commands.h"

#include <cstdio>
#include <exception>
#include <memory>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QSaveFile>

#include "ControlChannel.h"
#include "Diagnostics.h"
#include "FileLock.h"
#include "RunCommand.h"
#include "ScheduleLocation.h"
#include "ScheduleRequests.h"
#include "SettingsPath.h"
#include "StoredSettings.h"

namespace Vexlor::ScheduleTool {

namespace {

constexpr std::chrono::seconds EDIT_LOCK_PATIENCE{30};
constexpr int RUN_ANSWER_PATIENCE_MS = 30000;

int Print(const EditOutcome& outcome) {
    std::fputs(outcome.out.toUtf8().constData(), stdout);
    for (const QString& line : outcome.err.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        Error(line);
    }
    return outcome.exitCode;
}

EditOutcome Failure(const QString& message) {
    EditOutcome outcome;
    outcome.exitCode = EXIT_REFUSED;
    outcome.err = message;
    return outcome;
}

int Fail(const QString& message) {
    return Print(Failure(message));
}

bool Writes(CommandName command) {
    return command != CommandName::List && command != CommandName::Status &&
           command != CommandName::Export && command != CommandName::Upcoming;
}

// `export FILE` writes the calendar there instead of to standard output.
int PrintTo(const QString& file, EditOutcome outcome) {
    if (outcome.exitCode == EXIT_DONE && !file.isEmpty()) {
        QSaveFile out(file);
        if (!out.open(QIODevice::WriteOnly) || out.write(outcome.out.toUtf8()) < 0 ||
            !out.commit()) {
            return Fail(QStringLiteral("cannot write %1: %2").arg(file, out.errorString()));
        }
        outcome.out.clear();
    }
    return Print(outcome);
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

// Hands the request to the active run, or carries it out on the file when none is active.
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

// The shells' helper: a line naming what to complete (words, files or folders), then one
// candidate per line. Quiet on failure: a shell shows what it gets.
int Complete(const QStringList& words) {
    const Completion completion = CompleteCommandLine(words);
    const char* const kinds[] = {"words", "files", "folders"};
    QStringList lines{QString::fromLatin1(kinds[completion.kind])};
    lines += completion.words;
    if (completion.titles) {
        try {
            EditRequest list;
            list.command = CommandName::List;
            list.json = true;
            const EditOutcome listed =
                Ask(LocateSchedule(SettingsPathForProcess(completion.settingsFile)), list);
            const QJsonArray records = QJsonDocument::fromJson(listed.out.toUtf8())
                                           .object()
                                           .value(QStringLiteral("records"))
                                           .toArray();
            for (const QJsonValue& record : records) {
                const QString title = record.toObject().value(QStringLiteral("title")).toString();
                // One line per candidate; a title that starts with - needs -- before it.
                if (!title.contains(QLatin1Char('\n')) &&
                    (completion.titlesAfterDashes || !title.startsWith(QLatin1Char('-')))) {
                    lines << title;
                }
            }
        } catch (const std::exception&) {
            // No titles, the rest all the same.
        }
    }
    std::fputs((lines.join(QLatin1Char('\n')) + QLatin1Char('\n')).toUtf8().constData(), stdout);
    return EXIT_DONE;
}

}  // namespace

int Execute(const Invocation& invocation) {
    if (invocation.command == CommandName::Help) {
        std::fputs(invocation.helpText.toUtf8().constData(), stdout);
        return EXIT_DONE;
    }
    if (invocation.command == CommandName::Complete) {
        return Complete(invocation.words);
    }
    const QString path = SettingsPathForProcess(invocation.settingsFile);
    try {
        const ScheduleLocation location = LocateSchedule(path);
        if (invocation.command == CommandName::Run) {
            return RunScheduler(location, invocation.run);
        }
        EditRequest request = MakeEditRequest(invocation, Time::SystemClock().Now());
        if (invocation.command == CommandName::Import) {
            // Read here, where the name means what the user meant; the events are tracked by
            // the file they came from.
            QFile file(invocation.calendarFile);
            if (!file.open(QIODevice::ReadOnly)) {
                return Fail(QStringLiteral("cannot read %1: %2")
                                .arg(invocation.calendarFile, file.errorString()));
            }
            request.calendar = file.readAll();
            request.source = QFileInfo(file).canonicalFilePath();
        }
        const QString exportFile =
            invocation.command == CommandName::Export ? invocation.calendarFile : QString();
        return PrintTo(exportFile, Ask(location, request));
    } catch (const std::exception& error) {
        return Fail(QString::fromLocal8Bit(error.what()));
    }
}

}  // namespace Vexlor::ScheduleTool
