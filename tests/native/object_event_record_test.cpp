#include "object_event_record.h"

#include <gtest/gtest.h>

namespace {

using namespace dorwex::emulator;

ObjectEventRecord Sample(std::u16string path) {
    ObjectEventRecord record;
    record.sender = 0x1234;
    for (std::size_t i = 0; i < record.event.size(); ++i) {
        record.event[i] = static_cast<std::uint8_t>(0xA0 + i);
    }
    record.storage = 1;
    record.kind = 3;
    record.device = u"\\\\?\\usb#vid_04e8&pid_6860#r58m";
    record.path = std::move(path);
    return record;
}

// Records written one after another (as the journal holds them) read back whole, in order; a reader that
// sees only part of one, because its writer is not done, is told to wait rather than given a short record.
TEST(ObjectEventRecord, RecordsInARowReadBackAndAPartialOneWaits) {
    const ObjectEventRecord records[] = {Sample(u"DCIM\\b.jpg"), Sample(u""), Sample(u"\u00e9t\u00e9\\\u4e2d.txt")};
    std::vector<std::uint8_t> journal;
    for (const auto& record : records) {
        const auto bytes = EncodeObjectEvent(record);
        ASSERT_FALSE(bytes.empty());
        journal.insert(journal.end(), bytes.begin(), bytes.end());
    }
    std::size_t offset = 0;
    for (const auto& expected : records) {
        ObjectEventRecord read;
        std::size_t consumed = 0;
        ASSERT_EQ(DecodeObjectEvent(journal.data() + offset, journal.size() - offset, read, consumed),
                  RecordRead::Complete);
        EXPECT_EQ(read.sender, expected.sender);
        EXPECT_EQ(read.event, expected.event);
        EXPECT_EQ(read.storage, expected.storage);
        EXPECT_EQ(read.kind, expected.kind);
        EXPECT_EQ(read.device, expected.device);
        EXPECT_EQ(read.path, expected.path);
        offset += consumed;
    }
    EXPECT_EQ(offset, journal.size());

    const auto one = EncodeObjectEvent(records[0]);
    for (std::size_t cut = 0; cut < one.size(); ++cut) {
        ObjectEventRecord read;
        std::size_t consumed = 1;
        EXPECT_EQ(DecodeObjectEvent(one.data(), cut, read, consumed), RecordRead::Incomplete) << cut;
        EXPECT_EQ(consumed, 0u);
    }
}

// Bytes that are not a record are refused, however their lengths are set, and a record too long to read
// back is never written.
TEST(ObjectEventRecord, ForeignOrInconsistentBytesAreRefused) {
    const auto good = EncodeObjectEvent(Sample(u"a.txt"));
    struct Case {
        const char* what;
        std::size_t at;
        std::uint8_t value;
    };
    const Case cases[] = {
        {"another magic", 4, 0x00},
        {"a size below the fixed part", 0, 8},
        {"a size above the bound", 3, 0x7F},
        {"a device length past the record", 39, 0x40},
        {"a path length that does not add up", 40, 0x02},
    };
    for (const Case& c : cases) {
        auto bytes = good;
        bytes[c.at] = c.value;
        ObjectEventRecord read;
        std::size_t consumed = 0;
        EXPECT_EQ(DecodeObjectEvent(bytes.data(), bytes.size(), read, consumed), RecordRead::Corrupt) << c.what;
        EXPECT_EQ(consumed, 0u) << c.what;
    }
    EXPECT_TRUE(EncodeObjectEvent(Sample(std::u16string(kMaxObjectEventRecord / 2, u'x'))).empty());
}

}  // namespace
