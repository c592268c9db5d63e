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

// Instance ids are compared whole: ...\1 is not found in a name of ...\12, in either function.
TEST(DeviceNamesMatch, AnIdIsNeverFoundInsideALongerOne) {
    const std::wstring volume =
        L"\\\\?\\STORAGE#VOLUME#_??_USBSTOR#DISK&VEN_K#60A4&0#{53f56307-b6bf}#{6ac27878-a6fa-4155-ba85-f98f491d4f33}";
    const struct {
        const wchar_t* instanceId;
        std::wstring name;
        bool matches;  // DeviceNamesMatch
        bool names;    // NameIsOfInstance
    } cases[] = {
        {L"USB\\VID_0FCA&PID_8004\\1", L"\\\\?\\usb#vid_0fca&pid_8004#1#{6ac27878}", true, true},
        {L"USB\\VID_0FCA&PID_8004\\1", L"\\\\?\\usb#vid_0fca&pid_8004#12#{6ac27878}", false, false},
        {L"USB\\VID_0FCA&PID_8004\\12", L"\\\\?\\usb#vid_0fca&pid_8004#1#{6ac27878}", false, false},
        {L"USB\\VID_0FCA&PID_8004\\1", L"\\\\?\\usb#vid_0fca&pid_8004#1&mi_00#{6ac27878}", false, false},
        {L"SB\\VID_0FCA&PID_8004\\1", L"\\\\?\\usb#vid_0fca&pid_8004#1#{6ac27878}", false, false},
        {L"USB\\VID_0FCA&PID_8004\\1", L"usb#vid_0fca&pid_8004#1", true, true},
        {L"USB\\VID_0FCA&PID_8004\\1", L"usb\\vid_0fca&pid_8004\\1", true, true},
        {L"USB\\VID_0FCA&PID_8004\\1", L"\\??\\usb#vid_0fca&pid_8004#1#{6ac27878}\\ref", true, true},
        {L"USB\\VID_0FCA&PID_8004\\1", L"prefix usb\\vid_0fca&pid_8004\\1 suffix", false, false},
        {L"USB\\VID_0FCA&PID_8004\\1", L"x#usb#vid_0fca&pid_8004#1#{6ac27878}", true, false},
        {L"USB\\VID_0FCA&PID_8004\\1", L"\\\\?\\usb#vid_0fca&pid_8004#1#x", true, false},
        // A volume's name holds its disk's id after "_??_": the same device, found by the view, never ejected
        // in the volume's place.
        {L"USBSTOR\\DISK&VEN_K\\60A4&0", volume, true, false},
        {L"USBSTOR\\DISK&VEN_K\\60A4", volume, false, false},
        {L"STORAGE\\VOLUME\\_??_USBSTOR#DISK&VEN_K#60A4&0#{53f56307-b6bf}", volume, true, true},
        {L"", L"usb#vid_0fca&pid_8004#1", false, false},
    };
    for (const auto& c : cases) {
        const std::string name(c.name.begin(), c.name.end());
        EXPECT_EQ(DeviceNamesMatch(c.instanceId, c.name), c.matches) << name;
        EXPECT_EQ(dorwex::NameIsOfInstance(c.instanceId, c.name), c.names) << name;
    }
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
