#include "device/pnp_name_match.h"

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

TEST(SerialNumberFromInstanceId, OnlyARealSerialNumber) {
    const struct {
        const wchar_t* instanceId;
        const wchar_t* serial;
    } cases[] = {
        {L"USB\\VID_04E8&PID_6860\\R58M12345", L"R58M12345"},
        {L"USB\\VID_04E8&PID_6860&MI_00\\7&2A8F3E1&0&0000", L""},  // a composite function: made-up id
        {L"USB\\VID_0951&PID_1666\\5&1B2C3D4&0&2", L""},           // no serial number on the device
        {L"USB\\VID_0951&PID_1666\\", L""},
        {L"USB\\VID_0951&PID_1666", L""},
        {L"R58M12345", L""},
        {L"", L""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(dorwex::SerialNumberFromInstanceId(c.instanceId), c.serial) << c.instanceId;
    }
}

TEST(PortFromLocationText, NumberInTheLastParentheses) {
    EXPECT_EQ(dorwex::PortFromLocationText(L"USB Composite Device (3)"), 3);
    EXPECT_EQ(dorwex::PortFromLocationText(L"Hub (2) port (14)"), 14);
    EXPECT_EQ(dorwex::PortFromLocationText(L"( 7)"), 7);
    EXPECT_EQ(dorwex::PortFromLocationText(L"Port_#0003.Hub_#0002"), 0) << "no parentheses";
    EXPECT_EQ(dorwex::PortFromLocationText(L"()"), 0);
    EXPECT_EQ(dorwex::PortFromLocationText(L"(x3)"), 0);
    EXPECT_EQ(dorwex::PortFromLocationText(L")3("), 0);
    EXPECT_EQ(dorwex::PortFromLocationText(L"(99999999999999999999)"), 0) << "no overflow";
    EXPECT_EQ(dorwex::PortFromLocationText(L""), 0);
}

}  // namespace
