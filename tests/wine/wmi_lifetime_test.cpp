// The provider across the lifetime the WMI service gives it: released when idle and its DLL freed, loaded
// again by the next request with subscriptions carried over, and served by separate objects per role.
// A process of its own: unloading the provider under other tests would change what they see.
#include <gtest/gtest.h>

#include <comdef.h>
#include <dbt.h>
#include <wbemcli.h>
#include <wbemprov.h>
#include <wrl/client.h>

#include <atomic>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

#include "device/portable_device_api.h"
#include "emulator/wmi/control.h"
#include "support/stack_com.h"
#include "support/wait_until.h"
#include "support/wmi_calls.h"
#include "support/wpd_emulator.h"

using Microsoft::WRL::ComPtr;

namespace {

const wchar_t kProviderDll[] = L"dorwex_wpd_provider.dll";
const char kDeviceId[] = "usb#vid_04e8&pid_6860#lifetime";
const wchar_t kDevice[] = L"usb#vid_04e8&pid_6860#lifetime";
const wchar_t kEventQuery[] = L"SELECT * FROM Win32ext_WPDEvent";

WpdEmulator* g_emulator = nullptr;
EmulatedDeviceSpec g_device;

// Registers the provider as regsvr32 does, and lets the DLL go again: only the WMI service keeps it loaded.
void RegisterProviderAndLetGo() {
    HMODULE module = LoadLibraryW((ProgramDirectory() + L"\\" + kProviderDll).c_str());
    ASSERT_NE(module, nullptr);
    auto* registerServer =
        reinterpret_cast<HRESULT(WINAPI*)()>(reinterpret_cast<void*>(GetProcAddress(module, "DllRegisterServer")));
    ASSERT_NE(registerServer, nullptr);
    EXPECT_EQ(registerServer(), S_OK);
    FreeLibrary(module);
    ASSERT_EQ(GetModuleHandleW(kProviderDll), nullptr);
}

class Environment : public testing::Environment {
public:
    void SetUp() override {
        RegisterProviderAndLetGo();
        Register(L"dorwex_wmi_emulator.dll");
        g_emulator = new WpdEmulator();
        g_device = PhoneSpec(kDeviceId, "SAMSUNG Electronics", "LIFE1");
        g_emulator->Attach(g_device);
    }
    void TearDown() override {
        delete g_emulator;
        g_emulator = nullptr;
    }
};
const auto* const g_environment = testing::AddGlobalTestEnvironment(new Environment);

// The emulated WMI service's controls (emulator/wmi/control.h).
struct Controls {
    Controls() {
        HMODULE wmi = GetModuleHandleW(L"dorwex_wmi_emulator.dll");
        const auto find = [wmi](auto& function, const char* name) {
            function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(
                reinterpret_cast<void*>(GetProcAddress(wmi, name)));
            EXPECT_NE(function, nullptr) << name;
        };
        find(unload, "DorwexWmiUnloadProvider");
        find(setClearAfter, "DorwexWmiSetClearAfter");
        find(setSeparateRoles, "DorwexWmiSetSeparateRoles");
        find(counts, "DorwexWmiProviderCounts");
        find(loaded, "DorwexWmiProviderLoaded");
        find(subscriptions, "DorwexWmiSubscriptions");
        find(liveObjects, "DorwexWmiLiveObjects");
        find(setFreeDelay, "DorwexWmiSetFreeDelay");
        find(setInitializeTimeout, "DorwexWmiSetInitializeTimeout");
    }
    DorwexWmiProviderCounts Counts() const {
        DorwexWmiProviderCounts current{};
        counts(&current);
        return current;
    }

