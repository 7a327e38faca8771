#include "cli/Commands.h"

#include <cstdio>
#include <exception>
#include <memory>

#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include "base/Diagnostics.h"
#include "cli/CompleteCommand.h"
#include "cli/Requests.h"
#include "plans/Calendar.h"
#include "run/RunCommand.h"
#include "store/EditClient.h"
#include "store/SettingsPath.h"

namespace Vexlor::ScheduleTool {

namespace {

int Print(const EditOutcome& outcome) {
    std::fputs(outcome.out.toUtf8().constData(), stdout);
    for (const QString& line : outcome.err.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        Error(line);
    }
    return outcome.exitCode;
}

int Fail(const QString& message) {
    return Print({EXIT_REFUSED, {}, message, std::nullopt});
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

// Up to one byte more than a calendar may hold, whatever the file is (a device, a pipe, a
// sparse file), so that one over the limit is told at once; false on a read error.
bool ReadAtMost(QFile& file, QByteArray& bytes) {
    bytes.clear();
    while (bytes.size() <= MAX_CALENDAR_BYTES) {
        const QByteArray chunk = file.read(MAX_CALENDAR_BYTES + 1 - bytes.size());
        if (chunk.isEmpty()) {
            return file.error() == QFileDevice::NoError;
        }
        bytes += chunk;
    }
    return true;
}

}  // namespace

int Execute(const Invocation& invocation) {
    if (invocation.command == CommandName::Help) {
        std::fputs(invocation.helpText.toUtf8().constData(), stdout);
        return EXIT_DONE;
    }
    if (invocation.command == CommandName::Complete) {
        return PrintCompletion(invocation.words);
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
            if (!file.open(QIODevice::ReadOnly) || !ReadAtMost(file, request.calendar)) {
                return Fail(QStringLiteral("cannot read %1: %2")
                                .arg(invocation.calendarFile, file.errorString()));
            }
            if (request.calendar.size() > MAX_CALENDAR_BYTES) {
                return Fail(QStringLiteral("%1: %2; nothing was imported")
                                .arg(invocation.calendarFile, CalendarTooLarge()));
            }
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
