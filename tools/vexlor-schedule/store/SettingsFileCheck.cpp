#include "store/SettingsFileCheck.h"

#include <map>
#include <memory>
#include <vector>

#include <QFile>
#include <QFileInfo>
#include <QList>
#include <QSet>
#include <QTextCodec>

#include "Scheduler/SchedulerSettings.h"

namespace Vexlor::ScheduleTool {

namespace {

// Takes what is written to it and forgets nothing else: an empty settings store.
class KeyRecorder : public QK::IApplicationSettingsManager {
public:
    std::map<std::string, bool> flags;
    std::map<std::string, std::vector<unsigned char>> bytes;

    void setBool(const std::string& key, bool value) override { flags[key] = value; }
    void setByteArray(const std::string& key, const std::vector<unsigned char>& value) override {
        bytes[key] = value;
    }
    bool getBool(const std::string&, bool defaultValue) const override { return defaultValue; }
    std::vector<unsigned char> getByteArray(
        const std::string&, const std::vector<unsigned char>& defaultValue) const override {
        return defaultValue;
    }
    bool contains(const std::string&) const override { return false; }
    void remove(const std::string&) override {}
};

// Where the settings object keeps the schedule and the flag, as it shows by storing them.
SettingsKeys WrittenKeys() {
    auto recorder = std::make_shared<KeyRecorder>();
    {
        QK::SchedulerSettings settings(recorder);
        settings.SetSchedule({QK::RecordTime{}});
        settings.SetSchedulerEnabled(true);
    }
    const auto only = [](const auto& written) {
        return written.size() == 1 ? written.begin()->first : std::string();
    };
    return {only(recorder->bytes), only(recorder->flags), "Runner/plans"};
}

// A key or a section as QSettings reads it: '\' and '/' both separate groups, and empty groups
// drop out.
QString Normalised(QString name) {
    name.replace(QLatin1Char('\\'), QLatin1Char('/'));
    return name.split(QLatin1Char('/'), Qt::SkipEmptyParts).join(QLatin1Char('/'));
}

struct Names {
    QSet<QString> keys;
    QSet<QString> sections;  // the groups above a key
};

const Names& OurNames() {
    static const Names names = [] {
        Names found;
        const SettingsKeys& keys = OurKeys();
        for (const std::string& key : {keys.schedule, keys.enabled, keys.plans}) {
            const QStringList groups = Normalised(QString::fromStdString(key)).split('/');
            found.keys.insert(groups.join('/'));
            for (int depth = 1; depth < groups.size(); ++depth) {
                found.sections.insert(groups.mid(0, depth).join('/'));
            }
        }
        return found;
    }();
    return names;
}

// What is wrong with one line, with `section` the one it is in (empty: [General]).
std::optional<QString> LineProblem(QByteArray line, QString& section) {
    if (line.endsWith('\r')) {
        line.chop(1);
    }
    for (const char c : line) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 && c != '\t') {
            return QStringLiteral("holds binary data (byte 0x%1)")
                .arg(byte, 2, 16, QLatin1Char('0'));
        }
    }
    QTextCodec::ConverterState state;
    const QString text =
        QTextCodec::codecForMib(106)->toUnicode(line.constData(), line.size(), &state).trimmed();
    if (state.invalidChars > 0 || state.remainingChars > 0) {
        return QStringLiteral("is not UTF-8 text");
    }
    if (text.isEmpty() || text.startsWith(QLatin1Char(';'))) {
        return std::nullopt;
    }
    const QString neither = QStringLiteral("is neither a section, a key nor a comment");
    if (text.startsWith(QLatin1Char('['))) {
        if (!text.endsWith(QLatin1Char(']'))) {
            return neither;
        }
        const QString name = Normalised(text.mid(1, text.size() - 2).trimmed());
        if (name.compare(QLatin1String("General"), Qt::CaseInsensitive) == 0) {
            section.clear();
            return std::nullopt;
        }
        if (!OurNames().sections.contains(name)) {
            return QStringLiteral("is the section [%1], which this program does not write")
                .arg(name);
        }
        section = name;
        return std::nullopt;
    }
    const int equals = text.indexOf(QLatin1Char('='));
    if (equals <= 0) {
        return neither;
    }
    const QString key = Normalised(section + QLatin1Char('/') + text.left(equals).trimmed());
    if (!OurNames().keys.contains(key)) {
        return QStringLiteral("holds the key \"%1\", which this program does not write").arg(key);
    }
    return std::nullopt;
}

}  // namespace

const SettingsKeys& OurKeys() {
    static const SettingsKeys keys = WrittenKeys();
    return keys;
}

std::optional<QString> WhyNotASettingsFile(const QByteArray& bytes) {
    const QByteArray byteOrderMark("\xef\xbb\xbf");
    const QList<QByteArray> lines =
        (bytes.startsWith(byteOrderMark) ? bytes.mid(byteOrderMark.size()) : bytes).split('\n');
    QString section;
    for (int i = 0; i < lines.size(); ++i) {
        if (const auto problem = LineProblem(lines[i], section)) {
            return QStringLiteral("line %1 %2").arg(i + 1).arg(*problem);
        }
    }
    return std::nullopt;
}

void CheckSettingsFile(const QString& path) {
    if (!QFileInfo(path).isFile()) {
        return;
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return;
    }
    const QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        return;
    }
    if (const auto problem = WhyNotASettingsFile(bytes)) {
        throw NotASettingsFile(
            QStringLiteral("%1 is not a settings file: %2").arg(path, *problem).toStdString());
    }
}

}  // namespace Vexlor::ScheduleTool
