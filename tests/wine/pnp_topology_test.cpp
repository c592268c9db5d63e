// The Plug and Play view and ejecting a device, against a Plug and Play tree double: a phone behind a hub, a
// USB stick with a drive letter, and ejects that succeed, are vetoed, or see the device come back.
#include <gtest/gtest.h>

#include "common/com_memory.h"
#include "device/wpd_object.h"
#include "device/pnp_topology.h"
#include "monitor/wpd_collection.h"
#include "monitor/wpd_core.h"
#include "monitor/wpd_events_processor.h"
#include "support/pnp_tree_double.h"
#include "support/system_text.h"
#include "support/test_trace_sink.h"
#include "support/wpd_emulator.h"
#include "wmi/module.h"

namespace {

using Node = PnpTreeDouble::Node;

// A phone as Windows shows it: host controller, root hub (6 ports), the phone's USB device on port 3 with
// its serial number, and the phone's portable-device function below it.
constexpr wchar_t kPhoneUSB[] = L"USB\\VID_04E8&PID_6860\\R58M12345";
constexpr wchar_t kPhoneFunction[] = L"USB\\VID_04E8&PID_6860&MI_00\\7&2A8F3E1&0&0000";
constexpr char kPhoneWPDId[] = "\\\\?\\usb#vid_04e8&pid_6860&mi_00#7&2a8f3e1&0&0000#{6ac27878-a6fa-4155-ba85-f98f491d4f33}";
// The same phone as a single-function device: its portable-device interface is on its USB node.
constexpr char kSinglePhoneWPDId[] = "\\\\?\\usb#vid_04e8&pid_6860#r58m12345#{6ac27878-a6fa-4155-ba85-f98f491d4f33}";

// A USB stick: its disk drive and the volume on it, seen through WPD.
constexpr wchar_t kStickDisk[] = L"USBSTOR\\DISK&VEN_KINGSTON&PROD_DT&REV_PMAP\\60A44C413A8C&0";
constexpr wchar_t kStickVolume[] =
    L"STORAGE\\VOLUME\\_??_USBSTOR#DISK&VEN_KINGSTON&PROD_DT&REV_PMAP#60A44C413A8C&0#{53f56307-b6bf-11d0-94f2-00a0c91efb8b}";
constexpr wchar_t kStickWPDName[] =
    L"\\\\?\\STORAGE#VOLUME#_??_USBSTOR#DISK&VEN_KINGSTON&PROD_DT&REV_PMAP#60A44C413A8C&0#{53f56307-b6bf-11d0-94f2-"
    L"00a0c91efb8b}#{6ac27878-a6fa-4155-ba85-f98f491d4f33}";

struct PhoneTree {
    int controller = -1, hub = -1, usb = -1, function = -1;
};

PhoneTree AddPhone(PnpTreeDouble& pnp, const std::wstring& location = L"USB Composite Device (3)",
                   bool composite = true) {
    PhoneTree tree;
    tree.controller = pnp.AddHostController(L"PCI\\VEN_8086&DEV_A36D\\3&11583659&0&A0");
    tree.hub = pnp.AddHub(tree.controller, L"USB\\ROOT_HUB30\\4&1F3B2A0&0&0", 6);
    Node usb;
    usb.instanceId = kPhoneUSB;
    usb.setupClass = pnp_classes::kUSB;
    usb.parent = tree.hub;
    usb.port = 3;
    usb.properties[SPDRP_LOCATION_INFORMATION] = location;
    usb.properties[SPDRP_PHYSICAL_DEVICE_OBJECT_NAME] = L"\\Device\\USBPDO-7";
    usb.interfaces.push_back({pnp_classes::kUSBDeviceInterface, L"\\\\?\\usb#vid_04e8&pid_6860#r58m12345#{a5dcbf10}"});
    tree.usb = pnp.Add(usb);
    if (!composite) {
        // The USB device is the portable device itself: one node with the serial number in its id.
        pnp.At(tree.usb).setupClass = pnp_classes::kWPD;
        pnp.At(tree.usb).properties[SPDRP_FRIENDLYNAME] = L"Galaxy S9";
        pnp.At(tree.usb).interfaces.push_back({pnp_classes::kWPDInterface, Wide(kSinglePhoneWPDId)});
        return tree;
    }
    Node function;
    function.instanceId = kPhoneFunction;
    function.setupClass = pnp_classes::kWPD;
    function.parent = tree.usb;
    function.properties[SPDRP_PHYSICAL_DEVICE_OBJECT_NAME] = L"\\Device\\USBPDO-8";
    function.properties[SPDRP_FRIENDLYNAME] = L"Galaxy S9";
    function.interfaces.push_back({pnp_classes::kWPDInterface, Wide(kPhoneWPDId)});
    tree.function = pnp.Add(function);
    return tree;
}

void AddStick(PnpTreeDouble& pnp, LONG diskNumber) {
    const int controller = pnp.AddHostController(L"PCI\\VEN_8086&DEV_A36D\\3&11583659&0&A0");
    const int hub = pnp.AddHub(controller, L"USB\\ROOT_HUB30\\4&1F3B2A0&0&0", 6);
    Node usb;
    usb.instanceId = L"USB\\VID_0951&PID_1666\\60A44C413A8C";
    usb.setupClass = pnp_classes::kUSB;
    usb.parent = hub;
    usb.port = 1;
    const int usbIndex = pnp.Add(usb);
    Node disk;
    disk.instanceId = kStickDisk;
    disk.setupClass = pnp_classes::kDiskDrive;
    disk.parent = usbIndex;
    disk.diskNumber = diskNumber;
    disk.interfaces.push_back({pnp_classes::kDiskInterface, L"\\\\?\\usbstor#disk&ven_kingston#60a44c413a8c&0#{53f56307}"});
    const int diskIndex = pnp.Add(disk);
    Node volume;
    volume.instanceId = kStickVolume;
    volume.setupClass = pnp_classes::kVolume;
    volume.parent = diskIndex;
    volume.diskNumber = diskNumber;
    volume.interfaces.push_back({pnp_classes::kWPDInterface, kStickWPDName});
    pnp.Add(volume);
}

TEST(PnpView, PhoneBehindAHubGetsItsUSBDevicePortAndSerialNumbers) {
    PnpTreeDouble pnp;
    AddPhone(pnp, L"USB Composite Device (3)", false);
    TraceCapture trace(1);
    CDorWEXWPDObjectInWin32 view;
    const std::wstring name = Wide(kSinglePhoneWPDId);
    EXPECT_EQ(view.ProcessDeviceNotification(name.c_str(), 1), S_OK);

    EXPECT_EQ(view.GetEntry(CDorWEXWPDObjectInWin32::kNotifiedNode).wstringInstanceId, kPhoneUSB) << "matched across case, # and the suffix";
    EXPECT_EQ(view.GetEntry(CDorWEXWPDObjectInWin32::kNotifiedNode).wstringDevicePath, name);
    EXPECT_EQ(view.GetEntry(CDorWEXWPDObjectInWin32::kNotifiedNode).wstringType, L"GUID_DEVINTERFACE_WPD");
    EXPECT_EQ(view.GetEntry(CDorWEXWPDObjectInWin32::kNotifiedNode).Property(SPDRP_FRIENDLYNAME), L"Galaxy S9");
    EXPECT_EQ(view.GetEntry(CDorWEXWPDObjectInWin32::kUSBDeviceNode).wstringInstanceId, kPhoneUSB) << "the node on the hub";
    EXPECT_EQ(view.GetEntry(CDorWEXWPDObjectInWin32::kUSBDeviceNode).Property(SPDRP_PHYSICAL_DEVICE_OBJECT_NAME), L"\\Device\\USBPDO-7");
    EXPECT_EQ(view.GetEntry(CDorWEXWPDObjectInWin32::kUSBDeviceNode).intUSBHubPortNumber, 3);
    EXPECT_EQ(view.GetEntry(CDorWEXWPDObjectInWin32::kUSBDeviceNode).intTotalPortsOnHub, 6);
    EXPECT_EQ(view.GetEntry(CDorWEXWPDObjectInWin32::kUSBDeviceNode).intActivePortsOnHub, 1);
    EXPECT_EQ(view.GetEntry(CDorWEXWPDObjectInWin32::kUSBDeviceNode).longNumberOfOpenPipes, 3) << "read from the hub for the device's port";
    EXPECT_TRUE(view.GetEntry(CDorWEXWPDObjectInWin32::kDiskDriveNode).wstringInstanceId.empty()) << "no disk drive on a phone";
    EXPECT_EQ(view.GetUSBSerialNumber(), L"R58M12345");
    EXPECT_EQ(view.GetDeviceSerialNumber(), L"R58M12345");

    // The whole view, in order: the notified node matched, the hub and port of the USB device (the node's
    // own parent), then what each entry holds.
    const std::wstring show = L"CDorWEXWPDObjectInWin32::ShowProperties, ";
    const std::vector<std::wstring> expected = {
        L"CDorWEXWPDObjectInWin32::ProcessDeviceNotification entered for " + name,
        L"=============================================================",
        L"CDorWEXWPDObjectInWin32::FindDeviceClassFromDbccNamedbcc_name MATCHED ON " + std::wstring(kPhoneUSB),
        L"CDorWEXWPDObjectInWin32::SetDeviceInstanceIdUsingPnpAPI, "
        L"Targeted device DevInst: 3, DeviceInstanceId: " + std::wstring(kPhoneUSB),
        L"CDorWEXWPDObjectInWin32::ProcessImmediateParent2, "
        L"Parent USB\\ROOT_HUB30\\4&1F3B2A0&0&0 distance 1 for " + std::wstring(kPhoneUSB) + L" = 6.",
        L"CDorWEXWPDObjectInWin32::ProcessImmediateParent2, device is on port 3",
        show + L"View, PDEV_BROADCAST_DEVICEINTERFACE->dbcc_name=<" + name + L">",
        show + L"Entry0, Notification Device Path=<" + name + L">",
        show + L"Entry0, Notification Type=<GUID_DEVINTERFACE_WPD>",
        show + L"Entry0, Notification DeviceClassGUID=<>",
        show + L"Entry0, Notification InstanceId0=<" + std::wstring(kPhoneUSB) + L">",
        show + L"Entry0, Notification SPDRP_PHYSICAL_DEVICE_OBJECT_NAME=<\\Device\\USBPDO-7>",
        show + L"Entry0, Notification SPDRP_HARDWAREID=<>",
        show + L"Entry0, Notification SPDRP_ENUMERATOR_NAME=<>",
        show + L"Entry0, Notification SPDRP_LOCATION_PATHS=<>",
        show + L"Entry0, Notification SPDRP_LOCATION_INFORMATION=<USB Composite Device (3)>",
        show + L"Entry0, Notification Device Drive Letter=<>",
        show + L"Entry0, Notification DiskNumber=-1",
        show + L"Entry0, Notification USBHubPortNumber=0",
        show + L"Entry0, Notification TotalPortsOnHub=0",
        show + L"Entry0, Notification ActivePortsOnHub=0",
        show + L"Entry0, Notification NumberOfOpenPipes=0",
        show + L"Entry0, Notification NumberOfOutPipes=0",
        show + L"Entry0, Notification iManufacturer=0",
        show + L"Entry2, USBDevice Device Path=<\\\\?\\usb#vid_04e8&pid_6860#r58m12345#{a5dcbf10}>",
        show + L"Entry2, USBDevice Type=<GUID_DEVINTERFACE_USB_DEVICE>",
        show + L"Entry2, USBDevice DeviceClassGUID=<>",
        show + L"Entry2, USBDevice InstanceId2=<" + std::wstring(kPhoneUSB) + L">",
        show + L"Entry2, USBDevice SPDRP_PHYSICAL_DEVICE_OBJECT_NAME=<\\Device\\USBPDO-7>",
        show + L"Entry2, USBDevice SPDRP_HARDWAREID=<>",
        show + L"Entry2, USBDevice SPDRP_ENUMERATOR_NAME=<>",
        show + L"Entry2, USBDevice SPDRP_LOCATION_PATHS=<>",
        show + L"Entry2, USBDevice SPDRP_LOCATION_INFORMATION=<USB Composite Device (3)>",
        show + L"Entry2, USBDevice Device Drive Letter=<>",
        show + L"Entry2, USBDevice DiskNumber=-1",
        show + L"Entry2, USBDevice USBHubPortNumber=3",
        show + L"Entry2, USBDevice TotalPortsOnHub=6",
        show + L"Entry2, USBDevice ActivePortsOnHub=1",
        show + L"Entry2, USBDevice NumberOfOpenPipes=3",
        show + L"Entry2, USBDevice NumberOfOutPipes=0",
        show + L"Entry2, USBDevice iManufacturer=1",
    };
    std::vector<std::wstring> lines;
    for (const auto& line : trace.Lines()) {
        lines.push_back(line.substr(0, line.size() - 2));
    }
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(pnp.OpenLists(), 0u);
    EXPECT_EQ(pnp.OpenHandles(), 0u);
}

// Only a node's own parent is looked at for its hub: the function of a composite device sits below its USB
// device, not on a hub, so it gets no USB node, hub or port. Every node that matches the name is read, the
// last one staying in the entry.
TEST(PnpView, AFunctionOfACompositeDeviceHasNoHubAndEveryMatchingNodeIsRead) {
    PnpTreeDouble pnp;
    AddPhone(pnp);
    TraceCapture trace(1);
    CDorWEXWPDObjectInWin32 view;
    EXPECT_EQ(view.ProcessDeviceNotification(Wide(kPhoneWPDId).c_str(), 1), S_OK);
    EXPECT_EQ(view.GetEntry(CDorWEXWPDObjectInWin32::kNotifiedNode).wstringInstanceId, kPhoneFunction);
    EXPECT_TRUE(view.GetEntry(CDorWEXWPDObjectInWin32::kUSBDeviceNode).wstringInstanceId.empty());
    EXPECT_EQ(view.GetEntry(CDorWEXWPDObjectInWin32::kUSBDeviceNode).intUSBHubPortNumber, 0);
    EXPECT_EQ(view.GetUSBSerialNumber(), L"");
    EXPECT_TRUE(trace.StartingWith(L"CDorWEXWPDObjectInWin32::ProcessImmediateParent2").empty());

    // A second node whose id also lies whole in the name: both are read, in the order the system lists them.
    Node group;
    group.instanceId = L"USB\\VID_04E8&PID_6860&MI_00";
    pnp.Add(group);
    trace.Clear();
    CDorWEXWPDObjectInWin32 twice;
    twice.ProcessDeviceNotification(Wide(kPhoneWPDId).c_str(), 1);
    EXPECT_EQ(trace.StartingWith(L"CDorWEXWPDObjectInWin32::FindDeviceClassFromDbccNamedbcc_name MATCHED ON "),
              (std::vector<std::wstring>{
                  L"CDorWEXWPDObjectInWin32::FindDeviceClassFromDbccNamedbcc_name MATCHED ON " + std::wstring(kPhoneFunction),
                  L"CDorWEXWPDObjectInWin32::FindDeviceClassFromDbccNamedbcc_name MATCHED ON USB\\VID_04E8&PID_6860&MI_00"}));
    EXPECT_EQ(twice.GetEntry(CDorWEXWPDObjectInWin32::kNotifiedNode).wstringInstanceId, L"USB\\VID_04E8&PID_6860&MI_00");
    EXPECT_EQ(pnp.OpenLists(), 0u);
    EXPECT_EQ(pnp.OpenHandles(), 0u);
}

TEST(PnpView, PortComesFromCountingTheHubsChildrenWhenTheLocationNamesNone) {
    PnpTreeDouble pnp;
    const PhoneTree tree = AddPhone(pnp, L"Port_#0003.Hub_#0001", false);
    Node other;  // a keyboard on the same hub, listed before the phone
    other.instanceId = L"USB\\VID_046D&PID_C31C\\5&1&0&1";
    other.parent = tree.hub;
    other.port = 1;
    pnp.Add(other);
    TraceCapture trace(1);
    CDorWEXWPDObjectInWin32 view;
    view.ProcessDeviceNotification(Wide(kSinglePhoneWPDId).c_str(), 1);
    EXPECT_EQ(view.GetEntry(CDorWEXWPDObjectInWin32::kUSBDeviceNode).intUSBHubPortNumber, 1) << "the phone is the hub's first child";
    EXPECT_EQ(view.GetEntry(CDorWEXWPDObjectInWin32::kUSBDeviceNode).intActivePortsOnHub, 2);

    // A hub whose port count cannot be read gives no port at all.
    pnp.At(tree.hub).hubPorts = 0;
    trace.Clear();
    view.ProcessDeviceNotification(Wide(kSinglePhoneWPDId).c_str(), 1);
    EXPECT_EQ(view.GetEntry(CDorWEXWPDObjectInWin32::kUSBDeviceNode).intUSBHubPortNumber, 0);
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObjectInWin32::ProcessImmediateParent2, could not determine port for device.\n"));
}

TEST(PnpView, StickVolumeHasItsDiskDriveDiskNumberAndLetter) {
    PnpTreeDouble pnp;
    AddStick(pnp, 2);
    pnp.SetDrive(L'C', 0);
    pnp.SetDrive(L'E', 2);
    TraceCapture trace(1);
    CDorWEXWPDObjectInWin32 view;
    EXPECT_EQ(view.ProcessDeviceNotification(kStickWPDName, 1), S_OK);
    EXPECT_EQ(view.GetEntry(CDorWEXWPDObjectInWin32::kDiskDriveNode).wstringDiskDrive, kStickDisk) << "the disk drive's id is part of the volume name";
    EXPECT_EQ(view.GetEntry(CDorWEXWPDObjectInWin32::kDiskDriveNode).longDiskNumber, -1) << "only a volume is asked";
    EXPECT_TRUE(view.GetEntry(CDorWEXWPDObjectInWin32::kDiskDriveNode).wstringDriveLetter.empty());
    EXPECT_TRUE(view.GetEntry(CDorWEXWPDObjectInWin32::kNotifiedNode).wstringInstanceId.empty()) << "a disk was found: the name is not looked up further";
    EXPECT_TRUE(trace.StartingWith(L"CDorWEXWPDObjectInWin32::GetDiskNumberAndDriveLetter2").empty());
    EXPECT_TRUE(trace.Has(std::wstring(L"CDorWEXWPDObjectInWin32::FindDeviceClassOnCompositeDeviceGUID_DEVINTERFACE_"
                                       L"DISK: MATCHED ON ") +
                          kStickDisk + L" Match count=1\n"));

    // The volume itself, when the disk drive is not listed: its disk is on no drive letter.
    pnp.At(3).present = false;
    trace.Clear();
    CDorWEXWPDObjectInWin32 volumeView;
    volumeView.ProcessDeviceNotification(kStickWPDName, 1);
    EXPECT_EQ(volumeView.GetEntry(CDorWEXWPDObjectInWin32::kNotifiedNode).wstringInstanceId, kStickVolume);
    EXPECT_EQ(volumeView.GetEntry(CDorWEXWPDObjectInWin32::kNotifiedNode).longDiskNumber, 2);
    EXPECT_EQ(volumeView.GetEntry(CDorWEXWPDObjectInWin32::kNotifiedNode).wstringDiskDrive, L"\\\\.\\PhysicalDrive2");
    EXPECT_EQ(volumeView.GetEntry(CDorWEXWPDObjectInWin32::kNotifiedNode).wstringDriveLetter, L"E:\\");
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObjectInWin32::GetDiskNumberAndDriveLetter2, Drive letter: <E:\\> "
                          L"Drive number: <2>\n"));

    pnp.SetDrive(L'E', 0);
    trace.Clear();
    CDorWEXWPDObjectInWin32 noLetter;
    noLetter.ProcessDeviceNotification(kStickWPDName, 1);
    EXPECT_TRUE(noLetter.GetEntry(CDorWEXWPDObjectInWin32::kNotifiedNode).wstringDriveLetter.empty());
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObjectInWin32::GetDiskNumberAndDriveLetter2, Reached end of drive list before "
                          L"reaching l_VOLUME_DISK_EXTENTS.Extents->DiskNumber:list: C:\\ E:\\  DiskNumber: 2\n"));
    EXPECT_EQ(pnp.OpenLists(), 0u);
    EXPECT_EQ(pnp.OpenHandles(), 0u);
}

