#include "capture/ScreenCapture.h"

#include <QDateTime>
#include <QDir>
#include <QEventLoop>
#include <QFileInfo>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QTemporaryFile>
#include <QTimer>

#include "base/Diagnostics.h"
#include "capture/RecordingFile.h"

namespace Vexlor::ScheduleTool {

namespace {

constexpr int PROBE_PATIENCE_MS = 10000;
constexpr int FRAME_RATE = 30;
// ffmpeg stopped by the runner exits 0 after 'q' and 255 after SIGTERM.
constexpr int FFMPEG_INTERRUPTED = 255;

const QStringList QUIET = {QStringLiteral("-hide_banner"), QStringLiteral("-nostats"),
                           QStringLiteral("-loglevel"), QStringLiteral("error")};

QStringList VideoInput(const QString& display) {
    return {QStringLiteral("-f"),        QStringLiteral("x11grab"), QStringLiteral("-framerate"),
            QString::number(FRAME_RATE), QStringLiteral("-i"),      display};
}

QStringList AudioInput() {
    return {QStringLiteral("-f"), QStringLiteral("pulse"), QStringLiteral("-i"),
            QStringLiteral("default")};
}

// Runs ffmpeg on `input` for a moment; empty when it worked, else its last error line.
// Under CaptureProcess, so that not even a probe outlives the runner.
QString Probe(const QString& ffmpeg, const QStringList& input) {
    QEventLoop loop;
    bool done = false;
    CaptureProcess process([&](const QString&) {
        done = true;
        loop.quit();
    });
    process.Start(
        {ffmpeg,
         QUIET + input +
             QStringList{QStringLiteral("-t"), QStringLiteral("0.1"), QStringLiteral("-f"),
                         QStringLiteral("null"), QStringLiteral("-")},
         QProcessEnvironment::systemEnvironment(), QByteArrayLiteral("q")});
    QTimer patience;
    patience.setSingleShot(true);
    QObject::connect(&patience, &QTimer::timeout, [&] { process.Kill(); });
    patience.start(PROBE_PATIENCE_MS);
    if (!done) {
        loop.exec();
    }
    if (patience.isActive() && process.ExitedNormally() && process.ExitCode() == 0 &&
        !process.FailedToStart()) {
        return {};
    }
    if (!patience.isActive()) {
        return QStringLiteral("no answer within %1 s").arg(PROBE_PATIENCE_MS / 1000);
    }
    if (process.FailedToStart()) {
        return QStringLiteral("ffmpeg failed to start");
    }
    const QString line = process.LastErrorLine();
    return line.isEmpty() ? QStringLiteral("ffmpeg exit status %1").arg(process.ExitCode()) : line;
}

// Seconds since the epoch with microseconds, as ffmpeg's filters read a time.
QString Seconds(Time::TimePoint time) {
    const long long us = time.time_since_epoch().count();
    return QStringLiteral("%1.%2").arg(us / 1000000).arg(us % 1000000, 6, 10, QLatin1Char('0'));
}

// Keeps the frames grabbed from `start` by the wall clock, and moves `start` to time 0. The
// frame grabbed before `end` may be shown until a little before it, so the one grabbed up
// to a frame's time later is kept too.
QString Window(const QString& trim, const QString& setpts, Time::TimePoint start,
               std::optional<Time::TimePoint> end) {
    QString filter = QStringLiteral("%1=start=%2").arg(trim, Seconds(start));
    if (end) {
        constexpr Time::Microseconds FRAME{1000000 / FRAME_RATE};
        filter += QStringLiteral(":end=%1").arg(Seconds(*end + FRAME));
    }
    return filter + QStringLiteral(",%1=PTS-%2/TB").arg(setpts, Seconds(start));
}

}  // namespace

std::optional<ScreenSetup> PrepareScreenCapture(const std::optional<QString>& outputDir, bool audio,
                                                QString& error) {
    const QString cannot = QStringLiteral("cannot record the screen: ");
    ScreenSetup setup;
    setup.ffmpeg = QStandardPaths::findExecutable(QStringLiteral("ffmpeg"));
    if (setup.ffmpeg.isEmpty()) {
        error = cannot + QStringLiteral("ffmpeg is not installed (no ffmpeg in PATH)");
        return std::nullopt;
    }
    setup.display = qEnvironmentVariable("DISPLAY");
    if (setup.display.isEmpty()) {
        error = cannot + QStringLiteral("no X11 display (DISPLAY is not set)");
        return std::nullopt;
    }
    const QString failure = Probe(setup.ffmpeg, VideoInput(setup.display));
    if (!failure.isEmpty()) {
        error = cannot +
                QStringLiteral("ffmpeg cannot grab display %1: %2").arg(setup.display, failure);
        return std::nullopt;
    }
    const QString folder =
        outputDir.value_or(QStandardPaths::writableLocation(QStandardPaths::MoviesLocation));
    if (folder.isEmpty()) {
        error = cannot + QStringLiteral("no videos folder known; name one with --output");
        return std::nullopt;
    }
    setup.folder = QFileInfo(folder).absoluteFilePath();
    if (!QDir().mkpath(setup.folder)) {
        error = cannot + QStringLiteral("cannot create the output folder %1").arg(setup.folder);
        return std::nullopt;
    }
    // Permission bits do not tell (root, a read-only mount): try it.
    QTemporaryFile trial(QDir(setup.folder).filePath(QStringLiteral(".vexlor-schedule-XXXXXX")));
    if (!trial.open()) {
        error = cannot + QStringLiteral("the output folder %1 is not writable: %2")
                             .arg(setup.folder, trial.errorString());
        return std::nullopt;
    }
    if (audio) {
        const QString silence = Probe(setup.ffmpeg, AudioInput());
        setup.audio = silence.isEmpty();
        if (!setup.audio) {
            Warn(QStringLiteral("no PulseAudio or PipeWire source answers (%1): recording video "
                                "only")
                     .arg(silence));
        }
    }
    return setup;
}

std::unique_ptr<ScreenRecording> ScreenRecording::Create(
    const ScreenSetup& setup, const QString& title, Time::TimePoint plannedStart,
    Time::TimePoint windowStart, std::optional<Time::TimePoint> windowEnd, QString& error) {
    FileIdentity reserved;
    const auto path = ReserveRecordingFile(setup.folder, title, plannedStart, error, &reserved);
    if (!path) {
        return nullptr;
    }
    auto pending = PendingRecording::Create(
        setup.folder, {title, plannedStart, QFileInfo(*path).fileName(), reserved}, error);
    if (!pending) {
        GiveUpReservedFile(*path, reserved);
        return nullptr;
    }
    std::unique_ptr<ScreenRecording> recording(new ScreenRecording);
    recording->setup = setup;
    recording->path = *path;
    recording->pending = std::move(pending);
    recording->windowStart = windowStart;
    recording->windowEnd = windowEnd;
    return recording;
}

CaptureProcess::Launch ScreenRecording::MakeLaunch() const {
    // -copyts keeps the grab times, so that the window is cut where it lies on the clock.
    QStringList arguments = QUIET + QStringList{QStringLiteral("-y"), QStringLiteral("-copyts")} +
                            VideoInput(setup.display);
    if (setup.audio) {
        arguments += AudioInput();
    }
    // The title comes from a file, never from an argument: other users can read those.
    const int metadataInput = setup.audio ? 2 : 1;
    arguments += {QStringLiteral("-f"), QStringLiteral("ffmetadata"), QStringLiteral("-i"),
                  QStringLiteral("file:") + pending->MetadataPath()};
    // An odd width or height is cropped by one pixel: yuv420p needs even sizes.
    arguments +=
        {QStringLiteral("-map"), QStringLiteral("0:v"), QStringLiteral("-filter:v"),
         Window(QStringLiteral("trim"), QStringLiteral("setpts"), windowStart, windowEnd) +
             QStringLiteral(",crop=trunc(iw/2)*2:trunc(ih/2)*2"),
         QStringLiteral("-c:v"), QStringLiteral("libx264"), QStringLiteral("-preset"),
         QStringLiteral("ultrafast"), QStringLiteral("-pix_fmt"), QStringLiteral("yuv420p"),
         // The frames keep their grab times (to the millisecond), none made up.
         QStringLiteral("-fps_mode:v"), QStringLiteral("passthrough"),
         QStringLiteral("-enc_time_base:v"), QStringLiteral("1:1000")};
    if (setup.audio) {
        arguments +=
            {QStringLiteral("-map"),
             QStringLiteral("1:a"),
             QStringLiteral("-filter:a"),
             Window(QStringLiteral("atrim"), QStringLiteral("asetpts"), windowStart, windowEnd),
             QStringLiteral("-c:a"),
             QStringLiteral("aac")};
    }
    const QDateTime origin =
        QDateTime::fromMSecsSinceEpoch(windowStart.time_since_epoch().count() / 1000, Qt::UTC);
    arguments += {QStringLiteral("-map_metadata"), QString::number(metadataInput),
                  QStringLiteral("-metadata"),
                  QStringLiteral("creation_time=") +
                      origin.toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss.zzzZ")),
                  QStringLiteral("-f"), QStringLiteral("matroska"),
                  // "file:" so that no part of the name is read as a protocol.
                  QStringLiteral("file:") + pending->VideoPath()};
    // 'q' on standard input makes ffmpeg finish the file and exit 0.
    return {setup.ffmpeg, arguments, QProcessEnvironment::systemEnvironment(),
            QByteArrayLiteral("q")};
}

QString ScreenRecording::Outcome(const CaptureProcess& process) {
    const PendingRecording::Finished finished = pending->Finish();
    const bool saved = finished.saved;
    path = finished.file;
    // Kept under its neutral name, the file is named by the next run.
    const QString where =
        finished.error.isEmpty() ? path : QStringLiteral("%1 (%2)").arg(path, finished.error);
    if (process.FailedToStart()) {
        return QStringLiteral("ffmpeg failed to start, nothing saved to %1").arg(path);
    }
    const auto stopped = process.Stopped();
    // ffmpeg may exit 0 after an error (a full disk, the display gone), but never says one
    // at this log level when all went well.
    const QString line = process.LastErrorLine();
    const bool asked = stopped && (!process.ExitedNormally() || process.ExitCode() == 0 ||
                                   process.ExitCode() == FFMPEG_INTERRUPTED);
    const bool clean =
        line.isEmpty() && (asked || (process.ExitedNormally() && process.ExitCode() == 0));
    if (clean && saved) {
        const QString file = QStringLiteral(", saved to %1").arg(where);
        if (stopped == CaptureProcess::StopReason::Requested) {
            return QStringLiteral("stopped on request") + file;
        }
        // Without a stop from here, ffmpeg ends by itself at the end of the window.
        if (stopped || (windowEnd && Time::SystemClock().Now() >= *windowEnd)) {
            return QStringLiteral("as planned") + file;
        }
        return QStringLiteral("ffmpeg ended before the planned end") + file;
    }
    QString how = !process.ExitedNormally() ? QStringLiteral("ffmpeg ended by a signal")
                  : process.ExitCode() == 0
                      ? QStringLiteral("ffmpeg failed")
                      : QStringLiteral("ffmpeg failed (exit status %1)").arg(process.ExitCode());
    if (!line.isEmpty()) {
        how += QStringLiteral(": ") + line;
    }
    return how + (saved ? QStringLiteral("; file %1").arg(where)
                        : QStringLiteral("; nothing saved to %1").arg(path));
}

}  // namespace Vexlor::ScheduleTool
