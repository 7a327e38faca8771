// Writes a schedule of N records into a settings file and switches scheduling on, the way
// the runner stores them: the first record starts a day from now, the others an hour apart.
// Adding them one by one with the runner would rewrite the file N times.
//
//   seed_schedule FILE N
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "Scheduler/SchedulerSettings.h"
#include "interfaces/Clock.h"
#include "platform/IniSettingsManager.h"

int main(int argc, char** argv) {
    using namespace Vexlor;
    using namespace std::chrono_literals;
    if (argc != 3 || std::atoi(argv[2]) < 1) {
        std::fprintf(stderr, "usage: seed_schedule FILE N\n");
        return 2;
    }
    const int count = std::atoi(argv[2]);
    const Time::TimePoint first = Time::SystemClock().Now() + 24h;
    QK::RecordTimeList schedule(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        auto& record = schedule[static_cast<size_t>(i)];
        record.title = QStringLiteral("Recording %1").arg(i);
        record.startTime = first + i * Time::Microseconds(1h);
        record.duration = 30min;
    }
    QK::SchedulerSettings settings(
        std::make_shared<App::IniSettingsManager>(QString::fromLocal8Bit(argv[1])));
    settings.SetSchedule(schedule);
    settings.SetSchedulerEnabled(true);
    return 0;
}
