// The provider as management software sees it: loaded by the emulated WMI service, answering through
// IWbemServices, publishing devices that arrive, raising content events and reporting method failures.
#include <gtest/gtest.h>

#include <comdef.h>
#include <dbt.h>
#include <wbemcli.h>
#include <wbemprov.h>
#include <wrl/client.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "common/com_memory.h"
#include "device/portable_device_api.h"
#include "support/test_files.h"
#include "support/system_text.h"
#include "support/wait_until.h"
#include "support/wmi_calls.h"
#include "support/wpd_emulator.h"
#include "wmi/schema.h"

using Microsoft::WRL::ComPtr;

namespace {

WpdEmulator* g_emulator = nullptr;
EmulatedDeviceSpec g_attached;  // the device present from the start, with storages Phone and Card
std::wstring g_faultyPhone;     // the storage directory of a device that fails commits and deletes

class Environment : public testing::Environment {
public:
    void SetUp() override {
        Register(L"dorwex_wpd_provider.dll");
        Register(L"dorwex_wmi_emulator.dll");
        g_emulator = new WpdEmulator();
        // Attached before the provider starts: added by its start-up.
        g_attached = PhoneSpec("usb#vid_04e8&pid_6860#attached", "SAMSUNG Electronics", "ATT1", 2);
        g_emulator->Attach(g_attached);
        // A device that refuses to commit uploads and to delete anything.
        EmulatedDeviceSpec faulty = PhoneSpec("usb#vid_04e8&pid_6860#faulty", "SAMSUNG Electronics", "FLT1");
        faulty.faultLines = {"Write = 0x8007001F x 1", "Commit = 0x8007001F", "Delete = 0x80070005"};
        g_emulator->Attach(faulty);
        g_faultyPhone = g_emulator->StorageDirectory(faulty, 0);
    }
    void TearDown() override {
        delete g_emulator;
        g_emulator = nullptr;
    }
};
const auto* const g_environment = testing::AddGlobalTestEnvironment(new Environment);

std::wstring Upper(std::wstring text) {
    for (auto& c : text) {
        c = towupper(c);
    }
    return text;
}

TEST(WmiEndToEnd, AttachedDeviceIsAnInstanceWithItsProperties) {
    auto services = Connect();
    ASSERT_TRUE(services);
    EXPECT_EQ(Query(services.Get(), L"SELECT * FROM Win32ext_WPD").size(), 2u);
    const auto devices = Query(services.Get(), L"SELECT * FROM Win32ext_WPD WHERE strSerialNumber = 'att1'");
    ASSERT_EQ(devices.size(), 1u);
    IWbemClassObject* device = devices[0].Get();
    SAFEARRAY* names = nullptr;
    ASSERT_EQ(device->GetNames(nullptr, WBEM_FLAG_NONSYSTEM_ONLY, nullptr, &names), S_OK);
    EXPECT_EQ(names->rgsabound[0].cElements, 25u);
    SafeArrayDestroy(names);
    // With the ten system properties, as WMI gives them; the path names the instance by its key.
    ASSERT_EQ(device->GetNames(nullptr, 0, nullptr, &names), S_OK);
    EXPECT_EQ(names->rgsabound[0].cElements, 35u);
    SafeArrayDestroy(names);
    EXPECT_EQ(Text(device, L"__RELPATH"), L"Win32ext_WPD.strId=\"USB#VID_04E8&PID_6860#ATTACHED\"");
    EXPECT_EQ(Text(device, L"__PATH").rfind(L"\\\\", 0), 0u);

    EXPECT_EQ(Text(device, L"strId"), L"USB#VID_04E8&PID_6860#ATTACHED");
    EXPECT_EQ(Text(device, L"strManufacturer"), L"SAMSUNG Electronics");
    EXPECT_EQ(Text(device, L"strDisk1Name"), L"Phone");
    EXPECT_EQ(Text(device, L"strDisk2Name"), L"Card");
    EXPECT_EQ(Text(device, L"strDisk1PersistentUniqueId"), L"{PUID-ATT1-1}");
    _variant_t storage;
    device->Get(L"bool_WPD_FUNCTIONAL_CATEGORY_STORAGE", 0, &storage, nullptr, nullptr);
    EXPECT_EQ(storage.vt, VT_BOOL);
    EXPECT_EQ(storage.boolVal, VARIANT_TRUE);
    _variant_t sms;
    device->Get(L"bool_WPD_FUNCTIONAL_CATEGORY_SMS", 0, &sms, nullptr, nullptr);
    EXPECT_EQ(sms.boolVal, VARIANT_FALSE);

    // A query naming its properties returns instances holding only those; without the key there is no path.
    const auto named = Query(services.Get(), L"SELECT strFriendlyName, strSerialNumber FROM Win32ext_WPD "
                                             L"WHERE strSerialNumber = 'att1'");
    ASSERT_EQ(named.size(), 1u);
    ASSERT_EQ(named[0]->GetNames(nullptr, WBEM_FLAG_NONSYSTEM_ONLY, nullptr, &names), S_OK);
    EXPECT_EQ(names->rgsabound[0].cElements, 2u);
    SafeArrayDestroy(names);
    EXPECT_EQ(Text(named[0].Get(), L"strSerialNumber"), L"ATT1");
    _variant_t relpath;
    EXPECT_EQ(named[0]->Get(L"__RELPATH", 0, &relpath, nullptr, nullptr), S_OK);
    EXPECT_EQ(relpath.vt, VT_NULL);
    EXPECT_EQ(named[0]->Get(L"strManufacturer", 0, nullptr, nullptr, nullptr), WBEM_E_NOT_FOUND);
    ComPtr<IEnumWbemClassObject> enumerator;
    EXPECT_EQ(services->ExecQuery(_bstr_t(L"WQL"), _bstr_t(L"SELECT strNoSuchProperty FROM Win32ext_WPD"), 0,
                                  nullptr, &enumerator),
              WBEM_E_INVALID_QUERY);
}

// Count what an enumerator still hands out.
size_t Remaining(IEnumWbemClassObject* enumerator) {
    size_t count = 0;
    IWbemClassObject* object = nullptr;
    ULONG returned = 0;
    while (enumerator->Next(WBEM_INFINITE, 1, &object, &returned) == S_OK && returned == 1) {
        object->Release();
        ++count;
    }
    return count;
}

TEST(WmiEndToEnd, QueryResultsRewindUnlessForwardOnly) {
    auto services = Connect();
    ASSERT_TRUE(services);
    const _bstr_t wql(L"SELECT * FROM Win32ext_WPD");
    ComPtr<IEnumWbemClassObject> rewindable;
    ASSERT_EQ(services->ExecQuery(_bstr_t(L"WQL"), wql, WBEM_FLAG_RETURN_IMMEDIATELY, nullptr, &rewindable), S_OK);
    IWbemClassObject* first = nullptr;
    ULONG returned = 0;
    ASSERT_EQ(rewindable->Next(WBEM_INFINITE, 1, &first, &returned), S_OK);
    first->Release();
    ComPtr<IEnumWbemClassObject> clone;
    ASSERT_EQ(rewindable->Clone(&clone), S_OK);
    EXPECT_EQ(Remaining(clone.Get()), 1u);  // the clone goes on from where the original stood
    EXPECT_EQ(Remaining(rewindable.Get()), 1u);
    EXPECT_EQ(rewindable->Reset(), S_OK);
    EXPECT_EQ(Remaining(rewindable.Get()), 2u);

    ComPtr<IEnumWbemClassObject> forwardOnly;
    ASSERT_EQ(services->ExecQuery(_bstr_t(L"WQL"), wql, WBEM_FLAG_FORWARD_ONLY, nullptr, &forwardOnly), S_OK);
    EXPECT_EQ(Remaining(forwardOnly.Get()), 2u);
    EXPECT_EQ(forwardOnly->Reset(), WBEM_E_INVALID_OPERATION);
    EXPECT_EQ(forwardOnly->Clone(&clone), WBEM_E_INVALID_OPERATION);
}

TEST(WmiEndToEnd, ArrivalPublishesTheDeviceAndRemovalDeletesIt) {
    auto services = Connect();
    const std::wstring query = L"SELECT * FROM Win32ext_WPD WHERE strSerialNumber = 'ARR1'";
    // The provider is running before the device is plugged in (the first query loads it).
    EXPECT_TRUE(Query(services.Get(), query).empty());
    const std::string id = "\\\\?\\usb#vid_0421&pid_0661#arrived#{6ac27878-a6fa-4155-ba85-f98f491d4f33}";
    EmulatedDeviceSpec spec = PhoneSpec(id, "NOKIA", "ARR1");
    g_emulator->Attach(spec);

    Notify(DBT_DEVICEARRIVAL, Wide(id));
    ASSERT_TRUE(WaitUntil([&] { return Query(services.Get(), query).size() == 1; }));
    const auto device = Query(services.Get(), query).front();
    EXPECT_EQ(Text(device.Get(), L"strId"), Upper(Wide(id)));
    EXPECT_EQ(Text(device.Get(), L"strFriendlyName"), Wide(spec.friendlyName));
    EXPECT_EQ(g_emulator->OpenSessions(Wide(id).c_str()), 1);

    Notify(DBT_DEVICEREMOVECOMPLETE, Wide(id));
    ASSERT_TRUE(WaitUntil([&] { return Query(services.Get(), query).empty(); }));
    EXPECT_TRUE(WaitUntil([&] { return g_emulator->OpenSessions(Wide(id).c_str()) == 0; }));
}

// A second phone plugged in while the first is still being taken on: both are published. The first one
// answers each request slowly, so the second's notification comes while the first's is handled.
TEST(WmiEndToEnd, ArrivalWhileAnotherIsHandledIsPublishedToo) {
    auto services = Connect();
    Query(services.Get(), L"SELECT * FROM Win32ext_WPD");  // the provider runs before the devices come
    const std::string slowId = "\\\\?\\usb#vid_0421&pid_0661#slowone#{6ac27878-a6fa-4155-ba85-f98f491d4f33}";
    const std::string nextId = "\\\\?\\usb#vid_0421&pid_0661#nextone#{6ac27878-a6fa-4155-ba85-f98f491d4f33}";
    EmulatedDeviceSpec slow = PhoneSpec(slowId, "NOKIA", "SLOW1");
    slow.deviceLines.push_back("latency_us = 200000");
    const EmulatedDeviceSpec next = PhoneSpec(nextId, "NOKIA", "NEXT1");
    g_emulator->Attach(slow);
    g_emulator->Attach(next);

    Notify(DBT_DEVICEARRIVAL, Wide(slowId));
    Notify(DBT_DEVICEARRIVAL, Wide(nextId));
    const auto published = [&](const wchar_t* serial) {
        return Query(services.Get(), std::wstring(L"SELECT * FROM Win32ext_WPD WHERE strSerialNumber = '") + serial +
                                         L"'").size() == 1;
    };
    EXPECT_TRUE(WaitUntil([&] { return published(L"SLOW1"); }, 30000));
    EXPECT_TRUE(WaitUntil([&] { return published(L"NEXT1"); }, 30000)) << "the second arrival was lost";

    Notify(DBT_DEVICEREMOVECOMPLETE, Wide(slowId));
    Notify(DBT_DEVICEREMOVECOMPLETE, Wide(nextId));
    EXPECT_TRUE(WaitUntil([&] { return !published(L"SLOW1") && !published(L"NEXT1"); }, 30000));
    g_emulator->Detach(slow);
    g_emulator->Detach(next);
}

TEST(WmiEndToEnd, ClientPutWithoutTheTokenIsRefused) {
    auto services = Connect();
    ComPtr<IWbemClassObject> wpdClass;
    ASSERT_EQ(services->GetObject(_bstr_t(L"Win32ext_WPD"), 0, nullptr, &wpdClass, nullptr), S_OK);
    ComPtr<IWbemClassObject> instance;
    ASSERT_EQ(wpdClass->SpawnInstance(0, &instance), S_OK);
    _variant_t id(L"usb#vid_04e8&pid_6860#attached");
    instance->Put(L"strId", 0, &id, 0);
    EXPECT_EQ(services->PutInstance(instance.Get(), 0, nullptr, nullptr), E_ACCESSDENIED);

    ComPtr<IWbemContext> context;
    ASSERT_EQ(CoCreateInstance(CLSID_WbemContext, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&context)), S_OK);
    _variant_t wrong(L"73lun!QBX#ZPT");
    context->SetValue(L"dorWEXWPDProp", 0, &wrong);
    EXPECT_EQ(services->PutInstance(instance.Get(), 0, context.Get(), nullptr), E_ACCESSDENIED);