    DorwexWmiUnloadProviderFunction unload = nullptr;
    DorwexWmiSetClearAfterFunction setClearAfter = nullptr;
    DorwexWmiSetSeparateRolesFunction setSeparateRoles = nullptr;
    DorwexWmiProviderCountsFunction counts = nullptr;
    DorwexWmiProviderLoadedFunction loaded = nullptr;
    DorwexWmiSubscriptionsFunction subscriptions = nullptr;
    DorwexWmiLiveObjectsFunction liveObjects = nullptr;
    DorwexWmiSetFreeDelayFunction setFreeDelay = nullptr;
    DorwexWmiSetInitializeTimeoutFunction setInitializeTimeout = nullptr;
};

bool ProviderDllMapped() {
    return GetModuleHandleW(kProviderDll) != nullptr;
}

// Unloads the provider and expects its DLL to be gone. A provider thread may still be on its way out of
// the last call into an object (an event it just delivered): DllCanUnloadNow then refuses, and the service
// asks again a second later, as WMI's host does.
void UnloadAndExpectTheDllFreed(const Controls& controls) {
    BOOL freed = FALSE;
    ASSERT_EQ(controls.unload(&freed), S_OK);
    EXPECT_FALSE(controls.loaded());
    EXPECT_EQ(controls.Counts().objects, 0);
    EXPECT_TRUE(freed || WaitUntil([] { return !ProviderDllMapped(); })) << "DllCanUnloadNow never allowed the unload";
    EXPECT_FALSE(ProviderDllMapped());
    EXPECT_EQ(controls.Counts().eventSinks, 0) << "the provider kept the sink of ProvideEvents";
}

// The listing of the device's internal storage, through the provider's method.
Outcome ListPhone() {
    return CallMethod(L"EnumerateDevicePath",
                      {{L"strObjectStoragePath", _variant_t(L"Phone")}, {L"strObjectDeviceId", _variant_t(kDevice)}});
}

// Another client writes a file onto the device: the provider raises WPD_EVENT_OBJECT_ADDED for it.
void WriteThroughTheDeviceApi(const std::wstring& name) {
    ComPtr<IPortableDevice> device;
    ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceFTM, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&device)), S_OK);
    ComPtr<IPortableDeviceValues> client;
    CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&client));
    ASSERT_EQ(device->Open(kDevice, client.Get()), S_OK);
    ComPtr<IPortableDeviceContent> content;
    ASSERT_EQ(device->Content(&content), S_OK);
    ComPtr<IPortableDeviceValues> file;
    CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&file));
    file->SetStringValue(WPD_OBJECT_PARENT_ID, L"s10001");
    file->SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, name.c_str());
    file->SetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, 4);
    ComPtr<IStream> data;
    ASSERT_EQ(content->CreateObjectWithPropertiesAndData(file.Get(), &data, nullptr, nullptr), S_OK);
    data->Write("jpeg", 4, nullptr);
    ASSERT_EQ(data->Commit(0), S_OK);
    device->Close();
}

// The object names of the events a subscription received, waiting for one more within the time.
std::wstring NextEventName(IEnumWbemClassObject* events, long milliseconds = 10000) {
    const auto event = NextEvent(events, milliseconds);
    return event ? Text(event.Get(), L"strObjectName") : L"<no event>";
}

ComPtr<IEnumWbemClassObject> Subscribe(IWbemServices* services) {
    ComPtr<IEnumWbemClassObject> events;
    EXPECT_EQ(services->ExecNotificationQuery(_bstr_t(L"WQL"), _bstr_t(kEventQuery),
                                              WBEM_FLAG_RETURN_IMMEDIATELY | WBEM_FLAG_FORWARD_ONLY, nullptr, &events),
              S_OK);
    return events;
}

// An asynchronous consumer's sink, counting what it is told.
class CountingSink final : public StackCom<IWbemObjectSink> {
public:
    HRESULT STDMETHODCALLTYPE Indicate(LONG count, IWbemClassObject**) override {
        indicated += count;
        return WBEM_S_NO_ERROR;
    }
    HRESULT STDMETHODCALLTYPE SetStatus(LONG, HRESULT hResult, BSTR, IWbemClassObject*) override {
        lastStatus = hResult;
        ++statuses;
        return WBEM_S_NO_ERROR;
    }
    std::atomic<long> indicated{0};
    std::atomic<long> statuses{0};
    std::atomic<HRESULT> lastStatus{E_PENDING};
};

TEST(ProviderLifetime, UnloadLeavesNothingTheServiceGaveTheProviderAlive) {
    auto services = Connect();
    ASSERT_TRUE(services);
    const Controls controls;
    BOOL freed = FALSE;
    ASSERT_TRUE(SUCCEEDED(controls.unload(&freed)));
    ASSERT_FALSE(ProviderDllMapped());
    const LONG before = controls.liveObjects();

    // Every role in use: an asynchronous consumer (the event role), a method call and an enumeration.
    CountingSink consumer;
    ASSERT_EQ(services->ExecNotificationQueryAsync(_bstr_t(L"WQL"), _bstr_t(kEventQuery), 0, nullptr, &consumer),
              S_OK);
    // The listing waits until the devices attached at the start are open: only then do their events reach
    // the provider.
    EXPECT_EQ(ListPhone().status, S_OK);
    WriteThroughTheDeviceApi(L"counted.jpg");
    EXPECT_TRUE(WaitUntil([&] { return consumer.indicated >= 1; }));
    EXPECT_EQ(Query(services.Get(), L"SELECT * FROM Win32ext_WPD").size(), 1u);
    ASSERT_EQ(services->CancelAsyncCall(&consumer), S_OK);

    UnloadAndExpectTheDllFreed(controls);
    // The namespace the provider was given in Initialize and the sink of ProvideEvents were released.
    EXPECT_EQ(controls.liveObjects(), before);
    EXPECT_EQ(consumer.refs, 1u) << "the service still holds the consumer's sink";
}

