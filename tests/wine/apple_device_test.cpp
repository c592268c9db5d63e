// An Apple device through the emulated Apple companion: identity, listing, copies both ways, delete,
// folders, move, the write event's device path, and the companion's failures.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "device/apple_companion.h"
#include "device/wpd_object.h"
#include "support/test_files.h"
#include "support/system_text.h"
#include "support/test_trace_sink.h"
#include "support/wpd_emulator.h"

namespace {

std::wstring Text(const _bstr_t& text) {
    return text.length() == 0 ? std::wstring() : std::wstring(static_cast<const wchar_t*>(text));
}

class AppleDevice : public testing::Test {
protected:
    void SetUp() override {
        spec.id = "usb#vid_05ac&pid_12a8#apple";
        spec.manufacturer = "Apple Inc.";
        spec.friendlyName = "iPhone";
        spec.deviceLines = {"WPD_DEVICE_SERIAL_NUMBER = 00008030-AB"};
        spec.registryLines = {"BluetoothAddress = 11:22:33:44:55:66", "WiFiAddress = 66:55:44:33:22:11"};
        spec.storages = {{"s10001", "Internal Storage", "{PUID-APPLE}", "Flash"}};
        emulator.Attach(spec);
        storage = emulator.StorageDirectory(spec, 0);
        local = emulator.Directory() + L"\\local";
        CreateDirectoryW(local.c_str(), nullptr);
    }
    void Open(CDorWEXWPDObject& device) { ASSERT_EQ(device.InitializeWPD(L"usb#vid_05ac&pid_12a8#apple"), S_OK); }

    WpdEmulator emulator;
    EmulatedDeviceSpec spec;
    std::wstring storage;
    std::wstring local;
};

TEST_F(AppleDevice, TheCompanionTellsTheIdentity) {
    TraceCapture trace(1);
    CDorWEXWPDObject device(nullptr);
    Open(device);
    EXPECT_EQ(device.Identity()->m_eManufacturer, dorwex::Manufacturer::APPLE);
    EXPECT_EQ(Text(device.Identity()->m_bstr_tSerialNumber), L"00008030-AB");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tDeviceObjectId), L"00008030-AB")
        << "the device is the object the companion names by its serial number";
    EXPECT_EQ(Text(device.Identity()->m_bstr_tBluetoothAddress), L"11:22:33:44:55:66");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tWiFiAddress), L"66:55:44:33:22:11");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tEthernetAddress), L"") << "one the device does not have";
    EXPECT_EQ(Text(device.Identity()->m_bstr_tDisk1Name), L"Internal Storage");
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::GetAppleCOMObject SUCCESSFULLY created.\n"));

    IdorWEXWPDApple* again = nullptr;
    ASSERT_EQ(device.GetAppleCOMObject(&again), S_OK);
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::GetAppleCOMObject already exists.\n"));
    again->Release();
}