TEST(PnpView, FailingCallsAreTracedAndLeaveTheEntriesEmpty) {
    EXPECT_EQ(CDorWEXWPDObjectInWin32().ProcessDeviceNotification(nullptr, 1), E_FAIL);
    {
        PnpTreeDouble pnp;
        AddStick(pnp, 1);
        pnp.Fail("SetupDiGetClassDevsW");
        TraceCapture trace(1);
        CDorWEXWPDObjectInWin32 view;
        EXPECT_EQ(view.ProcessDeviceNotification(kStickWPDName, 1), HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED));
        EXPECT_TRUE(view.GetEntry(CDorWEXWPDObjectInWin32::kDiskDriveNode).wstringDiskDrive.empty()) << "nothing found: read as not plain storage";
        EXPECT_TRUE(view.GetEntry(CDorWEXWPDObjectInWin32::kNotifiedNode).wstringInstanceId.empty());
        EXPECT_EQ(trace.StartingWith(L"CDorWEXWPDObjectInWin32::FindDeviceClassOnCompositeDeviceGUID_DEVINTERFACE_DISK: "
                                     L"SetupDiGetClassDevs FAILED 5: ").size(), 1u);
        EXPECT_EQ(pnp.OpenLists(), 0u);
    }
    {
        PnpTreeDouble pnp;
        AddStick(pnp, 1);
        pnp.SetDrive(L'E', 1);
        pnp.Fail("CreateFileW");
        TraceCapture trace(1);
        CDorWEXWPDObjectInWin32 view;
        view.ProcessDeviceNotification(kStickWPDName, 1);
        EXPECT_EQ(view.GetEntry(CDorWEXWPDObjectInWin32::kDiskDriveNode).wstringDiskDrive, kStickDisk) << "the node is found all the same";
        EXPECT_EQ(view.GetEntry(CDorWEXWPDObjectInWin32::kDiskDriveNode).longDiskNumber, -1);
        EXPECT_TRUE(view.GetEntry(CDorWEXWPDObjectInWin32::kDiskDriveNode).wstringDriveLetter.empty());
        EXPECT_EQ(trace.StartingWith(L"CDorWEXWPDObjectInWin32::ProcessDeviceInterfaces2, DevicePath: "
                                     L"\\\\?\\usbstor#disk&ven_kingston#60a44c413a8c&0#{53f56307} FAILED mapping "
                                     L"into Win32: CreateFile FAILED 2: ").size(), 1u);
        EXPECT_EQ(pnp.OpenLists(), 0u);
        EXPECT_EQ(pnp.OpenHandles(), 0u);
    }
}

