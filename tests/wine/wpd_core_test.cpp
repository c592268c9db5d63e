// The core: start-up with devices already attached, and write tokens through the security service's hook.
#include <gtest/gtest.h>

#include <comdef.h>

#include <thread>

#include "monitor/write_token_hook.h"
#include "monitor/wpd_collection.h"
#include "monitor/wpd_core.h"
#include "monitor/wpd_events_processor.h"
#include "support/provider_object.h"
#include "support/test_trace_sink.h"
#include "support/trace_gate.h"
#include "support/wpd_emulator.h"
#include "wmi/module.h"
#include "wmi/provider.h"

namespace {

class Core : public testing::Test {
protected:
    WpdEmulator emulator;
};

TEST_F(Core, InitializeAddsAttachedDevicesOnceAndStartsTheWPDProcessor) {
    emulator.Attach(PhoneSpec("usb#attached1", "SAMSUNG", "A1"));
    emulator.Attach(PhoneSpec("usb#attached2", "HP Inc.", "A2"));
    emulator.Attach(PhoneSpec("usb#stick", "IronKey", "A3"));
    auto* provider = new CDorWEXWPDWMI();
    provider->AddRef();  // as the class factory hands it out
    TraceCapture trace(1);
    {
        CDorWEXWMIWPDCore core(provider);
        // One device is in the collection already: it is not added again.
        ASSERT_EQ(core.GetCollection()->AddWPD(L"usb#attached1"), S_OK);
        trace.Clear();
        EXPECT_EQ(core.Initialize(), 1);
        EXPECT_TRUE(trace.Has(L"CDorWEXWMIWPDCore::Initialize"));
        // The devices are opened on a thread of the core; a request's lookup waits for them.
        ASSERT_EQ(core.DevicesWhenStarted(), core.GetCollection());
        EXPECT_EQ(core.GetCollection()->Count(), 2u) << "the storage stick is refused";
        EXPECT_EQ(trace.Count(L"CDorWEXWPDCollection::AddWPD enter.\n"), 2u);
        EXPECT_EQ(emulator.OpenSessions(L"usb#attached1"), 1);
        ASSERT_NE(core.GetWPDEventsProcessor(), nullptr);
        EXPECT_EQ(g_HANDLEApplicationEvent, core.GetWPDEventsProcessor()->GetApplicationEvent());
        EXPECT_TRUE(trace.Has(L"CDorWEXWMIThreadBase::Start: TheMonitorThreadForThreadWPD\n"));
    }
    EXPECT_EQ(g_HANDLEApplicationEvent, nullptr);
    EXPECT_EQ(emulator.OpenSessions(L"usb#attached1"), 0) << "the core closes its devices";
    EXPECT_EQ(emulator.OpenSessions(L"usb#attached2"), 0);
    provider->Release();
}

TEST_F(Core, WithoutProviderOnlyMonitoringStarts) {
    emulator.Attach(PhoneSpec("usb#ignored", "SAMSUNG", "I1"));
    CDorWEXWMIWPDCore core;
    EXPECT_EQ(core.Initialize(), 1);
    EXPECT_EQ(core.GetCollection()->Count(), 0u);
    EXPECT_TRUE(core.GetWPDEventsProcessor()->IsRunning());
}

TEST_F(Core, EachProcessKeepsOneTokenAndTheHookSeesTheRequest) {
    CDorWEXWMIWPDCore core;
    TraceCapture trace(1);
    const DWORD self = GetCurrentProcessId();
    const _bstr_t first = core.RequestWPDWriteToken(self);
    ASSERT_EQ(first.length(), 36u) << "a UUID in text form";
    // Lower-case hexadecimal with hyphens, no braces: the form clients compare against.
    const std::wstring firstText(first);
    for (size_t index = 0; index < firstText.size(); ++index) {
        const wchar_t c = firstText[index];
        if (index == 8 || index == 13 || index == 18 || index == 23) {
            EXPECT_EQ(c, L'-') << firstText;
        } else {
            EXPECT_TRUE((c >= L'0' && c <= L'9') || (c >= L'a' && c <= L'f')) << firstText;
        }
    }
    EXPECT_EQ(core.GetPidForWriteToken(first), self);

    wchar_t operation[32] = {};
    LONG pid = 0;
    VARTYPE reservedType = VT_EMPTY;
    HRESULT reservedCode = S_OK;
    EXPECT_EQ(emulator.HookCalls(operation, 32, &pid, &reservedType, &reservedCode) > 0, true);
    EXPECT_STREQ(operation, L"PIDHOOK");
    EXPECT_EQ(static_cast<DWORD>(pid), self);
    EXPECT_EQ(reservedType, VT_ERROR);
    EXPECT_EQ(reservedCode, DISP_E_PARAMNOTFOUND);

    const _bstr_t second = core.RequestWPDWriteToken(self);
    EXPECT_NE(std::wstring(second), std::wstring(first));
    EXPECT_EQ(core.GetPidForWriteToken(first), 0u) << "a new request drops the old token";
    EXPECT_EQ(core.GetPidForWriteToken(second), self);
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIWPDCore::RequestWPDWriteToken erase old PID.\n"));
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIWPDCore::RequestWPDWriteToken <" + std::wstring(second) + L">.\n"));

    // Lookups are exact and case-sensitive.
    std::wstring upper(second);
    for (auto& c : upper) {
        c = towupper(c);
    }
    EXPECT_EQ(core.GetPidForWriteToken(upper.c_str()), 0u);
    EXPECT_EQ(core.GetPidForWriteToken(nullptr), 0u);
}

TEST_F(Core, NoTokenForAMissingProcessOrWithoutTheHook) {
    CDorWEXWMIWPDCore core;
    TraceCapture trace(1);
    const LONG callsBefore = emulator.HookCalls(nullptr, 0, nullptr, nullptr, nullptr);
    // Process ids are multiples of four; this one cannot exist.
    EXPECT_EQ(core.RequestWPDWriteToken(0xFFFFFFF1u).length(), 0u);
    EXPECT_EQ(emulator.HookCalls(nullptr, 0, nullptr, nullptr, nullptr), callsBefore);
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIWPDCore::RequestWPDWriteToken <>.\n"));

    // Without the security service's class registered there is no hook and no token.
    wchar_t key[128];
    wchar_t clsid[64];
    StringFromGUID2(CLSID_DorWEXPidHook, clsid, 64);
    swprintf(key, 128, L"Software\\Classes\\CLSID\\%ls\\InprocServer32", clsid);
    HKEY server = nullptr;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, key, 0, KEY_ALL_ACCESS, &server), ERROR_SUCCESS);
    wchar_t path[MAX_PATH] = {};
    DWORD bytes = sizeof(path);
    RegQueryValueExW(server, nullptr, nullptr, nullptr, reinterpret_cast<BYTE*>(path), &bytes);
    const wchar_t missing[] = L"C:\\nowhere\\missing-hook.dll";
    RegSetValueExW(server, nullptr, 0, REG_SZ, reinterpret_cast<const BYTE*>(missing), sizeof(missing));
    const _bstr_t token = core.RequestWPDWriteToken(GetCurrentProcessId());
    RegSetValueExW(server, nullptr, 0, REG_SZ, reinterpret_cast<const BYTE*>(path), bytes);
    RegCloseKey(server);
    EXPECT_EQ(token.length(), 0u);
}

