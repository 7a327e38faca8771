#include "plans/CalendarScan.h"

#include <algorithm>
#include <utility>

#include <QRegularExpression>

#include "plans/Rules.h"

namespace Vexlor::ScheduleTool::Ics {

namespace {

// Unfolded lines with the number of the line each begins on.
using Lines = std::vector<std::pair<int, QString>>;

Lines Unfold(const QString& text) {
    Lines lines;
    const QStringList raw = text.split(QLatin1Char('\n'));
    for (int i = 0; i < raw.size(); ++i) {
        QString line = raw[i];
        if (line.endsWith(QLatin1Char('\r'))) {
            line.chop(1);
        }
        if (!lines.empty() && (line.startsWith(QLatin1Char(' ')) || line.startsWith('\t'))) {
            lines.back().second += line.mid(1);
        } else if (!line.isEmpty()) {
            lines.emplace_back(i + 1, line);
        }
    }
    return lines;
}

// The values the parser would reject as a whole, without saying where.
bool ValueFits(const QString& name, const QString& value) {
    static const QRegularExpression dateTimes(
        QStringLiteral(R"(^\d{8}(T\d{6}Z?)?(,\d{8}(T\d{6}Z?)?)*$)"));
    static const QRegularExpression duration(
        QStringLiteral(R"(^[+-]?P(\d+W|\d+D(T(\d+H)?(\d+M)?(\d+S)?)?|T(\d+H)?(\d+M)?(\d+S)?)$)"));
    if (name == QLatin1String("DTSTART") || name == QLatin1String("DTEND") ||
        name == QLatin1String("EXDATE") || name == QLatin1String("RECURRENCE-ID")) {
        return dateTimes.match(value).hasMatch();
    }
    if (name == QLatin1String("DURATION")) {
        return duration.match(value).hasMatch() && value != QLatin1String("PT");
    }
    QString error;
    return name != QLatin1String("RRULE") || ParseRule(value, error).has_value();
}

// Follows the unfolded lines one by one through the nesting of the components.
class Scanner {
public:
    // False, with the scan's error set, for a line that cannot be read where it stands.
    bool Take(int number, const QString& line);
    // The scan once every line is taken: a file must close what it opens.
    Scan Finish();
    const Scan& Result() const { return scan_; }

private:
    bool Fail(int number, const QString& line) {
        scan_.error = LineError(number, line);
        return false;
    }
    bool InEvent() const { return open_.size() == 2 && open_.back() == QLatin1String("VEVENT"); }
    void Begin(int number, const QString& component);

    Scan scan_;
    QStringList open_;    // the components around the line, outermost first
    bool ended_ = false;  // the VCALENDAR is closed: nothing may follow
};

bool Scanner::Take(int number, const QString& line) {
    static const QRegularExpression contentLine(QStringLiteral(
        R"(^([A-Za-z0-9-]+)(;[A-Za-z0-9-]+=("[^"]*"|[^";:,]*)(,("[^"]*"|[^";:,]*))*)*:(.*)$)"));
    const QRegularExpressionMatch match = contentLine.match(line);
    if (!match.hasMatch() || ended_) {
        return Fail(number, line);
    }
    const QString name = match.captured(1).toUpper();
    const QString value = match.captured(6).trimmed().toUpper();
    if (open_.isEmpty() && !(name == QLatin1String("BEGIN") && value == "VCALENDAR")) {
        return Fail(number, line);
    }
    if (name == QLatin1String("BEGIN")) {
        if (value.isEmpty()) {
            return Fail(number, line);
        }
        Begin(number, value);
    } else if (name == QLatin1String("END")) {
        if (value != open_.back()) {
            return Fail(number, line);
        }
        open_.removeLast();
        ended_ = open_.isEmpty();
    } else if (InEvent()) {
        if (!ValueFits(name, match.captured(6).trimmed())) {
            return Fail(number, line);
        }
        scan_.events.back().properties.push_back({name, number});
        if (name == QLatin1String("UID")) {
            scan_.events.back().uid = match.captured(6);
        }
    }
    return true;
}

Scan Scanner::Finish() {
    if (!open_.isEmpty()) {
        scan_.error = QStringLiteral("the file ends inside %1").arg(open_.back());
    }
    return scan_;
}

void Scanner::Begin(int number, const QString& component) {
    if (open_.size() == 1 && component == QLatin1String("VEVENT")) {
        scan_.events.push_back({number, {}, {}, {}});
    } else if (InEvent()) {
        scan_.events.back().components << component;
    } else if (open_.size() == 1 && component != QLatin1String("VTIMEZONE")) {
        scan_.otherComponents << QStringLiteral("%1 (line %2)").arg(component).arg(number);
    }
    open_ << component;
}

}  // namespace

QString LineError(int line, const QString& text) {
    return QStringLiteral("line %1 could not be read: %2").arg(line).arg(text.left(200));
}

Scan ScanCalendar(const QByteArray& bytes) {
    Scan failed;
    const QString text = QString::fromUtf8(bytes);
    if (text.toUtf8() != bytes) {
        failed.error = QStringLiteral("the file is not UTF-8");
        return failed;
    }
    const Lines lines = Unfold(text);
    if (lines.empty()) {
        failed.error = QStringLiteral("the file is empty");
        return failed;
    }
    Scanner scanner;
    for (const auto& [number, line] : lines) {
        if (!scanner.Take(number, line)) {
            return scanner.Result();
        }
    }
    return scanner.Finish();
}

int LineOf(const ScannedEvent& event, const char* name) {
    for (const Property& property : event.properties) {
        if (property.name == QLatin1String(name)) {
            return property.line;
        }
    }
    return event.line;
}

bool Has(const ScannedEvent& event, const char* name) {
    return std::any_of(event.properties.begin(), event.properties.end(),
                       [name](const Property& p) { return p.name == QLatin1String(name); });
}

}  // namespace Vexlor::ScheduleTool::Ics
