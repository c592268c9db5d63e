// The emulated portable-device stack behaves as the real one where the provider depends on it: the
// manager's size-query convention, object properties, streams, content changes and their events, and the
// state after a device is removed.
#include <gtest/gtest.h>

#include <wrl/client.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "common/com_memory.h"
#include "device/portable_device_api.h"
#include "support/stack_com.h"
#include "support/test_files.h"
#include "support/wpd_emulator.h"

using Microsoft::WRL::ComPtr;

namespace {

// A callback that lives on the test's stack: COM's reference count is only counted.
using StackCallback = StackCom<IPortableDeviceEventCallback>;

// Counts the events it receives, remembering the event id and object name of each.
class RecordingCallback : public StackCallback {
public:
    HRESULT STDMETHODCALLTYPE OnEvent(IPortableDeviceValues* parameters) override {
        GUID event{};
        parameters->GetGuidValue(WPD_EVENT_PARAMETER_EVENT_ID, &event);
        CoTaskString name;
        parameters->GetStringValue(WPD_OBJECT_NAME, &name);
        std::lock_guard<std::mutex> guard(lock);
        events.emplace_back(event, name.Get() != nullptr ? name.Get() : L"");
        return S_OK;
    }
    std::mutex lock;
    std::vector<std::pair<GUID, std::wstring>> events;
};

// Records the keys of every event's parameters, in order, and the persistent unique id each carried.
class ParameterRecorder : public StackCallback {
public:
    HRESULT STDMETHODCALLTYPE OnEvent(IPortableDeviceValues* parameters) override {
        std::vector<std::pair<GUID, DWORD>> seen;
        DWORD count = 0;
        parameters->GetCount(&count);
        for (DWORD i = 0; i < count; ++i) {
            PROPERTYKEY key{};
            parameters->GetAt(i, &key, nullptr);
            seen.emplace_back(key.fmtid, key.pid);
        }
        CoTaskString uniqueId;
        parameters->GetStringValue(WPD_OBJECT_PERSISTENT_UNIQUE_ID, &uniqueId);
        std::lock_guard<std::mutex> guard(lock);
        keys.push_back(seen);
        uniqueIds.emplace_back(uniqueId.Get() != nullptr ? uniqueId.Get() : L"");
        return S_OK;
    }
    std::mutex lock;
    std::vector<std::vector<std::pair<GUID, DWORD>>> keys;
    std::vector<std::wstring> uniqueIds;
};

class Emulator : public testing::Test {
protected:
    void SetUp() override {
        spec = PhoneSpec("usb#emu", "Acme", "E1");
        emulator.Attach(spec);
        ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceFTM, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&device)), S_OK);
        ComPtr<IPortableDeviceValues> client;
        ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&client)),
                  S_OK);
        ASSERT_EQ(device->Open(L"usb#emu", client.Get()), S_OK);
        ASSERT_EQ(device->Content(&content), S_OK);
    }

    std::wstring Child(const wchar_t* parent, const wchar_t* name) {
        ComPtr<IEnumPortableDeviceObjectIDs> ids;
        EXPECT_EQ(content->EnumObjects(0, parent, nullptr, &ids), S_OK);
        ComPtr<IPortableDeviceProperties> properties;
        content->Properties(&properties);
        LPWSTR id = nullptr;
        ULONG fetched = 0;
        std::wstring result;
        while (ids && ids->Next(1, &id, &fetched) == S_OK && fetched == 1) {
            ComPtr<IPortableDeviceValues> values;
            properties->GetValues(id, nullptr, &values);
            CoTaskString objectName;
            if (values && SUCCEEDED(values->GetStringValue(WPD_OBJECT_NAME, &objectName)) &&
                wcscmp(objectName.Get(), name) == 0) {
                result = id;
            }
            CoTaskMemFree(id);
        }
        return result;
    }

    WpdEmulator emulator;
    EmulatedDeviceSpec spec;
    ComPtr<IPortableDevice> device;
    ComPtr<IPortableDeviceContent> content;
};

TEST_F(Emulator, ManagerAnswersWithTheSizeQueryConvention) {
    ComPtr<IPortableDeviceManager> manager;
    ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceManager, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&manager)), S_OK);
    DWORD count = 0;
    ASSERT_EQ(manager->GetDevices(nullptr, &count), S_OK);
    EXPECT_EQ(count, 1u);
    DWORD length = 0;
    EXPECT_EQ(manager->GetDeviceManufacturer(L"usb#emu", nullptr, &length), S_OK);
    EXPECT_EQ(length, 5u) << "characters with the terminator";
    wchar_t shortBuffer[2];
    length = 2;
    EXPECT_EQ(manager->GetDeviceManufacturer(L"usb#emu", shortBuffer, &length),
              HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER));
    wchar_t maker[16];
    length = 16;
    EXPECT_EQ(manager->GetDeviceManufacturer(L"USB#EMU", maker, &length), S_OK);
    EXPECT_STREQ(maker, L"Acme");

    // A device attached later appears after a refresh.
    emulator.Attach(PhoneSpec("usb#later", "Acme", "E2"));
    manager->GetDevices(nullptr, &count);
    EXPECT_EQ(count, 1u);
    manager->RefreshDeviceList();
    manager->GetDevices(nullptr, &count);
    EXPECT_EQ(count, 2u);
}

// Count first, then fetch; a buffer smaller than the list is filled and answered with S_FALSE.
TEST_F(Emulator, ManagerCountsThenFetchesAndSaysWhenTheBufferIsShort) {
    emulator.Attach(PhoneSpec("usb#second", "Acme", "E2"));
    ComPtr<IPortableDeviceManager> manager;
    ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceManager, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&manager)), S_OK);
    EXPECT_EQ(manager->GetDevices(nullptr, nullptr), E_POINTER);
    DWORD count = 0;
    ASSERT_EQ(manager->GetDevices(nullptr, &count), S_OK);
    ASSERT_EQ(count, 2u);

    LPWSTR ids[2] = {};
    count = 1;
    EXPECT_EQ(manager->GetDevices(ids, &count), S_FALSE) << "one place for two devices";
    EXPECT_EQ(count, 1u);
    ASSERT_NE(ids[0], nullptr);
    EXPECT_EQ(ids[1], nullptr) << "nothing written past the place given";
    CoTaskMemFree(ids[0]);
    ids[0] = nullptr;

    count = 2;
    ASSERT_EQ(manager->GetDevices(ids, &count), S_OK);
    ASSERT_EQ(count, 2u);
    EXPECT_STRNE(ids[0], ids[1]);
    CoTaskMemFree(ids[0]);
    CoTaskMemFree(ids[1]);
}

TEST_F(Emulator, OpenTwiceIsRefusedAndNeedsClientInformation) {
    ComPtr<IPortableDevice> second;
    ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceFTM, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&second)), S_OK);
    ComPtr<IPortableDeviceContent> notYet;
    EXPECT_EQ(second->Content(&notYet), E_WPD_DEVICE_NOT_OPEN);
    EXPECT_EQ(second->Open(L"usb#emu", nullptr), E_POINTER);
    EXPECT_EQ(emulator.OpenSessions(L"usb#emu"), 1) << "only the fixture's session";
    ComPtr<IPortableDeviceValues> client;
    ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&client)),
              S_OK);
    ASSERT_EQ(second->Open(L"usb#emu", client.Get()), S_OK);
    EXPECT_EQ(second->Open(L"usb#emu", client.Get()), E_WPD_DEVICE_ALREADY_OPENED);
    EXPECT_EQ(emulator.OpenSessions(L"usb#emu"), 2) << "the refused Open opened nothing";
    EXPECT_EQ(second->Close(), S_OK);
    EXPECT_EQ(emulator.OpenSessions(L"usb#emu"), 1);
}

// An enumerator lists the direct children of its parent only, and says S_FALSE when fewer than asked for
// are left.
TEST_F(Emulator, EnumeratorListsDirectChildrenAndSaysWhenFewerAreLeft) {
    const std::wstring storage = emulator.StorageDirectory(spec, 0);
    CreateDirectoryW((storage + L"\\DCIM").c_str(), nullptr);
    emulator.WriteFile(storage + L"\\DCIM\\deep.jpg", "jpeg");
    emulator.WriteFile(storage + L"\\top.txt", "text");
    ComPtr<IEnumPortableDeviceObjectIDs> ids;
    ASSERT_EQ(content->EnumObjects(0, L"s10001", nullptr, &ids), S_OK);
    LPWSTR batch[8] = {};
    ULONG fetched = 0;
    ASSERT_EQ(ids->Next(1, batch, &fetched), S_OK);
    EXPECT_EQ(fetched, 1u);
    CoTaskMemFree(batch[0]);
    ASSERT_EQ(ids->Next(8, batch, &fetched), S_FALSE) << "one left, eight asked for";
    EXPECT_EQ(fetched, 1u);
    CoTaskMemFree(batch[0]);
    EXPECT_EQ(ids->Next(8, batch, &fetched), S_FALSE);
    EXPECT_EQ(fetched, 0u);

    EXPECT_EQ(ids->Reset(), S_OK);
    std::vector<std::wstring> names;
    ComPtr<IPortableDeviceProperties> properties;
    content->Properties(&properties);
    ids->Next(8, batch, &fetched);
    for (ULONG i = 0; i < fetched; ++i) {
        ComPtr<IPortableDeviceValues> values;
        CoTaskString name;
        if (SUCCEEDED(properties->GetValues(batch[i], nullptr, &values)) &&
            SUCCEEDED(values->GetStringValue(WPD_OBJECT_NAME, &name))) {
            names.emplace_back(name.Get());
        }
        CoTaskMemFree(batch[i]);
    }
    EXPECT_EQ(names, (std::vector<std::wstring>{L"DCIM", L"top.txt"})) << "deep.jpg is a grandchild";
}