    _variant_t nonWpd(L"73lun!QBX#NONZPT^");
    context->SetValue(L"dorWEXWPDProp", 0, &nonWpd);
    EXPECT_EQ(services->PutInstance(instance.Get(), 0, context.Get(), nullptr), S_OK) << "accepted, nothing added";

    _variant_t internal(L"_internal");
    instance->Put(L"strId", 0, &internal, 0);
    EXPECT_EQ(services->PutInstance(instance.Get(), 0, nullptr, nullptr), S_OK);
    EXPECT_EQ(Query(services.Get(), L"SELECT * FROM Win32ext_WPD").size(), 2u) << "only the attached devices";

    // A delete needs no token but must name a device the provider has.
    EXPECT_EQ(services->DeleteInstance(_bstr_t(L"Win32ext_WPD.strId=\"usb#nobody\""), 0, nullptr, nullptr), E_FAIL);
}

TEST(WmiEndToEnd, AddedObjectReachesASubscribedConsumer) {
    auto services = Connect();
    ComPtr<IEnumWbemClassObject> events;
    ASSERT_EQ(services->ExecNotificationQuery(_bstr_t(L"WQL"), _bstr_t(L"SELECT * FROM Win32ext_WPDEvent"),
                                              WBEM_FLAG_RETURN_IMMEDIATELY | WBEM_FLAG_FORWARD_ONLY, nullptr, &events),
              S_OK);

    // Another client writes a file onto the device.
    ComPtr<IPortableDevice> device;
    ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceFTM, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&device)), S_OK);
    ComPtr<IPortableDeviceValues> client;
    CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&client));
    ASSERT_EQ(device->Open(L"usb#vid_04e8&pid_6860#attached", client.Get()), S_OK);
    ComPtr<IPortableDeviceContent> content;
    device->Content(&content);
    ComPtr<IPortableDeviceValues> file;
    CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&file));
    file->SetStringValue(WPD_OBJECT_PARENT_ID, L"s10001");
    file->SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, L"photo.jpg");
    file->SetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, 4);
    ComPtr<IStream> data;
    ASSERT_EQ(content->CreateObjectWithPropertiesAndData(file.Get(), &data, nullptr, nullptr), S_OK);
    data->Write("jpeg", 4, nullptr);
    ASSERT_EQ(data->Commit(0), S_OK);

    IWbemClassObject* event = nullptr;
    ULONG returned = 0;
    ASSERT_EQ(events->Next(10000, 1, &event, &returned), S_OK);
    ASSERT_EQ(returned, 1u);
    ComPtr<IWbemClassObject> received(event);
    event->Release();
    EXPECT_EQ(Text(event, L"strEventId"), L"WPD_EVENT_OBJECT_ADDED");
    EXPECT_EQ(Text(event, L"strObjectName"), L"photo.jpg");
    EXPECT_EQ(Text(event, L"strOriginalFileName"), L"photo.jpg");
    EXPECT_EQ(Text(event, L"strObjectParentId"), L"s10001");
    EXPECT_EQ(Text(event, L"strObjectDeviceId"), L"usb#vid_04e8&pid_6860#attached");
    EXPECT_EQ(Text(event, L"strPID"), L"") << "every property holds a string";
    const std::wstring objectId = Text(event, L"strObjectId");
    EXPECT_EQ(Text(event, L"strEventText"),
              L"Object Id: " + objectId +
                  L" Object Name: photo.jpg Original File Name: photo.jpg Parent Id: s10001 Event: "
                  L"WPD_EVENT_OBJECT_ADDED ContentType: {0085E0A6-8D34-45D7-BC5C-447E59C73D48}Object Persistent "
                  L"Unique Id: {PUID-ATT1-1}\\photo.jpg");

    EXPECT_EQ(Text(event, L"strTargetPath"), L"Phone") << "the folder the object is in, as a storage path";
    EXPECT_EQ(Text(event, L"strSourcePath"), L"{0085E0A6-8D34-45D7-BC5C-447E59C73D48}") << "the content type";
    EXPECT_EQ(Text(event, L"strDeviceName"), L"") << "the device's id is in strObjectDeviceId alone";

    // Names in any script arrive as they are.
    const std::wstring unicode = L"\u0444\u043e\u0442\u043e \u5199\u771f \U0001F600.jpg";
    ComPtr<IPortableDeviceValues> second;
    CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&second));
    second->SetStringValue(WPD_OBJECT_PARENT_ID, L"s10001");
    second->SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, unicode.c_str());
    second->SetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, 0);
    ComPtr<IStream> secondData;
    ASSERT_EQ(content->CreateObjectWithPropertiesAndData(second.Get(), &secondData, nullptr, nullptr), S_OK);
    ASSERT_EQ(secondData->Commit(0), S_OK);
    ASSERT_EQ(events->Next(10000, 1, &event, &returned), S_OK);
    ComPtr<IWbemClassObject> unicodeEvent(event);
    event->Release();
    EXPECT_EQ(Text(event, L"strObjectName"), unicode);
    EXPECT_NE(Text(event, L"strEventText").find(L"Original File Name: " + unicode), std::wstring::npos);
    const std::wstring unicodeId = Text(event, L"strObjectId");

    // Before Windows 10 1709 only additions are raised: the removal is suppressed.
    ComPtr<IPortableDevicePropVariantCollection> ids;
    CoCreateInstance(CLSID_PortableDevicePropVariantCollection, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&ids));
    PROPVARIANT idValue;
    PropVariantInit(&idValue);
    idValue.vt = VT_LPWSTR;
    idValue.pwszVal = const_cast<LPWSTR>(objectId.c_str());
    ids->Add(&idValue);
    idValue.pwszVal = const_cast<LPWSTR>(unicodeId.c_str());
    ids->Add(&idValue);
    ASSERT_EQ(content->Delete(PORTABLE_DEVICE_DELETE_NO_RECURSION, ids.Get(), nullptr), S_OK);
    ASSERT_TRUE(g_emulator->WaitForEvents(5000));
    EXPECT_EQ(events->Next(500, 1, &event, &returned), WBEM_S_TIMEDOUT);
    EXPECT_EQ(services->CancelAsyncCall(nullptr), WBEM_E_NOT_FOUND);
    device->Close();
}

// Scripting clients decide how to call a method from its qualifiers, and find the key the same way.
TEST(WmiEndToEnd, QualifiersComeFromTheSchema) {
    auto services = Connect();
    ComPtr<IWbemClassObject> wpdClass;
    ASSERT_EQ(services->GetObject(_bstr_t(L"Win32ext_WPD"), 0, nullptr, &wpdClass, nullptr), S_OK);
    const auto flag = [](IWbemQualifierSet* set, const wchar_t* name) {
        _variant_t value;
        const HRESULT hr = set->Get(name, 0, &value, nullptr);
        return SUCCEEDED(hr) && value.vt == VT_BOOL && value.boolVal == VARIANT_TRUE;
    };
    ComPtr<IWbemQualifierSet> method;
    ASSERT_EQ(wpdClass->GetMethodQualifierSet(L"EjectDevice", &method), S_OK);
    EXPECT_TRUE(flag(method.Get(), L"Static"));
    EXPECT_TRUE(flag(method.Get(), L"implemented"));
    EXPECT_EQ(method->Get(L"key", 0, nullptr, nullptr), WBEM_E_NOT_FOUND);
    ComPtr<IWbemQualifierSet> none;
    EXPECT_EQ(wpdClass->GetMethodQualifierSet(L"NoSuchMethod", &none), WBEM_E_NOT_FOUND);
    EXPECT_FALSE(none);

    ComPtr<IWbemQualifierSet> key;
    ASSERT_EQ(wpdClass->GetPropertyQualifierSet(L"strId", &key), S_OK);
    EXPECT_TRUE(flag(key.Get(), L"key"));
    _variant_t cimType;
    ASSERT_EQ(key->Get(L"CIMTYPE", 0, &cimType, nullptr), S_OK);
    EXPECT_EQ(std::wstring(cimType.bstrVal), L"string");
    ComPtr<IWbemQualifierSet> plain;
    ASSERT_EQ(wpdClass->GetPropertyQualifierSet(L"strFriendlyName", &plain), S_OK);
    EXPECT_FALSE(flag(plain.Get(), L"key"));

    ComPtr<IWbemQualifierSet> classSet;
    ASSERT_EQ(wpdClass->GetQualifierSet(&classSet), S_OK);
    EXPECT_TRUE(flag(classSet.Get(), L"dynamic"));
    _variant_t provider;
    ASSERT_EQ(classSet->Get(L"provider", 0, &provider, nullptr), S_OK);
    EXPECT_EQ(std::wstring(provider.bstrVal), L"Win32ext_WPD_Provider");

    // Methods belong to the class: an instance has no method qualifiers.
    ComPtr<IWbemClassObject> instance;
    ASSERT_EQ(wpdClass->SpawnInstance(0, &instance), S_OK);
    EXPECT_TRUE(FAILED(instance->GetMethodQualifierSet(L"EjectDevice", &none)));
    EXPECT_FALSE(none);
}

