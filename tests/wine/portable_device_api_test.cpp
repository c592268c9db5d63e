// The portable-device declarations the module makes for itself: each interface's __uuidof and IID_
// constant agree with the published value, and so do the class ids and a sample of keys per property set.
#include <gtest/gtest.h>

#include <string>

#include "device/portable_device_api.h"

namespace {

std::wstring Text(const GUID& guid) {
    wchar_t text[64] = {};
    StringFromGUID2(guid, text, 64);
    return text;
}

#define EXPECT_INTERFACE(name, text)              \
    EXPECT_EQ(Text(__uuidof(name)), text) << #name; \
    EXPECT_EQ(Text(IID_##name), text) << #name

TEST(PortableDeviceApi, InterfaceIdsMatchTheSdk) {
    EXPECT_INTERFACE(IPortableDeviceManager, L"{A1567595-4C2F-4574-A6FA-ECEF917B9A40}");
    EXPECT_INTERFACE(IPortableDevice, L"{625E2DF8-6392-4CF0-9AD1-3CFA5F17775C}");
    EXPECT_INTERFACE(IPortableDeviceContent, L"{6A96ED84-7C73-4480-9938-BF5AF477D426}");
    EXPECT_INTERFACE(IEnumPortableDeviceObjectIDs, L"{10ECE955-CF41-4728-BFA0-41EEDF1BBF19}");
    EXPECT_INTERFACE(IPortableDeviceProperties, L"{7F6D695C-03DF-4439-A809-59266BEEE3A6}");
    EXPECT_INTERFACE(IPortableDeviceResources, L"{FD8878AC-D841-4D17-891C-E6829CDB6934}");
    EXPECT_INTERFACE(IPortableDeviceCapabilities, L"{2C8C6DBF-E3DC-4061-BECC-8542E810D126}");
    EXPECT_INTERFACE(IPortableDeviceEventCallback, L"{A8792A31-F385-493C-A893-40F64EB45F6E}");
    EXPECT_INTERFACE(IPortableDeviceDataStream, L"{88E04DB3-1012-4D64-9996-F703A950D3F4}");
    EXPECT_INTERFACE(IPortableDeviceValues, L"{6848F6F2-3155-4F86-B6F5-263EEEAB3143}");
    EXPECT_INTERFACE(IPortableDeviceKeyCollection, L"{DADA2357-E0AD-492E-98DB-DD61C53BA353}");
    EXPECT_INTERFACE(IPortableDevicePropVariantCollection, L"{89B2E422-4F1B-4316-BCEF-A44AFEA83EB3}");
}

TEST(PortableDeviceApi, ClassIdsMatchTheSdk) {
    EXPECT_EQ(Text(CLSID_PortableDeviceManager), L"{0AF10CEC-2ECD-4B92-9581-34F6AE0637F3}");
    EXPECT_EQ(Text(CLSID_PortableDevice), L"{728A21C5-3D9E-48D7-9810-864848F0F404}");
    EXPECT_EQ(Text(CLSID_PortableDeviceFTM), L"{F7C0039A-4762-488A-B4B3-760EF9A1BA9B}");
    EXPECT_EQ(Text(CLSID_PortableDeviceValues), L"{0C15D503-D017-47CE-9016-7B3F978721CC}");
    EXPECT_EQ(Text(CLSID_PortableDeviceKeyCollection), L"{DE2D022D-2480-43BE-97F0-D1FA2CF98F4F}");
    EXPECT_EQ(Text(CLSID_PortableDevicePropVariantCollection), L"{08A99E2F-6D6D-4B80-AF5A-BAF2BCBE4CB9}");
}

TEST(PortableDeviceApi, PropertyKeysMatchTheSdk) {
    struct KeyRow {
        const PROPERTYKEY& key;
        const wchar_t* fmtid;
        DWORD pid;
    };
    const KeyRow rows[] = {
        {WPD_OBJECT_ID, L"{EF6B490D-5CD8-437A-AFFC-DA8B60EE4A3C}", 2},
        {WPD_OBJECT_ORIGINAL_FILE_NAME, L"{EF6B490D-5CD8-437A-AFFC-DA8B60EE4A3C}", 12},
        {WPD_OBJECT_SIZE, L"{EF6B490D-5CD8-437A-AFFC-DA8B60EE4A3C}", 11},
        {WPD_OBJECT_ISSYSTEM, L"{EF6B490D-5CD8-437A-AFFC-DA8B60EE4A3C}", 10},
        {WPD_DEVICE_SERIAL_NUMBER, L"{26D4979A-E643-4626-9E2B-736DC0C92FDC}", 9},
        {WPD_DEVICE_NETWORK_IDENTIFIER, L"{26D4979A-E643-4626-9E2B-736DC0C92FDC}", 16},
        {WPD_STORAGE_DESCRIPTION, L"{01A3057A-74D6-4E80-BEA7-DC4C212CE50A}", 7},
        {WPD_CLIENT_SECURITY_QUALITY_OF_SERVICE, L"{204D9F0C-2292-4080-9F42-40664E70F859}", 8},
        {WPD_CLIENT_DESIRED_ACCESS, L"{204D9F0C-2292-4080-9F42-40664E70F859}", 9},
        {WPD_EVENT_PARAMETER_EVENT_ID, L"{15AB1953-F817-4FEF-A921-5676E838F6E0}", 3},
        {WPD_RESOURCE_DEFAULT, L"{E81E79BE-34F0-41BF-B53F-F1A06AE87842}", 0},
    };
    for (const KeyRow& row : rows) {
        EXPECT_EQ(Text(row.key.fmtid), row.fmtid);
        EXPECT_EQ(row.key.pid, row.pid) << row.fmtid;
    }
    EXPECT_EQ(Text(WPD_EVENT_OBJECT_ADDED), L"{A726DA95-E207-4B02-8D44-BEF2E86CBFFC}");
    EXPECT_EQ(Text(WPD_FUNCTIONAL_CATEGORY_STORAGE), L"{23F05BBC-15DE-4C2A-A55B-A9AF5CE412EF}");
    EXPECT_EQ(Text(WPD_CONTENT_TYPE_FOLDER), L"{27E2E392-A111-48E0-AB0C-E17705A05F85}");
}

}  // namespace
