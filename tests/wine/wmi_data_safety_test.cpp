// What a request may touch: only the device, storage and object it names, whole or not at all. Two phones
// of one model are attached, each with a storage named "Phone" and the same file names in it, so that a
// lookup or a path that lands on the wrong target shows as a change where the caller asked for none. A
// third phone, of another model, is under a policy that denies writing: it may be read, never changed.
#include <gtest/gtest.h>

#include <comdef.h>
#include <wbemcli.h>

#include <cstdlib>
#include <cwchar>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "support/test_files.h"
#include "support/wmi_calls.h"
#include "support/wpd_emulator.h"

namespace {

WpdEmulator* g_emulator = nullptr;
EmulatedDeviceSpec g_alpha;  // storages Phone and Card
EmulatedDeviceSpec g_beta;   // storage Phone only: its card was taken out
EmulatedDeviceSpec g_gamma;  // storage Phone only, write access denied
std::wstring g_local;        // the local folder copies go to and come from
std::wstring g_token;        // a write token of this process
const LONG g_self = static_cast<LONG>(GetCurrentProcessId());

const wchar_t kAlpha[] = L"usb#vid_18d1&pid_4ee1#alpha";
const wchar_t kBeta[] = L"usb#vid_18d1&pid_4ee1#beta";
const wchar_t kGamma[] = L"usb#vid_18d1&pid_4ee7#gamma";
const wchar_t kWriteDenied[] = L"Write access to the device is denied";

// The same tree on both phones (and on alpha's card); each file's content says where it lives.
const char* const kTree[] = {"a.txt", "DCIM\\b.txt", "DCIM\\c.jpg", "Music\\d.mp3", "System\\dorWEXDeviceTracker.bin"};

void Fill(const std::wstring& root, const std::string& label) {
    for (const std::wstring folder : {L"\\DCIM", L"\\Music", L"\\System"}) {
        CreateDirectoryW((root + folder).c_str(), nullptr);
    }
    for (const char* file : kTree) {
        g_emulator->WriteFile(root + L"\\" + Wide(file), label + ":" + file + ":0123456789");
    }
}

// Every file and folder below the roots, with its content: "alpha:PHONE\DCIM\B.TXT" -> bytes, a folder
// -> "<dir>". Names are upper-cased, as the device compares them without regard to case.
using World = std::map<std::wstring, std::string>;

std::wstring Upper(std::wstring text) {
    for (auto& c : text) {
        c = towupper(c);
    }
    return text;
}

void Walk(const std::wstring& directory, const std::wstring& key, World& world) {
    WIN32_FIND_DATAW found;
    HANDLE search = FindFirstFileW((directory + L"\\*").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) {
        return;
    }
    do {
        const std::wstring name = found.cFileName;
        if (name == L"." || name == L"..") {
            continue;
        }
        const std::wstring path = directory + L"\\" + name;
        const std::wstring entry = key + L"\\" + Upper(name);
        if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
            world[entry] = "<dir>";
            Walk(path, entry, world);
        } else {
            world[entry] = ReadAll(path);
        }
    } while (FindNextFileW(search, &found));
    FindClose(search);
}

World Snapshot() {
    World world;
    Walk(g_emulator->StorageDirectory(g_alpha, 0), L"alpha:PHONE", world);
    Walk(g_emulator->StorageDirectory(g_alpha, 1), L"alpha:CARD", world);
    Walk(g_emulator->StorageDirectory(g_beta, 0), L"beta:PHONE", world);
    Walk(g_emulator->StorageDirectory(g_gamma, 0), L"gamma:PHONE", world);
    Walk(g_local, L"local:", world);
    return world;
}

// The entries that differ between two worlds, for a failure message.
std::wstring Difference(const World& before, const World& after) {
    std::wstring text;
    for (const auto& entry : before) {
        const auto now = after.find(entry.first);
        if (now == after.end()) {
            text += L" gone:" + entry.first;
        } else if (now->second != entry.second) {
            text += L" changed:" + entry.first;
        }
    }
    for (const auto& entry : after) {
        if (before.count(entry.first) == 0) {
            text += L" new:" + entry.first;
        }
    }
    return text;
}

std::string Narrow(const std::wstring& text) {
    std::string narrow;
    for (wchar_t c : text) {
        narrow += c < 128 ? static_cast<char>(c) : '?';
    }
    return narrow;
}