TEST(ProviderLifetime, AnIdleProviderIsUnloadedAfterClearAfterButNotWhileConsumersRemain) {
    auto services = Connect();
    ASSERT_TRUE(services);
    const Controls controls;
    const DWORD clearAfter = 300;
    controls.setClearAfter(clearAfter);
    const LONG unloads = controls.Counts().unloads;

    // A consumer keeps the provider: three intervals pass without an unload.
    CountingSink consumer;
    ASSERT_EQ(services->ExecNotificationQueryAsync(_bstr_t(L"WQL"), _bstr_t(kEventQuery), 0, nullptr, &consumer),
              S_OK);
    EXPECT_EQ(ListPhone().status, S_OK);
    EXPECT_FALSE(WaitUntil([&] { return controls.Counts().unloads != unloads; }, 3 * clearAfter));
    EXPECT_TRUE(ProviderDllMapped());

    // Without consumers and calls it is released after the interval, and its DLL freed.
    ASSERT_EQ(services->CancelAsyncCall(&consumer), S_OK);
    EXPECT_TRUE(WaitUntil([&] { return controls.Counts().unloads == unloads + 1; }));
    EXPECT_TRUE(WaitUntil([] { return !ProviderDllMapped(); }));
    EXPECT_FALSE(controls.loaded());

    // The next call loads it again.
    EXPECT_EQ(ListPhone().status, S_OK);
    EXPECT_TRUE(controls.loaded());
    controls.setClearAfter(0);
}

TEST(ProviderLifetime, UnloadFreesTheDllAndAMethodCallLoadsItAgain) {
    auto services = Connect();
    ASSERT_TRUE(services);
    const Controls controls;
    g_emulator->WriteFile(g_emulator->StorageDirectory(g_device, 0) + L"\\before.txt", "1");
    const Outcome first = ListPhone();
    ASSERT_EQ(first.status, S_OK);
    EXPECT_NE(first.returnValue.find(L"before.txt@"), std::wstring::npos) << first.returnValue;
    ASSERT_TRUE(controls.loaded());
    ASSERT_TRUE(ProviderDllMapped());
    const DorwexWmiProviderCounts loaded = controls.Counts();

    UnloadAndExpectTheDllFreed(controls);

    // The next call loads the DLL again, and a new object initialised anew answers from the device.
    g_emulator->WriteFile(g_emulator->StorageDirectory(g_device, 0) + L"\\after.txt", "2");
    const Outcome second = ListPhone();
    ASSERT_EQ(second.status, S_OK);
    EXPECT_NE(second.returnValue.find(L"before.txt@"), std::wstring::npos) << second.returnValue;
    EXPECT_NE(second.returnValue.find(L"after.txt@"), std::wstring::npos) << second.returnValue;
    EXPECT_TRUE(ProviderDllMapped());
    const DorwexWmiProviderCounts reloaded = controls.Counts();
    EXPECT_EQ(reloaded.moduleLoads, loaded.moduleLoads + 1);
    EXPECT_EQ(reloaded.initializations, loaded.initializations + 1);
    EXPECT_EQ(reloaded.unloads, loaded.unloads + 1);
    EXPECT_EQ(reloaded.objects, 1);
    EXPECT_EQ(Query(services.Get(), L"SELECT * FROM Win32ext_WPD WHERE strSerialNumber = 'LIFE1'").size(), 1u);
}

