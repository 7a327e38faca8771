#pragma once

#include <CLI/CLI.hpp>
#include <QString>

#include "base/CommandName.h"
#include "cli/CommandLine.h"

namespace Vexlor::ScheduleTool {

// A command as typed, as carried out, and what completes after it.
struct Command {
    const char* word;
    CommandName name;
    const char* summary;
    bool json;    // --json
    bool titles;  // its TITLE names a stored record
};
// In the order that --help lists them.
inline constexpr Command COMMANDS[] = {
    {"add", CommandName::Add, "Plans a recording.", false, false},
    {"import", CommandName::Import,
     "Takes the events of a calendar file: those with an RRULE\n"
     "become plans, the others recordings. Importing it again\n"
     "updates them by UID.",
     false, false},
    {"export", CommandName::Export, "Writes every plan and recording as a calendar.", false, false},
    {"upcoming", CommandName::Upcoming, "Prints the next recordings, plans expanded, local time.",
     false, false},
    {"list", CommandName::List,
     "Prints the stored schedule, one line per record: local\n"
     "start, duration, title, tag, mode.",
     true, false},
    {"remove", CommandName::Remove, "Removes the record with this title.", false, true},
    {"clear", CommandName::Clear, "Removes every record.", false, false},
    {"enable", CommandName::Enable, "Switches scheduling on.", false, false},
    {"disable", CommandName::Disable, "Switches scheduling off.", false, false},
    {"status", CommandName::Status,
     "Prints the enabled flag, the recording in progress (with\n"
     "a run active), the next recording and the time until it;\n"
     "a run also tells the notices shown and its next capture.",
     true, false},
    {"stop", CommandName::Stop,
     "Ends the recording in progress now; the run goes on\n"
     "with the next one.",
     false, false},
    {"run", CommandName::Run,
     "Runs the scheduler: starts each recording when it is due\n"
     "and prints a line per event.",
     false, false},
    {"help", CommandName::Help, "Lists the commands.", false, false},
};

// The commands with their options and help, as one CLI11 app that reads the values into
// `invocation` as it parses. Parsing and completion both use it, so that whatever parses also
// completes.
struct Grammar {
    Grammar();
    // The app's readers hold references to the members below.
    Grammar(const Grammar&) = delete;
    Grammar& operator=(const Grammar&) = delete;

    Invocation invocation;
    // Why --at names a time that only a plan may start at; known to matter once every argument
    // has been read.
    QString atProblem;
    CLI::App app;
};

}  // namespace Vexlor::ScheduleTool