class Environment : public testing::Environment {
public:
    void SetUp() override {
        Register(L"dorwex_wpd_provider.dll");
        Register(L"dorwex_wmi_emulator.dll");
        g_emulator = new WpdEmulator();
        g_alpha = PhoneSpec(Narrow(kAlpha), "Google", "ALPHA1", 2);
        g_beta = PhoneSpec(Narrow(kBeta), "Google", "BETA1", 1);
        g_alpha.friendlyName = g_beta.friendlyName = "Pixel 7";  // one model, one name
        g_gamma = PhoneSpec(Narrow(kGamma), "Google", "GAMMA1", 1);
        g_gamma.friendlyName = "Pixel 7a";
        g_gamma.deviceLines.push_back("write_access = denied");
        g_emulator->Attach(g_alpha);
        g_emulator->Attach(g_beta);
        g_emulator->Attach(g_gamma);
        wchar_t temp[MAX_PATH];
        GetTempPathW(MAX_PATH, temp);
        g_local = std::wstring(temp) + L"dorwex-safety-" + std::to_wstring(g_self);
        CreateDirectoryW(g_local.c_str(), nullptr);
        g_token = CallMethod(L"RequestWriteToken", {{L"uint32ProcessId", _variant_t(g_self, VT_I4)}}, g_self).returnValue;
    }
    void TearDown() override {
        delete g_emulator;
        g_emulator = nullptr;
    }
};
const auto* const g_environment = testing::AddGlobalTestEnvironment(new Environment);

// Both phones and the local folder as each test starts them.
void Reset() {
    const auto clear = [](const std::wstring& root) {
        World world;
        Walk(root, L"", world);
        for (auto entry = world.rbegin(); entry != world.rend(); ++entry) {
            const std::wstring path = root + entry->first;
            entry->second == "<dir>" ? RemoveDirectoryW(path.c_str()) : DeleteFileW(path.c_str());
        }
    };
    for (const std::wstring& root : {g_emulator->StorageDirectory(g_alpha, 0), g_emulator->StorageDirectory(g_alpha, 1),
                                     g_emulator->StorageDirectory(g_beta, 0), g_emulator->StorageDirectory(g_gamma, 0),
                                     g_local}) {
        clear(root);
    }
    Fill(g_emulator->StorageDirectory(g_alpha, 0), "alpha-phone");
    Fill(g_emulator->StorageDirectory(g_alpha, 1), "alpha-card");
    Fill(g_emulator->StorageDirectory(g_beta, 0), "beta-phone");
    Fill(g_emulator->StorageDirectory(g_gamma, 0), "gamma-phone");
    g_emulator->WriteFile(g_local + L"\\kept.bin", "the caller's own file");
    g_emulator->WriteFile(g_local + L"\\upload.bin", "uploaded bytes");
}

Parameters With(Parameters parameters, const wchar_t* device) {
    if (device != nullptr) {
        parameters.push_back({L"strObjectDeviceId", _variant_t(device)});
    }
    return parameters;
}