TEST_F(AppleDevice, ContentGoesThroughTheCompanion) {
    CreateDirectoryW((storage + L"\\DCIM").c_str(), nullptr);
    emulator.WriteFile(storage + L"\\DCIM\\a.jpg", "jpeg");
    emulator.WriteFile(storage + L"\\notes.txt", "notes");
    CDorWEXWPDObject device(nullptr);
    Open(device);
    TraceCapture trace(1);

    const std::wstring listing = Text(device.EnumerateDevicePath(L"Internal Storage", 0));
    EXPECT_NE(listing.find(L"DCIM@DCIM@DIR~"), std::wstring::npos) << listing;
    EXPECT_NE(listing.find(L"notes.txt@notes.txt@FILE~"), std::wstring::npos) << listing;
    EXPECT_EQ(Text(device.EnumerateDevicePath(L"Internal Storage\\DCIM", 2)), L"a.jpg@DCIM\\a.jpg@FILE~");
    EXPECT_EQ(Text(device.EnumerateDevicePath(L"Internal Storage", 1)), L"DCIM@DCIM@DIR~");
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::EnumerateDevicePath2 enter.\n"));

    EXPECT_EQ(device.CopyFileFromDevice(L"Internal Storage\\DCIM\\a.jpg", (local + L"\\a.jpg").c_str()), S_OK);
    EXPECT_EQ(ReadAll(local + L"\\a.jpg"), "jpeg");
    EXPECT_EQ(device.CopyFileFromDevice(L"Internal Storage\\missing.jpg", (local + L"\\m.jpg").c_str()), E_FAIL);

    emulator.WriteFile(local + L"\\up.txt", "uploaded");
    EXPECT_EQ(Text(device.CopyFileToDevice(L"Internal Storage\\DCIM", (local + L"\\up.txt").c_str(), L"TOKEN", 1)),
              L"1");
    EXPECT_EQ(ReadAll(storage + L"\\DCIM\\up.txt"), "uploaded");
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::CopyFileToDevice2 calling COM.\n"));
    EXPECT_EQ(Text(device.CopyFileToDevice(L"Internal Storage", (local + L"\\up.txt").c_str(), nullptr, 1)), L"0");
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::CopyFileToDevice2 ERROR pTCHARWriteToken_in == NULL.\n"));

    EXPECT_EQ(device.CreateFolderOnDevice(L"Internal Storage\\DCIM", L"Holiday"), S_OK);
    EXPECT_NE(GetFileAttributesW((storage + L"\\DCIM\\Holiday").c_str()) & FILE_ATTRIBUTE_DIRECTORY, 0u);
    EXPECT_TRUE(FAILED(device.CreateFolderOnDevice(L"Internal Storage", L"..\\outside"))) << "the companion refuses";
    EXPECT_FALSE(Exists(storage + L"\\..\\outside"));

    EXPECT_EQ(device.DeleteFileFromDevice(L"Internal Storage\\DCIM\\up.txt", L"usb#vid_05ac&pid_12a8#apple"), 1);
    EXPECT_FALSE(Exists(storage + L"\\DCIM\\up.txt"));
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::DeleteFileFromDevice2 Internal Storage\\DCIM\\up.txt=TRUE"));

    EXPECT_EQ(device.MoveFileFromDevice(L"Internal Storage\\notes.txt", (local + L"\\notes.txt").c_str()), 1);
    EXPECT_EQ(ReadAll(local + L"\\notes.txt"), "notes");
    EXPECT_FALSE(Exists(storage + L"\\notes.txt"));
    EXPECT_EQ(device.MoveFileFromDevice(L"Internal Storage\\notes.txt", (local + L"\\n2.txt").c_str()), 0);
}

// The copy to an Apple device refuses, one line each, what it cannot hand to the companion: a missing
// storage path, local file or write token; with all three it calls the companion.
TEST_F(AppleDevice, CopyToTheDeviceRefusesWhatIsMissingOneLineEach) {
    emulator.WriteFile(local + L"\\up.txt", "uploaded");
    const std::wstring file = local + L"\\up.txt";
    CDorWEXWPDObject device(nullptr);
    Open(device);
    const struct {
        const char* what;
        const wchar_t* path;
        const wchar_t* file;
        const wchar_t* token;
        const wchar_t* result;
        const wchar_t* line;
    } cases[] = {
        {"no storage path", nullptr, file.c_str(), L"TOKEN", L"0",
         L"CDorWEXWPDObject::CopyFileToDevice2 ERROR pTCHARObjectStoragePath_in == NULL.\r\n"},
        {"no local file", L"Internal Storage", nullptr, L"TOKEN", L"0",
         L"CDorWEXWPDObject::CopyFileToDevice2 ERROR pTCHARstrFileToCopy_in == NULL.\r\n"},
        {"no write token", L"Internal Storage", file.c_str(), nullptr, L"0",
         L"CDorWEXWPDObject::CopyFileToDevice2 ERROR pTCHARWriteToken_in == NULL.\r\n"},
        {"everything", L"Internal Storage", file.c_str(), L"TOKEN", L"1",
         L"CDorWEXWPDObject::CopyFileToDevice2 calling COM.\r\n"},
    };
    for (const auto& c : cases) {
        TraceCapture trace(1);
        EXPECT_EQ(Text(device.CopyFileToDevice(c.path, c.file, c.token, 1)), c.result) << c.what;
        EXPECT_EQ(trace.Lines(), (std::vector<std::wstring>{L"CDorWEXWPDObject::CopyFileToDevice enter.\r\n",
                                                            L"CDorWEXWPDObject::CopyFileToDevice2 enter.\r\n", c.line}))
            << c.what;
    }
    EXPECT_EQ(ReadAll(storage + L"\\up.txt"), "uploaded");
}