TEST(WmiEndToEnd, MethodOutcomes) {
    auto services = Connect();
    ComPtr<IWbemClassObject> wpdClass;
    ASSERT_EQ(services->GetObject(_bstr_t(L"Win32ext_WPD"), 0, nullptr, &wpdClass, nullptr), S_OK);
    ComPtr<IWbemClassObject> inSignature;
    ASSERT_EQ(wpdClass->GetMethod(L"SetDebugLevel", 0, &inSignature, nullptr), S_OK);
    ComPtr<IWbemClassObject> in;
    inSignature->SpawnInstance(0, &in);
    const _bstr_t path(L"Win32ext_WPD.strId=\"usb#vid_04e8&pid_6860#attached\"");

    // WMI keeps a uint32 as VT_I4 whichever integer type the client put.
    VARIANT unsignedLevel;
    VariantInit(&unsignedLevel);
    unsignedLevel.vt = VT_UI4;
    unsignedLevel.ulVal = 5;
    ASSERT_EQ(in->Put(L"uint32DebugLevel", 0, &unsignedLevel, 0), S_OK);
    _variant_t stored;
    in->Get(L"uint32DebugLevel", 0, &stored, nullptr, nullptr);
    EXPECT_EQ(stored.vt, VT_I4);
    EXPECT_EQ(stored.lVal, 5);
    _variant_t level(5L, VT_I4);
    ComPtr<IWbemClassObject> out;
    ASSERT_EQ(services->ExecMethod(path, _bstr_t(L"SetDebugLevel"), 0, nullptr, in.Get(), &out, nullptr), S_OK);
    ASSERT_TRUE(out);
    EXPECT_EQ(Text(out.Get(), L"ReturnValue"), L"");
    // WMI takes a number for a uint32 and refuses a text or a date before the provider sees it; what the
    // provider makes of such values it can only be given in process.
    _variant_t off(L"0");
    EXPECT_EQ(in->Put(L"uint32DebugLevel", 0, &off, 0), WBEM_E_TYPE_MISMATCH);
    _variant_t date(45000.0, VT_DATE);
    EXPECT_EQ(in->Put(L"uint32DebugLevel", 0, &date, 0), WBEM_E_TYPE_MISMATCH);
    EXPECT_EQ(in->Put(L"uint32DebugLevel", 0, &level, CIM_UINT32), WBEM_E_INVALID_PARAMETER)
        << "an instance takes no type";
    VARIANT tooLarge;
    VariantInit(&tooLarge);
    tooLarge.vt = VT_I8;
    tooLarge.llVal = 1LL << 32;
    EXPECT_EQ(in->Put(L"uint32DebugLevel", 0, &tooLarge, 0), WBEM_E_TYPE_MISMATCH);

    // A failure with the reason in __ExtendedStatus: StatusCode and Description come from the provider,
    // Operation, ParameterInfo and ProviderName from WMI.
    ComPtr<IWbemClassObject> enumerateSignature;
    ASSERT_EQ(wpdClass->GetMethod(L"EnumerateDevicePath", 0, &enumerateSignature, nullptr), S_OK);
    ComPtr<IWbemClassObject> enumerateIn;
    enumerateSignature->SpawnInstance(0, &enumerateIn);
    _variant_t nowhere(L"Nowhere");
    _variant_t nobody(L"usb#nobody");
    enumerateIn->Put(L"strObjectStoragePath", 0, &nowhere, 0);
    enumerateIn->Put(L"strObjectDeviceId", 0, &nobody, 0);
    EXPECT_EQ(services->ExecMethod(_bstr_t(L"Win32ext_WPD"), _bstr_t(L"EnumerateDevicePath"), 0, nullptr,
                                   enumerateIn.Get(), nullptr, nullptr),
              E_FAIL);
    ComPtr<IErrorInfo> error;
    ASSERT_EQ(GetErrorInfo(0, &error), S_OK);
    ComPtr<IWbemClassObject> status;
    ASSERT_EQ(error.As(&status), S_OK);
    EXPECT_EQ(Text(status.Get(), L"Description"), L"Device not found");
    EXPECT_EQ(Text(status.Get(), L"Operation"), L"ExecMethod");
    EXPECT_EQ(Text(status.Get(), L"ParameterInfo"), L"Win32ext_WPD");
    EXPECT_EQ(Text(status.Get(), L"ProviderName"), L"Win32ext_WPD_Provider");
    _variant_t code;
    status->Get(L"StatusCode", 0, &code, nullptr, nullptr);
    EXPECT_EQ(code.vt, VT_I4);
    EXPECT_EQ(code.lVal, static_cast<LONG>(E_FAIL));

    // Method names are matched exactly: another letter case reaches no handler and returns no text.
    out.Reset();
    in->Put(L"uint32DebugLevel", 0, &level, 0);
    ASSERT_EQ(services->ExecMethod(path, _bstr_t(L"setdebuglevel"), 0, nullptr, in.Get(), &out, nullptr), S_OK);
    _variant_t returnValue;
    out->Get(L"ReturnValue", 0, &returnValue, nullptr, nullptr);
    EXPECT_TRUE(returnValue.vt == VT_NULL || returnValue.vt == VT_EMPTY);
    EXPECT_EQ(services->ExecMethod(path, _bstr_t(L"NoSuchMethod"), 0, nullptr, in.Get(), nullptr, nullptr),
              WBEM_E_INVALID_METHOD);
}

}  // namespace

namespace {

// Collects what a provider call indicates and how it completes.
class RecordingSink : public IWbemObjectSink, public IWbemProviderInitSink {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
        if (riid == IID_IUnknown || riid == IID_IWbemObjectSink) {
            *ppv = static_cast<IWbemObjectSink*>(this);
        } else if (riid == IID_IWbemProviderInitSink) {
            *ppv = static_cast<IWbemProviderInitSink*>(this);
        } else {
            *ppv = nullptr;
            return E_NOINTERFACE;
        }
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --refs; }
    HRESULT STDMETHODCALLTYPE Indicate(LONG count, IWbemClassObject** objects) override {
        for (LONG i = 0; i < count; ++i) {
            indicated.emplace_back(objects[i]);
        }
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE SetStatus(LONG flags, HRESULT result, BSTR, IWbemClassObject*) override {
        ++completions;
        status = result;
        lastFlags = flags;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE SetStatus(LONG initStatus, LONG) override {
        initResult = initStatus;
        return S_OK;
    }
    ULONG refs = 1;
    std::vector<ComPtr<IWbemClassObject>> indicated;
    int completions = 0;
    HRESULT status = S_FALSE;
    LONG lastFlags = -1;
    LONG initResult = -1;
};

// {5C2F4E1A-7B3D-4E8A-9D61-2A4F0B7C3E91}
constexpr CLSID kProviderClsid = {0x5c2f4e1a, 0x7b3d, 0x4e8a, {0x9d, 0x61, 0x2a, 0x4f, 0x0b, 0x7c, 0x3e, 0x91}};

// Runs last: a second provider object becomes the one the core publishes through.
TEST(WmiProviderObject, InterfacesQueriesAndASecondProviderObject) {
    ComPtr<IWbemProviderInit> init;
    ASSERT_EQ(CoCreateInstance(kProviderClsid, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&init)), S_OK);
    ComPtr<IUnknown> unknown;
    ASSERT_EQ(init.As(&unknown), S_OK);
    EXPECT_EQ(static_cast<void*>(unknown.Get()), static_cast<void*>(init.Get()));
    ComPtr<IWbemEventConsumerProvider> consumer;
    EXPECT_EQ(init.As(&consumer), E_NOINTERFACE);
    ComPtr<IWbemServices> provider;
    ASSERT_EQ(init.As(&provider), S_OK);

    RecordingSink sink;
    EXPECT_EQ(provider->ExecQueryAsync(_bstr_t(L"WQL"), _bstr_t(L"SELECT * FROM Win32ext_WPD"), 0, nullptr, &sink),
              S_OK);
    EXPECT_EQ(sink.completions, 1);
    EXPECT_EQ(sink.status, S_OK);
    EXPECT_TRUE(sink.indicated.empty()) << "a query yields no instances";
    // A call that fails at once still completes on the handler it was given, and then returns success: WMI
    // reads the handler only after a call that succeeded.
    RecordingSink invalid;
    EXPECT_EQ(provider->GetObjectAsync(nullptr, 0, nullptr, &invalid), S_OK);
    EXPECT_EQ(invalid.completions, 1);
    EXPECT_EQ(invalid.status, WBEM_E_INVALID_PARAMETER);
    EXPECT_EQ(provider->ExecQuery(nullptr, nullptr, 0, nullptr, nullptr), WBEM_E_NOT_SUPPORTED);

    // Without namespace services WMI is told the initialisation failed; the call itself succeeds.
    RecordingSink initSink;
    EXPECT_EQ(init->Initialize(nullptr, 0, nullptr, nullptr, nullptr, nullptr, &initSink), S_OK);
    EXPECT_EQ(initSink.initResult, WBEM_E_FAILED);

    // With them, it re-attaches to the running core and answers from the same devices.
    ComPtr<IWbemProviderInit> second;
    ASSERT_EQ(CoCreateInstance(kProviderClsid, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&second)), S_OK);
    auto services = Connect();
    RecordingSink secondInit;
    EXPECT_EQ(second->Initialize(nullptr, 0, nullptr, nullptr, services.Get(), nullptr, &secondInit), S_OK);
    EXPECT_EQ(secondInit.initResult, WBEM_S_INITIALIZED);
    ComPtr<IWbemServices> secondServices;
    ASSERT_EQ(second.As(&secondServices), S_OK);
    // Without a response handler there is nothing to answer through: the call is refused, not made.
    EXPECT_EQ(secondServices->GetObjectAsync(_bstr_t(L"Win32ext_WPD.strId=\"x\""), 0, nullptr, nullptr),
              WBEM_E_INVALID_PARAMETER);
    EXPECT_EQ(secondServices->CreateInstanceEnumAsync(_bstr_t(L"Win32ext_WPD"), 0, nullptr, nullptr),
              WBEM_E_INVALID_PARAMETER);
    EXPECT_EQ(secondServices->ExecMethodAsync(_bstr_t(L"Win32ext_WPD"), _bstr_t(L"SetDebugLevel"), 0, nullptr,
                                              nullptr, nullptr),
              WBEM_E_INVALID_PARAMETER);
    RecordingSink enumeration;
    EXPECT_EQ(secondServices->CreateInstanceEnumAsync(_bstr_t(L"Win32ext_WPD"), 0, nullptr, &enumeration), S_OK);
    EXPECT_EQ(enumeration.completions, 1);
    ASSERT_EQ(enumeration.indicated.size(), 2u);
    EXPECT_EQ(Text(enumeration.indicated[0].Get(), L"strSerialNumber"), L"ATT1");