// Each request names something that is not what it would have reached, or asks for a change the device does
// not allow: nothing changes, and the caller is told why.
TEST(DataSafety, RefusedRequestsChangeNothingAndSayWhy) {
    Reset();
    const std::wstring overLimit = L"Phone\\" + std::wstring(253, L'f') + L"\\victim.txt";  // cut at 260: a folder
    CreateDirectoryW((g_emulator->StorageDirectory(g_alpha, 0) + L"\\" + std::wstring(253, L'f')).c_str(), nullptr);
    g_emulator->WriteFile(g_emulator->StorageDirectory(g_alpha, 0) + L"\\" + std::wstring(253, L'f') + L"\\victim.txt",
                          "victim");
    const std::wstring local = g_local + L"\\kept.bin";
    const std::wstring fresh = g_local + L"\\fresh.bin";
    const std::wstring upload = g_local + L"\\upload.bin";
    const struct {
        const char* what;
        const wchar_t* method;
        Parameters parameters;
        const wchar_t* device;
        const wchar_t* description;
    } cases[] = {
        {"a device id no device has, with another phone's storage name", L"DeleteFileFromDevice",
         {{L"strObjectStoragePath", _variant_t(L"Phone\\a.txt")}}, L"usb#vid_0000&pid_0000#nobody",
         L"Device not found"},
        {"no device id, a storage name both phones have", L"DeleteFileFromDevice",
         {{L"strObjectStoragePath", _variant_t(L"Phone\\a.txt")}}, nullptr, L"More than one device matches"},
        {"a friendly name both phones have", L"DeleteFileFromDevice",
         {{L"strObjectStoragePath", _variant_t(L"Phone\\a.txt")}}, L"Pixel 7", L"More than one device matches"},
        {"a path over 260 characters whose first 260 name a folder", L"DeleteFileFromDevice",
         {{L"strObjectStoragePath", _variant_t(overLimit.c_str())}}, kAlpha,
         L"The storage path is longer than 260 characters"},
        {"the card of a phone whose card is gone", L"DeleteFileFromDevice",
         {{L"strObjectStoragePath", _variant_t(L"Card\\DCIM\\b.txt")}}, kBeta, L"The device has no storage of that name"},
        {"a move from the card that is gone", L"MoveFileFromDevice",
         {{L"strObjectStoragePath", _variant_t(L"Card\\a.txt")}, {L"strLocalFileName", _variant_t(local.c_str())}},
         kBeta, L"The device has no storage of that name"},
        {"a new folder on the card that is gone", L"CreateFolderOnDevice",
         {{L"strObjectStoragePath", _variant_t(L"Card")}, {L"strNewFolderName", _variant_t(L"New")}}, kBeta,
         L"The device has no storage of that name"},
        {"a new folder in an empty storage path", L"CreateFolderOnDevice",
         {{L"strObjectStoragePath", _variant_t(L"")}, {L"strNewFolderName", _variant_t(L"New")}}, kAlpha,
         L"The device has no storage of that name"},
        {"a copy over the local file from a path over the limit", L"CopyFileFromDevice",
         {{L"strObjectStoragePath", _variant_t(overLimit.c_str())}, {L"strLocalFileName", _variant_t(local.c_str())}},
         kAlpha, L"The storage path is longer than 260 characters"},
        {"an upload to the card that is gone does not land on the phone's storage", L"CopyFileToDevice",
         {{L"strObjectStoragePath", _variant_t(L"Card\\DCIM")}, {L"strFileToCopy", _variant_t(upload.c_str())},
          {L"strWriteToken", _variant_t(g_token.c_str())}},
         kBeta, L"The device has no storage of that name"},
        {"an upload with no storage path names no storage", L"CopyFileToDevice",
         {{L"strObjectStoragePath", _variant_t(L"")}, {L"strFileToCopy", _variant_t(upload.c_str())},
          {L"strWriteToken", _variant_t(g_token.c_str())}},
         kAlpha, L"The device has no storage of that name"},
        {"a delete on the phone that denies writing", L"DeleteFileFromDevice",
         {{L"strObjectStoragePath", _variant_t(L"Phone\\DCIM\\b.txt")}}, kGamma, kWriteDenied},
        {"a folder deleted on the phone that denies writing", L"DeleteFileFromDevice",
         {{L"strObjectStoragePath", _variant_t(L"Phone\\DCIM")}}, kGamma, kWriteDenied},
        {"a move from the phone that denies writing (its source could not go)", L"MoveFileFromDevice",
         {{L"strObjectStoragePath", _variant_t(L"Phone\\a.txt")}, {L"strLocalFileName", _variant_t(fresh.c_str())}},
         kGamma, kWriteDenied},
        {"a new folder on the phone that denies writing", L"CreateFolderOnDevice",
         {{L"strObjectStoragePath", _variant_t(L"Phone\\DCIM")}, {L"strNewFolderName", _variant_t(L"New")}}, kGamma,
         kWriteDenied},
        {"an upload to the phone that denies writing", L"CopyFileToDevice",
         {{L"strObjectStoragePath", _variant_t(L"Phone\\DCIM")}, {L"strFileToCopy", _variant_t(upload.c_str())},
          {L"strWriteToken", _variant_t(g_token.c_str())}},
         kGamma, kWriteDenied},
        {"the phone that denies writing named by its serial number", L"DeleteFileFromDevice",
         {{L"strObjectStoragePath", _variant_t(L"Phone\\a.txt")}}, L"GAMMA1", kWriteDenied},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.what);
        const World before = Snapshot();
        const Outcome outcome = CallMethod(each.method, With(each.parameters, each.device), g_self);
        EXPECT_EQ(outcome.status, E_FAIL);
        EXPECT_EQ(outcome.description, each.description);
        EXPECT_EQ(Difference(before, Snapshot()), L"");
    }
}

