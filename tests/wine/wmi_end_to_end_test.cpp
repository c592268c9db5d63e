// The provider as management software sees it: loaded by the emulated WMI service, answering through
// IWbemServices, publishing devices that arrive, raising content events and reporting method failures.
#include <gtest/gtest.h>

#include <comdef.h>
#include <dbt.h>
#include <wbemcli.h>
#include <wbemprov.h>
#include <wrl/client.h>

#include <functional>
#include <string>
#include <vector>

#include "device/com_memory.h"
#include "device/portable_device_api.h"
#include "support/wpd_emulator.h"

using Microsoft::WRL::ComPtr;

namespace {

WpdEmulator* g_emulator = nullptr;

std::wstring ProgramDirectory() {
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring directory(path);
    return directory.substr(0, directory.find_last_of(L'\\'));
}

// Registers a COM server of the build in the prefix, as regsvr32 does.
void Register(const wchar_t* dll) {
    HMODULE module = LoadLibraryW((ProgramDirectory() + L"\\" + dll).c_str());
    ASSERT_NE(module, nullptr) << "cannot load " << std::string(dll, dll + wcslen(dll));
    auto* registerServer = reinterpret_cast<HRESULT(WINAPI*)()>(
        reinterpret_cast<void*>(GetProcAddress(module, "DllRegisterServer")));
    ASSERT_NE(registerServer, nullptr);
    ASSERT_EQ(registerServer(), S_OK);
}

class Environment : public testing::Environment {
public:
    void SetUp() override {
        Register(L"dorwex_wpd_provider.dll");
        Register(L"dorwex_wmi_emulator.dll");
        g_emulator = new WpdEmulator();
        // Attached before the provider starts: added by its start-up.
        g_emulator->Attach(PhoneSpec("usb#vid_04e8&pid_6860#attached", "SAMSUNG Electronics", "ATT1", 2));
    }
    void TearDown() override {
        delete g_emulator;
        g_emulator = nullptr;
    }
};
const auto* const g_environment = testing::AddGlobalTestEnvironment(new Environment);

ComPtr<IWbemServices> Connect() {
    ComPtr<IWbemLocator> locator;
    EXPECT_EQ(CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&locator)), S_OK);
    ComPtr<IWbemServices> services;
    if (locator) {
        EXPECT_EQ(locator->ConnectServer(_bstr_t(L"ROOT\\CIMV2"), nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                         &services),
                  S_OK);
    }
    return services;
}

std::vector<ComPtr<IWbemClassObject>> Query(IWbemServices* services, const std::wstring& wql) {
    std::vector<ComPtr<IWbemClassObject>> objects;
    ComPtr<IEnumWbemClassObject> enumerator;
    EXPECT_EQ(services->ExecQuery(_bstr_t(L"WQL"), _bstr_t(wql.c_str()), WBEM_FLAG_FORWARD_ONLY, nullptr, &enumerator),
              S_OK);
    IWbemClassObject* object = nullptr;
    ULONG returned = 0;
    while (enumerator && enumerator->Next(WBEM_INFINITE, 1, &object, &returned) == S_OK && returned == 1) {
        objects.emplace_back(object);
        object->Release();
    }
    return objects;
}

std::wstring Text(IWbemClassObject* object, const wchar_t* name) {
    _variant_t value;
    if (FAILED(object->Get(name, 0, &value, nullptr, nullptr)) || value.vt != VT_BSTR || value.bstrVal == nullptr) {
        return L"<none>";
    }
    return value.bstrVal;
}

bool WaitUntil(const std::function<bool()>& condition, DWORD milliseconds = 10000) {
    const DWORD start = GetTickCount();
    while (!condition()) {
        if (GetTickCount() - start > milliseconds) {
            return false;
        }
        Sleep(20);
    }
    return true;
}

// What the system sends to the provider's hidden window when a portable device comes or goes.
void Notify(WPARAM change, const std::wstring& interfaceName) {
    HWND window = nullptr;
    ASSERT_TRUE(WaitUntil([&] { return (window = FindWindowW(L"dorWEXWMIWPDHiddenWindowClass", L"dorWEX14")) != nullptr; }));
    std::vector<BYTE> buffer(offsetof(DEV_BROADCAST_DEVICEINTERFACE_W, dbcc_name) +
                             (interfaceName.size() + 1) * sizeof(wchar_t));
    auto* record = reinterpret_cast<DEV_BROADCAST_DEVICEINTERFACE_W*>(buffer.data());
    record->dbcc_size = static_cast<DWORD>(buffer.size());
    record->dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    record->dbcc_classguid = {0x6ac27878, 0xa6fa, 0x4155, {0xba, 0x85, 0xf9, 0x8f, 0x49, 0x1d, 0x4f, 0x33}};
    memcpy(record->dbcc_name, interfaceName.c_str(), (interfaceName.size() + 1) * sizeof(wchar_t));
    EXPECT_EQ(SendMessageW(window, WM_DEVICECHANGE, change, reinterpret_cast<LPARAM>(record)), TRUE);
}

std::wstring Upper(std::wstring text) {
    for (auto& c : text) {
        c = towupper(c);
    }
    return text;
}

