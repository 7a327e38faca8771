#pragma once

#include <optional>

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>
#include <QStringList>

#include "interfaces/Clock.h"

namespace Vexlor::ScheduleTool {

enum class CommandName {
    Add,
    List,
    Remove,
    Clear,
    Enable,
    Disable,
    Status,
    Run,
    Help,
    Import,
    Export,
    Upcoming
};

enum class NoticeChoice { Desktop, Console, None };

enum class CaptureKind { Simulate, Screen };

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

struct RunOptions {
    Time::Microseconds lead{0};
    std::optional<QString> exec;
    bool untilEmpty = false;
    std::optional<NoticeChoice> notice;  // unset: chosen from the session, see DesktopBackends.h
    bool keepAwake = true;
    CaptureKind capture = CaptureKind::Simulate;  // --capture; excludes --exec
    std::optional<QString> outputDir;             // --output: where screen captures go
    bool audio = false;                           // --audio: the default source as well
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
};

struct ParseResult {
    std::optional<Invocation> invocation;
    QString error;  // set when invocation is empty
};

// `arguments` are the bytes of argv after the program name, as the system passed them: each
// must be UTF-8, so that nothing is silently replaced on the way in. "--help" after a command,
// or alone, gives CommandName::Help with that command's help text.
ParseResult ParseCommandLine(const QList<QByteArray>& arguments);

}  // namespace Vexlor::ScheduleTool