// Regression: a phone whose write access is denied was taken for a BlackBerry. It is published as the phone
// it is, and listing, properties and copies off it work as on any phone.
TEST(DataSafety, APhoneThatDeniesWritingIsPublishedAsItselfAndReadsAsUsual) {
    Reset();
    const auto services = Connect();
    std::wstring published;
    for (const auto& instance : Query(services.Get(), L"SELECT * FROM Win32ext_WPD")) {
        if (_wcsicmp(Text(instance.Get(), L"strId").c_str(), kGamma) == 0) {
            published = Text(instance.Get(), L"strManufacturer") + L"|" + Text(instance.Get(), L"strFriendlyName") +
                        L"|" + Text(instance.Get(), L"strSerialNumber") + L"|" + Text(instance.Get(), L"strDisk1Name");
        }
    }
    EXPECT_EQ(published, L"Google|Pixel 7a|GAMMA1|Phone");

    const World before = Snapshot();
    const std::wstring copy = g_local + L"\\copy.txt";
    const struct {
        const wchar_t* method;
        Parameters parameters;
        const wchar_t* returnValue;  // or null: only that the call succeeded
    } reads[] = {
        {L"EnumerateDevicePath", {{L"strObjectStoragePath", _variant_t(L"Phone\\Music")}}, nullptr},
        {L"GetProperty",
         {{L"strObjectStoragePath", _variant_t(L"Phone\\DCIM\\b.txt")}, {L"strPropertyName", _variant_t(L"WPD_OBJECT_SIZE")}},
         L"33"},
        {L"CopyFileFromDevice",
         {{L"strObjectStoragePath", _variant_t(L"Phone\\DCIM\\b.txt")}, {L"strLocalFileName", _variant_t(copy.c_str())}},
         L"1"},
    };
    for (const auto& read : reads) {
        SCOPED_TRACE(Narrow(read.method));
        const Outcome outcome = CallMethod(read.method, With(read.parameters, kGamma), g_self);
        EXPECT_EQ(outcome.status, S_OK);
        if (read.returnValue != nullptr) {
            EXPECT_EQ(outcome.returnValue, read.returnValue);
        } else {
            EXPECT_EQ(outcome.returnValue.rfind(L"d.mp3@", 0), 0u) << Narrow(outcome.returnValue);
        }
    }
    EXPECT_EQ(ReadAll(copy), "gamma-phone:DCIM\\b.txt:0123456789");
    EXPECT_EQ(Difference(before, Snapshot()), L" new:local:\\COPY.TXT");
}

// Only a path that ends in the tracker's name looks for the tracker elsewhere in the storage.
TEST(DataSafety, ANameThatOnlyContainsTheTrackersNameIsNotTheTracker) {
    Reset();
    const World before = Snapshot();
    const Outcome outcome = CallMethod(
        L"DeleteFileFromDevice", With({{L"strObjectStoragePath", _variant_t(L"Phone\\dorWEXDeviceTracker.bin.bak")}}, kAlpha));
    EXPECT_EQ(outcome.returnValue, L"0");
    EXPECT_EQ(Difference(before, Snapshot()), L"");
    EXPECT_EQ(CallMethod(L"DeleteFileFromDevice",
                         With({{L"strObjectStoragePath", _variant_t(L"Phone\\dorWEXDeviceTracker.bin")}}, kAlpha))
                  .returnValue,
              L"1");
    EXPECT_EQ(Difference(before, Snapshot()), L" gone:alpha:PHONE\\SYSTEM\\DORWEXDEVICETRACKER.BIN");
}

// A transfer that breaks off leaves what was there: an existing local file keeps its bytes, no partial
// file stays behind, and a move keeps its source.
TEST(DataSafety, ATransferThatBreaksOffLeavesEverythingAsItWas) {
    Reset();
    const std::wstring kept = g_local + L"\\kept.bin";
    const std::wstring fresh = g_local + L"\\fresh.bin";
    const struct {
        const char* what;
        const char* faultCall;  // or null
        ULONGLONG streamEnd;    // or 0
        const wchar_t* method;
        const std::wstring* local;
    } cases[] = {
        {"the device fails the first read of a copy over a local file", "Read", 0, L"CopyFileFromDevice", &kept},
        {"the stream ends early in a copy over a local file", nullptr, 3, L"CopyFileFromDevice", &kept},
        {"the stream ends early in a move", nullptr, 3, L"MoveFileFromDevice", &fresh},
        {"the device fails a read of a move", "Read", 0, L"MoveFileFromDevice", &fresh},
        {"the object cannot be opened for a move", "GetStream", 0, L"MoveFileFromDevice", &kept},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.what);
        if (each.faultCall != nullptr) {
            ASSERT_EQ(g_emulator->SetFault(kAlpha, each.faultCall, HRESULT_FROM_WIN32(ERROR_GEN_FAILURE), 1), S_OK);
        }
        ASSERT_EQ(g_emulator->SetStreamEnd(kAlpha, each.streamEnd), S_OK);
        const World before = Snapshot();
        const Outcome outcome = CallMethod(
            each.method,
            With({{L"strObjectStoragePath", _variant_t(L"Phone\\DCIM\\b.txt")}, {L"strLocalFileName", _variant_t(each.local->c_str())}},
                 kAlpha));
        EXPECT_EQ(outcome.returnValue, L"0");
        EXPECT_EQ(Difference(before, Snapshot()), L"");
        ASSERT_EQ(g_emulator->SetStreamEnd(kAlpha, 0), S_OK);
        if (each.faultCall != nullptr) {
            ASSERT_EQ(g_emulator->SetFault(kAlpha, each.faultCall, S_OK, 0), S_OK);
        }
    }
    // Whole, the same copy replaces the file and the move takes the source away.
    EXPECT_EQ(CallMethod(L"CopyFileFromDevice", With({{L"strObjectStoragePath", _variant_t(L"Phone\\DCIM\\b.txt")},
                                                      {L"strLocalFileName", _variant_t(kept.c_str())}},
                                                     kAlpha))
                  .returnValue,
              L"1");
    EXPECT_EQ(ReadAll(kept), "alpha-phone:DCIM\\b.txt:0123456789");
}

