// Events-journal records on any bytes: each read either takes a whole record that encodes back to the same
// bytes, waits for more, or refuses; it never reads past the input.
#include <cstring>

#include "fuzz_input.h"
#include "object_event_record.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace dorwex::emulator;
    std::size_t offset = 0;
    for (;;) {
        ObjectEventRecord record;
        std::size_t consumed = 0;
        if (DecodeObjectEvent(data + offset, size - offset, record, consumed) != RecordRead::Complete) {
            break;
        }
        dorwex::fuzz::Check(consumed > 0 && consumed <= size - offset, "a record lies within the input");
        const auto again = EncodeObjectEvent(record);
        dorwex::fuzz::Check(again.size() == consumed && std::memcmp(again.data(), data + offset, consumed) == 0,
                            "a record read encodes back to its bytes");
        offset += consumed;
    }
    return 0;
}
