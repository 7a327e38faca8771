#pragma once

#include <QByteArray>
#include <QString>

namespace Vexlor::ScheduleTool {

// The runner's messages on standard error, each begun with the application's name:
// "vexlor-schedule: text", or "vexlor-schedule: warning: text". Text is written as UTF-8.
void Error(const QString& text);
// The bytes as they are, such as an exception's what().
void Error(const char* text);
void Warn(const QString& text);

// The line that Error(text) writes, made ahead for a place that must not allocate.
QByteArray ErrorLine(const QString& text);

}  // namespace Vexlor::ScheduleTool
