#include "base/Diagnostics.h"

#include <cstdio>

#include <QCoreApplication>

namespace Vexlor::ScheduleTool {

namespace {

QByteArray Prefix() {
    return QCoreApplication::applicationName().toUtf8() + ": ";
}

void Write(const QByteArray& line) {
    std::fwrite(line.constData(), 1, static_cast<std::size_t>(line.size()), stderr);
}

}  // namespace

QByteArray ErrorLine(const QString& text) {
    return Prefix() + text.toUtf8() + '\n';
}

void Error(const QString& text) {
    Write(ErrorLine(text));
}

void Error(const char* text) {
    Write(Prefix() + text + '\n');
}

void Warn(const QString& text) {
    Error(QStringLiteral("warning: ") + text);
}

}  // namespace Vexlor::ScheduleTool
