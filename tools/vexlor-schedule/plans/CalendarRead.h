#pragma once

#include <optional>
#include <vector>

#include <QByteArray>
#include <QString>
#include <QStringList>

#include "interfaces/RecordTime.h"
#include "plans/Plan.h"

namespace Vexlor::ScheduleTool::Ics {

// One event as it is to be kept: a plan, or a one-off record.
struct Entry {
    QString uid;
    std::optional<Plan> plan;
    QK::RecordTime record;
};

struct Reading {
    QString error;  // set: the file is refused as a whole
    std::vector<Entry> entries;
    QStringList skipped;  // what was skipped or left out, in the order of the file
};

// The events of an .ics file, each checked against what this program carries out.
Reading ReadEvents(const QByteArray& bytes);

}  // namespace Vexlor::ScheduleTool::Ics
