#pragma once

#include <optional>
#include <string>
#include <vector>

#include <QByteArray>
#include <QList>
#include <QString>

namespace Vexlor::ScheduleTool {

// Nothing unless the bytes are UTF-8: no overlong forms, surrogates or code points past
// U+10FFFF, nothing cut short. QString::fromUtf8 would replace those and drop a leading U+FEFF.
std::optional<QString> DecodeUtf8(const QByteArray& bytes);

// The bytes of argv after the program name, last first as CLI11 takes them, once each is found
// to be UTF-8 and no option before "--" ends in an empty "=" value. Else nothing, and `error`
// says which argument is refused, the first in order.
std::optional<std::vector<std::string>> DecodeArguments(const QList<QByteArray>& arguments,
                                                        QString& error);

}  // namespace Vexlor::ScheduleTool
