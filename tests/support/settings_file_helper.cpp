// Second process for the settings-file tests, on the file <path>:
//   <path> <n>       exits 0 if the file holds NumberedSchedule(n) with the flag on, else 1;
//                    then stores NumberedSchedule(n + 1)
//   <path> <n> loop  stores NumberedSchedule(n), n + 1, ... until killed; prints a line once
//                    the first one is stored
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "Scheduler/SchedulerSettings.h"
#include "platform/IniSettingsManager.h"
#include "support/NumberedSchedule.h"

int main(int argc, char** argv) {
    using Vexlor::Testing::NumberedSchedule;
    Vexlor::QK::SchedulerSettings settings(
        std::make_shared<Vexlor::App::IniSettingsManager>(QString::fromLocal8Bit(argv[1])));
    int n = std::atoi(argv[2]);
    if (argc == 4) {
        settings.SetSchedule(NumberedSchedule(n));
        std::puts("stored");
        std::fflush(stdout);
        for (;;) {
            settings.SetSchedule(NumberedSchedule(++n));
        }
    }
    const bool held =
        settings.IsSchedulerEnabled() && settings.GetSchedule() == NumberedSchedule(n);
    settings.SetSchedule(NumberedSchedule(n + 1));
    return held ? 0 : 1;
}
