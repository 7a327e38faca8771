#pragma once

#include <optional>

#include <QByteArray>

#include "schedule/EditRequest.h"

namespace Vexlor::ScheduleTool {

// The control socket's messages: a request to the active run, and its answer.
QByteArray EncodeRequest(const EditRequest& request);
// Nothing for bytes that are not a request.
std::optional<EditRequest> DecodeRequest(const QByteArray& bytes);

QByteArray EncodeOutcome(const EditOutcome& outcome);
std::optional<EditOutcome> DecodeOutcome(const QByteArray& bytes);

}  // namespace Vexlor::ScheduleTool
