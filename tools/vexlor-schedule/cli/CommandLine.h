#pragma once

#include <optional>

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>
#include <QStringList>

#include "base/CommandName.h"
#include "interfaces/Clock.h"
#include "run/RunOptions.h"

namespace Vexlor::ScheduleTool {

struct AddOptions {
    QString title;
    std::optional<Time::TimePoint> at;     // --at, local time converted
    QDateTime atWall;                      // --at as written (fields carried as UTC)
    std::optional<QString> repeat;         // --repeat RULE: a plan
    std::optional<Time::Microseconds> in;  // --in, counted from the moment of the add
    Time::Microseconds duration{0};
    int tag = -1;
    int mode = 0;
    bool allowOverlap = false;
    bool enable = false;  // --enable: switch scheduling on in the same edit
};

struct Invocation {
    std::optional<QString> settingsFile;
    CommandName command = CommandName::Help;
    AddOptions add;
    QString removeTitle;
    RunOptions run;
    QString calendarFile;  // import FILE, export [FILE]
    int count = 10;        // upcoming --count
    QString helpText;      // CommandName::Help: what to print
    bool json = false;     // list, status: one JSON document instead of lines
    QStringList words;     // CommandName::Complete: the words typed so far, the last one partly
};

struct ParseResult {
    std::optional<Invocation> invocation;
    QString error;  // set when invocation is empty
};

// `arguments` are the bytes of argv after the program name, as the system passed them: each
// must be UTF-8, so that nothing is silently replaced on the way in. "--help" after a command,
// or alone, gives CommandName::Help with that command's help text.
ParseResult ParseCommandLine(const QList<QByteArray>& arguments);

// What may stand in the last of `words` (the arguments typed so far after the program's name,
// the last one being completed), from the commands and options that ParseCommandLine knows,
// so that a new command or option completes with no change to the shells' scripts.
struct Completion {
    enum Kind { Words, Files, Folders } kind = Words;
    QStringList words;
    bool titles = false;                  // the titles of the stored records as well
    bool titlesAfterDashes = false;       // and those starting with -, which only -- lets through
    std::optional<QString> settingsFile;  // --settings, when typed
};
Completion CompleteCommandLine(const QStringList& words);

}  // namespace Vexlor::ScheduleTool
