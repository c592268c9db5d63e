// The byte format in which the emulated WMI service hands class objects and contexts to another process
// (custom marshalling by value): items of a one-byte tag, a four-byte length and that many bytes, all
// little-endian; a tag with kContainer set holds further items. The reader checks every length against what
// is left, so a truncated or corrupt stream is an error, never an over-read. Pure logic, no Windows headers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace dorwex::emulator::wire {

constexpr std::uint8_t kContainer = 0x80;
// Containers inside containers beyond this are refused, so a crafted stream cannot exhaust the stack.
constexpr int kMaxDepth = 64;

class Writer {
public:
    void Unsigned(std::uint8_t tag, std::uint64_t value);
    void Text(std::uint8_t tag, std::u16string_view text);
    // Starts a container (the tag gains kContainer); Close with the mark it returns fills in its length.
    std::size_t Open(std::uint8_t tag);
    void Close(std::size_t mark);
    const std::vector<std::uint8_t>& Bytes() const { return m_bytes; }

private:
    void Header(std::uint8_t tag, std::size_t size);
    std::vector<std::uint8_t> m_bytes;
};

struct Item {
    std::uint8_t tag = 0;
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
};

// Reads items in order. Each typed read takes the next item only when it has the tag asked for and a payload
// of its kind; otherwise it answers false and consumes nothing.
class Reader {
public:
    Reader() = default;
    Reader(const std::uint8_t* data, std::size_t size, int depth = 0);

    bool AtEnd() const { return m_position == m_size; }
    // The next item whatever its tag; false at the end or when its length runs past the data.
    bool Next(Item& item);
    bool Peek(std::uint8_t& tag) const;
    bool Unsigned(std::uint8_t tag, std::uint64_t& value);
    bool Text(std::uint8_t tag, std::u16string& text);
    // The next item as a container of that tag (kContainer added), read through `inner`; false past kMaxDepth.
    bool Open(std::uint8_t tag, Reader& inner);
    // An item already taken by Next, read as a container.
    bool Enter(const Item& item, Reader& inner) const;
    int Depth() const { return m_depth; }

private:
    bool Look(Item& item, std::size_t& next) const;
    const std::uint8_t* m_data = nullptr;
    std::size_t m_size = 0;
    std::size_t m_position = 0;
    int m_depth = 0;
};

}  // namespace dorwex::emulator::wire