// The runtime calls the provider's callbacks on its own threads and releases them after their last call, at
// a moment of its choosing. A DLL freed in between would be entered again for that release. The unload
// comes while a pool thread still holds a callback: the DLL must stay until the release has been made.
TEST(ProviderLifetime, ACallbackTheRuntimeStillHoldsKeepsTheDllMapped) {
    struct Case {
        const char* name;
        bool subscribed;  // an event callback delivering; else a listing's bulk callback after its end
    };
    const Case cases[] = {{"event callback after OnEvent", true}, {"bulk callback after OnEnd", false}};
    auto services = Connect();
    ASSERT_TRUE(services);
    const Controls controls;
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        ComPtr<IEnumWbemClassObject> events;
        if (each.subscribed) {
            events = Subscribe(services.Get());
            ASSERT_TRUE(events);
        }
        ASSERT_EQ(ListPhone().status, S_OK);
        ASSERT_TRUE(g_emulator->WaitForEvents(10000));
        g_emulator->SetCallbackHold(2000);
        if (each.subscribed) {
            WriteThroughTheDeviceApi(L"held.jpg");
            EXPECT_EQ(NextEventName(events.Get()), L"held.jpg");
            events.Reset();
        } else {
            ASSERT_EQ(ListPhone().status, S_OK);
        }
        UnloadAndExpectTheDllFreed(controls);
        g_emulator->SetCallbackHold(0);
        EXPECT_TRUE(g_emulator->WaitForEvents(10000));
    }
}

TEST(ProviderLifetime, ASubscriptionMadeBeforeTheUnloadReceivesEventsAfterTheReload) {
    auto services = Connect();
    ASSERT_TRUE(services);
    const Controls controls;
    auto events = Subscribe(services.Get());
    ASSERT_TRUE(events);
    ASSERT_EQ(ListPhone().status, S_OK);  // the phone is watched once the provider has published it
    WriteThroughTheDeviceApi(L"one.jpg");
    ASSERT_EQ(NextEventName(events.Get()), L"one.jpg");

    UnloadAndExpectTheDllFreed(controls);
    EXPECT_EQ(controls.subscriptions(), 1) << "the consumer's subscription outlives the provider";

    // Any request loads the provider again; the subscription is registered with it anew.
    EXPECT_EQ(ListPhone().status, S_OK);
    ASSERT_TRUE(ProviderDllMapped());
    EXPECT_EQ(controls.Counts().eventSinks, 1);
    WriteThroughTheDeviceApi(L"two.jpg");
    EXPECT_EQ(NextEventName(events.Get()), L"two.jpg");

    // A consumer that subscribes after the reload receives the next event as well, and each one once.
    auto later = Subscribe(services.Get());
    WriteThroughTheDeviceApi(L"three.jpg");
    EXPECT_EQ(NextEventName(events.Get()), L"three.jpg");
    EXPECT_EQ(NextEventName(later.Get()), L"three.jpg");
    ASSERT_TRUE(g_emulator->WaitForEvents(5000));
    EXPECT_EQ(NextEvent(events.Get(), 200), nullptr) << "one event, delivered once";

    // Releasing an event query's enumerator cancels the query.
    events.Reset();
    later.Reset();
    EXPECT_EQ(controls.subscriptions(), 0);
}

// A phone announced to the provider's window as the system announces an arrival; true once it is published.
bool ArrivalPublished(const std::string& id, const std::string& serial) {
    g_emulator->Attach(PhoneSpec(id, "NOKIA", serial));
    Notify(DBT_DEVICEARRIVAL, Wide(id));
    const std::wstring query = L"SELECT * FROM Win32ext_WPD WHERE strSerialNumber = '" + Wide(serial) + L"'";
    return WaitUntil([&] { return Query(Connect().Get(), query).size() == 1; });
}

const wchar_t kWindowClass[] = L"dorWEXWMIWPDHiddenWindowClass";

bool ClassRegistered(HINSTANCE module) {
    WNDCLASSEXW found{};
    found.cbSize = sizeof(found);
    return GetClassInfoExW(module, kWindowClass, &found) != FALSE;
}

