#pragma once

#include <memory>
#include <optional>

#include <QString>
#include <QStringList>

#include "capture/RecordingNote.h"

namespace Vexlor::ScheduleTool {

// A recording that ffmpeg writes under a neutral hidden name in the output folder,
// ".vexlor-recording-<random>.mkv.part", and whose title ffmpeg reads from a private (0600)
// metadata file beside it, ".vexlor-recording-<random>.ffmeta": no title, and no name made
// from one, is ever among ffmpeg's arguments, which every local user can read.
//
// The metadata file stays locked while this object lives, so that a run starting meanwhile
// leaves both files alone, and stays until the video has its name, so that a run killed
// before that leaves what the next one needs to finish the job.
class PendingRecording {
public:
    // Makes both files, the video empty; nothing, with `error` set, if that fails.
    static std::unique_ptr<PendingRecording> Create(const QString& folder, RecordingNote note,
                                                    QString& error);
    // Takes over the files an earlier run left under `stem` in `folder`. Nothing while
    // another process holds them or the metadata file is gone, and nothing with `problem`
    // set when it cannot be read.
    static std::unique_ptr<PendingRecording> Adopt(const QString& folder, const QString& stem,
                                                   QString& problem);
    ~PendingRecording();

    PendingRecording(const PendingRecording&) = delete;
    PendingRecording& operator=(const PendingRecording&) = delete;

    QString VideoPath() const;
    QString MetadataPath() const;
    QString ReservedPath() const;
    const RecordingNote& Note() const { return note; }

    struct Finished {
        QString file;        // the video's path now, or the name it would have had
        bool saved = false;  // the video has something in it
        QString error;       // why it keeps its neutral name, with its metadata file
    };
    // Gives the video its name (MoveToRecordingName) and removes the metadata file; an
    // empty video is removed, with the file reserved for it.
    Finished Finish();

private:
    PendingRecording(QString folder, QString stem, RecordingNote note, int lock);

    QString folder;
    QString stem;
    RecordingNote note;
    int lock = -1;  // the metadata file, locked
};

// Finishes what earlier runs left in `folder`, those that no running capture holds: each
// video under its neutral name gets its name. Returns one line for each video: where it
// went, or why it stays as it is (its title unknown).
QStringList FinishLeftRecordings(const QString& folder);

}  // namespace Vexlor::ScheduleTool
