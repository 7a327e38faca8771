// Second process for the settings-file tests:
//   write <file> <n>   stores NumberedSchedule(n) through SchedulerSettings
//   expect <file> <n>  exits 0 if the file holds NumberedSchedule(n) and the flag is on
#include <cstdlib>
#include <cstring>
#include <memory>

#include "Scheduler/SchedulerSettings.h"
#include "platform/IniSettingsManager.h"
#include "support/NumberedSchedule.h"

using Vexlor::App::IniSettingsManager;
using Vexlor::QK::SchedulerSettings;
using Vexlor::Testing::NumberedSchedule;

int main(int argc, char** argv) {
    if (argc < 3) {
        return 2;
    }
    SchedulerSettings settings(
        std::make_shared<IniSettingsManager>(QString::fromLocal8Bit(argv[2])));
    if (std::strcmp(argv[1], "write") == 0 && argc == 4) {
        settings.SetSchedule(NumberedSchedule(std::atoi(argv[3])));
        return 0;
    }
    if (std::strcmp(argv[1], "expect") == 0 && argc == 4) {
        const bool same = settings.GetSchedule() == NumberedSchedule(std::atoi(argv[3]));
        return same && settings.IsSchedulerEnabled() ? 0 : 1;
    }
    return 2;
}