// A system call of the view that fails on the way: its line names the call, the code and the system's text
// for it, in its place among the view's lines (the entries' own lines aside), and the entry keeps what was
// found before the failure.
TEST(PnpView, EachFailingCallIsTracedInItsPlaceWithItsCodeAndText) {
    const std::wstring view = L"CDorWEXWPDObjectInWin32::";
    const std::wstring separator = L"=============================================================";
    const struct {
        const char* what;
        bool phone;  // else the USB stick
        bool diskDriveListed;
        const char* failing;
        DWORD volumeDiskExtents;
        const wchar_t* name;
        std::vector<std::wstring> lines;
    } cases[] = {
        {"the configuration manager cannot name the matched node", true, true, "CM_Get_Device_ID_ExW", 1,
         nullptr,
         {view + L"ProcessDeviceNotification entered for " + Wide(kSinglePhoneWPDId), separator,
          view + L"FindDeviceClassFromDbccNamedbcc_name MATCHED ON " + kPhoneUSB,
          view + L"SetDeviceInstanceIdUsingPnpAPI, DevInst: 3: CM_Get_Device_ID_Ex FAILED 1d: " +
              SystemText(CR_REGISTRY_ERROR) + L".",
          view + L"ProcessImmediateParent2, Parent USB\\ROOT_HUB30\\4&1F3B2A0&0&0 distance 1 for " + kPhoneUSB +
              L" = 6.",
          view + L"ProcessImmediateParent2, device is on port 3"}},
        {"a volume that spans two disks", false, false, nullptr, 2, kStickWPDName,
         {view + L"ProcessDeviceNotification entered for " + kStickWPDName, separator,
          view + L"FindDeviceClassFromDbccNamedbcc_name MATCHED ON " + kStickVolume,
          view + L"SetDeviceInstanceIdUsingPnpAPI, Targeted device DevInst: 5, DeviceInstanceId: " + kStickVolume,
          view + L"GetDiskNumberAndDriveLetter2, DeviceIoControl:IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS FAILED ea: " +
              SystemText(ERROR_MORE_DATA) + L"."}},
        {"the drive list cannot be read", false, false, "GetLogicalDriveStringsW", 1, kStickWPDName,
         {view + L"ProcessDeviceNotification entered for " + kStickWPDName, separator,
          view + L"FindDeviceClassFromDbccNamedbcc_name MATCHED ON " + kStickVolume,
          view + L"SetDeviceInstanceIdUsingPnpAPI, Targeted device DevInst: 5, DeviceInstanceId: " + kStickVolume,
          view + L"GetDiskNumberAndDriveLetter2, GetLogicalDriveStrings FAILED 5: " + SystemText(ERROR_ACCESS_DENIED) +
              L"."}},
    };
    for (const auto& c : cases) {
        PnpTreeDouble pnp;
        std::wstring name;
        if (c.phone) {
            AddPhone(pnp, L"USB Composite Device (3)", false);
            name = Wide(kSinglePhoneWPDId);
        } else {
            AddStick(pnp, 2);
            pnp.SetDrive(L'E', 2);
            pnp.At(3).present = c.diskDriveListed;
            pnp.At(4).diskExtents = c.volumeDiskExtents;
            name = c.name;
        }
        if (c.failing != nullptr) {
            pnp.Fail(c.failing);
        }
        TraceCapture trace(1);
        CDorWEXWPDObjectInWin32 win32;
        win32.ProcessDeviceNotification(name.c_str(), 1);
        std::vector<std::wstring> lines;
        for (const auto& line : trace.Lines()) {
            if (line.compare(0, 41, L"CDorWEXWPDObjectInWin32::ShowProperties, ") != 0) {
                lines.push_back(line.substr(0, line.size() - 2));
            }
        }
        EXPECT_EQ(lines, c.lines) << c.what;
        EXPECT_EQ(pnp.OpenLists(), 0u) << c.what;
        EXPECT_EQ(pnp.OpenHandles(), 0u) << c.what;
        if (c.phone) {
            EXPECT_EQ(win32.GetEntry(CDorWEXWPDObjectInWin32::kNotifiedNode).wstringInstanceId, kPhoneUSB)
                << "the id the enumeration gave stays";
        } else if (c.volumeDiskExtents > 1) {
            const auto& volume = win32.GetEntry(CDorWEXWPDObjectInWin32::kNotifiedNode);
            EXPECT_EQ(volume.longDiskNumber, -1) << c.what;
            EXPECT_TRUE(volume.wstringDiskDrive.empty()) << c.what;
            EXPECT_TRUE(volume.wstringDriveLetter.empty()) << c.what;
        } else {
            const auto& volume = win32.GetEntry(CDorWEXWPDObjectInWin32::kNotifiedNode);
            EXPECT_EQ(volume.longDiskNumber, 2) << c.what;
            EXPECT_TRUE(volume.wstringDriveLetter.empty()) << c.what;
        }
    }
}

