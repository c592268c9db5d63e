// The emulated portable-device stack as an in-process COM server: class factory, registration under the
// real class ids, the write-token hook double, and the control functions tests call directly.
#include <objbase.h>

#include <cstring>
#include <mutex>
#include <iterator>
#include <string>

#include "collections.h"
#include "control.h"
#include "emulated_api.h"
#include "device/apple_companion.h"
#include "emulator/common/com_server.h"
#include "monitor/write_token_hook.h"
#include "emulator_state.h"

namespace dorwex::emulator {

namespace {

// The write-token hook double: answers the Hook call with a result tests choose and records the call.
struct HookRecord {
    std::mutex lock;
    HRESULT result = S_OK;
    LONG calls = 0;
    std::wstring operation;
    LONG processId = 0;
    VARTYPE reservedType = VT_EMPTY;
    HRESULT reservedCode = S_OK;
};
HookRecord& Hooks() {
    static HookRecord* record = new HookRecord();
    return *record;
}

class PidHook final : public ComObject<IDorWEXPidHook, IDispatch> {
public:
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
        if (count != nullptr) {
            *count = 0;
        }
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Hook(VARIANT operation, VARIANT processId, VARIANT reserved, VARIANT* result) override {
        HookRecord& record = Hooks();
        std::lock_guard<std::mutex> guard(record.lock);
        ++record.calls;
        record.operation = operation.vt == VT_BSTR && operation.bstrVal != nullptr ? operation.bstrVal : L"";
        record.processId = processId.vt == VT_I4 ? processId.lVal : -1;
        record.reservedType = reserved.vt;
        record.reservedCode = reserved.vt == VT_ERROR ? reserved.scode : S_OK;
        if (result != nullptr) {
            VariantInit(result);
        }
        return record.result;
    }
};

HRESULT CreatePidHook(REFIID riid, void** ppv) {
    return CreateComObject<PidHook>(riid, ppv);
}

template <class T>
HRESULT CreateSimple(REFIID riid, void** ppv) {
    return CreateComObject<T>(riid, ppv);
}

const ServedClass kClasses[] = {
    {&CLSID_DorWEXWPDApple, CreateAppleCompanion, L"Emulated Apple companion"},
    {&CLSID_PortableDeviceManager, CreatePortableDeviceManager, L"Emulated PortableDeviceManager"},
    {&CLSID_PortableDevice, CreatePortableDevice, L"Emulated PortableDevice"},
    {&CLSID_PortableDeviceFTM, CreatePortableDevice, L"Emulated PortableDeviceFTM"},
    {&CLSID_PortableDeviceValues, CreateSimple<PortableDeviceValues>, L"Emulated PortableDeviceValues"},
    {&CLSID_PortableDeviceKeyCollection, CreateSimple<PortableDeviceKeyCollection>,
     L"Emulated PortableDeviceKeyCollection"},
    {&CLSID_PortableDevicePropVariantCollection, CreateSimple<PortableDevicePropVariantCollection>,
     L"Emulated PortableDevicePropVariantCollection"},
    {&CLSID_DorWEXPidHook, CreatePidHook, L"Emulated security-service PID hook"},
};

std::shared_ptr<EmulatedDevice> Device(LPCWSTR id) {
    return id == nullptr ? nullptr : EmulatorState::Get().Find(id);
}

DWORD CopyText(const std::wstring& text, LPWSTR buffer, DWORD chars) {
    if (buffer != nullptr && chars > 0) {
        const size_t count = std::min<size_t>(text.size(), chars - 1);
        std::memcpy(buffer, text.c_str(), count * sizeof(wchar_t));
        buffer[count] = L'\0';
    }
    return static_cast<DWORD>(text.size() + 1);
}

}  // namespace
}  // namespace dorwex::emulator

using namespace dorwex::emulator;

DORWEX_EMULATOR_COM_SERVER(kClasses)

// --- Control functions ----------------------------------------------------------------------------

extern "C" void WINAPI DorwexEmulatorReset() {
    EmulatorState::Get().Reset();
}

extern "C" DWORD WINAPI DorwexEmulatorRescan() {
    return static_cast<DWORD>(EmulatorState::Get().Scan().size());
}

extern "C" DWORD WINAPI DorwexEmulatorErrors(LPWSTR buffer, DWORD chars) {
    std::wstring text;
    for (const auto& error : EmulatorState::Get().Errors()) {
        text += error + L"\n";
    }
    return CopyText(text, buffer, chars);
}