// Without the client's identity a copy touches no local file: it fails, and nothing is read or written as
// the provider's own (LocalSystem) identity.
TEST(DataSafety, ACopyWhoseClientCannotBeImpersonatedFails) {
    Reset();
    HMODULE wmi = GetModuleHandleW(L"dorwex_wmi_emulator.dll");
    ASSERT_NE(wmi, nullptr);
    auto* setClientContext =
        reinterpret_cast<void(WINAPI*)(int)>(reinterpret_cast<void*>(GetProcAddress(wmi, "DorwexWmiSetClientContext")));
    ASSERT_NE(setClientContext, nullptr);
    setClientContext(0);
    const std::wstring kept = g_local + L"\\kept.bin";
    const struct {
        const wchar_t* method;
        Parameters parameters;
    } cases[] = {
        {L"CopyFileFromDevice", {{L"strObjectStoragePath", _variant_t(L"Phone\\a.txt")}, {L"strLocalFileName", _variant_t(kept.c_str())}}},
        {L"MoveFileFromDevice", {{L"strObjectStoragePath", _variant_t(L"Phone\\a.txt")}, {L"strLocalFileName", _variant_t(kept.c_str())}}},
        {L"CopyFileToDevice", {{L"strObjectStoragePath", _variant_t(L"Phone")},
                               {L"strFileToCopy", _variant_t((g_local + L"\\upload.bin").c_str())},
                               {L"strWriteToken", _variant_t(g_token.c_str())}}},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(Narrow(each.method));
        const World before = Snapshot();
        const Outcome outcome = CallMethod(each.method, With(each.parameters, kAlpha), g_self);
        EXPECT_EQ(outcome.status, E_FAIL);
        EXPECT_EQ(outcome.description, L"The client could not be impersonated");
        EXPECT_EQ(Difference(before, Snapshot()), L"");
    }
    setClientContext(-1);  // as the registration says again
    EXPECT_EQ(CallMethod(L"CopyFileFromDevice", With(cases[0].parameters, kAlpha)).returnValue, L"1");
}