TEST(PnpView, PlainUSBStorageIsNotPublishedButAPhoneIs) {
    WpdEmulator emulator;
    PnpTreeDouble pnp;
    AddStick(pnp, 1);
    AddPhone(pnp);
    CDorWEXWMIWPDCore core;
    CDorWEXWMIThreadWPDEventsProcessor processor(&core);
    TraceCapture trace(1);
    SetPendingDevice(kStickWPDName, 1);
    processor.ProcessApplicationEvent();
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIThreadWPDEventsProcessor::ProcessApplicationEvent, FilterPureUSBDevice=TRUE"));
    EXPECT_FALSE(trace.Has(L"CDorWEXWMIThreadWPDEventsProcessor::ProcessApplicationEvent, calling OnlineEvent"));

    trace.Clear();
    SetPendingDevice(Wide(kPhoneWPDId).c_str(), 1);
    processor.ProcessApplicationEvent();
    EXPECT_FALSE(trace.Has(L"CDorWEXWMIThreadWPDEventsProcessor::ProcessApplicationEvent, FilterPureUSBDevice=TRUE"));
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIThreadWPDEventsProcessor::ProcessApplicationEvent, calling OnlineEvent"));
}

TEST(PnpView, TheDeviceTakesItsUSBSerialNumberAndIsFoundByItsUSBNode) {
    WpdEmulator emulator;
    PnpTreeDouble pnp;
    AddPhone(pnp, L"USB Composite Device (3)", false);
    EmulatedDeviceSpec spec = PhoneSpec(kSinglePhoneWPDId, "SAMSUNG Electronics Co., Ltd.", "WPDSERIAL");
    emulator.Attach(spec);
    TraceCapture trace(1);
    CDorWEXWMIWPDCore core;
    CDorWEXWPDCollection devices(&core);
    ASSERT_EQ(devices.AddWPD(Wide(kSinglePhoneWPDId).c_str()), S_OK);
    const auto device = devices.FindWPDObject(kPhoneUSB, nullptr);
    ASSERT_TRUE(device) << "found through the instance id of its USB node";
    EXPECT_EQ(std::wstring(device->Identity()->m_bstr_tUSBSerialNumber), L"R58M12345");
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::FinalizeSerialNumbersToUse:USB SerialNumber after:R58M12345\n"));
    devices.RemoveWPD(Wide(kSinglePhoneWPDId).c_str());
}