// The system does not unregister a DLL's window classes when it unloads the DLL. A class left registered
// names a window procedure in the old mapping: a reload at another address that used it would send the
// window's first message into memory that is no longer the provider's.
TEST(ProviderLifetime, AReloadAtAnotherAddressUsesAWindowClassOfItsOwn) {
    const Controls controls;
    ASSERT_EQ(ListPhone().status, S_OK);
    const HMODULE first = GetModuleHandleW(kProviderDll);
    ASSERT_NE(first, nullptr);
    HWND window = nullptr;
    ASSERT_TRUE(WaitUntil([&] { return (window = OwnHiddenWindow()) != nullptr; }));
    EXPECT_EQ(reinterpret_cast<HMODULE>(GetClassLongPtrW(window, GCLP_HMODULE)), first)
        << "the class is registered for another module than the provider's";
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(first);
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(reinterpret_cast<const BYTE*>(first) + dos->e_lfanew);
    const SIZE_T imageSize = nt->OptionalHeader.SizeOfImage;

    UnloadAndExpectTheDllFreed(controls);
    EXPECT_FALSE(ClassRegistered(first)) << "the class outlived the DLL";
    EXPECT_FALSE(ClassRegistered(GetModuleHandleW(nullptr))) << "the class outlived the DLL";

    // The old address range taken, the next load relocates the DLL.
    void* reserved = VirtualAlloc(first, imageSize, MEM_RESERVE, PAGE_NOACCESS);
    ASSERT_EQ(reserved, static_cast<void*>(first));
    EXPECT_EQ(ListPhone().status, S_OK);
    const HMODULE second = GetModuleHandleW(kProviderDll);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(second, first) << "the DLL came back at its old address";
    EXPECT_TRUE(ArrivalPublished("\\\\?\\usb#vid_0421&pid_0661#relocated#{6ac27878-a6fa-4155-ba85-f98f491d4f33}",
                                 "RELOC1"));

    UnloadAndExpectTheDllFreed(controls);
    VirtualFree(reserved, 0, MEM_RELEASE);
}

// COM frees an unused multithreaded DLL only a while after DllCanUnloadNow allowed it, and a request in
// that time reuses the mapped DLL: the monitor it starts then must not inherit the stopped one's state.
TEST(ProviderLifetime, AModuleStillMappedAfterItsUnloadServesTheNextRequestWholly) {
    auto services = Connect();
    ASSERT_TRUE(services);
    const Controls controls;
    ASSERT_EQ(ListPhone().status, S_OK);
    controls.setFreeDelay(60000);
    BOOL freed = TRUE;
    ASSERT_EQ(controls.unload(&freed), S_OK);
    EXPECT_FALSE(freed);
    ASSERT_TRUE(ProviderDllMapped());
    const DorwexWmiProviderCounts unloaded = controls.Counts();

    auto events = Subscribe(services.Get());
    ASSERT_TRUE(events);
    EXPECT_EQ(ListPhone().status, S_OK);
    WriteThroughTheDeviceApi(L"kept.jpg");
    EXPECT_EQ(NextEventName(events.Get()), L"kept.jpg");
    const Outcome listed = ListPhone();
    EXPECT_NE(listed.returnValue.find(L"kept.jpg@"), std::wstring::npos) << listed.returnValue;
    EXPECT_TRUE(ArrivalPublished("\\\\?\\usb#vid_0421&pid_0661#remapped#{6ac27878-a6fa-4155-ba85-f98f491d4f33}",
                                 "REMAP1"));
    EXPECT_EQ(controls.Counts().moduleLoads, unloaded.moduleLoads) << "the DLL was loaded anew";
    EXPECT_EQ(controls.Counts().initializations, unloaded.initializations + 1);

    controls.setFreeDelay(0);
    UnloadAndExpectTheDllFreed(controls);
}

// WMI dispatches a request the moment the provider reports WBEM_S_INITIALIZED, and no provider may hold
// the thread Initialize is called on. Opening a phone takes about a second: the devices attached at the
// start are opened side by side on the provider's own threads, and a request made meanwhile waits for them.
TEST(ProviderLifetime, InitializeReturnsAtOnceAndTheFirstRequestSeesEveryAttachedDevice) {
    const Controls controls;
    const size_t published = Query(Connect().Get(), L"SELECT * FROM Win32ext_WPD").size();
    BOOL freed = FALSE;
    ASSERT_TRUE(SUCCEEDED(controls.unload(&freed)));
    std::vector<EmulatedDeviceSpec> slow;
    for (int index = 0; index < 3; ++index) {
        const std::string number = std::to_string(index);
        slow.push_back(PhoneSpec("usb#vid_04e8&pid_6860#slow" + number, "SAMSUNG Electronics", "SLOW" + number));
        slow.back().deviceLines.push_back("open_ms = 1000");
        g_emulator->Attach(slow.back());
    }
    g_emulator->MostOpeningAtOnce(TRUE);
    auto services = Connect();
    ASSERT_TRUE(services);
    EXPECT_EQ(Query(services.Get(), L"SELECT * FROM Win32ext_WPD").size(), published + slow.size());
    EXPECT_LT(controls.Counts().longestInitializeMs, 1000) << "Initialize opened a device on WMI's thread";
    EXPECT_EQ(g_emulator->MostOpeningAtOnce(FALSE), static_cast<LONG>(slow.size()))
        << "the phones were opened one after another, not side by side";

    for (const auto& spec : slow) {
        g_emulator->Detach(spec);
    }
    ASSERT_TRUE(SUCCEEDED(controls.unload(&freed)));
}

