#include <cstdio>

#include <glog/logging.h>
#include <QCoreApplication>
#include <QStringList>

#include "CommandLine.h"
#include "Commands.h"
#include "GuardedApplication.h"

int main(int argc, char** argv) {
    Vexlor::ScheduleTool::GuardedApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("vexlor-schedule"));
    FLAGS_logtostderr = true;
    google::InitGoogleLogging(argv[0]);

    using namespace Vexlor::ScheduleTool;
    const ParseResult parsed = ParseCommandLine(QCoreApplication::arguments().mid(1));
    if (!parsed.invocation) {
        std::fprintf(stderr, "vexlor-schedule: %s\n(vexlor-schedule help lists the commands)\n",
                     qPrintable(parsed.error));
        return EXIT_USAGE;
    }
    return Execute(*parsed.invocation);
}