// Without its companion (its class cannot be created) an Apple device is still taken on; its content
// operations then refuse: the copy to it names the missing companion, the copy from it ends at once.
TEST_F(AppleDevice, WithoutItsCompanionTheCopiesRefuse) {
    struct Refusing : IClassFactory {
        HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
            *ppv = (riid == IID_IUnknown || riid == IID_IClassFactory) ? this : nullptr;
            return *ppv != nullptr ? S_OK : E_NOINTERFACE;
        }
        ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
        ULONG STDMETHODCALLTYPE Release() override { return 1; }
        HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown*, REFIID, void** ppv) override {
            *ppv = nullptr;
            return CLASS_E_CLASSNOTAVAILABLE;
        }
        HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }
    } refusing;
    DWORD cookie = 0;
    ASSERT_EQ(CoRegisterClassObject(CLSID_DorWEXWPDApple, &refusing, CLSCTX_INPROC_SERVER | CLSCTX_LOCAL_SERVER,
                                    REGCLS_MULTIPLEUSE, &cookie),
              S_OK);
    emulator.WriteFile(local + L"\\up.txt", "uploaded");
    TraceCapture trace(1);
    CDorWEXWPDObject device(nullptr);
    device.InitializeWPD(L"usb#vid_05ac&pid_12a8#apple");
    CoRevokeClassObject(cookie);
    EXPECT_EQ(device.Identity()->m_eManufacturer, dorwex::Manufacturer::APPLE);
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::GetAppleCOMObject ERROR:.\nHRESULT = 0x80040111.\n"));
    trace.Clear();
    EXPECT_EQ(Text(device.CopyFileToDevice(L"Internal Storage", (local + L"\\up.txt").c_str(), L"TOKEN", 1)), L"0");
    EXPECT_EQ(trace.Lines(), (std::vector<std::wstring>{
                                 L"CDorWEXWPDObject::CopyFileToDevice enter.\r\n",
                                 L"CDorWEXWPDObject::CopyFileToDevice2 enter.\r\n",
                                 L"CDorWEXWPDObject::CopyFileToDevice2 ERROR m_IdorWEXWPDAppleCOMPtr == NULL.\r\n"}));
    trace.Clear();
    EXPECT_EQ(device.CopyFileFromDevice(L"Internal Storage\\a.jpg", (local + L"\\a.jpg").c_str()), E_FAIL);
    EXPECT_EQ(trace.Lines(), (std::vector<std::wstring>{L"CDorWEXWPDObject::CopyFileFromDevice enter.\r\n",
                                                        L"CDorWEXWPDObject::CopyFileFromDevice2 enter.\r\n"}));
    device.Terminate();
}

// Each operation on an Apple device names itself, then its Apple variant; a delete then tells its outcome, the
// variant's line first.
TEST_F(AppleDevice, EachOperationNamesItsAppleVariant) {
    CreateDirectoryW((storage + L"\\DCIM").c_str(), nullptr);
    emulator.WriteFile(storage + L"\\DCIM\\a.jpg", "jpeg");
    CDorWEXWPDObject device(nullptr);
    Open(device);
    const struct {
        const char* what;
        std::function<void()> call;
        std::vector<std::wstring> lines;
    } cases[] = {
        {"listing", [&] { device.EnumerateDevicePath(L"Internal Storage", 0); },
         {L"CDorWEXWPDObject::EnumerateDevicePath enter.", L"CDorWEXWPDObject::EnumerateDevicePath2 enter."}},
        {"new folder", [&] { device.CreateFolderOnDevice(L"Internal Storage\\DCIM", L"New"); },
         {L"CDorWEXWPDObject::CreateFolderOnDevice enter.", L"CDorWEXWPDObject::CreateFolderOnDevice2 enter."}},
        {"delete", [&] { device.DeleteFileFromDevice(L"Internal Storage\\DCIM\\a.jpg", L"usb#vid_05ac&pid_12a8#apple"); },
         {L"CDorWEXWPDObject::DeleteFileFromDevice enter.", L"CDorWEXWPDObject::DeleteFileFromDevice2 enter.",
          L"CDorWEXWPDObject::DeleteFileFromDevice2 Internal Storage\\DCIM\\a.jpg=TRUE",
          L"CDorWEXWPDObject::DeleteFileFromDevice Internal Storage\\DCIM\\a.jpg=TRUE"}},
        {"delete again", [&] { device.DeleteFileFromDevice(L"Internal Storage\\DCIM\\a.jpg", L"usb#vid_05ac&pid_12a8#apple"); },
         {L"CDorWEXWPDObject::DeleteFileFromDevice enter.", L"CDorWEXWPDObject::DeleteFileFromDevice2 enter.",
          L"CDorWEXWPDObject::DeleteFileFromDevice2 Internal Storage\\DCIM\\a.jpg=FALSE",
          L"CDorWEXWPDObject::DeleteFileFromDevice Internal Storage\\DCIM\\a.jpg=FALSE"}},
    };
    for (const auto& c : cases) {
        TraceCapture trace(1);
        c.call();
        std::vector<std::wstring> lines;
        for (const auto& line : trace.StartingWith(L"CDorWEXWPDObject::")) {
            if (line.find(L"GetAppleCOMObject") == std::wstring::npos) {
                lines.push_back(line);
            }
        }
        EXPECT_EQ(lines, c.lines) << c.what;
    }
    EXPECT_NE(GetFileAttributesW((storage + L"\\DCIM\\New").c_str()), INVALID_FILE_ATTRIBUTES);
}