// Another client changes the phone between two requests, and its events have not arrived (a driver may send
// none). The ids the first requests found are stale: a path names what is there now, a copy reads that and a
// delete removes that, never the object the path named before. Every folder on the way counts, the one in
// the middle of a path too.
TEST(DataSafety, APathNamesWhatIsThereNowAfterAnotherClientsChange) {
    const struct {
        const char* what;
        const wchar_t* from;
        const wchar_t* to;  // null: deleted
        bool rewrite;       // a new b.txt is written where the path names it after the change
        const wchar_t* file = L"DCIM\\b.txt";
    } cases[] = {
        {"b.txt deleted and written again", L"DCIM\\b.txt", nullptr, true},
        {"DCIM renamed and a new DCIM made", L"DCIM", L"Old", true},
        {"DCIM\\Deep renamed and a new Deep made", L"DCIM\\Deep", L"DCIM\\Old", true, L"DCIM\\Deep\\b.txt"},
        {"b.txt moved to Music and a new one written: the old id has another parent", L"DCIM\\b.txt",
         L"Music\\b.txt", true},
        {"b.txt moved to Music, nothing in its place", L"DCIM\\b.txt", L"Music\\b.txt", false},
        {"b.txt renamed", L"DCIM\\b.txt", L"DCIM\\e.txt", false},
    };
    const std::wstring phone = g_emulator->StorageDirectory(g_alpha, 0);
    const std::wstring local = g_local + L"\\copy.bin";
    for (const auto& each : cases) {
        SCOPED_TRACE(each.what);
        Reset();
        const std::wstring file = each.file;
        const std::wstring path = L"Phone\\" + file;
        const Parameters copy = With({{L"strObjectStoragePath", _variant_t(path.c_str())},
                                      {L"strLocalFileName", _variant_t(local.c_str())}},
                                     kAlpha);
        const Parameters remove = With({{L"strObjectStoragePath", _variant_t(path.c_str())}}, kAlpha);
        const std::wstring folder = file.substr(0, file.rfind(L'\\'));
        CreateDirectoryW((phone + L"\\" + folder).c_str(), nullptr);
        const std::string first = "alpha-phone:" + Narrow(file) + ":0123456789";
        g_emulator->WriteFile(phone + L"\\" + file, first);
        // The lookups remember the folders on the way and what is in them.
        ASSERT_EQ(CallMethod(L"CopyFileFromDevice", copy, g_self).returnValue, L"1");
        ASSERT_EQ(ReadAll(local), first);
        ASSERT_EQ(g_emulator->ChangeByOtherClient(kAlpha, 0, each.from, each.to), S_OK);
        if (each.rewrite) {
            CreateDirectoryW((phone + L"\\" + folder).c_str(), nullptr);
            g_emulator->WriteFile(phone + L"\\" + file, "written again");
        }
        const Outcome copied = CallMethod(L"CopyFileFromDevice", copy, g_self);
        EXPECT_EQ(copied.status == S_OK && copied.returnValue == L"1", each.rewrite) << Narrow(copied.description);
        EXPECT_EQ(ReadAll(local), each.rewrite ? "written again" : first);
        World expected = Snapshot();
        const bool named = expected.erase(L"alpha:PHONE\\" + Upper(file)) == 1;
        const Outcome deleted = CallMethod(L"DeleteFileFromDevice", remove, g_self);
        EXPECT_EQ(deleted.status == S_OK && deleted.returnValue == L"1", named) << Narrow(deleted.description);
        EXPECT_EQ(Difference(expected, Snapshot()), L"");
    }
}

// --- The whole class: random requests with random faults -----------------------------------------

// What a request names, as the model reads it: which device ("alpha", "beta", "gamma" or none), and the entry
// key.
struct Target {
    std::wstring device;
    std::wstring storage;              // upper case
    std::vector<std::wstring> names;   // upper case
    std::wstring Key() const {
        std::wstring key = device + L":" + storage;
        for (const auto& name : names) {
            key += L"\\" + name;
        }
        return key;
    }
};

class Model {
public:
    explicit Model(unsigned seed) : m_random(seed) {}

