#pragma once

#include <cstddef>
#include <limits>
#include <stdexcept>
#include <vector>

#include <QByteArray>

#include "interfaces/RecordTime.h"
#include "vexlor_scheduler_export.h"

namespace Vexlor::App {

// Turns a value into the bytes that the settings manager stores, and back. Specialised for
// every value type that is persisted as bytes.
template <typename T>
struct ByteArrayConverter;

// Copies the bytes unchanged in both directions.
template <>
struct ByteArrayConverter<QByteArray> {
    std::vector<unsigned char> operator()(const QByteArray& bytes) {
        return std::vector<unsigned char>(bytes.constBegin(), bytes.constEnd());
    }

    QByteArray operator()(const std::vector<unsigned char>& bytes) {
        if (bytes.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
            throw std::length_error("ByteArrayConverter: byte vector too large for QByteArray");
        }
        return QByteArray(reinterpret_cast<const char*>(bytes.data()),
                          static_cast<int>(bytes.size()));
    }
};

// The stored form of a schedule: QDataStream with its defaults (big-endian), the record
// count as a 32-bit int, then per record title, tag, start, duration and mode.
//
// Decoding throws std::length_error for a negative count, and for a count that the
// remaining bytes could not hold even with empty titles (28 bytes per record) plus
// MAX_MISSING_RECORDS: a short overshoot still decodes, with the missing records zeroed,
// but a hostile count never costs memory or time beyond the size of its input.
template <>
struct VEXLOR_SCHEDULER_EXPORT ByteArrayConverter<QK::RecordTimeList> {
    static constexpr std::size_t MIN_RECORD_BYTES = 28;
    static constexpr std::size_t MAX_MISSING_RECORDS = 16;

    std::vector<unsigned char> operator()(const QK::RecordTimeList& schedule);
    QK::RecordTimeList operator()(const std::vector<unsigned char>& bytes);
};

}  // namespace Vexlor::App
