#include "device_description.h"

#include <gtest/gtest.h>

namespace {

using dorwex::emulator::ParseDeviceDescription;

TEST(DeviceDescription, ReadsEverySection) {
    const auto result = ParseDeviceDescription(
        "\xEF\xBB\xBF# a phone\n"
        "[device]\n"
        "id = \\\\?\\usb#vid_04e8#r58m\r\n"
        "manufacturer =  SAMSUNG Electronics  \n"
        "friendly_name = Galaxy\n"
        "categories = storage, sms,,still_image_capture\n"
        "short_read = 7\n"
        "minimal_driver = yes\n"
        "strict_creation = true\n"
        "latency_us = 1500\n"
        "open_ms = 1000\n"
        "bulk_properties = no\n"
        "write_access = denied\n"
        "WPD_DEVICE_SERIAL_NUMBER = R58M\n"
        "[registry]\n"
        "BBPIN = 2A3B\n"
        "[storage]\n"
        "object_id = s10001\n"
        "name = Phone\n"
        "directory = phone\n"
        "[storage]\n"
        "object_id = s20001\n"
        "[fault]\n"
        "Open = 0x80070005\n"
        "GetFunctionalObjects = 0x800710D2 x 2\n");
    ASSERT_TRUE(result.errors.empty()) << result.errors.front();
    const auto& device = result.device;
    EXPECT_EQ(device.id, "\\\\?\\usb#vid_04e8#r58m");
    EXPECT_EQ(device.manufacturer, "SAMSUNG Electronics");
    EXPECT_EQ(device.categories, (std::vector<std::string>{"storage", "sms", "still_image_capture"}));
    EXPECT_EQ(device.shortRead, 7u);
    EXPECT_TRUE(device.minimalDriver);
    EXPECT_TRUE(device.strictCreation);
    EXPECT_EQ(device.latencyMicroseconds, 1500u);
    EXPECT_EQ(device.openMilliseconds, 1000u);
    EXPECT_FALSE(device.bulkProperties);
    EXPECT_TRUE(device.writeDenied);
    EXPECT_EQ(device.properties.at("WPD_DEVICE_SERIAL_NUMBER"), "R58M");
    EXPECT_EQ(device.registry.at("BBPIN"), "2A3B");
    ASSERT_EQ(device.storages.size(), 2u);
    EXPECT_EQ(device.storages[0].name, "Phone");
    EXPECT_EQ(device.storages[0].directory, "phone");
    EXPECT_EQ(device.storages[1].objectId, "s20001");
    EXPECT_EQ(device.faults.at("Open").hresult, 0x80070005u);
    EXPECT_EQ(device.faults.at("Open").count, -1);
    EXPECT_EQ(device.faults.at("GetFunctionalObjects").hresult, 0x800710D2u);
    EXPECT_EQ(device.faults.at("GetFunctionalObjects").count, 2);
}

TEST(DeviceDescription, ReportsWhatItCannotUse) {
    struct Case {
        const char* text;
        const char* error;
    };
    const Case cases[] = {
        {"[device]\nmanufacturer = x\n", "the description has no device id"},
        {"[device]\nid = a\n[gadget]\n", "line 3: unknown section [gadget]"},
        {"[device]\nid = a\n[device\n", "line 3: unterminated section name"},
        {"[device]\nid = a\nnonsense\n", "line 3: expected name = value"},
        {"id = a\n", "line 1: entry outside a section"},
        {"[device]\nid = a\ncolour = red\n", "line 3: unknown device entry colour"},
        {"[device]\nid = a\nshort_read = -1\n", "line 3: short_read needs a positive byte count"},
        {"[device]\nid = a\nminimal_driver = maybe\n", "line 3: minimal_driver needs yes or no"},
        {"[device]\nid = a\nstrict_creation =\n", "line 3: strict_creation needs yes or no"},
        {"[device]\nid = a\nbulk_properties = some\n", "line 3: bulk_properties needs yes or no"},
        {"[device]\nid = a\nwrite_access = no\n", "line 3: write_access needs allowed or denied"},
        {"[device]\nid = a\nlatency_us = fast\n", "line 3: latency_us needs a count of microseconds up to 10000000"},
        {"[device]\nid = a\nopen_ms = 60001\n", "line 3: open_ms needs a count of milliseconds up to 60000"},
        {"[device]\nid = a\nlatency_us = 10000001\n",
         "line 3: latency_us needs a count of microseconds up to 10000000"},
        {"[device]\nid = a\nobject_cost_us = 1000001\n",
         "line 3: object_cost_us needs a count of microseconds up to 1000000"},
        {"[device]\nid = a\ntransfer_mbps = 0\n", "line 3: transfer_mbps needs a rate in MB/s from 1 to 100000"},
        {"[device]\nid = a\ncost_profile = usb3\n", "line 3: cost_profile needs usb2_phone"},
        {"[device]\nid = a\n[fault]\nOpen = often\n",
         "line 4: fault Open needs an HRESULT, optionally followed by x COUNT"},
        {"[device]\nid = a\n[fault]\nOpen = 0x1FFFFFFFF\n",
         "line 4: fault Open needs an HRESULT, optionally followed by x COUNT"},
        {"[device]\nid = a\n[storage]\nname = Phone\n", "storage 1 has no object_id"},
    };
    for (const auto& c : cases) {
        const auto result = ParseDeviceDescription(c.text);
        ASSERT_FALSE(result.errors.empty()) << c.text;
        EXPECT_EQ(result.errors.front(), c.error) << c.text;
    }
}

TEST(DeviceDescription, ModesAreOffUnlessSwitchedOn) {
    struct Case {
        const char* lines;
        bool minimalDriver;
        bool strictCreation;
    };
    const Case cases[] = {
        {"", false, false},
        {"minimal_driver = no\nstrict_creation = false\n", false, false},
        {"minimal_driver = 1\n", true, false},
        {"strict_creation = YES\n", false, true},
        {"minimal_driver = true\nminimal_driver = 0\nstrict_creation = on\n", false, true},
    };
    for (const auto& c : cases) {
        const auto result = ParseDeviceDescription(std::string("[device]\nid = a\n") + c.lines);
        ASSERT_TRUE(result.errors.empty()) << c.lines << result.errors.front();
        EXPECT_EQ(result.device.minimalDriver, c.minimalDriver) << c.lines;
        EXPECT_EQ(result.device.strictCreation, c.strictCreation) << c.lines;
    }
}

// A device answers at once, costs nothing per object or byte, offers bulk property reads and lets clients
// write unless its description says otherwise; the USB 2.0 profile fills in only the costs a file leaves out.
TEST(DeviceDescription, CostsBulkReadsAndWriteAccessDefaults) {
    struct Case {
        const char* lines;
        std::uint32_t latency;
        std::uint32_t objectCost;
        std::uint32_t transfer;
        bool bulk;
        bool writeDenied;
    };
    const Case cases[] = {
        {"", 0, 0, 0, true, false},
        {"latency_us = 0\n", 0, 0, 0, true, false},
        {"latency_us = 1000\nbulk_properties = yes\n", 1000, 0, 0, true, false},
        {"bulk_properties = off\n", 0, 0, 0, false, false},
        {"latency_us = 10000000\n", 10000000, 0, 0, true, false},
        {"object_cost_us = 20\ntransfer_mbps = 30\n", 0, 20, 30, true, false},
        {"cost_profile = usb2_phone\n", 1000, 20, 30, true, false},
        {"latency_us = 5\ncost_profile = usb2_phone\ntransfer_mbps = 480\n", 5, 20, 480, true, false},
        {"write_access = allowed\n", 0, 0, 0, true, false},
        {"write_access = denied\nwrite_access = allowed\n", 0, 0, 0, true, false},
        {"write_access = denied\n", 0, 0, 0, true, true},
    };
    for (const auto& c : cases) {
        const auto result = ParseDeviceDescription(std::string("[device]\nid = a\n") + c.lines);
        ASSERT_TRUE(result.errors.empty()) << c.lines << result.errors.front();
        EXPECT_EQ(result.device.latencyMicroseconds, c.latency) << c.lines;
        EXPECT_EQ(result.device.objectCostMicroseconds, c.objectCost) << c.lines;
        EXPECT_EQ(result.device.transferMegabytesPerSecond, c.transfer) << c.lines;
        EXPECT_EQ(result.device.bulkProperties, c.bulk) << c.lines;
        EXPECT_EQ(result.device.writeDenied, c.writeDenied) << c.lines;
    }
}

TEST(DeviceDescription, SurvivesArbitraryBytes) {
    std::string text;
    for (int i = 0; i < 4096; ++i) {
        text.push_back(static_cast<char>((i * 7919) % 256));
        if (i % 97 == 0) {
            text += "\n[storage]\n=\n[fault]\nx=0x";
        }
    }
    const auto result = ParseDeviceDescription(text);
    EXPECT_FALSE(result.errors.empty());
}

}  // namespace