// The serial numbers the device publishes: a number the Plug and Play view reads from an instance id
// replaces what the device object held, each change traced before and after; a function of a composite
// device, whose id carries no serial number and whose parent is no hub, changes nothing and says nothing.
TEST(PnpView, SerialNumbersFromTheViewReplaceTheDevicesOwnWithEachChangeTraced) {
    const std::wstring finalize = L"CDorWEXWPDObject::FinalizeSerialNumbersToUse:";
    const struct {
        const char* what;
        bool onTheHub;  // the phone's portable-device node straight on the hub, else below its USB node
        const wchar_t* wpdSerialNumber;
        const wchar_t* usbSerialNumber;
        std::vector<std::wstring> lines;
    } cases[] = {
        {"a function below its USB node", false, L"", L"", {}},
        {"a single-function device on the hub", true, L"R58M12345", L"R58M12345",
         {finalize + L"WPD SerialNumber before:", finalize + L"WPD SerialNumber after:R58M12345",
          finalize + L"USB SerialNumber before:", finalize + L"USB SerialNumber after:R58M12345"}},
    };
    for (const auto& c : cases) {
        WpdEmulator emulator;
        PnpTreeDouble pnp;
        AddPhone(pnp, L"USB Composite Device (3)", !c.onTheHub);
        const std::wstring name = Wide(c.onTheHub ? kSinglePhoneWPDId : kPhoneWPDId);
        emulator.Attach(PhoneSpec(std::string(name.begin(), name.end()), "SAMSUNG Electronics Co., Ltd.", "WPDSERIAL"));
        TraceCapture trace(1);
        CDorWEXWPDObject device(nullptr);
        ASSERT_EQ(device.InitializeWPD(name.c_str()), S_OK) << c.what;
        EXPECT_EQ(trace.StartingWith(finalize), c.lines) << c.what;
        EXPECT_EQ(BstrText(device.Identity()->m_bstr_tSerialNumber), std::wstring(L"WPDSERIAL"))
            << "what the device reported stays where it was read to";
        EXPECT_EQ(BstrText(device.Identity()->m_bstr_tWPDSerialNumber), std::wstring(c.wpdSerialNumber)) << c.what;
        EXPECT_EQ(BstrText(device.Identity()->m_bstr_tUSBSerialNumber), std::wstring(c.usbSerialNumber)) << c.what;
        device.Terminate();
    }
}