class SeparateRoles : public testing::Test {
protected:
    void SetUp() override {
        BOOL freed = FALSE;
        ASSERT_TRUE(SUCCEEDED(controls.unload(&freed)));
        controls.setSeparateRoles(TRUE);
    }
    void TearDown() override {
        BOOL freed = FALSE;
        controls.unload(&freed);
        controls.setSeparateRoles(FALSE);
    }
    Controls controls;
};

TEST_F(SeparateRoles, EventsBeforeMethodsEachObjectInitialisedOnItsOwn) {
    auto services = Connect();
    ASSERT_TRUE(services);
    const LONG initializations = controls.Counts().initializations;
    auto events = Subscribe(services.Get());
    ASSERT_TRUE(events);
    EXPECT_EQ(controls.Counts().objects, 1);
    EXPECT_EQ(controls.Counts().initializations, initializations + 1);

    const Outcome listing = ListPhone();
    EXPECT_EQ(listing.status, S_OK);
    EXPECT_EQ(controls.Counts().objects, 2);
    EXPECT_EQ(controls.Counts().initializations, initializations + 2);

    // The event object raises events while the method object serves calls.
    WriteThroughTheDeviceApi(L"separate-1.jpg");
    EXPECT_EQ(NextEventName(events.Get()), L"separate-1.jpg");
    const Outcome again = ListPhone();
    EXPECT_EQ(again.status, S_OK);
    EXPECT_NE(again.returnValue.find(L"separate-1.jpg@"), std::wstring::npos) << again.returnValue;
}

TEST_F(SeparateRoles, MethodsBeforeEventsAndAcrossAnUnload) {
    auto services = Connect();
    ASSERT_TRUE(services);
    const LONG initializations = controls.Counts().initializations;
    EXPECT_EQ(ListPhone().status, S_OK);
    auto events = Subscribe(services.Get());
    ASSERT_TRUE(events);
    EXPECT_EQ(controls.Counts().objects, 2);
    EXPECT_EQ(controls.Counts().initializations, initializations + 2);
    WriteThroughTheDeviceApi(L"separate-2.jpg");
    EXPECT_EQ(NextEventName(events.Get()), L"separate-2.jpg");

    UnloadAndExpectTheDllFreed(controls);
    // A method call brings back both roles, the event role for the subscription still live.
    EXPECT_EQ(ListPhone().status, S_OK);
    EXPECT_EQ(controls.Counts().objects, 2);
    EXPECT_EQ(controls.Counts().initializations, initializations + 4);
    WriteThroughTheDeviceApi(L"separate-3.jpg");
    EXPECT_EQ(NextEventName(events.Get()), L"separate-3.jpg");
}

}  // namespace

namespace {

// A provider that initialises as told, registered in this process in place of the real one (COM looks at
// class objects registered in-process first). It counts what the service dispatches to it.
enum class InitAnswer { Ready, NoStatus, Failed, NonZeroFlags };

class DoubleProvider final : public IWbemProviderInit, public IWbemServices {
public:
    explicit DoubleProvider(InitAnswer answer) : m_answer(answer) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
        if (riid == IID_IUnknown || riid == IID_IWbemProviderInit) {
            *ppv = static_cast<IWbemProviderInit*>(this);
        } else if (riid == IID_IWbemServices) {
            *ppv = static_cast<IWbemServices*>(this);
        } else {
            *ppv = nullptr;
            return E_NOINTERFACE;
        }
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++references; }
    ULONG STDMETHODCALLTYPE Release() override { return --references; }

