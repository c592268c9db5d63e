// The record one process's portable-device stack leaves in the events journal of a devices directory when
// it adds or removes an object of a device, for the stacks of the other processes to raise the event too.
// Object ids belong to each process, so a record names the object by its storage and its path inside the
// storage; each reader maps that to its own id. No Windows header: built natively and fuzzed, because the
// bytes come from another process.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace dorwex::emulator {

struct ObjectEventRecord {
    std::uint32_t sender = 0;             // process id of the stack that made the change
    std::array<std::uint8_t, 16> event{};  // the event's GUID in its memory layout
    std::int32_t storage = 0;             // index of the storage in the device's description
    std::uint32_t kind = 0;               // folder or file (the stack's ObjectKind value)
    std::u16string device;                // the device id
    std::u16string path;                  // relative to the storage's directory, '\' between names
};

// A record's bytes never exceed this; longer device ids or paths are not written.
constexpr std::size_t kMaxObjectEventRecord = 64 * 1024;

// The record's bytes, or nothing when the record would be longer than kMaxObjectEventRecord.
std::vector<std::uint8_t> EncodeObjectEvent(const ObjectEventRecord& record);

enum class RecordRead {
    Complete,    // record_out holds the first record; consumed_out says how many bytes it took
    Incomplete,  // the bytes end inside the first record: its writer is not done yet or more must be read
    Corrupt,     // the bytes are not a record: nothing after them can be trusted
};
RecordRead DecodeObjectEvent(const std::uint8_t* data, std::size_t size, ObjectEventRecord& record_out,
                             std::size_t& consumed_out);

}  // namespace dorwex::emulator
