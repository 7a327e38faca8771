#include "cli/CommandLine.h"

#include <string>
#include <vector>

#include "base/TitleRule.h"
#include "cli/Arguments.h"
#include "cli/Grammar.h"
#include "plans/Occurrences.h"

namespace Vexlor::ScheduleTool {

namespace {

// Not a command of --help: the completion scripts call it.
constexpr const char* COMPLETE_WORD = "__complete";

// The shells' helper: it takes what was typed, whatever that is.
Invocation CompletionOf(const QList<QByteArray>& arguments) {
    Invocation invocation;
    invocation.command = CommandName::Complete;
    for (int i = 1; i < arguments.size(); ++i) {
        invocation.words << QString::fromUtf8(arguments[i]);
    }
    return invocation;
}

// What the app's readers cannot see alone: the command given, and options that need others.
ParseResult Checked(const CLI::App& app, Invocation invocation, const QString& atProblem) {
    if (app.get_subcommands().empty()) {
        return {std::nullopt, QStringLiteral("no command given")};
    }
    for (const Command& command : COMMANDS) {
        if (app.got_subcommand(command.word)) {
            invocation.command = command.name;
        }
    }
    if (invocation.command == CommandName::Help) {
        invocation.helpText = QString::fromStdString(
            app.get_formatter()->make_help(&app, app.get_name(), CLI::AppFormatMode::Normal));
    }
    if (invocation.command == CommandName::Add && !invocation.add.at && !invocation.add.in) {
        return {std::nullopt, QStringLiteral("add needs --at TIME or --in DURATION")};
    }
    if (invocation.command == CommandName::Add && !invocation.add.repeat && !atProblem.isEmpty()) {
        return {std::nullopt, atProblem};
    }
    if (invocation.command == CommandName::Add && invocation.add.repeat) {
        // Each recording of a plan carries its start after the title.
        const QString problem = TitleProblem(invocation.add.title, OCCURRENCE_STAMP_BYTES);
        if (!problem.isEmpty()) {
            return {std::nullopt, QStringLiteral("TITLE: ") + problem};
        }
    }
    const RunOptions& run = invocation.run;
    if (invocation.command == CommandName::Run && (run.outputDir || run.audio) &&
        run.capture != CaptureKind::Screen) {
        return {std::nullopt, QStringLiteral("--output and --audio need --capture screen")};
    }
    return {invocation, {}};
}

}  // namespace

ParseResult ParseCommandLine(const QList<QByteArray>& arguments) {
    if (!arguments.isEmpty() && arguments.front() == COMPLETE_WORD) {
        return {CompletionOf(arguments), {}};
    }
    QString refusal;
    std::optional<std::vector<std::string>> backwards = DecodeArguments(arguments, refusal);
    if (!backwards) {
        return {std::nullopt, refusal};
    }
    Grammar grammar;
    try {
        grammar.app.parse(*backwards);
    } catch (const CLI::CallForHelp&) {
        grammar.invocation.command = CommandName::Help;
        // That of the command given.
        grammar.invocation.helpText = QString::fromStdString(grammar.app.help());
        return {grammar.invocation, {}};
    } catch (const CLI::ParseError& error) {
        return {std::nullopt, QString::fromUtf8(error.what())};
    }
    return Checked(grammar.app, grammar.invocation, grammar.atProblem);
}

}  // namespace Vexlor::ScheduleTool