TEST_F(Emulator, StreamsReadFilesAndHonourShortReads) {
    emulator.WriteFile(emulator.StorageDirectory(spec, 0) + L"\\a.txt", "0123456789");
    const std::wstring file = Child(L"s10001", L"a.txt");
    ASSERT_FALSE(file.empty());
    ComPtr<IPortableDeviceProperties> properties;
    content->Properties(&properties);
    ComPtr<IPortableDeviceValues> values;
    ASSERT_EQ(properties->GetValues(file.c_str(), nullptr, &values), S_OK);
    ULONGLONG size = 0;
    EXPECT_EQ(values->GetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, &size), S_OK);
    EXPECT_EQ(size, 10u);
    CoTaskString parent;
    values->GetStringValue(WPD_OBJECT_PARENT_ID, &parent);
    EXPECT_STREQ(parent.Get(), L"s10001");
    EXPECT_EQ(Child(L"s10001", L"a.txt"), file) << "ids are stable";

    ComPtr<IPortableDeviceResources> resources;
    content->Transfer(&resources);
    ComPtr<IStream> stream;
    DWORD optimal = 0;
    ASSERT_EQ(resources->GetStream(file.c_str(), WPD_RESOURCE_DEFAULT, STGM_READ, &optimal, &stream), S_OK);
    EXPECT_GT(optimal, 0u);
    char buffer[32] = {};
    ULONG read = 0;
    EXPECT_EQ(stream->Read(buffer, sizeof buffer, &read), S_FALSE);
    EXPECT_EQ(std::string(buffer, read), "0123456789");

    // A device that hands out at most four bytes per read.
    EmulatedDeviceSpec slow = PhoneSpec("usb#slow", "Acme", "E3");
    slow.deviceLines.push_back("short_read = 4");
    emulator.Attach(slow);
    emulator.WriteFile(emulator.StorageDirectory(slow, 0) + L"\\c.txt", "0123456789");
    ComPtr<IPortableDevice> slowDevice;
    CoCreateInstance(CLSID_PortableDeviceFTM, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&slowDevice));
    ComPtr<IPortableDeviceValues> client;
    CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&client));
    ASSERT_EQ(slowDevice->Open(L"usb#slow", client.Get()), S_OK);
    content.Reset();
    slowDevice->Content(&content);
    const std::wstring slowFile = Child(L"s10001", L"c.txt");
    content->Transfer(&resources);
    ASSERT_EQ(resources->GetStream(slowFile.c_str(), WPD_RESOURCE_DEFAULT, STGM_READ, &optimal, &stream), S_OK);
    EXPECT_EQ(stream->Read(buffer, sizeof buffer, &read), S_OK) << "short, but not at the end";
    EXPECT_EQ(read, 4u);
}

TEST_F(Emulator, ContentChangesRaiseEventsAndFoldersNeedRecursionToGo) {
    RecordingCallback callback;
    LPWSTR cookie = nullptr;
    ASSERT_EQ(device->Advise(0, &callback, nullptr, &cookie), S_OK);

    ComPtr<IPortableDeviceValues> folder;
    CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&folder));
    folder->SetStringValue(WPD_OBJECT_PARENT_ID, L"s10001");
    folder->SetStringValue(WPD_OBJECT_NAME, L"DCIM");
    folder->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FOLDER);
    CoTaskString folderId;
    ASSERT_EQ(content->CreateObjectWithPropertiesOnly(folder.Get(), &folderId), S_OK);

    ComPtr<IPortableDeviceValues> file;
    CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&file));
    file->SetStringValue(WPD_OBJECT_PARENT_ID, folderId.Get());
    file->SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, L"b.jpg");
    file->SetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, 4);
    ComPtr<IStream> data;
    DWORD optimal = 0;
    ASSERT_EQ(content->CreateObjectWithPropertiesAndData(file.Get(), &data, &optimal, nullptr), S_OK);
    EXPECT_TRUE(Child(folderId.Get(), L"b.jpg").empty()) << "not there before Commit";
    ULONG written = 0;
    data->Write("jpeg", 4, &written);
    ASSERT_EQ(data->Commit(STGC_DEFAULT), S_OK);
    ComPtr<IPortableDeviceDataStream> dataStream;
    ASSERT_EQ(data.As(&dataStream), S_OK);
    CoTaskString fileId;
    ASSERT_EQ(dataStream->GetObjectID(&fileId), S_OK);
    EXPECT_EQ(Child(folderId.Get(), L"b.jpg"), fileId.Get());

    ComPtr<IPortableDevicePropVariantCollection> ids;
    CoCreateInstance(CLSID_PortableDevicePropVariantCollection, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&ids));
    PROPVARIANT id;
    PropVariantInit(&id);
    id.vt = VT_LPWSTR;
    id.pwszVal = const_cast<LPWSTR>(folderId.Get());
    ids->Add(&id);
    ComPtr<IPortableDevicePropVariantCollection> results;
    EXPECT_EQ(content->Delete(PORTABLE_DEVICE_DELETE_NO_RECURSION, ids.Get(), &results), S_FALSE);
    PropVariant result;
    results->GetAt(0, &result);
    EXPECT_EQ(result.Get().scode, HRESULT_FROM_WIN32(ERROR_DIR_NOT_EMPTY));
    EXPECT_EQ(content->Delete(PORTABLE_DEVICE_DELETE_WITH_RECURSION, ids.Get(), nullptr), S_OK);

    ASSERT_TRUE(emulator.WaitForEvents(5000));
    std::lock_guard<std::mutex> guard(callback.lock);
    ASSERT_EQ(callback.events.size(), 3u);
    EXPECT_EQ(callback.events[0], std::make_pair(WPD_EVENT_OBJECT_ADDED, std::wstring(L"DCIM")));
    EXPECT_EQ(callback.events[1], std::make_pair(WPD_EVENT_OBJECT_ADDED, std::wstring(L"b.jpg")));
    EXPECT_EQ(callback.events[2], std::make_pair(WPD_EVENT_OBJECT_REMOVED, std::wstring(L"DCIM")));
    EXPECT_EQ(device->Unadvise(cookie), S_OK);
    CoTaskMemFree(cookie);
    EXPECT_EQ(callback.refs, 1u) << "the stack let go of the callback";
}

// The properties of a new file: parent, size and name.
ComPtr<IPortableDeviceValues> NewFile(const wchar_t* name, ULONGLONG size) {
    ComPtr<IPortableDeviceValues> values;
    EXPECT_EQ(CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&values)), S_OK);
    values->SetStringValue(WPD_OBJECT_PARENT_ID, L"s10001");
    values->SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, name);
    values->SetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, size);
    return values;
}

// Every file of a directory, hidden ones included.
std::vector<std::wstring> FilesIn(const std::wstring& directory) {
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW found{};
    HANDLE search = FindFirstFileW((directory + L"\\*").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) {
        return names;
    }
    do {
        if (wcscmp(found.cFileName, L".") != 0 && wcscmp(found.cFileName, L"..") != 0) {
            names.emplace_back(found.cFileName);
        }
    } while (FindNextFileW(search, &found));
    FindClose(search);
    return names;
}