// Ejecting: a device known to the core's collection, ejected through a separate object as the method does.
class Eject : public testing::Test {
protected:
    void SetUp() override {
        InterlockedExchange(&g_longOSVersionCode, 100);
        tree = AddPhone(pnp);
        emulator.Attach(PhoneSpec(kPhoneWPDId, "SAMSUNG Electronics Co., Ltd.", "WPDSERIAL"));
        core.Initialize();  // without a provider: monitoring only, the collection starts empty
        ASSERT_EQ(core.GetCollection()->AddWPD(Wide(kPhoneWPDId).c_str()), S_OK);
        ASSERT_TRUE(core.GetCollection()->FindWPDObjectById(Wide(kPhoneWPDId).c_str()));
        pnp.onComeBack = [this](int) { core.GetCollection()->AddWPD(Wide(kPhoneWPDId).c_str()); };
    }
    void TearDown() override {
        InterlockedExchange(&g_longOSVersionCode, savedVersion);
        EXPECT_EQ(pnp.OpenLists(), 0u);
        EXPECT_EQ(pnp.OpenHandles(), 0u);
    }
    LONG EjectPhone(CDorWEXWMIWPDCore* owner) {
        CDorWEXWPDObject device(owner);
        if (FAILED(device.InitializeForEject(Wide(kPhoneWPDId).c_str()))) {
            return -1;
        }
        device.GetManufacturer();
        return device.EjectDevice();
    }
    bool Known() { return core.GetCollection()->FindWPDObjectById(Wide(kPhoneWPDId).c_str()) != nullptr; }

    const LONG savedVersion = g_longOSVersionCode;
    WpdEmulator emulator;
    PnpTreeDouble pnp;
    PhoneTree tree;
    CDorWEXWMIWPDCore core;
    TraceCapture trace{1};
};