    // One request with its fault; checks what changed against what the request named. Now and then another
    // client has changed a phone first, unannounced, so that ids the provider found before are stale.
    void Step(int index) {
        if (Pick(4) == 0) {
            ChangeByOtherClient();
        }
        const int kind = Pick(5);
        const std::wstring deviceParameter = PickDevice();
        const std::wstring path = PickPath(kind == 3 || kind == 4);
        const std::wstring localName = Pick(8) == 0 ? L"missing\\x.bin" : std::vector<std::wstring>{L"kept.bin", L"new.bin", L"upload.bin"}[Pick(3)];
        const std::wstring local = g_local + L"\\" + localName;
        const char* fault = nullptr;
        const char* const kFaults[] = {"Read", "Write", "Commit", "Delete", "GetStream", "CreateObjectWithPropertiesOnly",
                                       "CreateObjectWithPropertiesAndData", "EnumObjects"};
        ULONGLONG streamEnd = 0;
        const int faulty = Pick(10);
        const wchar_t* faultyDevice = std::vector<const wchar_t*>{kAlpha, kBeta, kGamma}[Pick(3)];
        if (faulty < 3) {
            fault = kFaults[Pick(8)];
            g_emulator->SetFault(faultyDevice, fault, HRESULT_FROM_WIN32(ERROR_GEN_FAILURE), 1);
        } else if (faulty == 3) {
            streamEnd = 1 + Pick(8);
            g_emulator->SetStreamEnd(faultyDevice, streamEnd);
        }
        const World before = Snapshot();
        Parameters parameters = {{L"strObjectStoragePath", _variant_t(path.c_str())}};
        const wchar_t* const kMethods[] = {L"CopyFileFromDevice", L"MoveFileFromDevice", L"DeleteFileFromDevice",
                                           L"CreateFolderOnDevice", L"CopyFileToDevice"};
        switch (kind) {
        case 0:
        case 1:
            parameters.push_back({L"strLocalFileName", _variant_t(local.c_str())});
            break;
        case 3:
            parameters.push_back({L"strNewFolderName", _variant_t(L"New")});
            break;
        case 4:
            parameters.push_back({L"strFileToCopy", _variant_t(local.c_str())});
            parameters.push_back({L"strWriteToken", _variant_t(g_token.c_str())});
            break;
        default:
            break;
        }
        if (!deviceParameter.empty()) {
            parameters.push_back({L"strObjectDeviceId", _variant_t(deviceParameter.c_str())});
        }
        const Outcome outcome = CallMethod(kMethods[kind], parameters, g_self);
        const World after = Snapshot();
        g_emulator->SetFault(faultyDevice, fault != nullptr ? fault : "Read", S_OK, 0);
        g_emulator->SetStreamEnd(faultyDevice, 0);

        const std::string context = "step " + std::to_string(index) + ": " + Narrow(kMethods[kind]) + " device=" +
                                    Narrow(deviceParameter) + " path=" + Narrow(path.substr(0, 80)) +
                                    " local=" + Narrow(localName) + " fault=" + (fault ? fault : "-") +
                                    " streamEnd=" + std::to_string(streamEnd) + " -> " + Narrow(outcome.returnValue) +
                                    " / " + Narrow(outcome.description);
        const bool done = outcome.status == S_OK && outcome.returnValue == L"1";
        if (!done) {
            EXPECT_EQ(Difference(before, after), L"") << context << ": a request that did not succeed changed something";
            return;
        }
        Target target = Resolve(deviceParameter, path);
        if (kind == 0 && target.storage != L"PHONE" && (target.storage != L"CARD" || target.device != L"alpha")) {
            target.storage = L"PHONE";  // a copy off the device reads an unknown storage name as the first storage
        }
        ASSERT_FALSE(target.device.empty()) << context << ": succeeded without naming one device";
        ASSERT_TRUE(kind == 0 || target.device != L"gamma") << context << ": changed the phone that denies writing";
        World expected = before;
        const std::wstring localKey = L"local:\\" + Upper(localName);
        switch (kind) {
        case 0:
        case 1: {
            const std::wstring key = Locate(before, target);
            const auto source = before.find(key);
            ASSERT_TRUE(source != before.end() && source->second != "<dir>") << context << ": no such file was named";
            expected[localKey] = source->second;
            // A move whose delete failed has still moved the file: its source may stay, but only then.
            const bool deleteFailed = fault != nullptr && std::string(fault) == "Delete" && after.count(key) == 1;
            if (kind == 1 && !deleteFailed) {
                expected.erase(key);
            }
            break;
        }
        case 2: {
            const std::wstring key = Locate(before, target);
            ASSERT_TRUE(before.count(key) == 1) << context << ": nothing of that name to delete";
            for (auto entry = expected.begin(); entry != expected.end();) {
                const bool inside = entry->first == key || entry->first.rfind(key + L"\\", 0) == 0;
                entry = inside ? expected.erase(entry) : std::next(entry);
            }
            break;
        }
        case 3:
        case 4: {
            // Into the named folder, or into the root of the named storage when that folder is not there.
            std::wstring folder = target.Key();
            if (before.count(folder) == 0 || before.at(folder) != "<dir>") {
                folder = target.device + L":" + target.storage;
            }
            const std::wstring name = kind == 3 ? L"NEW" : Upper(localName);
            ASSERT_EQ(expected.count(folder + L"\\" + name), 0u) << context << ": replaced what was there";
            expected[folder + L"\\" + name] = kind == 3 ? "<dir>" : before.at(localKey);
            break;
        }
        default:
            break;
        }
        EXPECT_EQ(Difference(expected, after), L"") << context << ": the change is not what was named";
        ++m_done;
    }

    int Done() const { return m_done; }

private:
    int Pick(int count) { return static_cast<int>(m_random() % static_cast<unsigned>(count)); }