    // A put or delete that returns success has told its handler: WMI waits for that SetStatus.
    ComPtr<IWbemClassObject> wpdClass;
    ASSERT_EQ(services->GetObject(_bstr_t(L"Win32ext_WPD"), 0, nullptr, &wpdClass, nullptr), S_OK);
    ComPtr<IWbemClassObject> instance;
    ASSERT_EQ(wpdClass->SpawnInstance(0, &instance), S_OK);
    _variant_t internal(L"_internal");
    instance->Put(L"strId", 0, &internal, 0);
    RecordingSink put;
    EXPECT_EQ(secondServices->PutInstanceAsync(instance.Get(), 0, nullptr, &put), S_OK);
    EXPECT_EQ(put.completions, 1);
    EXPECT_EQ(put.status, S_OK);
    RecordingSink removed;
    EXPECT_EQ(secondServices->DeleteInstanceAsync(_bstr_t(L"Win32ext_WPD.strId=\"usb#nobody\""), 0, nullptr, &removed),
              S_OK) << "the failure goes to the handler";
    EXPECT_EQ(removed.completions, 1);
    EXPECT_EQ(removed.status, E_FAIL);

    // Any path gives one blank instance.
    RecordingSink object;
    EXPECT_EQ(secondServices->GetObjectAsync(_bstr_t(L"Win32ext_WPD.strId=\"x\""), 0, nullptr, &object), S_OK);
    ASSERT_EQ(object.indicated.size(), 1u);
    EXPECT_EQ(Text(object.indicated[0].Get(), L"strId"), L"<none>");
}

}  // namespace