    HRESULT STDMETHODCALLTYPE Initialize(LPWSTR, LONG, LPWSTR, LPWSTR, IWbemServices*, IWbemContext*,
                                         IWbemProviderInitSink* sink) override {
        ++initializations;
        switch (m_answer) {
        case InitAnswer::Ready:
            statusAnswer = sink->SetStatus(WBEM_S_INITIALIZED, 0);
            break;
        case InitAnswer::Failed:
            statusAnswer = sink->SetStatus(WBEM_E_FAILED, 0);
            break;
        case InitAnswer::NonZeroFlags:
            statusAnswer = sink->SetStatus(WBEM_S_INITIALIZED, 1);
            break;
        case InitAnswer::NoStatus:
            break;
        }
        return WBEM_S_NO_ERROR;
    }

#define DORWEX_DOUBLE_REFUSES(signature) \
    HRESULT STDMETHODCALLTYPE signature override { return Dispatched(); }
    DORWEX_DOUBLE_REFUSES(OpenNamespace(const BSTR, LONG, IWbemContext*, IWbemServices**, IWbemCallResult**))
    DORWEX_DOUBLE_REFUSES(CancelAsyncCall(IWbemObjectSink*))
    DORWEX_DOUBLE_REFUSES(QueryObjectSink(LONG, IWbemObjectSink**))
    DORWEX_DOUBLE_REFUSES(GetObject(const BSTR, LONG, IWbemContext*, IWbemClassObject**, IWbemCallResult**))
    DORWEX_DOUBLE_REFUSES(GetObjectAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*))
    DORWEX_DOUBLE_REFUSES(PutClass(IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**))
    DORWEX_DOUBLE_REFUSES(PutClassAsync(IWbemClassObject*, LONG, IWbemContext*, IWbemObjectSink*))
    DORWEX_DOUBLE_REFUSES(DeleteClass(const BSTR, LONG, IWbemContext*, IWbemCallResult**))
    DORWEX_DOUBLE_REFUSES(DeleteClassAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*))
    DORWEX_DOUBLE_REFUSES(CreateClassEnum(const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**))
    DORWEX_DOUBLE_REFUSES(CreateClassEnumAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*))
    DORWEX_DOUBLE_REFUSES(PutInstance(IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**))
    DORWEX_DOUBLE_REFUSES(PutInstanceAsync(IWbemClassObject*, LONG, IWbemContext*, IWbemObjectSink*))
    DORWEX_DOUBLE_REFUSES(DeleteInstance(const BSTR, LONG, IWbemContext*, IWbemCallResult**))
    DORWEX_DOUBLE_REFUSES(DeleteInstanceAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*))
    DORWEX_DOUBLE_REFUSES(CreateInstanceEnum(const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**))
    DORWEX_DOUBLE_REFUSES(ExecQuery(const BSTR, const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**))
    DORWEX_DOUBLE_REFUSES(ExecQueryAsync(const BSTR, const BSTR, LONG, IWbemContext*, IWbemObjectSink*))
    DORWEX_DOUBLE_REFUSES(ExecNotificationQuery(const BSTR, const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**))
    DORWEX_DOUBLE_REFUSES(ExecNotificationQueryAsync(const BSTR, const BSTR, LONG, IWbemContext*, IWbemObjectSink*))
    DORWEX_DOUBLE_REFUSES(ExecMethod(const BSTR, const BSTR, LONG, IWbemContext*, IWbemClassObject*,
                                     IWbemClassObject**, IWbemCallResult**))
#undef DORWEX_DOUBLE_REFUSES

    // The two calls the test makes: each completes at once with nothing.
    HRESULT STDMETHODCALLTYPE CreateInstanceEnumAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink* sink) override {
        Dispatched();
        sink->SetStatus(WBEM_STATUS_COMPLETE, WBEM_S_NO_ERROR, nullptr, nullptr);
        return WBEM_S_NO_ERROR;
    }
    HRESULT STDMETHODCALLTYPE ExecMethodAsync(const BSTR, const BSTR, LONG, IWbemContext*, IWbemClassObject*,
                                              IWbemObjectSink* sink) override {
        Dispatched();
        sink->SetStatus(WBEM_STATUS_COMPLETE, WBEM_S_NO_ERROR, nullptr, nullptr);
        return WBEM_S_NO_ERROR;
    }

    std::atomic<long> references{1};
    std::atomic<long> initializations{0};
    std::atomic<long> dispatched{0};
    std::atomic<HRESULT> statusAnswer{E_PENDING};  // what the service's SetStatus returned

private:
    HRESULT Dispatched() {
        ++dispatched;
        return WBEM_E_NOT_SUPPORTED;
    }
    const InitAnswer m_answer;
};