    // A rename, a move to another folder, or a delete followed by a new file of the same name; one that
    // cannot be made (its source gone, its target there) is left out.
    void ChangeByOtherClient() {
        const wchar_t* const kChanges[][2] = {{L"DCIM", L"Old"},           {L"DCIM\\b.txt", L"Music\\b.txt"},
                                              {L"Music\\d.mp3", L"DCIM\\d.mp3"}, {L"DCIM\\c.jpg", L"DCIM\\c2.jpg"},
                                              {L"a.txt", nullptr},         {L"Music", nullptr}};
        const auto& change = kChanges[Pick(6)];
        const bool alpha = Pick(2) == 0;
        const std::wstring root = g_emulator->StorageDirectory(alpha ? g_alpha : g_beta, 0);
        if (FAILED(g_emulator->ChangeByOtherClient(alpha ? kAlpha : kBeta, 0, change[0], change[1]))) {
            return;
        }
        if (change[1] == nullptr || Pick(2) == 0) {
            const std::wstring was = root + L"\\" + change[0];
            const bool folder = std::wcschr(change[0], L'.') == nullptr;
            if (folder) {
                CreateDirectoryW(was.c_str(), nullptr);
            }
            g_emulator->WriteFile(folder ? was + L"\\f.txt" : was, "written again");
        }
    }

    std::wstring PickDevice() {
        const std::wstring ids[] = {kAlpha, kAlpha, kBeta, kBeta, kGamma, L"ALPHA1", L"usb#vid_0000&pid_0000#nobody", L""};
        return ids[Pick(8)];
    }

    std::wstring PickPath(bool folder) {
        const std::wstring storages[] = {L"Phone", L"Card", L"phone", L"Nowhere"};
        std::wstring path = storages[Pick(4)];
        const std::vector<std::vector<std::wstring>> files = {
            {L"a.txt"}, {L"DCIM", L"b.txt"}, {L"dcim", L"C.JPG"}, {L"Music", L"d.mp3"}, {L"DCIM"}, {L"Music"},
            {L"zz.txt"}, {L"System", L"dorWEXDeviceTracker.bin"}, {L"dorWEXDeviceTracker.bin"}, {L"New"},
            {L"upload.bin"}, {L"DCIM", L"upload.bin"}};
        const auto& names = folder ? files[4 + Pick(2)] : files[Pick(static_cast<int>(files.size()))];
        for (const auto& name : names) {
            path += L"\\" + name;
        }
        if (Pick(12) == 0) {
            path += L"\\" + std::wstring(260, L'x');  // over the limit
        }
        return path;
    }

    // The entry a file request names: itself, or for the tracker's name the tracker wherever the storage
    // keeps it (the device may keep a system object elsewhere than where it was written).
    static std::wstring Locate(const World& world, const Target& target) {
        const std::wstring key = target.Key();
        if (world.count(key) == 1 || target.names.empty() || target.names.back() != L"DORWEXDEVICETRACKER.BIN") {
            return key;
        }
        const std::wstring storage = target.device + L":" + target.storage + L"\\";
        for (const auto& entry : world) {
            if (entry.first.rfind(storage, 0) == 0 && entry.first.size() >= 24 &&
                entry.first.compare(entry.first.size() - 24, 24, L"\\DORWEXDEVICETRACKER.BIN") == 0) {
                return entry.first;
            }
        }
        return key;
    }

    // The one device a request names by the model's reading, or none.
    static Target Resolve(const std::wstring& device, const std::wstring& path) {
        Target target;
        size_t start = 0;
        std::vector<std::wstring> parts;
        while (start <= path.size()) {
            const size_t end = path.find(L'\\', start);
            parts.push_back(Upper(path.substr(start, end == std::wstring::npos ? std::wstring::npos : end - start)));
            if (end == std::wstring::npos) {
                break;
            }
            start = end + 1;
        }
        target.storage = parts[0];
        target.names.assign(parts.begin() + 1, parts.end());
        const std::wstring id = Upper(device);
        if (id == Upper(kAlpha) || id == L"ALPHA1") {
            target.device = L"alpha";
        } else if (id == Upper(kBeta)) {
            target.device = L"beta";
        } else if (id == Upper(kGamma)) {
            target.device = L"gamma";
        } else if (id.empty() && target.storage == L"CARD") {
            target.device = L"alpha";  // the one phone with a card
        }
        return target;
    }

    std::mt19937 m_random;
    int m_done = 0;
};

TEST(DataSafety, RandomRequestsWithFaultsChangeOnlyWhatTheyName) {
    Reset();
    const char* seedText = std::getenv("DORWEX_SAFETY_SEED");
    const unsigned seed = seedText != nullptr ? static_cast<unsigned>(std::strtoul(seedText, nullptr, 10)) : 27u;
    Model model(seed);
    for (int step = 0; step < 150; ++step) {
        model.Step(step);
        if (HasFatalFailure()) {
            break;
        }
        if (step % 50 == 49) {
            Reset();
        }
    }
    EXPECT_GT(model.Done(), 20) << "seed " << seed << ": too few requests succeeded to show anything";
}

}  // namespace