extern "C" HRESULT WINAPI DorwexEmulatorRemoveDevice(LPCWSTR deviceId) {
    const auto device = Device(deviceId);
    if (!device) {
        return kNotFound;
    }
    device->SetRemoved(true);
    device->RaiseEvent(WPD_EVENT_DEVICE_REMOVED, nullptr);
    return S_OK;
}

extern "C" HRESULT WINAPI DorwexEmulatorRaiseEvent(LPCWSTR deviceId, const GUID* eventId, LPCWSTR objectId) {
    const auto device = Device(deviceId);
    if (!device || eventId == nullptr) {
        return kNotFound;
    }
    if (objectId == nullptr) {
        device->RaiseEvent(*eventId, nullptr);
        return S_OK;
    }
    ObjectInfo object;
    const HRESULT hr = device->Lookup(objectId, object);
    if (FAILED(hr)) {
        return hr;
    }
    device->RaiseEvent(*eventId, &object);
    return S_OK;
}

extern "C" BOOL WINAPI DorwexEmulatorWaitForEvents(DWORD milliseconds) {
    return EmulatorState::Get().WaitForEvents(milliseconds) ? TRUE : FALSE;
}

extern "C" void WINAPI DorwexEmulatorSetCallbackHold(DWORD milliseconds) {
    EmulatorState::Get().SetCallbackHold(milliseconds);
}

extern "C" ULONG WINAPI DorwexEmulatorCallCount(LPCWSTR deviceId, LPCSTR call) {
    const auto device = Device(deviceId);
    return device && call != nullptr ? device->CallCount(call) : 0;
}

extern "C" HRESULT WINAPI DorwexEmulatorSetFault(LPCWSTR deviceId, LPCSTR call, HRESULT result, LONG count) {
    const auto device = Device(deviceId);
    if (!device || call == nullptr || count < -1) {
        return E_INVALIDARG;
    }
    device->SetFault(call, result, count);
    return S_OK;
}

extern "C" HRESULT WINAPI DorwexEmulatorSetStreamEnd(LPCWSTR deviceId, ULONGLONG bytes) {
    const auto device = Device(deviceId);
    if (!device) {
        return E_INVALIDARG;
    }
    device->SetStreamEnd(bytes);
    return S_OK;
}

extern "C" HRESULT WINAPI DorwexEmulatorChangeByOtherClient(LPCWSTR deviceId, ULONG storage, LPCWSTR from,
                                                            LPCWSTR to) {
    const auto device = Device(deviceId);
    if (!device || from == nullptr) {
        return E_INVALIDARG;
    }
    return device->ChangeByOtherClient(static_cast<int>(storage), from, to != nullptr ? to : L"");
}

extern "C" LONG WINAPI DorwexEmulatorMostOpeningAtOnce(BOOL reset) {
    return EmulatorState::Get().MostOpeningAtOnce(reset != FALSE);
}

extern "C" ULONG WINAPI DorwexEmulatorRequests(LPCWSTR deviceId, BOOL reset) {
    const auto device = Device(deviceId);
    return device ? device->Requests(reset != FALSE) : 0;
}

extern "C" LONG WINAPI DorwexEmulatorOpenSessions(LPCWSTR deviceId) {
    const auto device = Device(deviceId);
    return device ? device->OpenSessions() : -1;
}

extern "C" LONG WINAPI DorwexEmulatorSubscriptions(LPCWSTR deviceId) {
    const auto device = Device(deviceId);
    return device ? static_cast<LONG>(device->SubscriptionCount()) : -1;
}

extern "C" HRESULT WINAPI DorwexEmulatorLastClient(LPCWSTR deviceId, LPWSTR buffer, DWORD chars) {
    const auto device = Device(deviceId);
    if (!device) {
        return kNotFound;
    }
    CopyText(device->LastClient(), buffer, chars);
    return S_OK;
}

extern "C" LONG WINAPI DorwexEmulatorLiveObjects() {
    return g_liveObjects.load();
}

extern "C" void WINAPI DorwexEmulatorSetHookResult(HRESULT result) {
    std::lock_guard<std::mutex> guard(Hooks().lock);
    Hooks().result = result;
}

extern "C" LONG WINAPI DorwexEmulatorHookCalls(LPWSTR operation, DWORD chars, LONG* processId, VARTYPE* reservedType,
                                               HRESULT* reservedCode) {
    HookRecord& record = Hooks();
    std::lock_guard<std::mutex> guard(record.lock);
    CopyText(record.operation, operation, chars);
    if (processId != nullptr) {
        *processId = record.processId;
    }
    if (reservedType != nullptr) {
        *reservedType = record.reservedType;
    }
    if (reservedCode != nullptr) {
        *reservedCode = record.reservedCode;
    }
    return record.calls;
}