TEST_F(Eject, ACompositeDevicesUSBParentIsEjectedAndTheDeviceDropped) {
    EXPECT_EQ(EjectPhone(&core), 1);
    EXPECT_EQ(pnp.At(tree.usb).ejectRequests, 1);
    EXPECT_EQ(pnp.At(tree.function).ejectRequests, 0);
    EXPECT_EQ(pnp.At(tree.hub).ejectRequests, 0);
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::EjectDevice enter.\n"));
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::EjectDeviceWPD eject parent succeeded.\n"));
    EXPECT_FALSE(Known());
    EXPECT_EQ(pnp.VirtualTimeMs(), 5000u) << "ten looks, 500 ms apart";
    EXPECT_FALSE(pnp.At(tree.function).disabled);
}

TEST_F(Eject, ADeviceWhoseParentIsAHubIsEjectedItselfNeverTheHub) {
    pnp.At(tree.function).parent = tree.hub;  // a single-function phone straight on the hub
    EXPECT_EQ(EjectPhone(&core), 1);
    EXPECT_EQ(pnp.At(tree.hub).ejectRequests, 0);
    EXPECT_EQ(pnp.At(tree.function).ejectRequests, 1);
    EXPECT_TRUE(trace.Has(std::wstring(L"CDorWEXWPDObjectInWin32::IsHubOrController, Parent at distance 1 for ") +
                          Wide(kPhoneWPDId) + L" is a hub or controller.\n"));
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::EjectDeviceWPD parent is hub or controller.\n"));
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::EjectDeviceWPD eject device(1) succeeded.\n"));
}

TEST_F(Eject, VetoedRequestsFallThroughTheThreeAttempts) {
    pnp.At(tree.function).parent = tree.hub;
    pnp.At(tree.function).ejectAnswers = {CR_REMOVE_VETOED};
    EXPECT_EQ(EjectPhone(&core), 1);
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::EjectDeviceWPD eject device(2) succeeded.\n"));

    core.GetCollection()->AddWPD(Wide(kPhoneWPDId).c_str());
    pnp.At(tree.function).present = true;
    pnp.At(tree.function).ejectAnswers = {CR_REMOVE_VETOED, CR_REMOVE_VETOED};
    EXPECT_EQ(EjectPhone(&core), 1);
    EXPECT_EQ(pnp.At(tree.function).removeRequests, 1);
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::EjectDeviceWPD eject device(3) succeeded.\n"));

    core.GetCollection()->AddWPD(Wide(kPhoneWPDId).c_str());
    pnp.At(tree.function).present = true;
    pnp.At(tree.function).ejectAnswers = {CR_REMOVE_VETOED, CR_REMOVE_VETOED};
    pnp.At(tree.function).removeAnswers = {CR_REMOVE_VETOED};
    EXPECT_EQ(EjectPhone(&core), 0);
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::EjectDeviceWPD eject device(3) failed.\n"));
    EXPECT_TRUE(Known()) << "a device that would not leave stays known";
}

TEST_F(Eject, ADeviceThatComesBackWithinFiveSecondsIsDisabled) {
    pnp.At(tree.function).comesBackAfterMs = 1200;
    EXPECT_EQ(EjectPhone(&core), 1);
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::EjectDeviceWPD device is remounting, performing disable.\n"));
    EXPECT_TRUE(pnp.At(tree.function).disabled);
    EXPECT_FALSE(Known()) << "dropped once more after the disable";
    EXPECT_EQ(pnp.VirtualTimeMs(), 1500u) << "the watch ends with the disable";
}

TEST_F(Eject, ADeviceThatComesBackLaterIsNotDisabled) {
    pnp.At(tree.function).comesBackAfterMs = 6000;
    EXPECT_EQ(EjectPhone(&core), 1);
    EXPECT_FALSE(pnp.At(tree.function).disabled);
    EXPECT_FALSE(trace.Has(L"CDorWEXWPDObject::EjectDeviceWPD device is remounting, performing disable.\n"));
}

TEST_F(Eject, EveryFailureAnswersZero) {
    pnp.At(tree.function).comesBackAfterMs = 500;
    pnp.Fail("SetupDiCallClassInstaller");
    EXPECT_EQ(EjectPhone(&core), 0) << "the disable failed";
    core.GetCollection()->AddWPD(Wide(kPhoneWPDId).c_str());
    pnp.At(tree.function).comesBackAfterMs = 0;

    pnp.At(tree.usb).present = true;
    pnp.At(tree.function).present = true;
    EXPECT_EQ(EjectPhone(nullptr), 0) << "ejected, but without a collection nothing watched it";
    EXPECT_EQ(pnp.At(tree.usb).ejectRequests, 2);

    for (const char* call : {"SetupDiClassGuidsFromNameExW", "SetupDiGetClassDevsExW",
                             "SetupDiGetDeviceInfoListDetailW", "CM_Get_Device_ID_ExW"}) {
        pnp.At(tree.usb).present = true;
        pnp.At(tree.function).present = true;
        PnpTreeDouble::Node& usb = pnp.At(tree.usb);
        const int before = usb.ejectRequests;
        pnp.Fail(call);
        EXPECT_EQ(EjectPhone(&core), 0) << call;
        EXPECT_EQ(usb.ejectRequests, before) << call;
    }
}

TEST_F(Eject, AnIdThatNamesNoNodeEjectsNothing) {
    CDorWEXWPDObject device(&core);
    ASSERT_EQ(device.InitializeForEject(L"\\\\?\\usb#vid_ffff&pid_0001#nobody#{6ac27878}"), S_OK);
    EXPECT_EQ(device.EjectDevice(), 0);
    // An id without "#" names the node whose instance id it is, whole; one that merely holds it names none.
    CDorWEXWPDObject holding(&core);
    ASSERT_EQ(holding.InitializeForEject(L"prefix USB\\VID_04E8&PID_6860&MI_00\\7&2A8F3E1&0&0000 suffix"), S_OK);
    EXPECT_EQ(holding.EjectDevice(), 0);
    EXPECT_EQ(pnp.At(tree.usb).ejectRequests, 0);
    CDorWEXWPDObject plain(&core);
    ASSERT_EQ(plain.InitializeForEject(L"usb\\vid_04e8&pid_6860&mi_00\\7&2a8f3e1&0&0000"), S_OK);
    EXPECT_EQ(plain.EjectDevice(), 1);
    EXPECT_EQ(pnp.At(tree.usb).ejectRequests, 1);
}

