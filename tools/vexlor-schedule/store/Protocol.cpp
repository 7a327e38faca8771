#include "store/Protocol.h"

#include <QJsonDocument>
#include <QJsonObject>

#include "base/RecordJson.h"
#include "base/WallTime.h"

namespace Vexlor::ScheduleTool {

QByteArray EncodeRequest(const EditRequest& request) {
    const QJsonObject json{
        {QStringLiteral("command"), static_cast<int>(request.command)},
        {QStringLiteral("record"), RecordToJson(request.record)},
        {QStringLiteral("allowOverlap"), request.allowOverlap},
        {QStringLiteral("enable"), request.enable},
        {QStringLiteral("title"), request.title},
        {QStringLiteral("rule"), request.rule},
        {QStringLiteral("wallStart"),
         request.wallStart.toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss"))},
        {QStringLiteral("calendar"), QString::fromLatin1(request.calendar.toBase64())},
        {QStringLiteral("source"), request.source},
        {QStringLiteral("count"), request.count},
        {QStringLiteral("json"), request.json}};
    return QJsonDocument(json).toJson(QJsonDocument::Compact);
}

std::optional<EditRequest> DecodeRequest(const QByteArray& bytes) {
    const QJsonDocument document = QJsonDocument::fromJson(bytes);
    if (!document.isObject()) {
        return std::nullopt;
    }
    const QJsonObject json = document.object();
    const int command = json.value(QStringLiteral("command")).toInt(-1);
    if (command < static_cast<int>(CommandName::Add) ||
        command > static_cast<int>(CommandName::Upcoming) ||
        command == static_cast<int>(CommandName::Run) ||
        command == static_cast<int>(CommandName::Help)) {
        return std::nullopt;
    }
    const auto record = RecordFromJson(json.value(QStringLiteral("record")).toObject());
    if (!record) {
        return std::nullopt;
    }
    EditRequest request;
    request.command = static_cast<CommandName>(command);
    request.record = *record;
    request.allowOverlap = json.value(QStringLiteral("allowOverlap")).toBool();
    request.enable = json.value(QStringLiteral("enable")).toBool();
    request.title = json.value(QStringLiteral("title")).toString();
    request.rule = json.value(QStringLiteral("rule")).toString();
    request.wallStart = WallFromText(json.value(QStringLiteral("wallStart")).toString());
    request.calendar =
        QByteArray::fromBase64(json.value(QStringLiteral("calendar")).toString().toLatin1());
    request.source = json.value(QStringLiteral("source")).toString();
    request.count = json.value(QStringLiteral("count")).toInt(10);
    request.json = json.value(QStringLiteral("json")).toBool();
    return request;
}

QByteArray EncodeOutcome(const EditOutcome& outcome) {
    const QJsonObject json{{QStringLiteral("exit"), outcome.exitCode},
                           {QStringLiteral("out"), outcome.out},
                           {QStringLiteral("err"), outcome.err}};
    return QJsonDocument(json).toJson(QJsonDocument::Compact);
}

std::optional<EditOutcome> DecodeOutcome(const QByteArray& bytes) {
    const QJsonDocument document = QJsonDocument::fromJson(bytes);
    if (!document.isObject() || !document.object().value(QStringLiteral("exit")).isDouble()) {
        return std::nullopt;
    }
    const QJsonObject json = document.object();
    EditOutcome outcome;
    outcome.exitCode = json.value(QStringLiteral("exit")).toInt();
    outcome.out = json.value(QStringLiteral("out")).toString();
    outcome.err = json.value(QStringLiteral("err")).toString();
    return outcome;
}

}  // namespace Vexlor::ScheduleTool
