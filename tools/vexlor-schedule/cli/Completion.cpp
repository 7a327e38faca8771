#include "cli/CommandLine.h"

#include <optional>
#include <string>

#include "cli/Grammar.h"

namespace Vexlor::ScheduleTool {

namespace {

// The option of `scope` written as `word` ("--notify", "-h"), if any.
const CLI::Option* OptionNamed(const CLI::App& scope, const std::string& word) {
    for (const CLI::Option* option : scope.get_options()) {
        if (option->nonpositional() && option->check_name(word)) {
            return option;
        }
    }
    return nullptr;
}

// The values an option takes: those of a type name such as "screen|simulate", or files.
Completion ValuesOf(const CLI::Option& option, const QString& prefix) {
    const QString type = QString::fromStdString(option.get_type_name());
    Completion values;
    if (type == QLatin1String("FILE") || type == QLatin1String("DIR")) {
        values.kind = type == QLatin1String("FILE") ? Completion::Files : Completion::Folders;
        return values;
    }
    if (type.contains(QLatin1Char('|')) && !type.contains(QLatin1Char('"'))) {
        for (const QString& value : type.split(QLatin1Char('|'))) {
            values.words << prefix + value;
        }
    }
    return values;
}

const Command* CommandOf(const CLI::App* command) {
    for (const Command& known : COMMANDS) {
        if (command && command->get_name() == known.word) {
            return &known;
        }
    }
    return nullptr;
}

// What the words before the one being completed have said.
struct Typed {
    const CLI::App* command = nullptr;
    const CLI::Option* pending = nullptr;  // waits for its value
    std::optional<QString> settingsFile;
    bool afterDashes = false;
    int positionals = 0;
};

// The value of the option that waits for one; bash splits "--notify=none" into three words.
void TakeValue(const QString& word, Typed& typed) {
    if (word != QLatin1String("=")) {
        if (typed.pending->check_name("--settings")) {
            typed.settingsFile = word;
        }
        typed.pending = nullptr;
    }
}

// "--notify" waits for its value; "--notify=none" has it.
void TakeOption(const CLI::App& scope, const QString& word, Typed& typed) {
    const int equals = word.indexOf(QLatin1Char('='));
    const CLI::Option* option = OptionNamed(scope, word.left(equals).toStdString());
    if (option && option->get_expected_min() > 0) {
        if (equals < 0) {
            typed.pending = option;
        } else if (option->check_name("--settings")) {
            typed.settingsFile = word.mid(equals + 1);
        }
    }
}

Typed ReadTyped(const CLI::App& app, const QStringList& words) {
    Typed typed;
    for (int i = 0; i + 1 < words.size(); ++i) {
        const QString& word = words[i];
        if (typed.pending) {
            TakeValue(word, typed);
        } else if (!typed.afterDashes && word == QLatin1String("--")) {
            typed.afterDashes = true;
        } else if (!typed.afterDashes && word.startsWith(QLatin1Char('-'))) {
            TakeOption(typed.command ? *typed.command : app, word, typed);
        } else if (!typed.command) {
            for (const Command& known : COMMANDS) {
                if (word == QLatin1String(known.word)) {
                    typed.command = app.get_subcommand(known.word);
                }
            }
        } else {
            ++typed.positionals;
        }
    }
    return typed;
}

// What may follow what was typed, in the word `current` that has begun.
Completion CandidatesAfter(const CLI::App& app, const Typed& typed, const QString& current) {
    const CLI::App& scope = typed.command ? *typed.command : app;
    Completion completion;
    const int equals = current.indexOf(QLatin1Char('='));
    if (typed.pending) {
        completion = ValuesOf(*typed.pending, {});
    } else if (!typed.afterDashes && current.startsWith(QLatin1String("--")) && equals > 0) {
        if (const CLI::Option* option = OptionNamed(scope, current.left(equals).toStdString())) {
            completion = ValuesOf(*option, current.left(equals + 1));
        }
    } else if (!typed.afterDashes && current.startsWith(QLatin1Char('-'))) {
        for (const CLI::Option* option : scope.get_options()) {
            for (const std::string& name : option->get_lnames()) {
                completion.words << QString::fromStdString("--" + name);
            }
        }
    } else if (!typed.command) {
        for (const Command& known : COMMANDS) {
            completion.words << QString::fromLatin1(known.word);
        }
    } else if (const Command* known = CommandOf(typed.command)) {
        completion.titles = known->titles && typed.positionals == 0;
        // A title that starts with - is read as an option unless it comes after --.
        completion.titlesAfterDashes = typed.afterDashes;
    }
    return completion;
}

}  // namespace

Completion CompleteCommandLine(const QStringList& words) {
    const Grammar grammar;
    const Typed typed = ReadTyped(grammar.app, words);
    Completion completion =
        CandidatesAfter(grammar.app, typed, words.isEmpty() ? QString() : words.back());
    completion.settingsFile = typed.settingsFile;
    return completion;
}

}  // namespace Vexlor::ScheduleTool