TEST_F(Emulator, CommitRefusesAByteCountOtherThanTheCreatedSizeAndLeavesNoObject) {
    RecordingCallback callback;
    LPWSTR cookie = nullptr;
    ASSERT_EQ(device->Advise(0, &callback, nullptr, &cookie), S_OK);
    const struct {
        const wchar_t* name;
        ULONGLONG size;
    } wrong[] = {{L"short.bin", 10}, {L"long.bin", 2}, {L"empty.bin", 1}};
    for (const auto& c : wrong) {
        ComPtr<IStream> data;
        ASSERT_EQ(content->CreateObjectWithPropertiesAndData(NewFile(c.name, c.size).Get(), &data, nullptr, nullptr),
                  S_OK);
        if (c.size != 1) {
            ULONG written = 0;
            ASSERT_EQ(data->Write("four", 4, &written), S_OK);
        }
        EXPECT_TRUE(FAILED(data->Commit(STGC_DEFAULT))) << c.name;
        EXPECT_TRUE(FAILED(data->Commit(STGC_DEFAULT))) << c.name << ": a refused transfer stays refused";
        EXPECT_TRUE(Child(L"s10001", c.name).empty()) << c.name;
    }
    EXPECT_TRUE(FilesIn(emulator.StorageDirectory(spec, 0)).empty()) << "no data left behind";

    ComPtr<IStream> data;
    ASSERT_EQ(content->CreateObjectWithPropertiesAndData(NewFile(L"right.bin", 4).Get(), &data, nullptr, nullptr), S_OK);
    data->Write("fo", 2, nullptr);
    data->Write("ur", 2, nullptr);
    EXPECT_EQ(data->Commit(STGC_DEFAULT), S_OK);
    EXPECT_FALSE(Child(L"s10001", L"right.bin").empty());

    ASSERT_TRUE(emulator.WaitForEvents(5000));
    {
        std::lock_guard<std::mutex> guard(callback.lock);
        ASSERT_EQ(callback.events.size(), 1u) << "only the committed object was added";
        EXPECT_EQ(callback.events[0], std::make_pair(WPD_EVENT_OBJECT_ADDED, std::wstring(L"right.bin")));
    }
    device->Unadvise(cookie);
    CoTaskMemFree(cookie);
}

// Nothing is on the device before Commit; Revert, or letting the stream go without Commit, leaves nothing.
TEST_F(Emulator, ObjectExistsOnlyAfterCommit) {
    RecordingCallback callback;
    LPWSTR cookie = nullptr;
    ASSERT_EQ(device->Advise(0, &callback, nullptr, &cookie), S_OK);
    const std::wstring storage = emulator.StorageDirectory(spec, 0);
    {
        ComPtr<IStream> data;
        ASSERT_EQ(content->CreateObjectWithPropertiesAndData(NewFile(L"reverted.bin", 4).Get(), &data, nullptr, nullptr),
                  S_OK);
        ASSERT_EQ(data->Write("four", 4, nullptr), S_OK);
        EXPECT_TRUE(Child(L"s10001", L"reverted.bin").empty()) << "not before Commit";
        EXPECT_EQ(data->Revert(), S_OK);
        EXPECT_TRUE(FilesIn(storage).empty()) << "Revert dropped the data while the stream is still held";
        EXPECT_TRUE(FAILED(data->Commit(STGC_DEFAULT))) << "nothing left to commit";
        EXPECT_EQ(data->Write("four", 4, nullptr), STG_E_ACCESSDENIED);
    }
    {
        ComPtr<IStream> data;
        ASSERT_EQ(content->CreateObjectWithPropertiesAndData(NewFile(L"released.bin", 4).Get(), &data, nullptr, nullptr),
                  S_OK);
        ASSERT_EQ(data->Write("four", 4, nullptr), S_OK);
    }
    EXPECT_TRUE(Child(L"s10001", L"released.bin").empty());
    EXPECT_TRUE(FilesIn(storage).empty());
    ASSERT_TRUE(emulator.WaitForEvents(5000));
    {
        std::lock_guard<std::mutex> guard(callback.lock);
        EXPECT_TRUE(callback.events.empty()) << "no object was added";
    }
    device->Unadvise(cookie);
    CoTaskMemFree(cookie);
}

// The object id and persistent unique id are the device's to give; a file needs its parent and size.
TEST_F(Emulator, CreationRefusesDeviceAssignedIdsAndNeedsParentAndSize) {
    ComPtr<IStream> data;
    ComPtr<IPortableDeviceValues> withId = NewFile(L"a.bin", 1);
    withId->SetStringValue(WPD_OBJECT_ID, L"mine");
    EXPECT_EQ(content->CreateObjectWithPropertiesAndData(withId.Get(), &data, nullptr, nullptr), E_INVALIDARG);
    ComPtr<IPortableDeviceValues> withUniqueId = NewFile(L"a.bin", 1);
    withUniqueId->SetStringValue(WPD_OBJECT_PERSISTENT_UNIQUE_ID, L"{MINE}");
    EXPECT_EQ(content->CreateObjectWithPropertiesAndData(withUniqueId.Get(), &data, nullptr, nullptr), E_INVALIDARG);
    ComPtr<IPortableDeviceValues> withoutSize = NewFile(L"a.bin", 1);
    withoutSize->RemoveValue(WPD_OBJECT_SIZE);
    EXPECT_EQ(content->CreateObjectWithPropertiesAndData(withoutSize.Get(), &data, nullptr, nullptr), E_INVALIDARG);
    ComPtr<IPortableDeviceValues> withoutParent = NewFile(L"a.bin", 1);
    withoutParent->RemoveValue(WPD_OBJECT_PARENT_ID);
    EXPECT_EQ(content->CreateObjectWithPropertiesAndData(withoutParent.Get(), &data, nullptr, nullptr), E_INVALIDARG);
    EXPECT_EQ(data, nullptr);

    ComPtr<IPortableDeviceValues> folder;
    CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&folder));
    folder->SetStringValue(WPD_OBJECT_PARENT_ID, L"s10001");
    folder->SetStringValue(WPD_OBJECT_NAME, L"Music");
    folder->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FOLDER);
    folder->SetStringValue(WPD_OBJECT_ID, L"mine");
    CoTaskString folderId;
    EXPECT_EQ(content->CreateObjectWithPropertiesOnly(folder.Get(), &folderId), E_INVALIDARG);
    EXPECT_TRUE(FilesIn(emulator.StorageDirectory(spec, 0)).empty());
}

// A device in strict creation mode wants a new file's content type and format; a plain device takes the
// file without them and reports it as a generic file of unspecified format.
TEST_F(Emulator, StrictDeviceWantsContentTypeAndFormatOfANewFile) {
    EmulatedDeviceSpec strictSpec = PhoneSpec("usb#strict", "Acme", "S1");
    strictSpec.deviceLines.push_back("strict_creation = yes");
    emulator.Attach(strictSpec);
    ComPtr<IPortableDevice> strictDevice;
    ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceFTM, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&strictDevice)),
              S_OK);
    ComPtr<IPortableDeviceValues> client;
    CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&client));
    ASSERT_EQ(strictDevice->Open(L"usb#strict", client.Get()), S_OK);
    ComPtr<IPortableDeviceContent> strictContent;
    ASSERT_EQ(strictDevice->Content(&strictContent), S_OK);

    ComPtr<IStream> data;
    ComPtr<IPortableDeviceValues> bare = NewFile(L"a.bin", 1);
    EXPECT_TRUE(FAILED(strictContent->CreateObjectWithPropertiesAndData(bare.Get(), &data, nullptr, nullptr)));
    ComPtr<IPortableDeviceValues> typeOnly = NewFile(L"a.bin", 1);
    typeOnly->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_GENERIC_FILE);
    EXPECT_TRUE(FAILED(strictContent->CreateObjectWithPropertiesAndData(typeOnly.Get(), &data, nullptr, nullptr)));
    ComPtr<IPortableDeviceValues> formatOnly = NewFile(L"a.bin", 1);
    formatOnly->SetGuidValue(WPD_OBJECT_FORMAT, WPD_OBJECT_FORMAT_UNSPECIFIED);
    EXPECT_TRUE(FAILED(strictContent->CreateObjectWithPropertiesAndData(formatOnly.Get(), &data, nullptr, nullptr)));
    EXPECT_TRUE(FilesIn(emulator.StorageDirectory(strictSpec, 0)).empty());
    ComPtr<IPortableDeviceValues> both = NewFile(L"a.bin", 1);
    both->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_GENERIC_FILE);
    both->SetGuidValue(WPD_OBJECT_FORMAT, WPD_OBJECT_FORMAT_UNSPECIFIED);
    ASSERT_EQ(strictContent->CreateObjectWithPropertiesAndData(both.Get(), &data, nullptr, nullptr), S_OK);
    data->Write("x", 1, nullptr);
    EXPECT_EQ(data->Commit(STGC_DEFAULT), S_OK);
    strictDevice->Close();

    // The plain device of the fixture.
    data.Reset();
    ASSERT_EQ(content->CreateObjectWithPropertiesAndData(NewFile(L"plain.bin", 1).Get(), &data, nullptr, nullptr), S_OK);
    data->Write("x", 1, nullptr);
    ASSERT_EQ(data->Commit(STGC_DEFAULT), S_OK);
    const std::wstring plain = Child(L"s10001", L"plain.bin");
    ASSERT_FALSE(plain.empty());
    ComPtr<IPortableDeviceProperties> properties;
    content->Properties(&properties);
    ComPtr<IPortableDeviceValues> values;
    ASSERT_EQ(properties->GetValues(plain.c_str(), nullptr, &values), S_OK);
    GUID contentType{}, format{};
    EXPECT_EQ(values->GetGuidValue(WPD_OBJECT_CONTENT_TYPE, &contentType), S_OK);
    EXPECT_EQ(contentType, WPD_CONTENT_TYPE_GENERIC_FILE);
    EXPECT_EQ(values->GetGuidValue(WPD_OBJECT_FORMAT, &format), S_OK);
    EXPECT_EQ(format, WPD_OBJECT_FORMAT_UNSPECIFIED);
}