namespace {

// One method call through WMI: the status, "ReturnValue", and the __ExtendedStatus description on failure.
const wchar_t kDevice[] = L"usb#vid_04e8&pid_6860#attached";

std::wstring Phone() {
    return g_emulator->StorageDirectory(g_attached, 0);
}

std::wstring Card() {
    return g_emulator->StorageDirectory(g_attached, 1);
}

std::wstring LocalTemp(const std::wstring& name) {
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    return std::wstring(temp) + L"dorwex-local-" + std::to_wstring(GetCurrentProcessId()) + L"-" + name;
}

// Ids of the listing's entries by name: "name@id@KIND~...".
std::wstring IdIn(const std::wstring& listing, const std::wstring& name) {
    const size_t at = listing.find(name + L"@");
    if (at == std::wstring::npos) {
        return L"";
    }
    const size_t start = at + name.size() + 1;
    return listing.substr(start, listing.find(L'@', start) - start);
}

TEST(WmiContent, ListingAndProperties) {
    CreateDirectoryW((Phone() + L"\\DCIM").c_str(), nullptr);
    g_emulator->WriteFile(Phone() + L"\\DCIM\\a.jpg", "jpeg");
    g_emulator->WriteFile(Phone() + L"\\notes.txt", "0123456789");
    const std::wstring unicode = L"F\u00f6to \u5199\u771f \U0001F600.txt";
    g_emulator->WriteFile(Phone() + L"\\" + unicode, "unicode");

    Outcome all = CallMethod(L"EnumerateDevicePath", {{L"strObjectStoragePath", _variant_t(L"phone")},
                                                      {L"strObjectDeviceId", _variant_t(kDevice)}});
    ASSERT_EQ(all.status, S_OK);
    const std::wstring dcim = IdIn(all.returnValue, L"DCIM");
    const std::wstring notes = IdIn(all.returnValue, L"notes.txt");
    EXPECT_EQ(all.returnValue, L"DCIM@" + dcim + L"@DIR~" + unicode + L"@" + IdIn(all.returnValue, unicode) +
                                   L"@FILE~notes.txt@" + notes + L"@FILE~");
    Outcome folders = CallMethod(L"EnumerateDevicePath", {{L"strObjectStoragePath", _variant_t(L"Phone")},
                                                          {L"strObjectDeviceId", _variant_t(kDevice)},
                                                          {L"uint32ContentType", _variant_t(1L, VT_I4)}});
    EXPECT_EQ(folders.returnValue, L"DCIM@" + dcim + L"@DIR~");
    Outcome files = CallMethod(L"EnumerateDevicePath", {{L"strObjectStoragePath", _variant_t(L"PHONE\\dcim")},
                                                        {L"strObjectDeviceId", _variant_t(kDevice)},
                                                        {L"uint32ContentType", _variant_t(2L, VT_I4)}});
    EXPECT_EQ(files.returnValue.substr(0, 6), L"a.jpg@");
    EXPECT_EQ(files.returnValue.substr(files.returnValue.size() - 6), L"@FILE~");

    const auto property = [](const wchar_t* path, const wchar_t* name) {
        return CallMethod(L"GetProperty", {{L"strObjectStoragePath", _variant_t(path)},
                                           {L"strPropertyName", _variant_t(name)},
                                           {L"strObjectDeviceId", _variant_t(kDevice)}})
            .returnValue;
    };
    EXPECT_EQ(property(L"Phone\\notes.txt", L"WPD_OBJECT_SIZE"), L"10");
    EXPECT_EQ(property(L"Phone\\notes.txt", L"ObjectId"), notes);
    EXPECT_EQ(property(L"Phone\\DCIM", L"WPD_OBJECT_CONTENT_TYPE"), L"{27E2E392-A111-48E0-AB0C-E17705A05F85}");
    EXPECT_EQ(property(L"Phone\\nothing.txt", L"WPD_OBJECT_SIZE"), L"");
    EXPECT_EQ(property(L"Phone\\notes.txt", L"strObjectDeviceId"), Upper(kDevice));

    // A device the lookup cannot find: E_FAIL and the reason, for every method that looks for one.
    Outcome missing = CallMethod(L"EnumerateDevicePath", {{L"strObjectStoragePath", _variant_t(L"Nowhere\\x")},
                                                          {L"strObjectDeviceId", _variant_t(L"usb#nobody")}});
    EXPECT_EQ(missing.status, E_FAIL);
    EXPECT_EQ(missing.description, L"Device not found");
}

TEST(WmiContent, CopiesFromTheDevice) {
    std::string large(200 * 1024 + 17, '\0');
    for (size_t i = 0; i < large.size(); ++i) {
        large[i] = static_cast<char>(i * 31 + 7);
    }
    g_emulator->WriteFile(Phone() + L"\\large.bin", large);
    g_emulator->WriteFile(Card() + L"\\empty.txt", "");
    const std::wstring unicode = L"\u00e9t\u00e9 \U0001F4F7.jpg";
    g_emulator->WriteFile(Card() + L"\\" + unicode, "summer");

    const auto copy = [](const std::wstring& path, const std::wstring& local) {
        return CallMethod(L"CopyFileFromDevice", {{L"strObjectStoragePath", _variant_t(path.c_str())},
                                                  {L"strLocalFileName", _variant_t(local.c_str())},
                                                  {L"strObjectDeviceId", _variant_t(kDevice)}});
    };
    Outcome outcome = copy(L"Phone\\large.bin", LocalTemp(L"large.bin"));
    EXPECT_EQ(outcome.returnValue, L"1");
    EXPECT_TRUE(ReadAll(LocalTemp(L"large.bin")) == large) << "larger than the 64 KiB optimal buffer";
    EXPECT_EQ(copy(L"card\\EMPTY.TXT", LocalTemp(L"empty.txt")).returnValue, L"1");
    EXPECT_EQ(ReadAll(LocalTemp(L"empty.txt")), "");
    EXPECT_EQ(copy(L"Card\\" + unicode, LocalTemp(unicode)).returnValue, L"1");
    EXPECT_EQ(ReadAll(LocalTemp(unicode)), "summer");
    EXPECT_EQ(copy(L"Phone\\missing.bin", LocalTemp(L"missing.bin")).returnValue, L"0");
    EXPECT_EQ(copy(L"Phone", LocalTemp(L"storage.bin")).returnValue, L"0") << "a storage is not a file";
    EXPECT_EQ(copy(L"Phone\\large.bin", L"Q:\\no\\such\\folder\\x.bin").returnValue, L"0");
    for (const auto* name : {L"large.bin", L"empty.txt"}) {
        DeleteFileW(LocalTemp(name).c_str());
    }
    DeleteFileW(LocalTemp(unicode).c_str());
}

TEST(WmiContent, WriteTokensGateCopiesToTheDevice) {
    const LONG self = static_cast<LONG>(GetCurrentProcessId());
    Outcome refused = CallMethod(L"RequestWriteToken", {{L"uint32ProcessId", _variant_t(self + 4, VT_I4)}}, self);
    EXPECT_EQ(refused.status, E_FAIL);
    EXPECT_EQ(refused.description, L"Invalid PID specified when requesting a write token.");
    Outcome noContext = CallMethod(L"RequestWriteToken", {{L"uint32ProcessId", _variant_t(self, VT_I4)}});
    EXPECT_EQ(noContext.description, L"Invalid PID specified when requesting a write token.");
    // WMI refuses a text for the uint32 process id; the provider's own conversion of texts is for callers
    // in process.
    Outcome notANumber = CallMethod(L"RequestWriteToken", {{L"uint32ProcessId", _variant_t(L"twelve")}}, self);
    EXPECT_EQ(notANumber.status, WBEM_E_TYPE_MISMATCH);
    // The context value is the client's own: it goes through the parameter conversion, whose message names
    // a value that is no number.
    const _variant_t selfAsText(std::to_wstring(self).c_str());
    EXPECT_EQ(CallMethod(L"RequestWriteToken", {{L"uint32ProcessId", _variant_t(self, VT_I4)}}, selfAsText)
                  .returnValue.size(),
              36u);
    Outcome contextNotANumber =
        CallMethod(L"RequestWriteToken", {{L"uint32ProcessId", _variant_t(self, VT_I4)}}, _variant_t(L"twelve"));
    EXPECT_EQ(contextNotANumber.status, E_FAIL);
    EXPECT_EQ(contextNotANumber.description,
              L"CDorWEXWPDWMI::MethodRequestWriteToken: Could not convert parameter 1 to proper data type: 23");
    const std::wstring first =
        CallMethod(L"RequestWriteToken", {{L"uint32ProcessId", _variant_t(self, VT_I4)}}, self).returnValue;
    ASSERT_EQ(first.size(), 36u);
    const std::wstring token =
        CallMethod(L"RequestWriteToken", {{L"uint32ProcessId", _variant_t(self, VT_I4)}}, self).returnValue;
    ASSERT_EQ(token.size(), 36u);

    const std::wstring local = LocalTemp(L"upload.txt");
    const std::wstring uploaded = local.substr(local.find_last_of(L'\\') + 1);  // the device keeps the file's name
    g_emulator->WriteFile(local, "uploaded");
    const auto copy = [&](const wchar_t* path, const std::wstring& file, const _variant_t& writeToken, LONG pid) {
        Parameters parameters = {{L"strObjectStoragePath", _variant_t(path)},
                                 {L"strFileToCopy", _variant_t(file.c_str())},
                                 {L"strObjectDeviceId", _variant_t(kDevice)}};
        if (writeToken.vt != VT_EMPTY) {
            parameters.push_back({L"strWriteToken", writeToken});
        }
        return CallMethod(L"CopyFileToDevice", parameters, pid);
    };
    EXPECT_EQ(copy(L"Phone", local, _variant_t(), self).description, L"Write token not specified.");
    EXPECT_EQ(copy(L"Phone", local, _variant_t(L""), self).description, L"Write token not found");
    EXPECT_EQ(copy(L"Phone", local, _variant_t(first.c_str()), self).description, L"Write token not found")
        << "a second request dropped the first token";
    EXPECT_EQ(copy(L"Phone", local, _variant_t(token.c_str()), self + 4).description, L"Write token not found")
        << "the token belongs to another process";
    Parameters upload = {{L"strObjectStoragePath", _variant_t(L"Phone")}, {L"strFileToCopy", _variant_t(local.c_str())},
                         {L"strWriteToken", _variant_t(token.c_str())}, {L"strObjectDeviceId", _variant_t(kDevice)}};
    EXPECT_EQ(CallMethod(L"CopyFileToDevice", upload, _variant_t(L"twelve")).description,
              L"CDorWEXWPDWMI::MethodCopyFileToDevice: Could not convert parameter 1 to proper data type: 23");

    const _variant_t good(token.c_str());
    Outcome copied = copy(L"Phone\\DCIM", local, good, self);
    EXPECT_EQ(copied.status, S_OK);
    EXPECT_EQ(copied.returnValue, L"1");
    EXPECT_EQ(ReadAll(Phone() + L"\\DCIM\\" + uploaded), "uploaded");
    EXPECT_EQ(copy(L"Card\\no\\such\\folder", local, good, self).returnValue, L"1");
    EXPECT_EQ(ReadAll(Card() + L"\\" + uploaded), "uploaded") << "an unresolved folder falls back to the storage root";
    const std::wstring unicode = LocalTemp(L"\u0444\u043e\u0442\u043e \U0001F600.txt");
    g_emulator->WriteFile(unicode, "");
    EXPECT_EQ(copy(L"Phone", unicode, good, self).returnValue, L"1");
    EXPECT_EQ(ReadAll(Phone() + L"\\" + unicode.substr(unicode.find_last_of(L'\\') + 1)), "") << "empty, with its name";
    EXPECT_EQ(copy(L"Phone", LocalTemp(L"never-written.txt"), good, self).returnValue,
              L"Could not create stream for source file, reason=3");
    EXPECT_EQ(copy(L"Phone\\DCIM", local, good, self).returnValue,
              L"Could not create properties and data for target file, reason=5")
        << "the device refuses a second file of that name in the same folder";
    DeleteFileW(local.c_str());
    DeleteFileW(unicode.c_str());
}

TEST(WmiContent, DeleteMoveAndFolders) {
    const auto call = [](const wchar_t* method, Parameters parameters) {
        parameters.push_back({L"strObjectDeviceId", _variant_t(kDevice)});
        return CallMethod(method, parameters).returnValue;
    };
    EXPECT_EQ(call(L"CreateFolderOnDevice", {{L"strObjectStoragePath", _variant_t(L"Phone\\DCIM")},
                                             {L"strNewFolderName", _variant_t(L"Neu \u00fc")}}),
              L"1");
    EXPECT_TRUE(Exists(Phone() + L"\\DCIM\\Neu \u00fc"));
    EXPECT_EQ(call(L"CreateFolderOnDevice", {{L"strObjectStoragePath", _variant_t(L"Card\\not\\there")},
                                             {L"strNewFolderName", _variant_t(L"Landed")}}),
              L"1");
    EXPECT_TRUE(Exists(Card() + L"\\Landed")) << "an unresolved parent falls back to the storage root";
    EXPECT_EQ(call(L"CreateFolderOnDevice", {{L"strObjectStoragePath", _variant_t(L"Phone")}}), L"0")
        << "no folder name";
    // An empty name is the device's to refuse.
    const ULONG creations = g_emulator->CallCount(kDevice, "CreateObjectWithPropertiesOnly");
    EXPECT_EQ(call(L"CreateFolderOnDevice", {{L"strObjectStoragePath", _variant_t(L"Phone")},
                                             {L"strNewFolderName", _variant_t(L"")}}),
              L"0");
    EXPECT_EQ(g_emulator->CallCount(kDevice, "CreateObjectWithPropertiesOnly"), creations + 1);

    g_emulator->WriteFile(Phone() + L"\\DCIM\\Neu \u00fc\\inside.txt", "x");
    EXPECT_EQ(call(L"DeleteFileFromDevice", {{L"strObjectStoragePath", _variant_t(L"phone\\dcim\\NEU \u00dc")}}), L"1");
    EXPECT_FALSE(Exists(Phone() + L"\\DCIM\\Neu \u00fc")) << "a folder goes with its content";
    EXPECT_EQ(call(L"DeleteFileFromDevice", {}), L"0") << "no path";
    EXPECT_EQ(call(L"DeleteFileFromDevice", {{L"strObjectStoragePath", _variant_t(L"Phone\\gone.txt")}}), L"0");

    g_emulator->WriteFile(Phone() + L"\\moved.txt", "moving");
    const std::wstring local = LocalTemp(L"moved.txt");
    EXPECT_EQ(call(L"MoveFileFromDevice", {{L"strObjectStoragePath", _variant_t(L"Phone\\moved.txt")},
                                           {L"strLocalFileName", _variant_t(local.c_str())}}),
              L"1");
    EXPECT_EQ(ReadAll(local), "moving");
    EXPECT_FALSE(Exists(Phone() + L"\\moved.txt"));
    DeleteFileW(local.c_str());
}

TEST(WmiContent, BadInputNeverCrashes) {
    const std::wstring longPath = L"Phone\\" + std::wstring(40000, L'n');
    const std::wstring mediumPath = L"Card\\" + std::wstring(300, L'm') + L"\\x.txt";
    for (const std::wstring& path : {longPath, mediumPath, std::wstring(L""), std::wstring(L"\\\\\\"),
                                     std::wstring(L"Phone\\..\\..\\Windows"), std::wstring(L":*?<>|")}) {
        for (const wchar_t* method :
             {L"EnumerateDevicePath", L"GetProperty", L"CopyFileFromDevice", L"MoveFileFromDevice",
              L"DeleteFileFromDevice", L"CreateFolderOnDevice"}) {
            SCOPED_TRACE(std::wstring(method) + L" " + path.substr(0, 40));
            Outcome outcome = CallMethod(method, {{L"strObjectStoragePath", _variant_t(path.c_str())},
                                                  {L"strObjectDeviceId", _variant_t(kDevice)},
                                                  {L"strPropertyName", _variant_t(path.c_str())},
                                                  {L"strLocalFileName", _variant_t(path.c_str())},
                                                  {L"strNewFolderName", _variant_t(path.c_str())}});
            // An answer or a refusal that says why; a path whose storage name is unknown reads in the first
            // storage, so listings may show something, but nothing is copied, moved, deleted or made.
            EXPECT_TRUE(outcome.status == S_OK || !outcome.description.empty());
            const bool listing = wcscmp(method, L"EnumerateDevicePath") == 0 || wcscmp(method, L"GetProperty") == 0;
            EXPECT_TRUE(listing || outcome.returnValue != L"1") << outcome.returnValue.substr(0, 60);
        }
    }
    // A device that is not there: the reason, and "0" as for any eject that did not happen.
    const Outcome ejectMissing = CallMethodAsync(L"EjectDevice", {{L"strObjectDeviceId", _variant_t(L"usb#nobody")}});
    EXPECT_EQ(ejectMissing.status, E_FAIL);
    EXPECT_EQ(ejectMissing.description, L"Device not found");
    EXPECT_EQ(ejectMissing.returnValue, L"0");
    // The prefix's own Plug and Play tree has no node for an emulated device: nothing to eject, "0".
    const Outcome eject = CallMethod(L"EjectDevice", {{L"strObjectDeviceId", _variant_t(kDevice)}});
    EXPECT_EQ(eject.status, S_OK);
    EXPECT_EQ(eject.returnValue, L"0");
}

}  // namespace

