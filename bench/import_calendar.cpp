// Times the import of generated calendars, in process, as `import` carries it out on the
// schedule it read: into an empty schedule, again unchanged, again with every event
// moved, and an empty calendar from the same file (every event removed).
//
//   import_calendar [--plans K] N...             one line of times per N
//   import_calendar [--plans K] --write FILE N   the calendar of N events, for the program
//
// One-off events start a minute apart from a day ahead, each with its own title and UID;
// with --plans every K-th is a weekly plan instead.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>

#include "plans/Calendar.h"
#include "schedule/EditRequest.h"

namespace {

using namespace Vexlor::ScheduleTool;

QByteArray Calendar(int count, int planEvery, int shiftMinutes) {
    const QDateTime first = QDateTime::currentDateTimeUtc().addDays(1).addSecs(60LL * shiftMinutes);
    QByteArray text = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Bench//EN\r\n";
    text.reserve(count * 110);
    for (int i = 0; i < count; ++i) {
        // A plan starts 30 s off the minute, so that its occurrences meet no one-off start.
        const bool plan = planEvery > 0 && i % planEvery == 0;
        const QDateTime start = first.addSecs(60LL * i + (plan ? 30 : 0));
        text += "BEGIN:VEVENT\r\nUID:event-" + QByteArray::number(i) + "@bench\r\nSUMMARY:Event " +
                QByteArray::number(i) +
                "\r\nDTSTART:" + start.toString(QStringLiteral("yyyyMMddTHHmmssZ")).toLatin1() +
                "\r\nDURATION:PT30S\r\n" + (plan ? "RRULE:FREQ=WEEKLY\r\n" : "") + "END:VEVENT\r\n";
    }
    return text + "END:VCALENDAR\r\n";
}

double Seconds(std::chrono::steady_clock::duration elapsed) {
    return std::chrono::duration<double>(elapsed).count();
}

// Imports `calendar` into `state` (which takes the result) and gives the time it took. The
// import itself, without the size limit that the command puts before it.
double Import(ScheduleState& state, const QByteArray& calendar) {
    const auto begin = std::chrono::steady_clock::now();
    const ImportResult result =
        ImportCalendar(state.schedule, state.plans, calendar, QStringLiteral("/bench/calendar.ics"),
                       Vexlor::Time::SystemClock().Now());
    const double seconds = Seconds(std::chrono::steady_clock::now() - begin);
    if (!result.error.isEmpty()) {
        std::fprintf(stderr, "import refused: %s\n", result.error.toUtf8().constData());
        std::exit(1);
    }
    state.schedule = result.schedule;
    state.plans = result.book;
    return seconds;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    int first = 1;
    int plans = 0;
    if (argc > 2 && std::strcmp(argv[1], "--plans") == 0) {
        plans = std::atoi(argv[2]);
        first += 2;
    }
    if (argc == first + 3 && std::strcmp(argv[first], "--write") == 0) {
        QFile file(QString::fromLocal8Bit(argv[first + 1]));
        const QByteArray text = Calendar(std::atoi(argv[first + 2]), plans, 0);
        return file.open(QIODevice::WriteOnly) && file.write(text) == text.size() ? 0 : 1;
    }
    if (argc == first) {
        std::fprintf(stderr, "usage: import_calendar [--plans K] N... | --write FILE N\n");
        return 2;
    }
    std::printf("%8s %9s %8s %8s %8s %8s %8s\n", "events", "bytes", "records", "new", "again",
                "moved", "removed");
    for (int i = first; i < argc; ++i) {
        const int count = std::atoi(argv[i]);
        const QByteArray calendar = Calendar(count, plans, 0);
        ScheduleState state;
        const double added = Import(state, calendar);
        const std::size_t records = state.schedule.size();
        const double again = Import(state, calendar);
        const double moved = Import(state, Calendar(count, plans, 1));
        const double removed = Import(state, Calendar(0, plans, 0));
        std::printf("%8d %9d %8zu %7.2fs %7.2fs %7.2fs %7.2fs\n", count,
                    static_cast<int>(calendar.size()), records, added, again, moved, removed);
        std::fflush(stdout);
    }
    return 0;
}
