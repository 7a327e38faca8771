// Feeds arbitrary bytes to the stored-schedule decoder. Besides the sanitizers' findings it
// checks that a decoded schedule is no larger than its input allows and that it survives
// an encode/decode round trip unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "settings/ByteArrayConverter.h"

using Converter = Vexlor::App::ByteArrayConverter<Vexlor::QK::RecordTimeList>;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<unsigned char> bytes(data, data + size);
    Vexlor::QK::RecordTimeList schedule;
    try {
        schedule = Converter()(bytes);
    } catch (const std::length_error&) {
        return 0;
    }
    if (schedule.size() > size / Converter::MIN_RECORD_BYTES + Converter::MAX_MISSING_RECORDS) {
        std::abort();
    }
    if (Converter()(Converter()(schedule)) != schedule) {
        std::abort();
    }
    return 0;
}