// A device that sends only what every driver must: the event id, its own id and the object's persistent
// unique id, nothing else.
TEST_F(Emulator, MinimalDriverEventsCarryOnlyTheRequiredParameters) {
    EmulatedDeviceSpec minimalSpec = PhoneSpec("usb#minimal", "Acme", "M1");
    minimalSpec.deviceLines.push_back("minimal_driver = yes");
    emulator.Attach(minimalSpec);
    emulator.WriteFile(emulator.StorageDirectory(minimalSpec, 0) + L"\\a.txt", "a");
    ComPtr<IPortableDevice> minimal;
    ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceFTM, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&minimal)), S_OK);
    ComPtr<IPortableDeviceValues> client;
    CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&client));
    ASSERT_EQ(minimal->Open(L"usb#minimal", client.Get()), S_OK);
    content.Reset();
    ASSERT_EQ(minimal->Content(&content), S_OK);
    const std::wstring file = Child(L"s10001", L"a.txt");
    ASSERT_FALSE(file.empty());

    ParameterRecorder recorder;
    LPWSTR cookie = nullptr;
    ASSERT_EQ(minimal->Advise(0, &recorder, nullptr, &cookie), S_OK);
    ASSERT_EQ(emulator.RaiseEvent(L"usb#minimal", &WPD_EVENT_OBJECT_ADDED, file.c_str()), S_OK);
    ASSERT_TRUE(emulator.WaitForEvents(5000));
    {
        std::lock_guard<std::mutex> guard(recorder.lock);
        ASSERT_EQ(recorder.keys.size(), 1u);
        EXPECT_EQ(recorder.keys[0], (std::vector<std::pair<GUID, DWORD>>{
                                        {WPD_EVENT_PARAMETER_EVENT_ID.fmtid, WPD_EVENT_PARAMETER_EVENT_ID.pid},
                                        {WPD_EVENT_PARAMETER_PNP_DEVICE_ID.fmtid, WPD_EVENT_PARAMETER_PNP_DEVICE_ID.pid},
                                        {WPD_OBJECT_PERSISTENT_UNIQUE_ID.fmtid, WPD_OBJECT_PERSISTENT_UNIQUE_ID.pid}}));
        EXPECT_EQ(recorder.uniqueIds[0], L"{PUID-M1-1}\\a.txt");
    }
    minimal->Unadvise(cookie);
    CoTaskMemFree(cookie);
}

TEST_F(Emulator, RemovedDeviceRaisesItsEventAndRefusesFurtherCalls) {
    RecordingCallback callback;
    LPWSTR cookie = nullptr;
    ASSERT_EQ(device->Advise(0, &callback, nullptr, &cookie), S_OK);
    emulator.Detach(spec);
    ASSERT_TRUE(emulator.WaitForEvents(5000));
    {
        std::lock_guard<std::mutex> guard(callback.lock);
        ASSERT_EQ(callback.events.size(), 1u);
        EXPECT_EQ(callback.events[0].first, WPD_EVENT_DEVICE_REMOVED);
    }
    ComPtr<IPortableDeviceCapabilities> capabilities;
    EXPECT_EQ(device->Capabilities(&capabilities), HRESULT_FROM_WIN32(ERROR_DEVICE_NOT_CONNECTED));
    ComPtr<IEnumPortableDeviceObjectIDs> ids;
    EXPECT_EQ(content->EnumObjects(0, L"DEVICE", nullptr, &ids), HRESULT_FROM_WIN32(ERROR_DEVICE_NOT_CONNECTED));
    device->Close();
    CoTaskMemFree(cookie);
    EXPECT_EQ(callback.refs, 1u) << "Close dropped the subscription";
}

// Records what a bulk property operation reports: the order of the three calls, the threads they came
// on, and every object's values merged by object id.
class BulkRecorder : public StackCom<IPortableDevicePropertiesBulkCallback> {
public:
    BulkRecorder() : ended(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
    ~BulkRecorder() { CloseHandle(ended); }
    HRESULT STDMETHODCALLTYPE OnStart(REFGUID context) override {
        Note(L"start", context);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE OnProgress(REFGUID context, IPortableDeviceValuesCollection* results) override {
        Note(L"progress", context);
        DWORD count = 0;
        results->GetCount(&count);
        std::lock_guard<std::mutex> guard(lock);
        for (DWORD i = 0; i < count; ++i) {
            ComPtr<IPortableDeviceValues> values;
            results->GetAt(i, &values);
            CoTaskString id;
            values->GetStringValue(WPD_OBJECT_ID, &id);
            const std::wstring objectId = id.Get() != nullptr ? id.Get() : L"";
            arrival.push_back(objectId);
            DWORD keys = 0;
            values->GetCount(&keys);
            for (DWORD k = 0; k < keys; ++k) {
                PROPERTYKEY key{};
                PROPVARIANT value;
                PropVariantInit(&value);
                values->GetAt(k, &key, &value);
                if (key.fmtid == WPD_OBJECT_NAME.fmtid && key.pid == WPD_OBJECT_NAME.pid && value.vt == VT_LPWSTR) {
                    names[objectId] = value.pwszVal;
                } else if (key.fmtid == WPD_OBJECT_CONTENT_TYPE.fmtid && key.pid == WPD_OBJECT_CONTENT_TYPE.pid) {
                    folders[objectId] = value.vt == VT_CLSID && *value.puuid == WPD_CONTENT_TYPE_FOLDER;
                }
                PropVariantClear(&value);
            }
        }
        return progressAnswer;
    }
    HRESULT STDMETHODCALLTYPE OnEnd(REFGUID context, HRESULT status) override {
        Note(L"end", context);
        endStatus = status;
        SetEvent(ended);
        return S_OK;
    }
    void Note(const wchar_t* what, REFGUID context) {
        std::lock_guard<std::mutex> guard(lock);
        if (calls.empty() || calls.back() != what) {
            calls.push_back(what);
        }
        ++callCount[what];
        threads.push_back(GetCurrentThreadId());
        contexts.push_back(context);
    }

    HANDLE ended;
    HRESULT progressAnswer = S_OK;
    HRESULT endStatus = E_PENDING;
    std::mutex lock;
    std::vector<std::wstring> calls;  // runs of the same call collapsed
    std::map<std::wstring, int> callCount;
    std::vector<DWORD> threads;
    std::vector<GUID> contexts;
    std::vector<std::wstring> arrival;  // object ids in the order the results came
    std::map<std::wstring, std::wstring> names;
    std::map<std::wstring, bool> folders;
};

std::vector<std::wstring> Enumerate(IPortableDeviceContent* content, const wchar_t* parent) {
    std::vector<std::wstring> ids;
    ComPtr<IEnumPortableDeviceObjectIDs> enumerator;
    if (FAILED(content->EnumObjects(0, parent, nullptr, &enumerator))) {
        return ids;
    }
    LPWSTR batch[32];
    ULONG fetched = 0;
    HRESULT hr = S_OK;
    do {
        hr = enumerator->Next(32, batch, &fetched);
        for (ULONG i = 0; i < fetched; ++i) {
            ids.emplace_back(batch[i]);
            CoTaskMemFree(batch[i]);
        }
    } while (hr == S_OK);
    return ids;
}

ComPtr<IPortableDeviceKeyCollection> ListingKeys() {
    ComPtr<IPortableDeviceKeyCollection> keys;
    CoCreateInstance(CLSID_PortableDeviceKeyCollection, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&keys));
    keys->Add(WPD_OBJECT_ORIGINAL_FILE_NAME);
    keys->Add(WPD_OBJECT_NAME);
    keys->Add(WPD_OBJECT_CONTENT_TYPE);
    return keys;
}

// Each call that reaches the device is one request, answered after the device's latency plus what it carries
// (each object an enumeration or a property read covers, each byte of object data); what the runtime answers
// itself (Content, Properties, an enumerator's Next) is not. Counts are per device and resettable. Times are
// lower bounds only: a shared machine can make them longer, never shorter.
TEST(EmulatorRequests, CountedPerDeviceAndAnsweredAfterTheirCost) {
    WpdEmulator emulator;
    EmulatedDeviceSpec slow = PhoneSpec("usb#slow", "Acme", "S1");
    slow.deviceLines.push_back("latency_us = 20000");
    slow.deviceLines.push_back("object_cost_us = 30000");
    slow.deviceLines.push_back("transfer_mbps = 1");
    const EmulatedDeviceSpec other = PhoneSpec("usb#other", "Acme", "O1");
    emulator.Attach(slow);
    emulator.Attach(other);
    emulator.WriteFile(emulator.StorageDirectory(slow, 0) + L"\\a.txt", std::string(100000, 'a'));
    emulator.WriteFile(emulator.StorageDirectory(slow, 0) + L"\\b.txt", "b");

    ComPtr<IPortableDevice> device;
    ComPtr<IPortableDeviceValues> client;
    ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceFTM, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&device)), S_OK);
    ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&client)), S_OK);
    ASSERT_EQ(emulator.Requests(L"usb#slow", FALSE), 0u);
    ULONGLONG started = GetTickCount64();
    ASSERT_EQ(device->Open(L"usb#slow", client.Get()), S_OK);
    ComPtr<IPortableDeviceContent> content;
    ComPtr<IPortableDeviceProperties> properties;
    ASSERT_EQ(device->Content(&content), S_OK);
    ASSERT_EQ(content->Properties(&properties), S_OK);
    EXPECT_EQ(emulator.Requests(L"usb#slow", FALSE), 1u) << "Open only; Content and Properties stay local";
    const std::vector<std::wstring> ids = Enumerate(content.Get(), L"s10001");
    ASSERT_EQ(ids.size(), 2u);
    EXPECT_EQ(emulator.Requests(L"usb#slow", FALSE), 2u) << "one enumeration, however many Next calls";
    for (const auto& id : ids) {
        ComPtr<IPortableDeviceValues> values;
        ASSERT_EQ(properties->GetValues(id.c_str(), ListingKeys().Get(), &values), S_OK);
    }
    ULONGLONG elapsed = GetTickCount64() - started;
    EXPECT_EQ(emulator.Requests(L"usb#slow", TRUE), 4u) << "Open, EnumObjects and two GetValues";
    EXPECT_GE(elapsed, 4u * 20u + 4u * 30u - 16u)
        << "four requests of 20 ms; two objects enumerated and two read at 30 ms each";

    ComPtr<IPortableDeviceResources> resources;
    ASSERT_EQ(content->Transfer(&resources), S_OK);
    const std::wstring& big = ids[0];  // files are listed in name order
    ComPtr<IStream> stream;
    ASSERT_EQ(resources->GetStream(big.c_str(), WPD_RESOURCE_DEFAULT, STGM_READ, nullptr, &stream), S_OK);
    std::string buffer(65536, '\0');
    ULONG total = 0, read = 0;
    started = GetTickCount64();
    while (stream->Read(buffer.data(), static_cast<ULONG>(buffer.size()), &read) == S_OK || read != 0) {
        total += read;
    }
    elapsed = GetTickCount64() - started;
    EXPECT_EQ(total, 100000u);
    EXPECT_GE(elapsed, 100u - 16u) << "100,000 bytes at 1 MB/s";
    EXPECT_EQ(emulator.Requests(L"usb#slow", FALSE), 1u + 3u) << "GetStream and one request per Read";
    emulator.Requests(L"usb#slow", TRUE);
    EXPECT_EQ(emulator.Requests(L"usb#slow", FALSE), 0u) << "reset";
    EXPECT_EQ(emulator.Requests(L"usb#other", FALSE), 0u) << "counts are per device";
    EXPECT_EQ(emulator.Requests(L"usb#nobody", FALSE), 0u);
}

