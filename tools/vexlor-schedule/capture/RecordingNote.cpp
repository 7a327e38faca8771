#include "capture/RecordingNote.h"

#include <QFile>
#include <QList>

namespace Vexlor::ScheduleTool {

namespace {

const QByteArray HEADER = QByteArrayLiteral(";FFMETADATA1");
const QByteArray START_KEY = QByteArrayLiteral(";vexlor-start");
const QByteArray NAME_KEY = QByteArrayLiteral(";vexlor-reserved-name");
const QByteArray FILE_KEY = QByteArrayLiteral(";vexlor-reserved-file");
const QByteArray TITLE_KEY = QByteArrayLiteral("title");

// FFMETADATA escapes these with a backslash; a newline left as it is would end the value
// and begin a line of its own. A tag holds no NUL.
QByteArray Escape(const QByteArray& text) {
    QByteArray escaped;
    escaped.reserve(text.size() + 8);
    for (const char c : text) {
        if (c == '=' || c == ';' || c == '#' || c == '\\' || c == '\n') {
            escaped += '\\';
        }
        if (c != '\0') {
            escaped += c;
        }
    }
    return escaped;
}

// Lines as ffmpeg reads them: an escaped newline stays in the line, escapes are kept.
QList<QByteArray> SplitLines(const QByteArray& text) {
    QList<QByteArray> lines;
    QByteArray line;
    for (int i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size()) {
            line += text[i];
            line += text[++i];
        } else if (text[i] == '\n') {
            lines << line;
            line.clear();
        } else {
            line += text[i];
        }
    }
    if (!line.isEmpty()) {
        lines << line;
    }
    return lines;
}

// The key and the value of `line`, split at its first '=' that is not escaped, unescaped.
std::optional<std::pair<QByteArray, QByteArray>> SplitTag(const QByteArray& line) {
    QByteArray parts[2];
    int part = 0;
    for (int i = 0; i < line.size(); ++i) {
        if (line[i] == '\\' && i + 1 < line.size()) {
            parts[part] += line[++i];
        } else if (line[i] == '=' && part == 0) {
            part = 1;
        } else {
            parts[part] += line[i];
        }
    }
    if (part == 0) {
        return std::nullopt;
    }
    return std::make_pair(parts[0], parts[1]);
}

}  // namespace

QByteArray EncodeNote(const RecordingNote& note) {
    const QByteArray file =
        QByteArray::number(note.reserved.device) + ':' + QByteArray::number(note.reserved.inode);
    return HEADER + '\n' + START_KEY + '=' +
           QByteArray::number(note.plannedStart.time_since_epoch().count()) + '\n' + NAME_KEY +
           '=' + Escape(QFile::encodeName(note.reservedName)) + '\n' + FILE_KEY + '=' + file +
           '\n' + TITLE_KEY + '=' + Escape(note.title.toUtf8()) + '\n';
}

std::optional<RecordingNote> DecodeNote(const QByteArray& text) {
    const QList<QByteArray> lines = SplitLines(text);
    if (lines.isEmpty() || lines.front() != HEADER) {
        return std::nullopt;
    }
    std::optional<long long> start;
    std::optional<QString> name;
    std::optional<FileIdentity> file;
    std::optional<QString> title;
    for (const QByteArray& line : lines.mid(1)) {
        const auto tag = SplitTag(line);
        bool read = true;
        if (!tag) {
            continue;
        } else if (tag->first == START_KEY) {
            start = tag->second.toLongLong(&read);
        } else if (tag->first == NAME_KEY) {
            name = QFile::decodeName(tag->second);
        } else if (tag->first == FILE_KEY) {
            const QList<QByteArray> parts = tag->second.split(':');
            bool inode = false;
            file = FileIdentity{parts.front().toULongLong(&read),
                                parts.size() == 2 ? parts.back().toULongLong(&inode) : 0};
            read = read && inode;
        } else if (tag->first == TITLE_KEY) {
            title = QString::fromUtf8(tag->second);
        }
        if (!read) {
            return std::nullopt;
        }
    }
    // A name with a slash would lead out of the folder.
    if (!start || !name || !file || !title || name->isEmpty() || name->contains(QLatin1Char('/'))) {
        return std::nullopt;
    }
    return RecordingNote{*title, Time::TimePoint(Time::Microseconds(*start)), *name, *file};
}

}  // namespace Vexlor::ScheduleTool