TEST(WmiEndToEnd, AttachedDeviceIsAnInstanceWithItsProperties) {
    auto services = Connect();
    ASSERT_TRUE(services);
    const auto devices = Query(services.Get(), L"SELECT * FROM Win32ext_WPD WHERE strSerialNumber = 'att1'");
    ASSERT_EQ(devices.size(), 1u);
    IWbemClassObject* device = devices[0].Get();
    SAFEARRAY* names = nullptr;
    ASSERT_EQ(device->GetNames(nullptr, 0, nullptr, &names), S_OK);
    EXPECT_EQ(names->rgsabound[0].cElements, 25u);
    SafeArrayDestroy(names);
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
}

TEST(WmiEndToEnd, ArrivalPublishesTheDeviceAndRemovalDeletesIt) {
    auto services = Connect();
    const std::string id = "\\\\?\\usb#vid_0421&pid_0661#arrived#{6ac27878-a6fa-4155-ba85-f98f491d4f33}";
    EmulatedDeviceSpec spec = PhoneSpec(id, "NOKIA", "ARR1");
    g_emulator->Attach(spec);
    const std::wstring query = L"SELECT * FROM Win32ext_WPD WHERE strSerialNumber = 'ARR1'";
    EXPECT_TRUE(Query(services.Get(), query).empty());

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
    EXPECT_EQ(Query(services.Get(), L"SELECT * FROM Win32ext_WPD").size(), 1u) << "only the attached device";

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

    // Before Windows 10 1709 only additions are raised: the removal is suppressed.
    ComPtr<IPortableDevicePropVariantCollection> ids;
    CoCreateInstance(CLSID_PortableDevicePropVariantCollection, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&ids));
    PROPVARIANT idValue;
    PropVariantInit(&idValue);
    idValue.vt = VT_LPWSTR;
    idValue.pwszVal = const_cast<LPWSTR>(objectId.c_str());
    ids->Add(&idValue);
    ASSERT_EQ(content->Delete(PORTABLE_DEVICE_DELETE_NO_RECURSION, ids.Get(), nullptr), S_OK);
    ASSERT_TRUE(g_emulator->WaitForEvents(5000));
    EXPECT_EQ(events->Next(500, 1, &event, &returned), WBEM_S_TIMEDOUT);
    EXPECT_EQ(services->CancelAsyncCall(nullptr), WBEM_E_NOT_FOUND);
    device->Close();
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

    _variant_t level(5L, VT_I4);
    in->Put(L"uint32DebugLevel", 0, &level, 0);
    ComPtr<IWbemClassObject> out;
    ASSERT_EQ(services->ExecMethod(path, _bstr_t(L"SetDebugLevel"), 0, nullptr, in.Get(), &out, nullptr), S_OK);
    ASSERT_TRUE(out);
    EXPECT_EQ(Text(out.Get(), L"ReturnValue"), L"");
    _variant_t off(L"0");
    in->Put(L"uint32DebugLevel", 0, &off, 0);
    EXPECT_EQ(services->ExecMethod(path, _bstr_t(L"SetDebugLevel"), 0, nullptr, in.Get(), nullptr, nullptr), S_OK);

    // A parameter of a type the provider cannot take: E_FAIL, and the reason in __ExtendedStatus.
    _variant_t date(45000.0, VT_DATE);
    in->Put(L"uint32DebugLevel", 0, &date, 0);
    EXPECT_EQ(services->ExecMethod(path, _bstr_t(L"SetDebugLevel"), 0, nullptr, in.Get(), nullptr, nullptr), E_FAIL);
    ComPtr<IErrorInfo> error;
    ASSERT_EQ(GetErrorInfo(0, &error), S_OK);
    ComPtr<IWbemClassObject> status;
    ASSERT_EQ(error.As(&status), S_OK);
    EXPECT_EQ(Text(status.Get(), L"Description"),
              L"CDorWEXWPDWMI::MethodSetDebugLevel: Unknown variable (variant) type passed in:7.  Desired variable "
              L"type:8.  Parameter index:0");
    EXPECT_EQ(Text(status.Get(), L"Operation"), L"CDorWEXWPDWMI::MethodSetDebugLevel");
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
              WBEM_E_NOT_FOUND);
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
    ComPtr<IWbemProviderInit> asPropertyProvider;
    ASSERT_EQ(init.As(&unknown), S_OK);
    EXPECT_EQ(static_cast<void*>(unknown.Get()), static_cast<void*>(init.Get()));
    ASSERT_EQ(init->QueryInterface(IID_IWbemPropertyProvider, reinterpret_cast<void**>(asPropertyProvider.GetAddressOf())),
              S_OK);
    EXPECT_EQ(asPropertyProvider.Get(), init.Get()) << "answered with the IWbemProviderInit table";
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
    EXPECT_EQ(provider->GetObjectAsync(nullptr, 0, nullptr, &sink), WBEM_E_INVALID_PARAMETER);
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
    RecordingSink enumeration;
    EXPECT_EQ(secondServices->CreateInstanceEnumAsync(_bstr_t(L"Win32ext_WPD"), 0, nullptr, &enumeration), S_OK);
    EXPECT_EQ(enumeration.completions, 1);
    ASSERT_EQ(enumeration.indicated.size(), 1u);
    EXPECT_EQ(Text(enumeration.indicated[0].Get(), L"strSerialNumber"), L"ATT1");

    // Any path gives one blank instance.
    RecordingSink object;
    EXPECT_EQ(secondServices->GetObjectAsync(_bstr_t(L"Win32ext_WPD.strId=\"x\""), 0, nullptr, &object), S_OK);
    ASSERT_EQ(object.indicated.size(), 1u);
    EXPECT_EQ(Text(object.indicated[0].Get(), L"strId"), L"<none>");
}

}  // namespace
