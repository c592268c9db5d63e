#include "emulator/wmi/by_value_format.h"

#include <gtest/gtest.h>

namespace {

using namespace dorwex::emulator::wire;

constexpr std::uint8_t kNumber = 1;
constexpr std::uint8_t kName = 2;
constexpr std::uint8_t kRecord = 3;

// A record as the service writes one: a number, a text and a nested record holding both again.
std::vector<std::uint8_t> Sample() {
    Writer writer;
    writer.Unsigned(kNumber, 0x0102030405060708ull);
    const std::size_t outer = writer.Open(kRecord);
    writer.Text(kName, u"Win32ext_WPD \u00e9\u20ac");
    const std::size_t inner = writer.Open(kRecord);
    writer.Unsigned(kNumber, 0);
    writer.Text(kName, u"");
    writer.Close(inner);
    writer.Close(outer);
    return writer.Bytes();
}

// Reads Sample() back field by field; false as soon as one is missing or wrong.
bool ReadSample(const std::vector<std::uint8_t>& bytes) {
    Reader reader(bytes.data(), bytes.size());
    std::uint64_t number = 0;
    std::u16string name;
    Reader outer;
    Reader inner;
    return reader.Unsigned(kNumber, number) && number == 0x0102030405060708ull && reader.Open(kRecord, outer) &&
           reader.AtEnd() && outer.Text(kName, name) && name == u"Win32ext_WPD \u00e9\u20ac" &&
           outer.Open(kRecord, inner) && outer.AtEnd() && inner.Unsigned(kNumber, number) && number == 0 &&
           inner.Text(kName, name) && name.empty() && inner.AtEnd();
}

TEST(ByValueFormat, ReadsBackWhatWasWritten) {
    EXPECT_TRUE(ReadSample(Sample()));
}

// Every prefix of a valid stream is an error, never a read past its end (AddressSanitizer watches the copy).
TEST(ByValueFormat, EveryTruncationIsAnError) {
    const auto bytes = Sample();
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        const std::vector<std::uint8_t> cut(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_FALSE(ReadSample(cut)) << size;
    }
}

TEST(ByValueFormat, RefusesItemsOfTheWrongShape) {
    struct Case {
        const char* what;
        std::vector<std::uint8_t> bytes;
    };
    const Case cases[] = {
        {"number of 4 bytes", {kNumber, 4, 0, 0, 0, 1, 2, 3, 4}},
        {"text of odd length", {kName, 3, 0, 0, 0, 'a', 0, 'b'}},
        {"length past the end", {kName, 0xff, 0xff, 0xff, 0xff, 'a', 0}},
        {"plain item read as a container", {kRecord, 0, 0, 0, 0}},
    };
    for (const auto& test : cases) {
        Reader reader(test.bytes.data(), test.bytes.size());
        std::uint64_t number = 0;
        std::u16string text;
        Reader inner;
        EXPECT_FALSE(reader.Unsigned(kNumber, number) || reader.Text(kName, text) || reader.Open(kRecord, inner))
            << test.what;
        EXPECT_FALSE(reader.AtEnd()) << test.what << ": a refused item is not consumed";
    }
    // The right shape under another tag is refused too.
    Writer writer;
    writer.Unsigned(kNumber, 7);
    Reader reader(writer.Bytes().data(), writer.Bytes().size());
    std::uint64_t number = 0;
    EXPECT_FALSE(reader.Unsigned(kName, number));
    EXPECT_TRUE(reader.Unsigned(kNumber, number));
    EXPECT_EQ(number, 7u);
}

TEST(ByValueFormat, NestingIsBounded) {
    const auto nested = [](int levels) {
        Writer writer;
        std::vector<std::size_t> marks;
        for (int i = 0; i < levels; ++i) {
            marks.push_back(writer.Open(kRecord));
        }
        for (auto it = marks.rbegin(); it != marks.rend(); ++it) {
            writer.Close(*it);
        }
        return writer.Bytes();
    };
    const auto depthReached = [](const std::vector<std::uint8_t>& bytes) {
        Reader reader(bytes.data(), bytes.size());
        int depth = 0;
        for (Reader inner; reader.Open(kRecord, inner); reader = inner) {
            ++depth;
        }
        return depth;
    };
    EXPECT_EQ(depthReached(nested(kMaxDepth)), kMaxDepth);
    EXPECT_EQ(depthReached(nested(kMaxDepth + 1)), kMaxDepth);
}

}  // namespace
