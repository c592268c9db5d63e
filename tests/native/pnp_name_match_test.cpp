#include "monitor/pnp_name_match.h"

#include <gtest/gtest.h>

namespace {

using dorwex::DeviceNamesMatch;

TEST(DeviceNamesMatch, CaseSeparatorsAndInterfaceSuffixDoNotMatter) {
    const std::wstring instance = L"USB\\VID_04E8&PID_6860\\R58M12345";
    EXPECT_TRUE(DeviceNamesMatch(instance, L"\\\\?\\usb#vid_04e8&pid_6860#r58m12345#{6ac27878-a6fa-4155-ba85-f98f491d4f33}"));
    EXPECT_TRUE(DeviceNamesMatch(L"\\\\?\\USB#VID_04E8&PID_6860#R58M12345#{6AC27878}", instance)) << "either order";
    EXPECT_TRUE(DeviceNamesMatch(instance, instance));
    EXPECT_FALSE(DeviceNamesMatch(instance, L"\\\\?\\usb#vid_04e8&pid_6860#r58m99999#{6ac27878}"));
    EXPECT_FALSE(DeviceNamesMatch(L"USB\\VID_05AC&PID_12A8\\X", L"\\\\?\\usb#vid_04e8&pid_6860#x#{6ac27878}"));
    EXPECT_FALSE(DeviceNamesMatch(L"", L"anything")) << "an empty id names no device";
    EXPECT_FALSE(DeviceNamesMatch(L"anything", L""));
    EXPECT_EQ(dorwex::NormalizeDeviceName(L"a#b\\c"), L"A~B~C");
}

}  // namespace
