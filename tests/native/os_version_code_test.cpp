#include "wmi/os_version_code.h"

#include <gtest/gtest.h>

namespace {

struct VersionRow {
    std::int64_t result;
    std::uint32_t major;
    std::uint32_t minor;
    std::int32_t code;
};

TEST(OSVersionCode, EveryRowOfTheTable) {
    const VersionRow rows[] = {
        {1, 0, 0, 0},      {1, 4, 90, 0},     {1, 5, 0, 0},      {1, 5, 1, 51},    {1, 5, 2, 52},
        {1, 5, 3, 0},      {1, 6, 0, 60},     {1, 6, 1, 61},     {1, 6, 2, 62},    {1, 6, 3, 63},
        {1, 6, 4, 0},      {1, 7, 0, 0},      {1, 8, 0, 0},      {1, 9, 9, 0},     {1, 10, 0, 100},
        {1, 10, 1, 0x7FFFFFFF}, {1, 11, 0, 0x7FFFFFFF}, {1, 0xFFFFFFFFu, 0, 0x7FFFFFFF},
    };
    for (const VersionRow& row : rows) {
        EXPECT_EQ(dorwex::ComputeOSVersionCode(row.result, row.major, row.minor), row.code)
            << row.major << "." << row.minor;
    }
}

TEST(OSVersionCode, NegativeResultMeansNewerWhateverTheRecordSays) {
    EXPECT_EQ(dorwex::ComputeOSVersionCode(-1, 6, 1), 0x7FFFFFFF);
    EXPECT_EQ(dorwex::ComputeOSVersionCode(-2147483647 - 1, 0, 0), 0x7FFFFFFF);
}

TEST(OSVersionCode, ZeroResultLeavesTheZeroFilledRecordOnZero) {
    EXPECT_EQ(dorwex::ComputeOSVersionCode(0, 0, 0), 0);
}

}  // namespace