TEST_F(AppleDevice, CompanionFailuresAreTracedAndAnsweredWithZero) {
    spec.faultLines = {"AppleCopyFileToDevice = 0x80070005", "AppleDeleteFileFromDevice = 0x80070005"};
    emulator.Attach(spec);
    emulator.WriteFile(storage + L"\\keep.txt", "kept");
    emulator.WriteFile(local + L"\\up.txt", "x");
    CDorWEXWPDObject device(nullptr);
    Open(device);
    TraceCapture trace(1);
    EXPECT_EQ(Text(device.CopyFileToDevice(L"Internal Storage", (local + L"\\up.txt").c_str(), L"T", 1)), L"0");
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::CopyFileToDevice2 COM Error.\n"));
    const std::wstring message = SystemText(0x80070005);
    ASSERT_FALSE(message.empty());
    EXPECT_EQ(trace.StartingWith(L"CDorWEXWPDObject::CopyFileToDevice2 0x"),
              std::vector<std::wstring>{L"CDorWEXWPDObject::CopyFileToDevice2 0x80070005: " + message + L"."});
    EXPECT_EQ(device.DeleteFileFromDevice(L"Internal Storage\\keep.txt", nullptr), 0);
    EXPECT_TRUE(Exists(storage + L"\\keep.txt"));
    // The WPD-level delete of an Apple object reports success whatever the companion did.
    EXPECT_EQ(device.DeleteWPDObject(L"Internal Storage\\keep.txt", L"usb#vid_05ac&pid_12a8#apple"), S_OK);
}

// The write event's device path is the companion's answer for the storage path: an answer that is no text or
// an empty text ends the event with its line; a text is sent on.
TEST_F(AppleDevice, WriteEventCarriesTheDevicePathTheCompanionGives) {
    // The companion's first answer is no text, its second an empty one, the rest the path.
    spec.faultLines = {"AppleGetDeviceAbsolutePath = 0x80004005 x 1", "AppleGetDeviceAbsolutePathEmpty = 0x80004005 x 1"};
    emulator.Attach(spec);
    CDorWEXWPDObject device(nullptr);
    Open(device);
    const std::wstring simulate = L"CDorWEXWPDObject::SimulateWPDWriteEvent";
    const std::wstring enter = simulate + L" enter.";
    const std::wstring send = L"CDorWEXWMIWPDCore::SendEvent enter.";
    const struct {
        const char* what;
        const wchar_t* path;
        std::vector<std::wstring> lines;
    } cases[] = {
        {"no storage path", nullptr, {enter, simulate + L", ERROR: pTCHARObjectStoragePath_in == NULL."}},
        {"an answer that is no text", L"Internal Storage\\DCIM",
         {enter, simulate + L", ERROR: l_variant_tDeviceAbsolutePath.vt != VT_BSTR."}},
        {"an empty text", L"Internal Storage\\DCIM", {enter, simulate + L", ERROR: l_bstr_tDeviceAbsolutePath.length()==0."}},
        {"the device path", L"Internal Storage\\DCIM", {enter, send}},  // sent, to a core if there is one
    };
    for (const auto& c : cases) {
        TraceCapture trace(1);
        EXPECT_EQ(device.SimulateWPDWriteEvent(c.path, L"a.jpg", L"", 4712), 0) << c.what << ": no core to send to";
        std::vector<std::wstring> lines;
        for (const auto& line : trace.Lines()) {
            if (line.compare(0, simulate.size(), simulate) == 0 || line.compare(0, send.size(), send) == 0) {
                lines.push_back(line.substr(0, line.size() - 2));
            }
        }
        EXPECT_EQ(lines, c.lines) << c.what;
    }
}

}  // namespace
