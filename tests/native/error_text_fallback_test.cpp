#include "common/error_text_fallback.h"

#include <gtest/gtest.h>

TEST(FallbackErrorText, DispatchRangeIsNumberedFromItsBase) {
    EXPECT_EQ(dorwex::FallbackErrorText(0x80040201u), "IDispatch error #1");
    EXPECT_EQ(dorwex::FallbackErrorText(0x80040250u), "IDispatch error #80");
    EXPECT_EQ(dorwex::FallbackErrorText(0x8004FFFFu), "IDispatch error #65023");
}

TEST(FallbackErrorText, OutsideTheDispatchRangeIsUnknownInUpperCaseHexWithoutPadding) {
    EXPECT_EQ(dorwex::FallbackErrorText(0x80040200u), "Unknown error 0x80040200");
    EXPECT_EQ(dorwex::FallbackErrorText(0x80050000u), "Unknown error 0x80050000");
    EXPECT_EQ(dorwex::FallbackErrorText(0x8007000Eu), "Unknown error 0x8007000E");
    EXPECT_EQ(dorwex::FallbackErrorText(0x5u), "Unknown error 0x5");
    EXPECT_EQ(dorwex::FallbackErrorText(0u), "Unknown error 0x0");
}
