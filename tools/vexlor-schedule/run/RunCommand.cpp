#include "run/RunCommand.h"

#include <memory>
#include <optional>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

#include "base/Diagnostics.h"
#include "base/ExitCode.h"
#include "capture/ScreenCapture.h"
#include "run/RunSession.h"
#include "run/RunTimings.h"
#include "store/FileLock.h"

namespace Vexlor::ScheduleTool {

namespace {

int Refuse(const std::string& message) {
    Error(message.c_str());
    return EXIT_REFUSED;
}

}  // namespace

int RunScheduler(const ScheduleLocation& location, const RunOptions& options) {
    // Refused now rather than at the first recording's start.
    std::optional<ScreenSetup> screen;
    if (options.capture == CaptureKind::Screen) {
        QString error;
        screen = PrepareScreenCapture(options.outputDir, options.audio, error);
        if (!screen) {
            return Refuse(error.toStdString());
        }
    }
    const QString folder = QFileInfo(location.settingsPath).absolutePath();
    if (!QDir().mkpath(folder)) {
        return Refuse("cannot create the settings folder " + folder.toStdString());
    }
    std::optional<FileLock> runLock;
    try {
        runLock = FileLock::TryTake(location.runLockPath, true);
    } catch (const std::exception& error) {
        return Refuse(std::string("cannot take the run lock: ") + error.what());
    }
    if (!runLock) {
        // Two runners on one schedule would both carry out every recording.
        return Refuse("another run is active on " + location.settingsPath.toStdString() + " (pid " +
                      std::to_string(FileLock::HolderPid(location.runLockPath)) + ")");
    }
    try {
        std::unique_ptr<RunSession> session;
        {
            // Edits that began before this run finish first; later ones come over the socket.
            FileLock editLock = FileLock::Take(location.editLockPath, EDIT_LOCK_PATIENCE);
            session = std::make_unique<RunSession>(location, options, std::move(screen));
        }
        return QCoreApplication::exec();
    } catch (const std::exception& error) {
        return Refuse(error.what());
    }
}

}  // namespace Vexlor::ScheduleTool