class EmulatorBulk : public testing::Test {
protected:
    void Open(const EmulatedDeviceSpec& device_in) {
        spec = device_in;
        emulator.Attach(spec);
        ComPtr<IPortableDeviceValues> client;
        ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceFTM, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&device)),
                  S_OK);
        ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&client)),
                  S_OK);
        ASSERT_EQ(device->Open(Wide(spec.id).c_str(), client.Get()), S_OK);
        ASSERT_EQ(device->Content(&content), S_OK);
        ASSERT_EQ(content->Properties(&properties), S_OK);
    }
    // A storage of 300 files and two folders (more than one result set).
    void Fill() {
        const std::wstring storage = emulator.StorageDirectory(spec, 0);
        CreateDirectoryW((storage + L"\\DCIM").c_str(), nullptr);
        CreateDirectoryW((storage + L"\\Music").c_str(), nullptr);
        emulator.WriteFile(storage + L"\\DCIM\\deep.jpg", "grandchild");
        for (int i = 0; i < 300; ++i) {
            wchar_t name[32];
            swprintf(name, 32, L"\\file-%03d.txt", i);
            emulator.WriteFile(storage + name, "x");
        }
    }

    // The operation has ended and let go of the callback, which lives on the test's stack.
    bool Finished(BulkRecorder& recorder) {
        return WaitForSingleObject(recorder.ended, 30000) == WAIT_OBJECT_0 && emulator.WaitForEvents(30000) &&
               recorder.refs == 1;
    }

    WpdEmulator emulator;
    EmulatedDeviceSpec spec;
    ComPtr<IPortableDevice> device;
    ComPtr<IPortableDeviceContent> content;
    ComPtr<IPortableDeviceProperties> properties;
};

// QueueGetValuesByObjectFormat over a folder at depth 1: nothing runs before Start; then OnStart, OnProgress
// and OnEnd come in that order on a thread other than the caller's, with the queued context; the children
// (not the grandchild) arrive with their values, in several result sets, not in enumeration order, and each
// object's values in two parts; the whole operation is one request.
TEST_F(EmulatorBulk, ByFormatReportsOnItsOwnThreadInPartsAsOneRequest) {
    Open(PhoneSpec("usb#bulk", "Acme", "B1"));
    Fill();
    const std::vector<std::wstring> enumerated = Enumerate(content.Get(), L"s10001");
    ASSERT_EQ(enumerated.size(), 302u);
    ComPtr<IPortableDevicePropertiesBulk> bulk;
    ASSERT_EQ(properties.As(&bulk), S_OK);
    BulkRecorder recorder;
    GUID context = GUID_NULL;
    emulator.Requests(L"usb#bulk", TRUE);
    ASSERT_EQ(bulk->QueueGetValuesByObjectFormat(WPD_OBJECT_FORMAT_ALL, L"s10001", 1, ListingKeys().Get(), &recorder,
                                                 &context),
              S_OK);
    EXPECT_NE(context, GUID_NULL);
    EXPECT_EQ(WaitForSingleObject(recorder.ended, 0), static_cast<DWORD>(WAIT_TIMEOUT)) << "queued, not started";
    EXPECT_TRUE(recorder.calls.empty());
    ASSERT_EQ(bulk->Start(context), S_OK);
    ASSERT_TRUE(Finished(recorder));
    EXPECT_EQ(recorder.endStatus, S_OK);
    EXPECT_EQ(recorder.calls, (std::vector<std::wstring>{L"start", L"progress", L"end"}));
    EXPECT_GT(recorder.callCount[L"progress"], 2) << "several result sets";
    for (DWORD thread : recorder.threads) {
        EXPECT_NE(thread, GetCurrentThreadId());
    }
    for (const GUID& reported : recorder.contexts) {
        EXPECT_EQ(reported, context);
    }
    EXPECT_EQ(emulator.Requests(L"usb#bulk", FALSE), 1u) << "one request for 302 objects";
    ASSERT_EQ(recorder.names.size(), 302u) << "children only, not the grandchild";
    for (const auto& id : enumerated) {
        EXPECT_EQ(recorder.names.count(id), 1u);
        EXPECT_EQ(recorder.folders.count(id), 1u);
    }
    EXPECT_EQ(recorder.arrival.size(), 2u * 302u) << "each object's values came in two parts";
    EXPECT_NE(recorder.arrival.front(), enumerated.front()) << "results are not in enumeration order";
    EXPECT_TRUE(recorder.folders[enumerated[0]]);  // DCIM sorts first
    EXPECT_FALSE(recorder.folders[enumerated[2]]);
    EXPECT_EQ(bulk->Start(context), HRESULT_FROM_WIN32(ERROR_NOT_FOUND)) << "an operation runs once";

    // Only folders have the properties-only format.
    BulkRecorder folders;
    ASSERT_EQ(bulk->QueueGetValuesByObjectFormat(WPD_OBJECT_FORMAT_PROPERTIES_ONLY, L"s10001", 1,
                                                 ListingKeys().Get(), &folders, &context),
              S_OK);
    ASSERT_EQ(bulk->Start(context), S_OK);
    ASSERT_TRUE(Finished(folders));
    EXPECT_EQ(folders.names.size(), 2u);
}

