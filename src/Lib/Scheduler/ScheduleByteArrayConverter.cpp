#include <limits>
#include <stdexcept>
#include <string>

#include <QDataStream>
#include <QIODevice>
#include <QtEndian>

#include "settings/ByteArrayConverter.h"

namespace Vexlor::App {

namespace {

QK::RecordMode ToRecordMode(int value) {
    switch (value) {
        case 1:
            return QK::RecordMode::Mode1;
        case 2:
            return QK::RecordMode::Mode2;
        default:
            return QK::RecordMode::Mode0;
    }
}

// As `stream >> title`, without the allocation of up to 2 MB that QDataStream makes for a
// declared length before it finds the bytes missing. Such a title comes out as Qt leaves
// it (null, the rest of the stream consumed); every other title is read by QDataStream.
void ReadTitle(QDataStream& stream, QString& title) {
    QIODevice* device = stream.device();
    char lengthWord[4];
    if (device->peek(lengthWord, sizeof lengthWord) == sizeof lengthWord) {
        const quint32 length = qFromBigEndian<quint32>(lengthWord);
        const qint64 available = device->bytesAvailable() - 4;
        if (length != 0xFFFFFFFFu && length % 2 == 0 && length > available) {
            title = QString();
            stream.skipRawData(static_cast<int>(device->bytesAvailable()));
            return;
        }
    }
    stream >> title;
}

}  // namespace

std::vector<unsigned char> ByteArrayConverter<QK::RecordTimeList>::operator()(
    const QK::RecordTimeList& schedule) {
    if (schedule.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        throw std::length_error("schedule has more records than its 32-bit count can hold");
    }
    QByteArray bytes;
    {
        QDataStream stream(&bytes, QIODevice::WriteOnly);
        stream << static_cast<int>(schedule.size());
        for (const QK::RecordTime& record : schedule) {
            stream << record.title;
            stream << record.tag;
            stream << static_cast<long long>(record.startTime.time_since_epoch().count());
            stream << static_cast<long long>(record.duration.count());
            stream << static_cast<int>(record.mode);
        }
    }
    return ByteArrayConverter<QByteArray>()(bytes);
}

QK::RecordTimeList ByteArrayConverter<QK::RecordTimeList>::operator()(
    const std::vector<unsigned char>& bytes) {
    QByteArray data = ByteArrayConverter<QByteArray>()(bytes);
    QDataStream stream(&data, QIODevice::ReadOnly);

    // A short stream reads as 0 for numbers and an empty title for strings, and the
    // stream's status is deliberately not consulted: truncated data yields zeroed records.
    int count = 0;
    stream >> count;
    if (count < 0) {
        throw std::length_error("stored schedule has a negative record count: " +
                                std::to_string(count));
    }
    const std::size_t remaining =
        data.size() > 4 ? static_cast<std::size_t>(data.size()) - 4 : std::size_t{0};
    const std::size_t limit = remaining / MIN_RECORD_BYTES + MAX_MISSING_RECORDS;
    if (static_cast<std::size_t>(count) > limit) {
        throw std::length_error("stored schedule's record count " + std::to_string(count) +
                                " exceeds what its " + std::to_string(remaining) +
                                " bytes can hold");
    }

    // The count is bounded by the input's size now, so building the list at once is safe.
    QK::RecordTimeList schedule(static_cast<std::size_t>(count));
    for (QK::RecordTime& record : schedule) {
        long long startTime = 0;
        long long duration = 0;
        int mode = 0;
        ReadTitle(stream, record.title);
        stream >> record.tag;
        stream >> startTime >> duration >> mode;
        record.startTime = Time::TimePoint(Time::Microseconds(startTime));
        record.duration = Time::Microseconds(duration);
        record.mode = ToRecordMode(mode);
    }
    return schedule;
}

}  // namespace Vexlor::App
