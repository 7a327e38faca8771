#include "cli/Arguments.h"

#include <QTextCodec>

namespace Vexlor::ScheduleTool {

namespace {

// A refused argument as given, every byte outside printable ASCII written as \xNN.
QString Escaped(const QByteArray& bytes) {
    QString shown;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        shown += value >= 0x20 && value < 0x7F
                     ? QString(QLatin1Char(byte))
                     : QStringLiteral("\\x%1").arg(value, 2, 16, QLatin1Char('0'));
    }
    return shown;
}

}  // namespace

std::optional<QString> DecodeUtf8(const QByteArray& bytes) {
    QTextCodec::ConverterState state(QTextCodec::IgnoreHeader);
    const QString text =
        QTextCodec::codecForMib(106)->toUnicode(bytes.constData(), bytes.size(), &state);
    if (state.invalidChars != 0 || state.remainingChars != 0) {
        return std::nullopt;
    }
    return text;
}

std::optional<std::vector<std::string>> DecodeArguments(const QList<QByteArray>& arguments,
                                                        QString& error) {
    std::vector<std::string> backwards;
    bool options = true;  // until "--"
    for (int i = 0; i < arguments.size(); ++i) {
        if (!DecodeUtf8(arguments[i])) {
            error = QStringLiteral("argument %1 is not valid UTF-8: \"%2\"")
                        .arg(QString::number(i + 1), Escaped(arguments[i]));
            return std::nullopt;
        }
        options = options && arguments[i] != "--";
        // CLI11 would read "--exec=" as "--exec" and take the next argument as its value.
        if (options && arguments[i].startsWith("--") &&
            arguments[i].indexOf('=') == arguments[i].size() - 1) {
            error =
                QStringLiteral("%1 needs a value").arg(QString::fromUtf8(arguments[i].chopped(1)));
            return std::nullopt;
        }
        backwards.insert(backwards.begin(), arguments[i].toStdString());
    }
    return backwards;
}

}  // namespace Vexlor::ScheduleTool