// QueueGetValuesByObjectList reads the listed objects; an unknown context cannot be started; a callback that
// answers an error abandons the operation and OnEnd carries that error; a cancelled queued operation never
// runs.
TEST_F(EmulatorBulk, ByListUnknownContextsAbandonAndCancel) {
    Open(PhoneSpec("usb#list", "Acme", "L1"));
    Fill();
    const std::vector<std::wstring> enumerated = Enumerate(content.Get(), L"s10001");
    ComPtr<IPortableDevicePropertiesBulk> bulk;
    ASSERT_EQ(properties.As(&bulk), S_OK);
    ComPtr<IPortableDevicePropVariantCollection> ids;
    ASSERT_EQ(CoCreateInstance(CLSID_PortableDevicePropVariantCollection, nullptr, CLSCTX_INPROC_SERVER,
                               IID_PPV_ARGS(&ids)),
              S_OK);
    for (size_t i : {size_t{5}, size_t{0}}) {
        PROPVARIANT id;
        PropVariantInit(&id);
        id.vt = VT_LPWSTR;
        id.pwszVal = const_cast<LPWSTR>(enumerated[i].c_str());
        ids->Add(&id);  // Add copies the value
    }
    BulkRecorder listed;
    GUID context = GUID_NULL;
    ASSERT_EQ(bulk->QueueGetValuesByObjectList(ids.Get(), ListingKeys().Get(), &listed, &context), S_OK);
    ASSERT_EQ(bulk->Start(context), S_OK);
    ASSERT_TRUE(Finished(listed));
    EXPECT_EQ(listed.endStatus, S_OK);
    EXPECT_EQ(listed.names.size(), 2u);
    EXPECT_EQ(listed.names[enumerated[0]], L"DCIM");

    GUID unknown{};
    CoCreateGuid(&unknown);
    EXPECT_EQ(bulk->Start(unknown), HRESULT_FROM_WIN32(ERROR_NOT_FOUND));

    BulkRecorder refusing;
    refusing.progressAnswer = E_ABORT;
    ASSERT_EQ(bulk->QueueGetValuesByObjectFormat(WPD_OBJECT_FORMAT_ALL, L"s10001", 1, ListingKeys().Get(), &refusing,
                                                 &context),
              S_OK);
    ASSERT_EQ(bulk->Start(context), S_OK);
    ASSERT_TRUE(Finished(refusing));
    EXPECT_EQ(refusing.endStatus, E_ABORT);
    EXPECT_EQ(refusing.callCount[L"progress"], 1) << "nothing after the callback's error";

    BulkRecorder cancelled;
    ASSERT_EQ(bulk->QueueGetValuesByObjectFormat(WPD_OBJECT_FORMAT_ALL, L"s10001", 1, ListingKeys().Get(), &cancelled,
                                                 &context),
              S_OK);
    EXPECT_EQ(bulk->Cancel(context), S_OK);
    EXPECT_EQ(bulk->Start(context), HRESULT_FROM_WIN32(ERROR_NOT_FOUND));
    EXPECT_EQ(cancelled.refs, 1u);
    EXPECT_TRUE(emulator.WaitForEvents(30000));
    EXPECT_TRUE(cancelled.calls.empty());
}

// A device told not to offer bulk operations answers E_NOINTERFACE, as a driver without them does.
TEST_F(EmulatorBulk, DeviceWithoutBulkOperationsAnswersNoInterface) {
    EmulatedDeviceSpec plain = PhoneSpec("usb#plain", "Acme", "P1");
    plain.deviceLines.push_back("bulk_properties = no");
    Open(plain);
    ComPtr<IPortableDevicePropertiesBulk> bulk;
    EXPECT_EQ(properties.As(&bulk), E_NOINTERFACE);
    EXPECT_EQ(bulk, nullptr);
}

// A collection holding one object id, for the calls that take a list of objects.
ComPtr<IPortableDevicePropVariantCollection> IdList(const std::wstring& id) {
    ComPtr<IPortableDevicePropVariantCollection> ids;
    EXPECT_EQ(CoCreateInstance(CLSID_PortableDevicePropVariantCollection, nullptr, CLSCTX_INPROC_SERVER,
                               IID_PPV_ARGS(&ids)),
              S_OK);
    PROPVARIANT value;
    PropVariantInit(&value);
    value.vt = VT_LPWSTR;
    value.pwszVal = const_cast<LPWSTR>(id.c_str());
    ids->Add(&value);  // Add copies the value
    return ids;
}

// Every object obtained through a session stops working when IPortableDevice::Close ends that session: each
// call answers E_WPD_OBJECT_NOT_ATTACHED_TO_DEVICE, reaches neither the device nor its storage, and a read
// or a write under way at the close fails at its next call; the unfinished write leaves nothing behind.
TEST_F(Emulator, ObjectsHostedOnAClosedSessionCeaseToFunction) {
    const std::wstring storage = emulator.StorageDirectory(spec, 0);
    emulator.WriteFile(storage + L"\\a.txt", "0123456789");
    const std::wstring file = Child(L"s10001", L"a.txt");
    ASSERT_FALSE(file.empty());

    // Each object, shown to work before the close.
    ComPtr<IPortableDeviceProperties> properties;
    ASSERT_EQ(content->Properties(&properties), S_OK);
    ComPtr<IPortableDevicePropertiesBulk> bulk;
    ASSERT_EQ(properties.As(&bulk), S_OK);
    BulkRecorder queued;
    GUID context = GUID_NULL;
    ASSERT_EQ(bulk->QueueGetValuesByObjectFormat(WPD_OBJECT_FORMAT_ALL, L"s10001", 1, ListingKeys().Get(), &queued,
                                                 &context),
              S_OK);
    ComPtr<IPortableDeviceResources> resources;
    ASSERT_EQ(content->Transfer(&resources), S_OK);
    ComPtr<IPortableDeviceCapabilities> capabilities;
    ASSERT_EQ(device->Capabilities(&capabilities), S_OK);
    ComPtr<IEnumPortableDeviceObjectIDs> enumerator;
    ASSERT_EQ(content->EnumObjects(0, L"s10001", nullptr, &enumerator), S_OK);
    ComPtr<IStream> reading;
    ASSERT_EQ(resources->GetStream(file.c_str(), WPD_RESOURCE_DEFAULT, STGM_READ, nullptr, &reading), S_OK);
    char buffer[16] = {};
    ULONG read = 0;
    ASSERT_EQ(reading->Read(buffer, 4, &read), S_OK) << "a read under way";
    ComPtr<IStream> writing;
    ASSERT_EQ(content->CreateObjectWithPropertiesAndData(NewFile(L"new.bin", 8).Get(), &writing, nullptr, nullptr),
              S_OK);
    ASSERT_EQ(writing->Write("four", 4, nullptr), S_OK) << "a write under way";

    ASSERT_EQ(device->Close(), S_OK);
    emulator.Requests(L"usb#emu", TRUE);

    ComPtr<IPortableDeviceValues> folder;
    CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&folder));
    folder->SetStringValue(WPD_OBJECT_PARENT_ID, L"s10001");
    folder->SetStringValue(WPD_OBJECT_NAME, L"DCIM");
    folder->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FOLDER);
    const struct {
        const char* call;
        std::function<HRESULT()> make;
    } calls[] = {
        {"IPortableDeviceContent::EnumObjects",
         [&] {
             ComPtr<IEnumPortableDeviceObjectIDs> ids;
             return content->EnumObjects(0, L"s10001", nullptr, &ids);
         }},
        {"IPortableDeviceContent::Properties",
         [&] {
             ComPtr<IPortableDeviceProperties> more;
             return content->Properties(&more);
         }},
        {"IPortableDeviceContent::Transfer",
         [&] {
             ComPtr<IPortableDeviceResources> more;
             return content->Transfer(&more);
         }},
        {"IPortableDeviceContent::CreateObjectWithPropertiesOnly",
         [&] {
             CoTaskString id;
             return content->CreateObjectWithPropertiesOnly(folder.Get(), &id);
         }},
        {"IPortableDeviceContent::CreateObjectWithPropertiesAndData",
         [&] {
             ComPtr<IStream> data;
             return content->CreateObjectWithPropertiesAndData(NewFile(L"other.bin", 1).Get(), &data, nullptr,
                                                               nullptr);
         }},
        {"IPortableDeviceContent::Delete",
         [&] { return content->Delete(PORTABLE_DEVICE_DELETE_NO_RECURSION, IdList(file).Get(), nullptr); }},
        {"IPortableDeviceProperties::GetValues",
         [&] {
             ComPtr<IPortableDeviceValues> values;
             return properties->GetValues(file.c_str(), nullptr, &values);
         }},
        {"IPortableDevicePropertiesBulk::QueueGetValuesByObjectList",
         [&] {
             GUID another = GUID_NULL;
             return bulk->QueueGetValuesByObjectList(IdList(file).Get(), ListingKeys().Get(), &queued, &another);
         }},
        {"IPortableDevicePropertiesBulk::QueueGetValuesByObjectFormat",
         [&] {
             GUID another = GUID_NULL;
             return bulk->QueueGetValuesByObjectFormat(WPD_OBJECT_FORMAT_ALL, L"s10001", 1, ListingKeys().Get(),
                                                       &queued, &another);
         }},
        {"IPortableDevicePropertiesBulk::Start", [&] { return bulk->Start(context); }},
        {"IPortableDeviceResources::GetStream",
         [&] {
             ComPtr<IStream> another;
             return resources->GetStream(file.c_str(), WPD_RESOURCE_DEFAULT, STGM_READ, nullptr, &another);
         }},
        {"IPortableDeviceCapabilities::GetFunctionalCategories",
         [&] {
             ComPtr<IPortableDevicePropVariantCollection> categories;
             return capabilities->GetFunctionalCategories(&categories);
         }},
        {"IPortableDeviceCapabilities::GetFunctionalObjects",
         [&] {
             ComPtr<IPortableDevicePropVariantCollection> objects;
             return capabilities->GetFunctionalObjects(WPD_FUNCTIONAL_CATEGORY_STORAGE, &objects);
         }},
        {"IEnumPortableDeviceObjectIDs::Next",
         [&] {
             LPWSTR id = nullptr;
             ULONG fetched = 0;
             const HRESULT hr = enumerator->Next(1, &id, &fetched);
             CoTaskMemFree(id);
             return hr;
         }},
        {"IEnumPortableDeviceObjectIDs::Skip", [&] { return enumerator->Skip(1); }},
        {"IEnumPortableDeviceObjectIDs::Reset", [&] { return enumerator->Reset(); }},
        {"IEnumPortableDeviceObjectIDs::Cancel", [&] { return enumerator->Cancel(); }},
        {"IPortableDeviceContent::Cancel", [&] { return content->Cancel(); }},
        {"IPortableDeviceProperties::Cancel", [&] { return properties->Cancel(); }},
        {"IPortableDevicePropertiesBulk::Cancel", [&] { return bulk->Cancel(context); }},
        {"IPortableDeviceResources::Cancel", [&] { return resources->Cancel(); }},
        {"IPortableDeviceCapabilities::Cancel", [&] { return capabilities->Cancel(); }},
        {"read stream IStream::Read", [&] { return reading->Read(buffer, sizeof buffer, &read); }},
        {"read stream IStream::Seek",
         [&] {
             LARGE_INTEGER start{};
             return reading->Seek(start, STREAM_SEEK_SET, nullptr);
         }},
        {"read stream IStream::Stat",
         [&] {
             STATSTG stat{};
             return reading->Stat(&stat, STATFLAG_NONAME);
         }},
        {"read stream IPortableDeviceDataStream::GetObjectID",
         [&] {
             ComPtr<IPortableDeviceDataStream> data;
             CoTaskString id;
             return SUCCEEDED(reading.As(&data)) ? data->GetObjectID(&id) : E_NOINTERFACE;
         }},
        {"write stream IStream::Write", [&] { return writing->Write("four", 4, nullptr); }},
        {"write stream IStream::Commit", [&] { return writing->Commit(STGC_DEFAULT); }},
        {"write stream IStream::Revert", [&] { return writing->Revert(); }},
    };
    for (const auto& c : calls) {
        EXPECT_EQ(c.make(), E_WPD_OBJECT_NOT_ATTACHED_TO_DEVICE) << c.call;
    }
    EXPECT_EQ(emulator.Requests(L"usb#emu", FALSE), 0u) << "no refused call reached the device";
    EXPECT_EQ(FilesIn(storage), std::vector<std::wstring>{L"a.txt"})
        << "nothing deleted or created, nothing left of the unfinished write";
    ASSERT_TRUE(emulator.WaitForEvents(5000));
    EXPECT_TRUE(queued.calls.empty()) << "the queued operation never ran";
    bulk.Reset();
    properties.Reset();
    EXPECT_EQ(queued.refs, 1u) << "the stack let go of the callback";
}

