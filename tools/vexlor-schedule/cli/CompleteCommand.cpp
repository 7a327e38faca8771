#include "cli/CompleteCommand.h"

#include <cstdio>
#include <exception>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "base/ExitCode.h"
#include "cli/CommandLine.h"
#include "store/EditClient.h"
#include "store/SettingsPath.h"

namespace Vexlor::ScheduleTool {

namespace {

// The titles of the stored records, asked of the schedule (or the active run) as `list --json`.
void AddTitles(const Completion& completion, QStringList& lines) {
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

}  // namespace

// A line naming what to complete (words, files or folders), then one candidate per line. Quiet
// on failure: a shell shows what it gets.
int PrintCompletion(const QStringList& words) {
    const Completion completion = CompleteCommandLine(words);
    const char* const kinds[] = {"words", "files", "folders"};
    QStringList lines{QString::fromLatin1(kinds[completion.kind])};
    lines += completion.words;
    if (completion.titles) {
        AddTitles(completion, lines);
    }
    std::fputs((lines.join(QLatin1Char('\n')) + QLatin1Char('\n')).toUtf8().constData(), stdout);
    return EXIT_DONE;
}

}  // namespace Vexlor::ScheduleTool
