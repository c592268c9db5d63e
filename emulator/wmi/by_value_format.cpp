#include "by_value_format.h"

namespace dorwex::emulator::wire {

namespace {

constexpr std::size_t kHeaderSize = 5;  // tag and 32-bit length

void PutLength(std::uint8_t* at, std::size_t size) {
    for (int i = 0; i < 4; ++i) {
        at[i] = static_cast<std::uint8_t>(size >> (8 * i));
    }
}

}  // namespace

void Writer::Header(std::uint8_t tag, std::size_t size) {
    m_bytes.push_back(tag);
    const std::size_t at = m_bytes.size();
    m_bytes.resize(at + 4);
    PutLength(&m_bytes[at], size);
}

void Writer::Unsigned(std::uint8_t tag, std::uint64_t value) {
    Header(static_cast<std::uint8_t>(tag & ~kContainer), 8);
    for (int i = 0; i < 8; ++i) {
        m_bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

void Writer::Text(std::uint8_t tag, std::u16string_view text) {
    Header(static_cast<std::uint8_t>(tag & ~kContainer), text.size() * 2);
    for (char16_t unit : text) {
        m_bytes.push_back(static_cast<std::uint8_t>(unit & 0xff));
        m_bytes.push_back(static_cast<std::uint8_t>(unit >> 8));
    }
}

std::size_t Writer::Open(std::uint8_t tag) {
    Header(static_cast<std::uint8_t>(tag | kContainer), 0);
    return m_bytes.size();
}

void Writer::Close(std::size_t mark) {
    PutLength(&m_bytes[mark - 4], m_bytes.size() - mark);
}

Reader::Reader(const std::uint8_t* data, std::size_t size, int depth)
    : m_data(data), m_size(data != nullptr ? size : 0), m_depth(depth) {}

bool Reader::Look(Item& item, std::size_t& next) const {
    const std::size_t left = m_size - m_position;
    if (left < kHeaderSize) {
        return false;
    }
    const std::uint8_t* at = m_data + m_position;
    std::size_t size = 0;
    for (int i = 0; i < 4; ++i) {
        size |= static_cast<std::size_t>(at[1 + i]) << (8 * i);
    }
    if (size > left - kHeaderSize) {
        return false;
    }
    item.tag = at[0];
    item.data = at + kHeaderSize;
    item.size = size;
    next = m_position + kHeaderSize + size;
    return true;
}

bool Reader::Next(Item& item) {
    std::size_t next = 0;
    if (!Look(item, next)) {
        return false;
    }
    m_position = next;
    return true;
}

bool Reader::Peek(std::uint8_t& tag) const {
    Item item;
    std::size_t next = 0;
    if (!Look(item, next)) {
        return false;
    }
    tag = item.tag;
    return true;
}

bool Reader::Unsigned(std::uint8_t tag, std::uint64_t& value) {
    Item item;
    std::size_t next = 0;
    if (!Look(item, next) || item.tag != tag || item.size != 8) {
        return false;
    }
    value = 0;
    for (int i = 0; i < 8; ++i) {
        value |= static_cast<std::uint64_t>(item.data[i]) << (8 * i);
    }
    m_position = next;
    return true;
}

bool Reader::Text(std::uint8_t tag, std::u16string& text) {
    Item item;
    std::size_t next = 0;
    if (!Look(item, next) || item.tag != tag || item.size % 2 != 0) {
        return false;
    }
    text.clear();
    text.reserve(item.size / 2);
    for (std::size_t i = 0; i < item.size; i += 2) {
        text.push_back(static_cast<char16_t>(item.data[i] | (item.data[i + 1] << 8)));
    }
    m_position = next;
    return true;
}

bool Reader::Enter(const Item& item, Reader& inner) const {
    if ((item.tag & kContainer) == 0 || m_depth >= kMaxDepth) {
        return false;
    }
    inner = Reader(item.data, item.size, m_depth + 1);
    return true;
}

bool Reader::Open(std::uint8_t tag, Reader& inner) {
    Item item;
    std::size_t next = 0;
    if (!Look(item, next) || item.tag != (tag | kContainer) || !Enter(item, inner)) {
        return false;
    }
    m_position = next;
    return true;
}

}  // namespace dorwex::emulator::wire
