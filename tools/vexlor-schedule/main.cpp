#include <glog/logging.h>
#include <QByteArray>
#include <QCoreApplication>
#include <QList>

#include "base/Diagnostics.h"
#include "cli/CommandLine.h"
#include "cli/Commands.h"
#include "cli/GuardedApplication.h"

int main(int argc, char** argv) {
    Vexlor::ScheduleTool::GuardedApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("vexlor-schedule"));
    FLAGS_logtostderr = true;
    google::InitGoogleLogging(argv[0]);

    using namespace Vexlor::ScheduleTool;
    // The bytes as given: QCoreApplication::arguments() has already replaced any that are not
    // UTF-8. The application object has taken out the arguments that were its own.
    QList<QByteArray> arguments;
    for (int i = 1; i < argc; ++i) {
        arguments << QByteArray(argv[i]);
    }
    const ParseResult parsed = ParseCommandLine(arguments);
    if (!parsed.invocation) {
        Error(parsed.error + QStringLiteral("\n(%1 help lists the commands)")
                                 .arg(QCoreApplication::applicationName()));
        return EXIT_USAGE;
    }
    return Execute(*parsed.invocation);
}