namespace {

TEST(WmiContent, DeviceFailuresReachTheCaller) {
    const wchar_t faulty[] = L"usb#vid_04e8&pid_6860#faulty";
    const LONG self = static_cast<LONG>(GetCurrentProcessId());
    const std::wstring token =
        CallMethod(L"RequestWriteToken", {{L"uint32ProcessId", _variant_t(self, VT_I4)}}, self).returnValue;
    const std::wstring local = LocalTemp(L"refused.txt");
    g_emulator->WriteFile(local, "refused");
    Outcome upload = CallMethod(L"CopyFileToDevice", {{L"strObjectStoragePath", _variant_t(L"Phone")},
                                                      {L"strFileToCopy", _variant_t(local.c_str())},
                                                      {L"strWriteToken", _variant_t(token.c_str())},
                                                      {L"strObjectDeviceId", _variant_t(faulty)}},
                                self);
    EXPECT_EQ(upload.returnValue, L"StreamCopy failed, reason=7") << "the first write fails";
    upload = CallMethod(L"CopyFileToDevice", {{L"strObjectStoragePath", _variant_t(L"Phone")},
                                              {L"strFileToCopy", _variant_t(local.c_str())},
                                              {L"strWriteToken", _variant_t(token.c_str())},
                                              {L"strObjectDeviceId", _variant_t(faulty)}},
                         self);
    EXPECT_EQ(upload.returnValue, L"Commit failed, reason=8");

    // The copy succeeded, the delete did not: the move still reports success and the file stays.
    g_emulator->WriteFile(g_faultyPhone + L"\\keep.txt", "kept");
    Outcome move = CallMethod(L"MoveFileFromDevice", {{L"strObjectStoragePath", _variant_t(L"Phone\\keep.txt")},
                                                      {L"strLocalFileName", _variant_t(local.c_str())},
                                                      {L"strObjectDeviceId", _variant_t(faulty)}});
    EXPECT_EQ(move.returnValue, L"1");
    EXPECT_EQ(ReadAll(local), "kept");
    EXPECT_TRUE(Exists(g_faultyPhone + L"\\keep.txt"));
    Outcome erase = CallMethod(L"DeleteFileFromDevice", {{L"strObjectStoragePath", _variant_t(L"Phone\\keep.txt")},
                                                         {L"strObjectDeviceId", _variant_t(faulty)}});
    EXPECT_EQ(erase.returnValue, L"0");
    DeleteFileW(local.c_str());
}

}  // namespace

namespace {

// A sparse file of 4 GiB and 4 KiB with a marker byte at each of the given offsets.
constexpr ULONGLONG kLargeSize = (4ull << 30) + 4096;
const ULONGLONG kMarkers[] = {0, (4ull << 30) - 1, 4ull << 30, kLargeSize - 1};

bool MakeSparse(const std::wstring& path) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return false;
    }
    LARGE_INTEGER size;
    size.QuadPart = static_cast<LONGLONG>(kLargeSize);
    bool ok = SetFilePointerEx(file, size, nullptr, FILE_BEGIN) && SetEndOfFile(file);
    BYTE marker = 1;
    for (ULONGLONG offset : kMarkers) {
        LARGE_INTEGER at;
        at.QuadPart = static_cast<LONGLONG>(offset);
        DWORD written = 0;
        ok = ok && SetFilePointerEx(file, at, nullptr, FILE_BEGIN) && WriteFile(file, &marker, 1, &written, nullptr);
        ++marker;
    }
    CloseHandle(file);
    return ok;
}

// The size and the marker bytes of a file, as text: "4294971392:1,2,3,4".
std::string Fingerprint(const std::wstring& path) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return "<missing>";
    }
    LARGE_INTEGER size{};
    GetFileSizeEx(file, &size);
    std::string text = std::to_string(size.QuadPart) + ":";
    for (ULONGLONG offset : kMarkers) {
        LARGE_INTEGER at;
        at.QuadPart = static_cast<LONGLONG>(offset);
        BYTE value = 0;
        DWORD read = 0;
        SetFilePointerEx(file, at, nullptr, FILE_BEGIN);
        ReadFile(file, &value, 1, &read, nullptr);
        text += std::to_string(value) + ",";
    }
    CloseHandle(file);
    return text;
}

TEST(WmiContent, FilesOver4GiBAreCopiedWholeBothWays) {
    const std::wstring source = LocalTemp(L"large-source.bin");
    ASSERT_TRUE(MakeSparse(source));
    const std::string expected = std::to_string(kLargeSize) + ":1,2,3,4,";
    ASSERT_EQ(Fingerprint(source), expected);
    const LONG self = static_cast<LONG>(GetCurrentProcessId());
    const std::wstring token =
        CallMethod(L"RequestWriteToken", {{L"uint32ProcessId", _variant_t(self, VT_I4)}}, self).returnValue;
    Outcome upload = CallMethod(L"CopyFileToDevice", {{L"strObjectStoragePath", _variant_t(L"Card")},
                                                      {L"strFileToCopy", _variant_t(source.c_str())},
                                                      {L"strWriteToken", _variant_t(token.c_str())},
                                                      {L"strObjectDeviceId", _variant_t(kDevice)}},
                                self);
    EXPECT_EQ(upload.returnValue, L"1");
    const std::wstring onDevice = Card() + source.substr(source.find_last_of(L'\\'));
    EXPECT_EQ(Fingerprint(onDevice), expected);
    DeleteFileW(source.c_str());

    const std::wstring back = LocalTemp(L"large-back.bin");
    Outcome download = CallMethod(L"CopyFileFromDevice",
                                  {{L"strObjectStoragePath", _variant_t((L"Card" + source.substr(source.find_last_of(L'\\'))).c_str())},
                                   {L"strLocalFileName", _variant_t(back.c_str())},
                                   {L"strObjectDeviceId", _variant_t(kDevice)}});
    EXPECT_EQ(download.returnValue, L"1");
    EXPECT_EQ(Fingerprint(back), expected);
    DeleteFileW(back.c_str());
    DeleteFileW(onDevice.c_str());
}

}  // namespace

namespace {

// The tracker file is found by name anywhere in its storage, wherever the path puts it.
TEST(WmiContent, TrackerFileIsFoundWhereverTheDeviceKeepsIt) {
    const LONG self = static_cast<LONG>(GetCurrentProcessId());
    const std::wstring token =
        CallMethod(L"RequestWriteToken", {{L"uint32ProcessId", _variant_t(self, VT_I4)}}, self).returnValue;
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    const std::wstring folder = std::wstring(temp) + L"dorwex-tracker-" + std::to_wstring(self);
    CreateDirectoryW(folder.c_str(), nullptr);
    const std::wstring tracker = folder + L"\\dorWEXDeviceTracker.bin";
    g_emulator->WriteFile(tracker, "tracker");
    CreateDirectoryW((Card() + L"\\System").c_str(), nullptr);
    EXPECT_EQ(CallMethod(L"CopyFileToDevice", {{L"strObjectStoragePath", _variant_t(L"Card\\System")},
                                               {L"strFileToCopy", _variant_t(tracker.c_str())},
                                               {L"strWriteToken", _variant_t(token.c_str())},
                                               {L"strObjectDeviceId", _variant_t(kDevice)}},
                         self)
                  .returnValue,
              L"1");
    const std::wstring local = LocalTemp(L"tracker-back.bin");
    EXPECT_EQ(CallMethod(L"CopyFileFromDevice", {{L"strObjectStoragePath", _variant_t(L"Card\\dorWEXDeviceTracker.bin")},
                                                 {L"strLocalFileName", _variant_t(local.c_str())},
                                                 {L"strObjectDeviceId", _variant_t(kDevice)}})
                  .returnValue,
              L"1");
    EXPECT_EQ(ReadAll(local), "tracker");
    EXPECT_EQ(CallMethod(L"CopyFileFromDevice", {{L"strObjectStoragePath", _variant_t(L"Card\\other.bin")},
                                                 {L"strLocalFileName", _variant_t(local.c_str())},
                                                 {L"strObjectDeviceId", _variant_t(kDevice)}})
                  .returnValue,
              L"0")
        << "only the tracker file is looked for elsewhere";
    DeleteFileW(local.c_str());
    DeleteFileW(tracker.c_str());
    RemoveDirectoryW(folder.c_str());
}

}  // namespace

