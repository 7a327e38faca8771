#include "base/Duration.h"

#include <limits>

namespace Vexlor::ScheduleTool {

namespace {

constexpr long long MICROS_PER_SECOND = 1000000;

bool MultiplyAdd(long long value, long long factor, long long& total) {
    long long scaled = 0;
    if (__builtin_mul_overflow(value, factor, &scaled)) {
        return false;
    }
    return !__builtin_add_overflow(total, scaled, &total);
}

}  // namespace

std::optional<Time::Microseconds> ParseDuration(const QString& text) {
    if (text == QLatin1String("0")) {
        return Time::Microseconds(0);
    }
    if (text.isEmpty()) {
        return std::nullopt;
    }
    struct Unit {
        QChar letter;
        long long micros;
    };
    static const Unit units[] = {{QLatin1Char('h'), 3600 * MICROS_PER_SECOND},
                                 {QLatin1Char('m'), 60 * MICROS_PER_SECOND},
                                 {QLatin1Char('s'), MICROS_PER_SECOND}};
    long long total = 0;
    int nextUnit = 0;  // units must come in decreasing order, each at most once
    int i = 0;
    while (i < text.size()) {
        long long number = 0;
        const int digitsStart = i;
        while (i < text.size() && text[i] >= QLatin1Char('0') && text[i] <= QLatin1Char('9')) {
            if (__builtin_mul_overflow(number, 10, &number) ||
                __builtin_add_overflow(number, text[i].unicode() - '0', &number)) {
                return std::nullopt;
            }
            ++i;
        }
        if (i == digitsStart || i == text.size()) {
            return std::nullopt;
        }
        int unit = nextUnit;
        while (unit < 3 && units[unit].letter != text[i]) {
            ++unit;
        }
        if (unit == 3) {
            return std::nullopt;
        }
        if (!MultiplyAdd(number, units[unit].micros, total)) {
            return std::nullopt;
        }
        nextUnit = unit + 1;
        ++i;
    }
    return Time::Microseconds(total);
}

QString FormatDuration(Time::Microseconds duration) {
    long long micros = duration.count();
    if (micros == 0) {
        return QStringLiteral("0");
    }
    QString sign;
    unsigned long long magnitude = static_cast<unsigned long long>(micros);
    if (micros < 0) {
        sign = QStringLiteral("-");
        magnitude = 0ULL - magnitude;
    }
    const unsigned long long totalMillis = magnitude / 1000;
    const unsigned long long millis = totalMillis % 1000;
    const unsigned long long totalSeconds = totalMillis / 1000;
    const unsigned long long hours = totalSeconds / 3600;
    const unsigned long long minutes = totalSeconds / 60 % 60;
    const unsigned long long seconds = totalSeconds % 60;

    QString text = sign;
    if (hours > 0) {
        text += QString::number(hours) + QLatin1Char('h');
    }
    if (minutes > 0) {
        text += QString::number(minutes) + QLatin1Char('m');
    }
    if (seconds > 0 || millis > 0 || (hours == 0 && minutes == 0)) {
        text += QString::number(seconds);
        if (millis > 0) {
            QString fraction = QStringLiteral("%1").arg(millis, 3, 10, QLatin1Char('0'));
            while (fraction.endsWith(QLatin1Char('0'))) {
                fraction.chop(1);
            }
            text += QLatin1Char('.') + fraction;
        }
        text += QLatin1Char('s');
    }
    return text;
}

}  // namespace Vexlor::ScheduleTool
