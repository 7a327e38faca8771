#pragma once

#include <vector>

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace Vexlor::ScheduleTool::Ics {

struct Property {
    QString name;  // upper case
    int line = 0;
};

// A VEVENT as the file holds it, for line numbers and for what it holds beyond what is used.
struct ScannedEvent {
    int line = 0;
    QString uid;
    std::vector<Property> properties;
    QStringList components;  // nested ones, VALARM say
};

struct Scan {
    QString error;
    std::vector<ScannedEvent> events;
    QStringList otherComponents;  // "VTODO (line 12)"
};

// "line 12 could not be read: ..." with the start of the line's text.
QString LineError(int line, const QString& text);

// Checks the content lines (RFC 5545 section 3.1) and the nesting of the components, which
// the iCalendar parser would pass over silently, and notes where each event's properties are.
Scan ScanCalendar(const QByteArray& bytes);

// The line of the event's first property `name`, or the event's own line without one.
int LineOf(const ScannedEvent& event, const char* name);
bool Has(const ScannedEvent& event, const char* name);

}  // namespace Vexlor::ScheduleTool::Ics
