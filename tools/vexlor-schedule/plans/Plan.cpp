#include "plans/Plan.h"

#include <algorithm>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimeZone>

#include "base/RecordJson.h"
#include "base/WallTime.h"
#include "plans/Rules.h"

namespace Vexlor::ScheduleTool {

namespace {

const QString WALL_FORMAT = QStringLiteral("yyyy-MM-ddTHH:mm:ss");

QString WallText(const QDateTime& wall) {
    return wall.toString(WALL_FORMAT);
}

QJsonObject PlanJson(const Plan& plan) {
    QJsonArray exceptions;
    for (const QDateTime& exception : plan.exceptions) {
        exceptions.append(WallText(exception));
    }
    return {{QStringLiteral("title"), plan.title},
            {QStringLiteral("rule"), plan.rule},
            {QStringLiteral("start"), WallText(plan.start)},
            {QStringLiteral("zone"), plan.zone},
            {QStringLiteral("exceptions"), exceptions},
            {QStringLiteral("duration"), QString::number(plan.duration.count())},
            {QStringLiteral("tag"), plan.tag},
            {QStringLiteral("mode"), plan.mode},
            {QStringLiteral("uid"), plan.uid},
            {QStringLiteral("source"), plan.source},
            {QStringLiteral("placedUntil"), MicrosText(plan.placedUntil)}};
}

std::optional<Plan> PlanFrom(const QJsonObject& json) {
    Plan plan;
    plan.title = json.value(QStringLiteral("title")).toString();
    QString error;
    const auto rule = ParseRule(json.value(QStringLiteral("rule")).toString(), error);
    plan.start = WallFromText(json.value(QStringLiteral("start")).toString());
    plan.zone = json.value(QStringLiteral("zone")).toString();
    const auto duration = MicrosFrom(json.value(QStringLiteral("duration")));
    const auto placed = MicrosFrom(json.value(QStringLiteral("placedUntil")));
    plan.mode = json.value(QStringLiteral("mode")).toInt(-1);
    if (plan.title.isEmpty() || !rule || !plan.start.isValid() || !duration || !placed ||
        plan.mode < 0 || plan.mode > 2 ||
        (!plan.zone.isEmpty() && !QTimeZone(plan.zone.toUtf8()).isValid())) {
        return std::nullopt;
    }
    plan.rule = *rule;
    for (const QJsonValue& exception : json.value(QStringLiteral("exceptions")).toArray()) {
        plan.exceptions << WallFromText(exception.toString());
        if (!plan.exceptions.back().isValid()) {
            return std::nullopt;
        }
    }
    plan.duration = Time::Microseconds(*duration);
    plan.tag = json.value(QStringLiteral("tag")).toInt(-1);
    plan.uid = json.value(QStringLiteral("uid")).toString();
    plan.source = json.value(QStringLiteral("source")).toString();
    plan.placedUntil = Time::TimePoint(Time::Microseconds(*placed));
    return plan;
}

}  // namespace

bool SameDefinition(const Plan& a, const Plan& b) {
    return a.title == b.title && a.rule == b.rule && a.start == b.start && a.zone == b.zone &&
           a.exceptions == b.exceptions && a.duration == b.duration && a.tag == b.tag &&
           a.mode == b.mode && a.uid == b.uid && a.source == b.source;
}

// What EncodePlans keeps, compared without encoding: the book is compared after every import
// and top-up, and may hold a record for each event of a large calendar.
bool operator==(const PlanBook& a, const PlanBook& b) {
    const auto wall = [](const QList<QDateTime>& times) {
        QStringList texts;
        for (const QDateTime& time : times) {
            texts << WallText(time);
        }
        return texts;
    };
    const auto samePlan = [&wall](const Plan& x, const Plan& y) {
        return x.title == y.title && x.rule == y.rule && WallText(x.start) == WallText(y.start) &&
               x.zone == y.zone && wall(x.exceptions) == wall(y.exceptions) &&
               x.duration == y.duration && x.tag == y.tag && x.mode == y.mode && x.uid == y.uid &&
               x.source == y.source && x.placedUntil == y.placedUntil;
    };
    const auto sameRecord = [](const ImportedRecord& x, const ImportedRecord& y) {
        return x.source == y.source && x.uid == y.uid && x.record == y.record;
    };
    return std::equal(a.plans.begin(), a.plans.end(), b.plans.begin(), b.plans.end(), samePlan) &&
           std::equal(a.imported.begin(), a.imported.end(), b.imported.begin(), b.imported.end(),
                      sameRecord);
}

QByteArray EncodePlans(const PlanBook& book) {
    QJsonArray plans;
    for (const Plan& plan : book.plans) {
        plans.append(PlanJson(plan));
    }
    QJsonArray imported;
    for (const ImportedRecord& entry : book.imported) {
        QJsonObject json = RecordToJson(entry.record);
        json.insert(QStringLiteral("source"), entry.source);
        json.insert(QStringLiteral("uid"), entry.uid);
        imported.append(json);
    }
    return QJsonDocument(QJsonObject{{QStringLiteral("plans"), plans},
                                     {QStringLiteral("imported"), imported}})
        .toJson(QJsonDocument::Compact);
}

std::optional<PlanBook> DecodePlans(const QByteArray& bytes) {
    if (bytes.isEmpty()) {
        return PlanBook{};
    }
    const QJsonDocument document = QJsonDocument::fromJson(bytes);
    if (!document.isObject()) {
        return std::nullopt;
    }
    PlanBook book;
    for (const QJsonValue& value : document.object().value(QStringLiteral("plans")).toArray()) {
        auto plan = PlanFrom(value.toObject());
        if (!plan) {
            return std::nullopt;
        }
        book.plans.push_back(std::move(*plan));
    }
    for (const QJsonValue& value : document.object().value(QStringLiteral("imported")).toArray()) {
        const QJsonObject json = value.toObject();
        const auto record = RecordFromJson(json);
        if (!record) {
            return std::nullopt;
        }
        book.imported.push_back({json.value(QStringLiteral("source")).toString(),
                                 json.value(QStringLiteral("uid")).toString(), *record});
    }
    return book;
}

}  // namespace Vexlor::ScheduleTool