TEST_F(Core, RefusingHookRaisesAComError) {
    CDorWEXWMIWPDCore core;
    emulator.SetHookResult(E_ACCESSDENIED);
    try {
        core.RequestWPDWriteToken(GetCurrentProcessId());
        ADD_FAILURE() << "no error raised";
    } catch (const _com_error& error) {
        EXPECT_EQ(error.Error(), E_ACCESSDENIED);
    }
    emulator.SetHookResult(S_OK);
}

// WMI releases a provider object whenever it likes; an event already on its way through it keeps it alive
// until the event is delivered.
TEST_F(Core, EventKeepsTheProviderObjectItGoesThroughAlive) {
    const LONG instancesBefore = g_longInstanceCountOfDorWEXWMIWPDClass;
    CDorWEXWMIWPDCore core;
    g_pCDorWEXWMIWPDCore = &core;  // the provider attaches to the running core
    IWbemProviderInit* provider = CreateProviderObject<IWbemProviderInit>();
    ASSERT_NE(provider, nullptr);
    provider->Initialize(nullptr, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
    g_pCDorWEXWMIWPDCore = nullptr;

    TraceCapture trace(1);
    const auto send = [&core] {
        DorWEXWPDEvent event;
        event.pwcharEventId = L"event";
        event.pwcharEventText = L"text";
        return core.SendEvent(event);
    };
    std::thread event;
    {
        TraceGate gate(L"CDorWEXWPDWMI::SendEvent enter.");
        event = std::thread(send);
        ASSERT_TRUE(gate.WaitHeld());
        EXPECT_EQ(provider->Release(), 1u) << "the event holds the last reference";
        EXPECT_EQ(trace.Count(L"CDorWEXWPDWMI::~CDorWEXWPDWMI"), 0u);
    }
    event.join();
    EXPECT_EQ(trace.Count(L"CDorWEXWPDWMI::~CDorWEXWPDWMI"), 1u) << "destroyed once the event was through";
    EXPECT_EQ(g_longInstanceCountOfDorWEXWMIWPDClass, instancesBefore);
    trace.Clear();
    EXPECT_EQ(send(), S_OK);
    EXPECT_FALSE(trace.Has(L"CDorWEXWPDWMI::SendEvent enter.\n")) << "no provider is left to send through";
}

}  // namespace