// Hands out the one double and keeps it.
class DoubleFactory final : public IClassFactory {
public:
    explicit DoubleFactory(DoubleProvider* provider) : m_provider(provider) {}
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
        if (riid == IID_IUnknown || riid == IID_IClassFactory) {
            *ppv = static_cast<IClassFactory*>(this);
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override {
        return outer != nullptr ? CLASS_E_NOAGGREGATION : m_provider->QueryInterface(riid, ppv);
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

private:
    DoubleProvider* m_provider;
};

// The real provider unloaded and the double registered in its place for the test's duration.
class ProviderInitialization : public testing::TestWithParam<InitAnswer> {
protected:
    void SetUp() override {
        BOOL freed = FALSE;
        ASSERT_TRUE(SUCCEEDED(controls.unload(&freed)));
        ASSERT_EQ(CoRegisterClassObject(kProviderClsid, &factory, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &cookie),
                  S_OK);
        controls.setInitializeTimeout(500);  // how long a provider that reports nothing is waited for
    }
    void TearDown() override {
        controls.setInitializeTimeout(60000);
        CoRevokeClassObject(cookie);
        BOOL freed = FALSE;
        controls.unload(&freed);
        EXPECT_EQ(provider.references, 1) << "the service still holds the double";
    }

    // {5C2F4E1A-7B3D-4E8A-9D61-2A4F0B7C3E91}, the provider's class (wmi/provider_clsid.h).
    static constexpr CLSID kProviderClsid = {
        0x5c2f4e1a, 0x7b3d, 0x4e8a, {0x9d, 0x61, 0x2a, 0x4f, 0x0b, 0x7c, 0x3e, 0x91}};
    Controls controls;
    DoubleProvider provider{GetParam()};
    DoubleFactory factory{&provider};
    DWORD cookie = 0;
};

// Only SetStatus(WBEM_S_INITIALIZED, 0) makes a provider ready: without it (within the time the service
// waits) nothing is dispatched and the request fails with WBEM_E_PROVIDER_LOAD_FAILURE; flags other than 0
// are refused.
TEST_P(ProviderInitialization, OnlyAReadyProviderIsCalled) {
    auto services = Connect();
    ASSERT_TRUE(services);
    const bool ready = GetParam() == InitAnswer::Ready;
    ComPtr<IEnumWbemClassObject> enumerator;
    const HRESULT enumerated = services->CreateInstanceEnum(_bstr_t(L"Win32ext_WPD"), 0, nullptr, &enumerator);
    // ExecMethodAsync: the service reports the outcome to the client's sink.
    CountingSink method;
    EXPECT_EQ(services->ExecMethodAsync(_bstr_t(L"Win32ext_WPD"), _bstr_t(L"SetDebugLevel"), 0, nullptr, nullptr,
                                        &method),
              WBEM_S_NO_ERROR);
    EXPECT_EQ(method.statuses, 1);
    const HRESULT called = method.lastStatus;
    EXPECT_EQ(enumerated, ready ? S_OK : static_cast<HRESULT>(WBEM_E_PROVIDER_LOAD_FAILURE));
    EXPECT_EQ(called, ready ? S_OK : static_cast<HRESULT>(WBEM_E_PROVIDER_LOAD_FAILURE));
    EXPECT_EQ(provider.dispatched, ready ? 2 : 0);
    EXPECT_EQ(controls.loaded(), ready ? TRUE : FALSE);
    // A provider that failed is loaded again, and initialised again, by the next request.
    EXPECT_EQ(provider.initializations, ready ? 1 : 2);
    // A ready provider is called as soon as it reports, perhaps before its Initialize has stored the answer.
    if (GetParam() != InitAnswer::NoStatus) {
        EXPECT_TRUE(WaitUntil([&] { return provider.statusAnswer != E_PENDING; }));
    }
    if (GetParam() == InitAnswer::NonZeroFlags) {
        EXPECT_TRUE(FAILED(provider.statusAnswer)) << "SetStatus with reserved flags was accepted";
    } else if (GetParam() != InitAnswer::NoStatus) {
        EXPECT_EQ(provider.statusAnswer, WBEM_S_NO_ERROR);
    }
}

INSTANTIATE_TEST_SUITE_P(Answers, ProviderInitialization,
                         testing::Values(InitAnswer::Ready, InitAnswer::NoStatus, InitAnswer::Failed,
                                         InitAnswer::NonZeroFlags));

}  // namespace