// Close ends only its own session: another session of the same device keeps its objects working; Open on the
// closed IPortableDevice starts a new session whose objects work while those of the old one stay dead.
TEST_F(Emulator, CloseEndsOnlyItsOwnSessionAndReopeningStartsANewOne) {
    emulator.WriteFile(emulator.StorageDirectory(spec, 0) + L"\\a.txt", "a");
    const std::wstring file = Child(L"s10001", L"a.txt");
    ASSERT_FALSE(file.empty());
    ComPtr<IPortableDeviceValues> client;
    ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&client)),
              S_OK);
    ComPtr<IPortableDevice> other;
    ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceFTM, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&other)), S_OK);
    ASSERT_EQ(other->Open(L"usb#emu", client.Get()), S_OK);
    ComPtr<IPortableDeviceContent> otherContent;
    ASSERT_EQ(other->Content(&otherContent), S_OK);
    ComPtr<IPortableDeviceProperties> otherProperties;
    ASSERT_EQ(otherContent->Properties(&otherProperties), S_OK);
    ComPtr<IPortableDeviceProperties> oldProperties;
    ASSERT_EQ(content->Properties(&oldProperties), S_OK);

    ASSERT_EQ(device->Close(), S_OK);
    EXPECT_EQ(Enumerate(otherContent.Get(), L"s10001"), std::vector<std::wstring>{file}) << "the other session";
    ComPtr<IPortableDeviceValues> values;
    EXPECT_EQ(otherProperties->GetValues(file.c_str(), nullptr, &values), S_OK) << "the other session";

    ASSERT_EQ(device->Open(L"usb#emu", client.Get()), S_OK);
    ComPtr<IPortableDeviceContent> reopened;
    ASSERT_EQ(device->Content(&reopened), S_OK);
    EXPECT_EQ(Enumerate(reopened.Get(), L"s10001"), std::vector<std::wstring>{file}) << "the new session";
    ComPtr<IEnumPortableDeviceObjectIDs> ids;
    EXPECT_EQ(content->EnumObjects(0, L"s10001", nullptr, &ids), E_WPD_OBJECT_NOT_ATTACHED_TO_DEVICE)
        << "the old session's content stays dead";
    EXPECT_EQ(oldProperties->GetValues(file.c_str(), nullptr, &values), E_WPD_OBJECT_NOT_ATTACHED_TO_DEVICE)
        << "the old session's properties stay dead";

    ASSERT_EQ(other->Close(), S_OK);
    EXPECT_EQ(otherProperties->GetValues(file.c_str(), nullptr, &values), E_WPD_OBJECT_NOT_ATTACHED_TO_DEVICE);
    EXPECT_EQ(Enumerate(reopened.Get(), L"s10001"), std::vector<std::wstring>{file})
        << "the reopened session outlives the other's close";
}

// The client information of an Open: nothing, or only WPD_CLIENT_DESIRED_ACCESS.
ComPtr<IPortableDeviceValues> ClientAsking(const ULONG* access) {
    ComPtr<IPortableDeviceValues> client;
    EXPECT_EQ(CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&client)), S_OK);
    if (access != nullptr) {
        client->SetUnsignedIntegerValue(WPD_CLIENT_DESIRED_ACCESS, *access);
    }
    return client;
}