// Two devices whose instance ids differ only by a last digit (...\1 and ...\12): the eject of either one
// reaches its own USB parent and never the other's.
TEST_F(Eject, AnInstanceIdThatBeginsAnotherNamesOnlyItsOwnNode) {
    struct Device {
        int usb, function;
        std::wstring name;
    };
    const auto add = [&](const std::wstring& serial, int port) {
        Node usb;
        usb.instanceId = L"USB\\VID_0FCA&PID_8004\\BB" + serial;
        usb.setupClass = pnp_classes::kUSB;
        usb.parent = tree.hub;
        usb.port = port;
        Device device{pnp.Add(usb), -1,
                      L"\\\\?\\usb#vid_0fca&pid_8004&mi_00#" + serial + L"#{6ac27878-a6fa-4155-ba85-f98f491d4f33}"};
        Node function;
        function.instanceId = L"USB\\VID_0FCA&PID_8004&MI_00\\" + serial;
        function.setupClass = pnp_classes::kWPD;
        function.parent = device.usb;
        function.interfaces.push_back({pnp_classes::kWPDInterface, device.name});
        device.function = pnp.Add(function);
        return device;
    };
    const Device one = add(L"1", 4);
    const Device twelve = add(L"12", 5);
    for (const Device* target : {&twelve, &one}) {
        const Device* other = target == &one ? &twelve : &one;
        for (const Device* device : {&one, &twelve}) {
            pnp.At(device->usb).present = pnp.At(device->function).present = true;
            pnp.At(device->usb).ejectRequests = pnp.At(device->function).ejectRequests = 0;
        }
        CDorWEXWPDObject device(&core);
        ASSERT_EQ(device.InitializeForEject(target->name.c_str()), S_OK);
        EXPECT_EQ(device.EjectDevice(), 1);
        EXPECT_EQ(pnp.At(target->usb).ejectRequests, 1) << std::string(target->name.begin(), target->name.end());
        EXPECT_EQ(pnp.At(other->usb).ejectRequests, 0) << std::string(target->name.begin(), target->name.end());
        EXPECT_EQ(pnp.At(other->function).ejectRequests, 0);
        EXPECT_TRUE(pnp.At(other->usb).present);
    }
}

TEST_F(Eject, AnAppleDeviceTakesTheApplePathBeforeWindows8) {
    for (LONG version : {61L, 62L}) {
        pnp.At(tree.usb).present = true;
        pnp.At(tree.function).present = true;
        InterlockedExchange(&g_longOSVersionCode, version);
        CDorWEXWPDObject device(&core);
        ASSERT_EQ(device.InitializeForEject(Wide(kPhoneWPDId).c_str()), S_OK);
        device.UpdateIdentity([](DeviceIdentity& identity) { identity.m_eManufacturer = dorwex::Manufacturer::APPLE; });
        trace.Clear();
        EXPECT_EQ(device.EjectDevice(), 1) << version;
        EXPECT_EQ(trace.Has(L"CDorWEXWPDObject::EjectDeviceApple enter.\n"), version == 61) << version;
    }
    EXPECT_EQ(pnp.At(tree.function).ejectRequests, 1) << "the Apple path ejects the device node itself";
    EXPECT_EQ(pnp.At(tree.usb).ejectRequests, 1) << "the WPD path ejects the USB parent";
}

// A BlackBerry plugged straight into a hub: ejecting the hub would take every device on it, so the
// BlackBerry goes alone.
TEST_F(Eject, ABlackBerryOnAHubEjectsItselfNeverTheHub) {
    constexpr char kBlackBerryWPDId[] = "\\\\?\\usb#vid_0fca&pid_8004#bb0001#{6ac27878-a6fa-4155-ba85-f98f491d4f33}";
    Node blackberry;
    blackberry.instanceId = L"USB\\VID_0FCA&PID_8004\\BB0001";
    blackberry.setupClass = pnp_classes::kWPD;
    blackberry.parent = tree.hub;
    blackberry.port = 4;
    blackberry.interfaces.push_back({pnp_classes::kWPDInterface, Wide(kBlackBerryWPDId)});
    const int node = pnp.Add(blackberry);
    CDorWEXWPDObject device(&core);
    ASSERT_EQ(device.InitializeForEject(Wide(kBlackBerryWPDId).c_str()), S_OK);
    device.UpdateIdentity([](DeviceIdentity& identity) { identity.m_eManufacturer = dorwex::Manufacturer::BLACKBERRY; });
    EXPECT_EQ(device.EjectDevice(), 1);
    EXPECT_EQ(pnp.At(node).ejectRequests, 1);
    EXPECT_EQ(pnp.At(tree.hub).ejectRequests, 0);
    EXPECT_EQ(pnp.At(tree.controller).ejectRequests, 0);
}

TEST_F(Eject, ABlackBerryEjectsItsParent) {
    CDorWEXWPDObject device(&core);
    ASSERT_EQ(device.InitializeForEject(Wide(kPhoneWPDId).c_str()), S_OK);
    device.UpdateIdentity([](DeviceIdentity& identity) { identity.m_eManufacturer = dorwex::Manufacturer::BLACKBERRY; });
    EXPECT_EQ(device.EjectDevice(), 1);
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::EjectDeviceBlackBerry enter.\n"));
    EXPECT_EQ(pnp.At(tree.usb).ejectRequests, 1);
    EXPECT_EQ(pnp.At(tree.function).ejectRequests, 0);
}

}  // namespace
