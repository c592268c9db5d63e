#include "object_event_record.h"

#include <algorithm>

namespace dorwex::emulator {

namespace {

constexpr std::uint32_t kMagic = 0x56455844;  // "DXEV"
// size, magic, sender, event, storage, kind, two text lengths
constexpr std::size_t kFixedBytes = 4 + 4 + 4 + 16 + 4 + 4 + 4 + 4;

void PutUnsigned(std::vector<std::uint8_t>& bytes, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

void PutText(std::vector<std::uint8_t>& bytes, const std::u16string& text) {
    for (const char16_t unit : text) {
        bytes.push_back(static_cast<std::uint8_t>(unit & 0xFF));
        bytes.push_back(static_cast<std::uint8_t>(unit >> 8));
    }
}

std::uint32_t GetUnsigned(const std::uint8_t* data) {
    return static_cast<std::uint32_t>(data[0]) | static_cast<std::uint32_t>(data[1]) << 8 |
           static_cast<std::uint32_t>(data[2]) << 16 | static_cast<std::uint32_t>(data[3]) << 24;
}

std::u16string GetText(const std::uint8_t* data, std::size_t units) {
    std::u16string text;
    text.reserve(units);
    for (std::size_t i = 0; i < units; ++i) {
        text.push_back(static_cast<char16_t>(data[2 * i] | data[2 * i + 1] << 8));
    }
    return text;
}

}  // namespace

std::vector<std::uint8_t> EncodeObjectEvent(const ObjectEventRecord& record) {
    const std::size_t size = kFixedBytes + 2 * (record.device.size() + record.path.size());
    if (size > kMaxObjectEventRecord) {
        return {};
    }
    std::vector<std::uint8_t> bytes;
    bytes.reserve(size);
    PutUnsigned(bytes, static_cast<std::uint32_t>(size));
    PutUnsigned(bytes, kMagic);
    PutUnsigned(bytes, record.sender);
    bytes.insert(bytes.end(), record.event.begin(), record.event.end());
    PutUnsigned(bytes, static_cast<std::uint32_t>(record.storage));
    PutUnsigned(bytes, record.kind);
    PutUnsigned(bytes, static_cast<std::uint32_t>(record.device.size()));
    PutUnsigned(bytes, static_cast<std::uint32_t>(record.path.size()));
    PutText(bytes, record.device);
    PutText(bytes, record.path);
    return bytes;
}

RecordRead DecodeObjectEvent(const std::uint8_t* data, std::size_t size, ObjectEventRecord& record,
                             std::size_t& consumed) {
    consumed = 0;
    if (size < 8) {
        return RecordRead::Incomplete;
    }
    const std::size_t total = GetUnsigned(data);
    if (GetUnsigned(data + 4) != kMagic || total < kFixedBytes || total > kMaxObjectEventRecord) {
        return RecordRead::Corrupt;
    }
    if (size < total) {
        return RecordRead::Incomplete;
    }
    const std::size_t deviceUnits = GetUnsigned(data + 36);
    const std::size_t pathUnits = GetUnsigned(data + 40);
    // Each length is bounded by the record's size before they are added, so the sum cannot wrap.
    if (deviceUnits > total || pathUnits > total || kFixedBytes + 2 * (deviceUnits + pathUnits) != total) {
        return RecordRead::Corrupt;
    }
    record.sender = GetUnsigned(data + 8);
    std::copy(data + 12, data + 28, record.event.begin());
    record.storage = static_cast<std::int32_t>(GetUnsigned(data + 28));
    record.kind = GetUnsigned(data + 32);
    record.device = GetText(data + kFixedBytes, deviceUnits);
    record.path = GetText(data + kFixedBytes + 2 * deviceUnits, pathUnits);
    consumed = total;
    return RecordRead::Complete;
}

}  // namespace dorwex::emulator