// Under a policy that denies writing, an Open that asks for write access (as one that does not say does) is
// refused and opens nothing; one for GENERIC_READ opens. A session without write access, on that device or
// on any other, refuses every call that would change content with E_ACCESSDENIED before it reaches the
// device, and reads as usual.
TEST_F(Emulator, WriteAccessIsRefusedUnderAPolicyAndAReadOnlySessionChangesNothing) {
    EmulatedDeviceSpec locked = PhoneSpec("usb#locked", "Acme", "L1");
    locked.deviceLines = {"write_access = denied"};
    emulator.Attach(locked);
    const ULONG readWrite = GENERIC_READ | GENERIC_WRITE, write = GENERIC_WRITE, all = GENERIC_ALL, read = GENERIC_READ;
    const struct {
        const char* what;
        const ULONG* access;
        HRESULT locked;
    } opens[] = {
        {"no desired access", nullptr, E_ACCESSDENIED},
        {"GENERIC_READ | GENERIC_WRITE", &readWrite, E_ACCESSDENIED},
        {"GENERIC_WRITE", &write, E_ACCESSDENIED},
        {"GENERIC_ALL", &all, E_ACCESSDENIED},
        {"GENERIC_READ", &read, S_OK},
    };
    for (const auto& open : opens) {
        ComPtr<IPortableDevice> session;
        ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceFTM, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&session)), S_OK);
        EXPECT_EQ(session->Open(L"usb#locked", ClientAsking(open.access).Get()), open.locked) << open.what;
        EXPECT_EQ(emulator.OpenSessions(L"usb#locked"), SUCCEEDED(open.locked) ? 1 : 0) << open.what;
        ComPtr<IPortableDevice> unlocked;
        ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceFTM, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&unlocked)), S_OK);
        EXPECT_EQ(unlocked->Open(L"usb#emu", ClientAsking(open.access).Get()), S_OK) << open.what << " without the policy";
    }
    wchar_t client[128] = {};
    emulator.LastClient(L"usb#locked", client, 128);
    EXPECT_STREQ(client, L";access=2147483648");

    for (const EmulatedDeviceSpec* each : {&locked, &spec}) {
        SCOPED_TRACE(each->id);
        const std::wstring deviceId = Wide(each->id);
        const std::wstring storage = emulator.StorageDirectory(*each, 0);
        emulator.WriteFile(storage + L"\\a.txt", "0123456789");
        CreateDirectoryW((storage + L"\\DCIM").c_str(), nullptr);
        ComPtr<IPortableDevice> session;
        ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceFTM, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&session)), S_OK);
        ASSERT_EQ(session->Open(deviceId.c_str(), ClientAsking(&read).Get()), S_OK);
        RecordingCallback callback;
        CoTaskString cookie;
        ASSERT_EQ(session->Advise(0, &callback, nullptr, &cookie), S_OK);
        ComPtr<IPortableDeviceContent> reading;
        ASSERT_EQ(session->Content(&reading), S_OK);
        ComPtr<IPortableDeviceProperties> properties;
        ASSERT_EQ(reading->Properties(&properties), S_OK);
        ComPtr<IPortableDevicePropertiesBulk> bulk;
        ASSERT_EQ(properties.As(&bulk), S_OK);
        ComPtr<IPortableDeviceResources> resources;
        ASSERT_EQ(reading->Transfer(&resources), S_OK);
        std::wstring file, folder;
        for (const auto& child : Enumerate(reading.Get(), L"s10001")) {
            ComPtr<IPortableDeviceValues> values;
            ASSERT_EQ(properties->GetValues(child.c_str(), nullptr, &values), S_OK);
            CoTaskString name;
            values->GetStringValue(WPD_OBJECT_NAME, &name);
            (wcscmp(name.Get(), L"DCIM") == 0 ? folder : file) = child;
        }
        ASSERT_FALSE(file.empty());
        ASSERT_FALSE(folder.empty());
        ComPtr<IStream> stream;
        ASSERT_EQ(resources->GetStream(file.c_str(), WPD_RESOURCE_DEFAULT, STGM_READ, nullptr, &stream), S_OK);
        char buffer[16] = {};
        ULONG got = 0;
        EXPECT_EQ(stream->Read(buffer, 10, &got), S_OK);
        EXPECT_EQ(std::string(buffer, got), "0123456789");
        emulator.Requests(deviceId.c_str(), TRUE);

        ComPtr<IPortableDeviceValues> newFolder;
        CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&newFolder));
        newFolder->SetStringValue(WPD_OBJECT_PARENT_ID, L"s10001");
        newFolder->SetStringValue(WPD_OBJECT_NAME, L"New");
        newFolder->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FOLDER);
        ComPtr<IPortableDeviceValues> renamed;
        CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&renamed));
        renamed->SetStringValue(WPD_OBJECT_NAME, L"b.txt");
        BulkRecorder setter;
        const struct {
            const char* call;  // as the stand-in counts it
            std::function<HRESULT()> make;
        } writes[] = {
            {"CreateObjectWithPropertiesOnly",
             [&] {
                 CoTaskString id;
                 return reading->CreateObjectWithPropertiesOnly(newFolder.Get(), &id);
             }},
            {"CreateObjectWithPropertiesAndData",
             [&] {
                 ComPtr<IStream> data;
                 return reading->CreateObjectWithPropertiesAndData(NewFile(L"new.bin", 1).Get(), &data, nullptr, nullptr);
             }},
            {"Delete", [&] { return reading->Delete(PORTABLE_DEVICE_DELETE_WITH_RECURSION, IdList(file).Get(), nullptr); }},
            {"Move", [&] { return reading->Move(IdList(file).Get(), folder.c_str(), nullptr); }},
            {"Copy", [&] { return reading->Copy(IdList(file).Get(), folder.c_str(), nullptr); }},
            {"SetValues",
             [&] {
                 ComPtr<IPortableDeviceValues> results;
                 return properties->SetValues(file.c_str(), renamed.Get(), &results);
             }},
            {"DeleteProperties", [&] { return properties->Delete(file.c_str(), ListingKeys().Get()); }},
            {"QueueSetValuesByObjectList",
             [&] {
                 GUID context = GUID_NULL;
                 return bulk->QueueSetValuesByObjectList(nullptr, &setter, &context);
             }},
            {"DeleteResources", [&] { return resources->Delete(file.c_str(), ListingKeys().Get()); }},
            {"CreateResource",
             [&] {
                 ComPtr<IStream> data;
                 DWORD size = 0;
                 CoTaskString cookie;
                 return resources->CreateResource(NewFile(L"a.txt", 1).Get(), &data, &size, &cookie);
             }},
        };
        for (const auto& write : writes) {
            EXPECT_EQ(write.make(), E_ACCESSDENIED) << write.call;
            EXPECT_EQ(emulator.CallCount(deviceId.c_str(), write.call), 1u) << write.call;
        }
        EXPECT_EQ(emulator.Requests(deviceId.c_str(), FALSE), 0u) << "no refused call reached the device";
        std::vector<std::wstring> files = FilesIn(storage);
        std::sort(files.begin(), files.end());
        EXPECT_EQ(files, (std::vector<std::wstring>{L"DCIM", L"a.txt"})) << "nothing created, deleted or left behind";
        EXPECT_EQ(FilesIn(storage + L"\\DCIM"), std::vector<std::wstring>{});
        EXPECT_EQ(ReadAll(storage + L"\\a.txt"), "0123456789");
        ASSERT_TRUE(emulator.WaitForEvents(5000));
        {
            std::lock_guard<std::mutex> guard(callback.lock);
            EXPECT_TRUE(callback.events.empty());
        }
        EXPECT_TRUE(setter.calls.empty());
        EXPECT_EQ(session->Unadvise(cookie.Get()), S_OK);
    }
}

// A bulk callback that holds its first result set until the test lets it go.
class HeldBulkRecorder : public BulkRecorder {
public:
    HeldBulkRecorder()
        : reached(CreateEventW(nullptr, TRUE, FALSE, nullptr)), resume(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
    ~HeldBulkRecorder() {
        CloseHandle(reached);
        CloseHandle(resume);
    }
    HRESULT STDMETHODCALLTYPE OnProgress(REFGUID context, IPortableDeviceValuesCollection* results) override {
        SetEvent(reached);
        WaitForSingleObject(resume, 30000);
        return BulkRecorder::OnProgress(context, results);
    }
    HANDLE reached;
    HANDLE resume;
};

// A bulk operation running when its session closes ends with OnEnd and the session's error; no result set
// follows the close.
TEST_F(EmulatorBulk, AnOperationRunningWhenItsSessionClosesEndsWithItsError) {
    Open(PhoneSpec("usb#closing", "Acme", "C1"));
    Fill();
    ComPtr<IPortableDevicePropertiesBulk> bulk;
    ASSERT_EQ(properties.As(&bulk), S_OK);
    HeldBulkRecorder recorder;
    GUID context = GUID_NULL;
    ASSERT_EQ(bulk->QueueGetValuesByObjectFormat(WPD_OBJECT_FORMAT_ALL, L"s10001", 1, ListingKeys().Get(), &recorder,
                                                 &context),
              S_OK);
    ASSERT_EQ(bulk->Start(context), S_OK);
    const DWORD reached = WaitForSingleObject(recorder.reached, 30000);
    ASSERT_EQ(device->Close(), S_OK);
    SetEvent(recorder.resume);
    ASSERT_EQ(reached, WAIT_OBJECT_0) << "the operation reported its first result set";
    ASSERT_TRUE(Finished(recorder));
    EXPECT_EQ(recorder.endStatus, E_WPD_OBJECT_NOT_ATTACHED_TO_DEVICE);
    EXPECT_EQ(recorder.callCount[L"progress"], 1) << "nothing after the close; 302 objects make six result sets";
    EXPECT_EQ(recorder.calls, (std::vector<std::wstring>{L"start", L"progress", L"end"}));
}

TEST(EmulatorDescriptions, BrokenFilesAreReportedNotLoaded) {
    WpdEmulator emulator;
    emulator.WriteFile(emulator.Directory() + L"\\broken.wpd", "[device]\nmanufacturer = nobody\n");
    EXPECT_EQ(emulator.Rescan(), 0u);
    EXPECT_NE(emulator.Errors().find(L"broken.wpd: the description has no device id"), std::wstring::npos);
}

}  // namespace
