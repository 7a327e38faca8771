#pragma once

#include <exception>

#include <QCoreApplication>

#include "base/Diagnostics.h"
#include "base/ExitCode.h"

namespace Vexlor::ScheduleTool {

// An exception that leaves an event handler (a settings file that can no longer be
// written, say) would otherwise reach Qt's event loop, which aborts. Here it ends the event
// loop with exit code 1 instead, so that the running capture is still stopped on the way out.
class GuardedApplication : public QCoreApplication {
public:
    using QCoreApplication::QCoreApplication;

    bool notify(QObject* receiver, QEvent* event) override {
        try {
            return QCoreApplication::notify(receiver, event);
        } catch (const std::exception& error) {
            Error(error.what());
            QCoreApplication::exit(EXIT_REFUSED);
            return false;
        }
    }
};

}  // namespace Vexlor::ScheduleTool
