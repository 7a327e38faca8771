#include "capture/PendingRecording.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>

#include "base/RecordText.h"

namespace Vexlor::ScheduleTool {

namespace {

const QString PREFIX = QStringLiteral(".vexlor-recording-");
const QString VIDEO_SUFFIX = QStringLiteral(".mkv.part");
const QString METADATA_SUFFIX = QStringLiteral(".ffmeta");

// A title fits in 128 KiB; twice that escaped, and the rest.
constexpr qint64 LONGEST_NOTE = 1 << 20;

QString SystemReason(int error) {
    return QString::fromLocal8Bit(::strerror(error));
}

// Whether `fd` is still the file named `path`: a run that finished it may have removed it.
bool StillNamed(int fd, const QString& path) {
    struct stat open = {};
    struct stat named = {};
    return ::fstat(fd, &open) == 0 && ::lstat(QFile::encodeName(path).constData(), &named) == 0 &&
           open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

bool WriteAll(int fd, const QByteArray& bytes) {
    qint64 done = 0;
    while (done < bytes.size()) {
        const ssize_t written = ::write(fd, bytes.constData() + done, bytes.size() - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        done += written;
    }
    return true;
}

std::optional<QByteArray> ReadAll(int fd) {
    QByteArray bytes;
    char buffer[65536];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0 || bytes.size() + got > LONGEST_NOTE) {
            return std::nullopt;
        }
        if (got == 0) {
            return bytes;
        }
        bytes.append(buffer, static_cast<int>(got));
    }
}

QString RandomStem() {
    return PREFIX + QString::number(QRandomGenerator::system()->generate64(), 16)
                        .rightJustified(16, QLatin1Char('0'));
}

}  // namespace

PendingRecording::PendingRecording(QString folder, QString stem, RecordingNote note, int lock)
    : folder(std::move(folder)), stem(std::move(stem)), note(std::move(note)), lock(lock) {}

PendingRecording::~PendingRecording() {
    ::close(lock);  // and with it the lock
}

QString PendingRecording::VideoPath() const {
    return QDir(folder).filePath(stem + VIDEO_SUFFIX);
}

QString PendingRecording::MetadataPath() const {
    return QDir(folder).filePath(stem + METADATA_SUFFIX);
}

QString PendingRecording::ReservedPath() const {
    return QDir(folder).filePath(note.reservedName);
}

std::unique_ptr<PendingRecording> PendingRecording::Create(const QString& folder,
                                                           RecordingNote note, QString& error) {
    constexpr int MOST_TRIES = 100;
    for (int tries = 0; tries < MOST_TRIES; ++tries) {
        const QString stem = RandomStem();
        const QString metadata = QDir(folder).filePath(stem + METADATA_SUFFIX);
        const QByteArray metadataName = QFile::encodeName(metadata);
        // 0600: the title is for the user's eyes only.
        const int fd =
            ::open(metadataName.constData(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0 && errno == EEXIST) {
            continue;
        }
        if (fd < 0) {
            error = QStringLiteral("cannot create %1: %2").arg(metadata, SystemReason(errno));
            return nullptr;
        }
        std::unique_ptr<PendingRecording> pending(new PendingRecording(folder, stem, note, fd));
        // Locked before anything is in it: a run starting now finds it locked or empty, and
        // leaves it alone either way.
        while (::flock(fd, LOCK_EX) != 0) {
            if (errno != EINTR) {
                error = QStringLiteral("cannot lock %1: %2").arg(metadata, SystemReason(errno));
                ::unlink(metadataName.constData());
                return nullptr;
            }
        }
        if (!WriteAll(fd, EncodeNote(note))) {
            error = QStringLiteral("cannot write %1: %2").arg(metadata, SystemReason(errno));
            ::unlink(metadataName.constData());
            return nullptr;
        }
        // The video's permissions are those of any new file of the user's.
        const QByteArray videoName = QFile::encodeName(pending->VideoPath());
        const int video =
            ::open(videoName.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (video >= 0) {
            ::close(video);
            return pending;
        }
        const int reason = errno;
        ::unlink(metadataName.constData());
        if (reason != EEXIST) {
            error = QStringLiteral("cannot create %1: %2")
                        .arg(pending->VideoPath(), SystemReason(reason));
            return nullptr;
        }
    }
    error = QStringLiteral("cannot create a file in %1 under a name of its own").arg(folder);
    return nullptr;
}

std::unique_ptr<PendingRecording> PendingRecording::Adopt(const QString& folder,
                                                          const QString& stem, QString& problem) {
    const QString metadata = QDir(folder).filePath(stem + METADATA_SUFFIX);
    const int fd = ::open(QFile::encodeName(metadata).constData(),
                          O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        if (errno != ENOENT) {
            problem = QStringLiteral("%1 cannot be read: %2").arg(metadata, SystemReason(errno));
        }
        return nullptr;
    }
    std::unique_ptr<PendingRecording> left(new PendingRecording(folder, stem, {}, fd));
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0 || !StillNamed(fd, metadata)) {
        return nullptr;  // a capture or another run has it
    }
    const std::optional<QByteArray> text = ReadAll(fd);
    if (text && text->isEmpty()) {
        return nullptr;  // being made
    }
    const std::optional<RecordingNote> note = text ? DecodeNote(*text) : std::nullopt;
    if (!note) {
        problem = QStringLiteral("%1 is not a recording's metadata file").arg(metadata);
        return nullptr;
    }
    left->note = *note;
    return left;
}

PendingRecording::Finished PendingRecording::Finish() {
    const QString video = VideoPath();
    const QByteArray videoName = QFile::encodeName(video);
    struct stat written = {};
    const bool saved = ::lstat(videoName.constData(), &written) == 0 && written.st_size > 0;
    Finished finished{ReservedPath(), saved, {}};
    if (saved) {
        const std::optional<QString> named =
            MoveToRecordingName(video, folder, note.title, note.plannedStart, ReservedPath(),
                                note.reserved, finished.error);
        if (!named) {
            finished.file = video;
            return finished;  // the metadata file stays for the next run to try again
        }
        finished.file = *named;
    } else {
        if (::lstat(videoName.constData(), &written) == 0 && S_ISREG(written.st_mode)) {
            ::unlink(videoName.constData());
        }
        GiveUpReservedFile(ReservedPath(), note.reserved);
    }
    ::unlink(QFile::encodeName(MetadataPath()).constData());
    return finished;
}

namespace {

const QString LEFT = QStringLiteral("recording left by an earlier run: ");

// The line for what is left under `stem` that cannot be finished, if it is to be told.
std::optional<QString> Unfinishable(const QString& folder, const QString& stem,
                                    const QString& problem) {
    const QString video = QDir(folder).filePath(stem + VIDEO_SUFFIX);
    if (!QFileInfo::exists(video)) {
        return std::nullopt;
    }
    if (QFileInfo::exists(QDir(folder).filePath(stem + METADATA_SUFFIX))) {
        if (problem.isEmpty()) {
            return std::nullopt;  // in use
        }
        return LEFT +
               QStringLiteral("%1, title unknown (%2), kept under that name").arg(video, problem);
    }
    return LEFT +
           QStringLiteral("%1, title unknown (no metadata file beside it), kept under that name")
               .arg(video);
}

}  // namespace

QStringList FinishLeftRecordings(const QString& folder) {
    std::set<QString> stems;
    const QStringList names = QDir(folder).entryList({PREFIX + QLatin1Char('*')},
                                                     QDir::Files | QDir::Hidden | QDir::System);
    for (const QString& name : names) {
        for (const QString& suffix : {VIDEO_SUFFIX, METADATA_SUFFIX}) {
            if (name.endsWith(suffix)) {
                stems.insert(name.chopped(suffix.size()));
            }
        }
    }
    QStringList lines;
    for (const QString& stem : stems) {
        QString problem;
        const std::unique_ptr<PendingRecording> left =
            PendingRecording::Adopt(folder, stem, problem);
        if (!left) {
            if (const auto line = Unfinishable(folder, stem, problem)) {
                lines << *line;
            }
            continue;
        }
        // Without its video, the run that left it had named it already or never begun it.
        const bool begun = QFileInfo::exists(left->VideoPath());
        const PendingRecording::Finished finished = left->Finish();
        const QString title = QuoteTitle(left->Note().title);
        if (!begun) {
            continue;
        }
        if (!finished.error.isEmpty()) {
            lines << LEFT + QStringLiteral("%1, kept as %2: %3")
                                .arg(title, finished.file, finished.error);
        } else {
            lines << LEFT + QStringLiteral("%1, %2 %3")
                                .arg(title,
                                     finished.saved ? QStringLiteral("saved to")
                                                    : QStringLiteral("nothing saved to"),
                                     finished.file);
        }
    }
    return lines;
}

}  // namespace Vexlor::ScheduleTool