namespace {

// Whether the Apple pipe is gone: the processor stopped with the last Apple device.
bool ApplePipeGone() {
    HANDLE pipe = CreateFileW(L"\\\\.\\pipe\\dorWEXApplePipe", GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    if (pipe != INVALID_HANDLE_VALUE) {
        CloseHandle(pipe);
        return false;
    }
    return GetLastError() == ERROR_FILE_NOT_FOUND;
}

// An Apple device: its content goes through the Apple companion, and the companion's write reports on the
// Apple pipe reach subscribed consumers as write events.
TEST(WmiApple, CompanionContentAndPipeWriteReports) {
    auto services = Connect();
    Query(services.Get(), L"SELECT * FROM Win32ext_WPD");  // the provider runs before the device comes
    const std::string id = "\\\\?\\usb#vid_05ac&pid_12a8#wmiapple#{6ac27878-a6fa-4155-ba85-f98f491d4f33}";
    EmulatedDeviceSpec spec;
    spec.id = id;
    spec.manufacturer = "Apple Inc.";
    spec.friendlyName = "Apple iPhone";
    spec.deviceLines = {"WPD_DEVICE_SERIAL_NUMBER = APPLE-WMI-1"};
    spec.storages = {{"s10001", "Internal Storage", "{PUID-APPLE-WMI}", "Flash"}};
    g_emulator->Attach(spec);
    const std::wstring storage = g_emulator->StorageDirectory(spec, 0);
    CreateDirectoryW((storage + L"\\DCIM").c_str(), nullptr);
    g_emulator->WriteFile(storage + L"\\DCIM\\IMG_0001.jpg", "jpeg");

    Notify(DBT_DEVICEARRIVAL, Wide(id));
    const std::wstring query = L"SELECT * FROM Win32ext_WPD WHERE strSerialNumber = 'APPLE-WMI-1'";
    ASSERT_TRUE(WaitUntil([&] { return Query(services.Get(), query).size() == 1; }));
    EXPECT_EQ(Text(Query(services.Get(), query).front().Get(), L"strDisk1Name"), L"Internal Storage");

    const Outcome listing = CallMethod(L"EnumerateDevicePath", {{L"strObjectStoragePath", _variant_t(L"Internal Storage\\DCIM")},
                                                                {L"strObjectDeviceId", _variant_t(Wide(id).c_str())},
                                                                {L"uint32ContentType", _variant_t(0L, VT_I4)}});
    EXPECT_EQ(listing.returnValue, L"IMG_0001.jpg@DCIM\\IMG_0001.jpg@FILE~");

    const LONG self = static_cast<LONG>(GetCurrentProcessId());
    const std::wstring token =
        CallMethod(L"RequestWriteToken", {{L"uint32ProcessId", _variant_t(self, VT_I4)}}, self).returnValue;
    const std::wstring local = LocalTemp(L"apple-upload.txt");
    g_emulator->WriteFile(local, "to the iPhone");
    const Outcome upload = CallMethod(L"CopyFileToDevice", {{L"strObjectStoragePath", _variant_t(L"Internal Storage\\DCIM")},
                                                            {L"strFileToCopy", _variant_t(local.c_str())},
                                                            {L"strWriteToken", _variant_t(token.c_str())},
                                                            {L"strObjectDeviceId", _variant_t(Wide(id).c_str())}},
                                      self);
    EXPECT_EQ(upload.returnValue, L"1");
    const std::wstring uploaded = local.substr(local.find_last_of(L'\\') + 1);
    EXPECT_NE(GetFileAttributesW((storage + L"\\DCIM\\" + uploaded).c_str()), INVALID_FILE_ATTRIBUTES);

    const std::wstring device = Wide(id);
    const std::wstring fetched = LocalTemp(L"apple-fetched.jpg");
    EXPECT_EQ(CallMethod(L"CopyFileFromDevice", {{L"strObjectStoragePath", _variant_t(L"Internal Storage\\DCIM\\IMG_0001.jpg")},
                                                 {L"strLocalFileName", _variant_t(fetched.c_str())},
                                                 {L"strObjectDeviceId", _variant_t(device.c_str())}})
                  .returnValue,
              L"1");
    EXPECT_EQ(CallMethod(L"CreateFolderOnDevice", {{L"strObjectStoragePath", _variant_t(L"Internal Storage")},
                                                   {L"strNewFolderName", _variant_t(L"Holiday")},
                                                   {L"strObjectDeviceId", _variant_t(device.c_str())}})
                  .returnValue,
              L"1");
    EXPECT_NE(GetFileAttributesW((storage + L"\\Holiday").c_str()) & FILE_ATTRIBUTE_DIRECTORY, 0u);
    const std::wstring moved = LocalTemp(L"apple-moved.jpg");
    EXPECT_EQ(CallMethod(L"MoveFileFromDevice", {{L"strObjectStoragePath", _variant_t(L"Internal Storage\\DCIM\\IMG_0001.jpg")},
                                                 {L"strLocalFileName", _variant_t(moved.c_str())},
                                                 {L"strObjectDeviceId", _variant_t(device.c_str())}})
                  .returnValue,
              L"1");
    EXPECT_EQ(GetFileAttributesW((storage + L"\\DCIM\\IMG_0001.jpg").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(CallMethod(L"DeleteFileFromDevice", {{L"strObjectStoragePath", _variant_t(L"Internal Storage\\DCIM\\IMG_0001.jpg")},
                                                   {L"strObjectDeviceId", _variant_t(device.c_str())}})
                  .returnValue,
              L"0") << "already moved off the device";

    // The companion service reports the write on the Apple pipe; a consumer receives the write event.
    ComPtr<IEnumWbemClassObject> events;
    ASSERT_EQ(services->ExecNotificationQuery(_bstr_t(L"WQL"), _bstr_t(L"SELECT * FROM Win32ext_WPDEvent"),
                                              WBEM_FLAG_RETURN_IMMEDIATELY | WBEM_FLAG_FORWARD_ONLY, nullptr, &events),
              S_OK);
    HANDLE pipe = OpenPipeClient(L"\\\\.\\pipe\\dorWEXApplePipe", 10000);
    ASSERT_NE(pipe, INVALID_HANDLE_VALUE);
    const std::wstring report = L"Event^WRITE~SerialNumber^APPLE-WMI-1~strPID^" + std::to_wstring(self) +
                                L"~TargetPath^Internal Storage\\DCIM~LocalFileName^" + local + L"~ClientPid^" +
                                std::to_wstring(self) + L"~WriteToken^" + token;
    ASSERT_TRUE(SendText(pipe, report));
    const ComPtr<IWbemClassObject> received = NextEvent(events.Get());
    ASSERT_TRUE(received);
    IWbemClassObject* event = received.Get();
    EXPECT_EQ(Text(event, L"strEventId"), L"{A726DA95-E207-4B02-8D44-BEF2E86CBFFC}");
    EXPECT_EQ(Upper(Text(event, L"strObjectDeviceId")), Upper(Wide(id)));
    EXPECT_EQ(Text(event, L"strTargetPath"), L"/private/var/mobile/Media/DCIM") << "the device's own path";
    EXPECT_EQ(Text(event, L"strDeviceName"), L"Apple iPhone");
    EXPECT_EQ(Text(event, L"strPID"), std::to_wstring(GetCurrentProcessId())) << "the process that raised it";
    EXPECT_EQ(Text(event, L"strObjectDevicePersistentUniqueId"), std::to_wstring(self)) << "the writer";
    EXPECT_NE(Text(event, L"strEventText").find(L" Event: WPD_EVENT_OBJECT_ADDED"), std::wstring::npos);
    CloseHandle(pipe);

    Notify(DBT_DEVICEREMOVECOMPLETE, Wide(id));
    ASSERT_TRUE(WaitUntil([&] { return Query(services.Get(), query).empty(); }));
    EXPECT_TRUE(WaitUntil(ApplePipeGone)) << "the pipe is gone with the last Apple device";
}

// The Apple companion refuses a copy off the device: the caller learns why, and "ReturnValue" is "0". A
// move whose copy is refused answers "0" and leaves the file on the device.
TEST(WmiApple, CompanionCopyFailureReachesTheCallerWithItsReason) {
    auto services = Connect();
    Query(services.Get(), L"SELECT * FROM Win32ext_WPD");
    const std::string id = "\\\\?\\usb#vid_05ac&pid_12a8#wmiapplerefusing#{6ac27878-a6fa-4155-ba85-f98f491d4f33}";
    EmulatedDeviceSpec spec;
    spec.id = id;
    spec.manufacturer = "Apple Inc.";
    spec.friendlyName = "Apple iPhone";
    spec.deviceLines = {"WPD_DEVICE_SERIAL_NUMBER = APPLE-WMI-2"};
    spec.storages = {{"s10001", "Internal Storage", "{PUID-APPLE-WMI-2}", "Flash"}};
    spec.faultLines = {"AppleCopyFileFromDevice = 0x80070005"};
    g_emulator->Attach(spec);
    const std::wstring storage = g_emulator->StorageDirectory(spec, 0);
    g_emulator->WriteFile(storage + L"\\kept.jpg", "jpeg");
    Notify(DBT_DEVICEARRIVAL, Wide(id));
    const std::wstring query = L"SELECT * FROM Win32ext_WPD WHERE strSerialNumber = 'APPLE-WMI-2'";
    ASSERT_TRUE(WaitUntil([&] { return Query(services.Get(), query).size() == 1; }));

    const std::wstring device = Wide(id);
    const std::wstring local = LocalTemp(L"apple-refused.jpg");
    const Outcome copy = CallMethodAsync(L"CopyFileFromDevice", {{L"strObjectStoragePath", _variant_t(L"Internal Storage\\kept.jpg")},
                                                                 {L"strLocalFileName", _variant_t(local.c_str())},
                                                                 {L"strObjectDeviceId", _variant_t(device.c_str())}});
    EXPECT_EQ(copy.status, E_FAIL);
    EXPECT_EQ(copy.description, SystemText(0x80070005));
    EXPECT_EQ(copy.returnValue, L"0");
    const Outcome move = CallMethodAsync(L"MoveFileFromDevice", {{L"strObjectStoragePath", _variant_t(L"Internal Storage\\kept.jpg")},
                                                                 {L"strLocalFileName", _variant_t(local.c_str())},
                                                                 {L"strObjectDeviceId", _variant_t(device.c_str())}});
    EXPECT_EQ(move.status, S_OK);
    EXPECT_EQ(move.returnValue, L"0");
    EXPECT_EQ(ReadAll(storage + L"\\kept.jpg"), "jpeg");

    // The removal has run its course once the last Apple device's pipe is gone.
    Notify(DBT_DEVICEREMOVECOMPLETE, device);
    ASSERT_TRUE(WaitUntil([&] { return Query(services.Get(), query).empty(); }));
    EXPECT_TRUE(WaitUntil(ApplePipeGone));
}

}  // namespace

namespace {

// The provider runs as LocalSystem: the local-file side of a copy impersonates the calling client, whom WMI
// gives the provider through the call context since its registration asks for impersonation. (A call
// without a client to impersonate fails: DataSafety.ACopyWhoseClientCannotBeImpersonatedFails.)
TEST(WmiSecurity, LocalFileAccessImpersonatesTheClient) {
    auto services = Connect();
    ASSERT_TRUE(services);
    HMODULE wmi = GetModuleHandleW(L"dorwex_wmi_emulator.dll");
    ASSERT_NE(wmi, nullptr);
    auto* impersonations = reinterpret_cast<void(WINAPI*)(LONG*, LONG*)>(
        reinterpret_cast<void*>(GetProcAddress(wmi, "DorwexWmiImpersonations")));
    ASSERT_TRUE(impersonations != nullptr);
    g_emulator->WriteFile(Phone() + L"\\secured.txt", "secured");
    const auto copyFrom = [](const std::wstring& local) {
        return CallMethod(L"CopyFileFromDevice", {{L"strObjectStoragePath", _variant_t(L"Phone\\secured.txt")},
                                                  {L"strLocalFileName", _variant_t(local.c_str())},
                                                  {L"strObjectDeviceId", _variant_t(kDevice)}});
    };
    LONG before = 0, revertsBefore = 0, after = 0, revertsAfter = 0;

    impersonations(&before, &revertsBefore);
    EXPECT_EQ(copyFrom(LocalTemp(L"secured-1.txt")).returnValue, L"1");
    impersonations(&after, &revertsAfter);
    EXPECT_EQ(after - before, 1) << "the copy ran as the client";
    EXPECT_EQ(revertsAfter - revertsBefore, 1) << "and went back to the provider's identity after";
    EXPECT_EQ(CallMethod(L"GetProperty", {{L"strObjectStoragePath", _variant_t(L"Phone\\secured.txt")},
                                          {L"strPropertyName", _variant_t(L"WPD_OBJECT_SIZE")},
                                          {L"strObjectDeviceId", _variant_t(kDevice)}})
                  .returnValue,
              L"7");
    impersonations(&before, &revertsBefore);
    EXPECT_EQ(before, after) << "no local file, no impersonation";
}

}  // namespace

namespace {

// Every method, every input parameter, every kind of value a client can put there: an answer (success or a
// described failure), never a crash, and the provider still answers afterwards. The other parameters hold
// ordinary values, so each call gets as far as the odd one lets it.
TEST(WmiRobustness, EveryMethodTakesEveryValueTypeOnEveryParameter) {
    using dorwex::schema::kWPDMethods;
    const LONG self = static_cast<LONG>(GetCurrentProcessId());
    std::vector<std::pair<std::wstring, _variant_t>> odd;
    odd.emplace_back(L"empty", _variant_t());
    _variant_t null;
    null.vt = VT_NULL;
    odd.emplace_back(L"null", null);
    odd.emplace_back(L"i2", _variant_t(static_cast<short>(-7)));
    odd.emplace_back(L"i4", _variant_t(-1L, VT_I4));
    odd.emplace_back(L"r8", _variant_t(3.5e300));
    odd.emplace_back(L"bool", _variant_t(true));
    odd.emplace_back(L"ui1", _variant_t(static_cast<BYTE>(200)));
    _variant_t date;
    date.vt = VT_DATE;
    date.date = 45000.5;
    odd.emplace_back(L"date", date);
    _variant_t error;
    error.vt = VT_ERROR;
    error.scode = DISP_E_PARAMNOTFOUND;
    odd.emplace_back(L"error", error);
    for (size_t length : {0u, 259u, 260u, 261u, 40000u}) {
        odd.emplace_back(L"text " + std::to_wstring(length), _variant_t(std::wstring(length, L'z').c_str()));
    }
    const std::map<std::wstring, _variant_t> ordinary = {
        {L"strObjectStoragePath", _variant_t(L"Phone")}, {L"strObjectDeviceId", _variant_t(kDevice)},
        {L"strPropertyName", _variant_t(L"WPD_OBJECT_NAME")}, {L"strLocalFileName", _variant_t(LocalTemp(L"robust.bin").c_str())},
        {L"strNewFolderName", _variant_t(L"robust")}, {L"uint32ContentType", _variant_t(0L, VT_I4)},
        {L"uint32ProcessId", _variant_t(self, VT_I4)}, {L"strFileToCopy", _variant_t(LocalTemp(L"robust-up.bin").c_str())},
        {L"strWriteToken", _variant_t(L"not-a-token")}, {L"uint32DebugLevel", _variant_t(0L, VT_I4)}};
    for (const auto& method : kWPDMethods) {
        if (wcscmp(method.name, L"EjectDevice") == 0) {
            continue;  // answered through the prefix's own Plug and Play tree above
        }
        for (size_t slot = 0; slot < method.inputCount; ++slot) {
            for (const auto& value : odd) {
                Parameters parameters;
                for (size_t i = 0; i < method.inputCount; ++i) {
                    const auto found = ordinary.find(method.inputs[i].name);
                    parameters.emplace_back(method.inputs[i].name,
                                            i == slot ? value.second : found != ordinary.end() ? found->second : _variant_t());
                }
                const Outcome outcome = CallMethod(method.name, parameters, self);
                SCOPED_TRACE(std::wstring(method.name) + L" " + method.inputs[slot].name + L" = " + value.first);
                if (outcome.status == static_cast<HRESULT>(WBEM_E_TYPE_MISMATCH)) {
                    continue;  // WMI does not pass such a value on; the conversions have their own tests
                }
                EXPECT_TRUE(outcome.status == S_OK || outcome.status == E_FAIL) << std::hex << outcome.status;
                if (outcome.status == E_FAIL) {
                    EXPECT_FALSE(outcome.description.empty()) << "a failure says what failed";
                }
            }
        }
    }
    CallMethod(L"SetDebugLevel", {{L"uint32DebugLevel", _variant_t(0L, VT_I4)}});
    auto services = Connect();
    EXPECT_EQ(Query(services.Get(), L"SELECT * FROM Win32ext_WPD WHERE strSerialNumber = 'att1'").size(), 1u)
        << "the provider still answers";
}

}  // namespace

namespace {

// Several clients call methods on the provider at once while a device comes and goes, content is written
// onto the attached device (its events fire) and a device is pulled out in the middle of a copy. Nothing
// crashes or hangs, and what the run created is released again.
TEST(WmiStress, MethodsWhileDevicesComeAndGoAndEventsFire) {
    auto services = Connect();
    Query(services.Get(), L"SELECT * FROM Win32ext_WPD");
    ASSERT_TRUE(g_emulator->WaitForEvents(5000));
    // Wine reports no process handle counts; what the run opens is counted by the emulated stack instead:
    // its live COM objects and each device's open sessions.
    const LONG objectsBefore = g_emulator->LiveObjects();

    const std::string transientId = "\\\\?\\usb#vid_0421&pid_0661#transient#{6ac27878-a6fa-4155-ba85-f98f491d4f33}";
    EmulatedDeviceSpec transient = PhoneSpec(transientId, "NOKIA", "TRANS1");
    std::string big(3 * 1024 * 1024, 'b');
    g_emulator->WriteFile(Phone() + L"\\stress.bin", big);

    std::atomic<bool> stop{false};
    std::atomic<long> calls{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
            CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            const std::wstring local = LocalTemp(L"stress-" + std::to_wstring(t) + L".bin");
            const std::wstring folder = L"stress-folder-" + std::to_wstring(t);
            while (!stop.load()) {
                const std::wstring device = (calls.load() % 2 == 0) ? kDevice : Wide(transientId);
                const Outcome listing = CallMethod(L"EnumerateDevicePath", {{L"strObjectStoragePath", _variant_t(L"Phone")},
                                                                            {L"strObjectDeviceId", _variant_t(device.c_str())},
                                                                            {L"uint32ContentType", _variant_t(0L, VT_I4)}});
                EXPECT_TRUE(listing.status == S_OK || listing.description == L"Device not found");
                CallMethod(L"CopyFileFromDevice", {{L"strObjectStoragePath", _variant_t(L"Phone\\stress.bin")},
                                                   {L"strLocalFileName", _variant_t(local.c_str())},
                                                   {L"strObjectDeviceId", _variant_t(device.c_str())}});
                CallMethod(L"CreateFolderOnDevice", {{L"strObjectStoragePath", _variant_t(L"Phone")},
                                                     {L"strNewFolderName", _variant_t(folder.c_str())},
                                                     {L"strObjectDeviceId", _variant_t(kDevice)}});
                CallMethod(L"DeleteFileFromDevice", {{L"strObjectStoragePath", _variant_t((L"Phone\\" + folder).c_str())},
                                                     {L"strObjectDeviceId", _variant_t(kDevice)}});
                ++calls;
            }
            CoUninitialize();
        });
    }
    // A device that arrives, is used by the clients, and is pulled out while they work on it. Each step waits
    // for the provider to have taken the one before: the monitor handles one notification at a time, and one
    // that came while it was busy would be lost (a device that vanishes during its start-up has its own test).
    std::thread devices([&] {
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        for (int round = 0; round < 10; ++round) {
            g_emulator->Attach(transient);
            if (round == 0) {
                // Written once: the storage directory outlives each removal, and a copy begun on the pulled
                // device may still be reading last round's file, which the emulated stack holds open.
                g_emulator->WriteFile(g_emulator->StorageDirectory(transient, 0) + L"\\stress.bin", big);
            }
            Notify(DBT_DEVICEARRIVAL, Wide(transientId));
            EXPECT_TRUE(WaitUntil([&] { return PublishedWithId(Wide(transientId)); })) << "round " << round;
            const long callsAtArrival = calls.load();
            EXPECT_TRUE(WaitUntil([&] { return calls.load() >= callsAtArrival + 2; })) << "the clients used it";
            g_emulator->RemoveDevice(Wide(transientId).c_str());
            Notify(DBT_DEVICEREMOVECOMPLETE, Wide(transientId));
            g_emulator->Detach(transient);
            EXPECT_TRUE(WaitUntil([&] { return !PublishedWithId(Wide(transientId)); })) << "round " << round;
        }
        CoUninitialize();
    });
    devices.join();
    const long callsAfterDevices = calls.load();
    EXPECT_TRUE(WaitUntil([&] { return calls.load() >= callsAfterDevices + 3; })) << "the clients go on";
    stop = true;
    for (auto& thread : threads) {
        thread.join();
    }
    ASSERT_TRUE(g_emulator->WaitForEvents(10000));
    EXPECT_EQ(Query(services.Get(), L"SELECT * FROM Win32ext_WPD WHERE strSerialNumber = 'att1'").size(), 1u);
    EXPECT_FALSE(PublishedWithId(Wide(transientId)));
    EXPECT_TRUE(WaitUntil([&] { return g_emulator->LiveObjects() <= objectsBefore; }))
        << "COM objects of the emulated stack left: " << g_emulator->LiveObjects() - objectsBefore;
    EXPECT_EQ(g_emulator->OpenSessions(Wide(transientId).c_str()), 0) << "every session on the pulled device closed";
    EXPECT_EQ(g_emulator->OpenSessions(kDevice), 1) << "the attached device keeps its one session";
}

}  // namespace
