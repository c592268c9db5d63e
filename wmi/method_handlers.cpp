// The handlers of the methods that act on a device: each outer handler reads and converts its parameters
// and makes the "ReturnValue" text; each inner handler finds the device and calls its operation.
#include <optional>
#include <string>
#include <utility>

#include "../common/com_memory.h"
#include "../common/com_error.h"
#include "../device/wpd_device.h"
#include "../monitor/device_registry.h"
#include "../monitor/monitor.h"
#include "../monitor/write_tokens.h"
#include "method_dispatch.h"
#include "provider.h"
#include "schema.h"
#include "../common/trace.h"
#include "../common/error_text.h"

namespace {

// Process ids and numbers are converted to this type (VT_UINT); a slot that ends as VT_I4 is taken too.
constexpr VARTYPE kNumberType = VT_UINT;

using Text = std::optional<std::wstring>;  // a parameter that was not given is null, not empty

const wchar_t* Pointer(const Text& text_in) {
    return text_in ? text_in->c_str() : nullptr;
}

// The value of the called method's input parameter at a place of its definition; VT_EMPTY when the
// parameter was not given (or the definition has no such place).
_variant_t InputValue(const DorWEXMethodCall& call_io, size_t index_in) {
    _variant_t l_Value;
    if (call_io.pInParams != nullptr && call_io.pMethod != nullptr && index_in < call_io.pMethod->inputCount &&
        FAILED(call_io.pInParams->Get(call_io.pMethod->inputs[index_in].name, 0, &l_Value, nullptr, nullptr))) {
        l_Value.Clear();
    }
    return l_Value;
}

// Reads one input parameter as text into slot 0; a missing or null parameter gives a null text.
HRESULT ReadText(DorWEXMethodCall& call_io, size_t index_in, const wchar_t* pwcharTraceName_in, Text& text_out) {
    text_out.reset();
    const _variant_t l_Value = InputValue(call_io, index_in);
    if (l_Value.vt == VT_NULL || l_Value.vt == VT_EMPTY) {
        return S_OK;
    }
    const HRESULT l_HRESULT = ConvertParameter(call_io, l_Value, 0, VT_BSTR, pwcharTraceName_in);
    if (SUCCEEDED(l_HRESULT)) {
        const BSTR l_bstr = call_io.variant_tSlots[0].bstrVal;
        text_out = std::wstring(l_bstr != nullptr ? l_bstr : L"");
    }
    return l_HRESULT;
}

// Converts a number (a parameter or a context value) through slot intIndex_in; missing gives nothing.
HRESULT ReadNumber(DorWEXMethodCall& call_io, const VARIANT& value_in, int intIndex_in,
                   const wchar_t* pwcharTraceName_in, std::optional<ULONG>& number_out) {
    number_out.reset();
    if (value_in.vt == VT_NULL || value_in.vt == VT_EMPTY) {
        return S_OK;
    }
    const HRESULT l_HRESULT = ConvertParameter(call_io, value_in, intIndex_in, kNumberType, pwcharTraceName_in);
    if (SUCCEEDED(l_HRESULT)) {
        const _variant_t& l_Slot = call_io.variant_tSlots[intIndex_in];
        number_out = l_Slot.vt == VT_I4 ? static_cast<ULONG>(l_Slot.lVal) : l_Slot.uintVal;
    }
    return l_HRESULT;
}

// The caller's process id from the context value, converted through slot 1 like a parameter. A value of
// the type the context value is defined with (an unsigned 32-bit number, VT_UI4) is taken as it is: the
// conversion knows no such source type and would refuse every client that follows the definition. Absent
// gives nothing.
HRESULT ReadContextProcessId(DorWEXMethodCall& call_io, const wchar_t* pwcharTraceName_in,
                             std::optional<ULONG>& processId_out) {
    processId_out.reset();
    _variant_t l_Value;
    if (call_io.pContext == nullptr ||
        FAILED(call_io.pContext->GetValue(dorwex::schema::kContextClientPID, 0, &l_Value))) {
        return S_OK;
    }
    if (l_Value.vt == VT_UI4) {
        processId_out = l_Value.ulVal;
        return S_OK;
    }
    return ReadNumber(call_io, l_Value, 1, pwcharTraceName_in, processId_out);
}

// The device a method means, or null after recording "Device not found" for the inner handler.
IDorWEXDeviceRegistry::DevicePtr FindDevice(DorWEXMethodCall& call_io, const wchar_t* pwcharInnerName_in,
                                            const Text& deviceId_in, const Text& storagePath_in) {
    IDorWEXMonitor* l_pCore = call_io.pProvider->GetCore();
    IDorWEXDeviceRegistry::DevicePtr l_pDevice;
    bool l_boolAmbiguous = false;
    if (IDorWEXDeviceRegistry* const l_pDevices = l_pCore != nullptr ? l_pCore->DevicesWhenStarted() : nullptr) {
        l_pDevice = l_pDevices->FindWPDObject(Pointer(deviceId_in), Pointer(storagePath_in), &l_boolAmbiguous);
    }
    if (!l_pDevice) {
        call_io.SetExtendedStatus(pwcharInnerName_in,
                                  l_boolAmbiguous ? L"More than one device matches" : L"Device not found");
    }
    return l_pDevice;
}

// Whether the device may act on the path; otherwise the call fails with the reason and "ReturnValue" "0".
bool PathAccepted(DorWEXMethodCall& call_io, const wchar_t* pwcharInnerName_in, const IDorWEXWPDDevice& device_in,
                  const Text& storagePath_in, bool boolChangesContent_in) {
    const wchar_t* l_pwcharRefusal = device_in.RefusedStoragePath(Pointer(storagePath_in), boolChangesContent_in);
    if (l_pwcharRefusal == nullptr) {
        return true;
    }
    Trace(L"%s refused %s.\n", pwcharInnerName_in, l_pwcharRefusal);
    call_io.SetExtendedStatus(pwcharInnerName_in, l_pwcharRefusal);
    call_io.SetReturnText(L"0");
    return false;
}

// A COM error a device operation raised, for the caller: the operation is the error's source when the
// failing component named itself, else the handler; the description is the component's own, else the
// system's text for the code.
void RecordComError(DorWEXMethodCall& call_io, const wchar_t* pwcharHandler_in, const _com_error& error_in) {
    const _bstr_t l_bstr_tSource = error_in.Source();
    const _bstr_t l_bstr_tDescription = error_in.Description();
    call_io.pErrorRecord = std::make_unique<DorWEXErrorRecord>(DorWEXErrorRecord{
        l_bstr_tSource.length() != 0 ? std::wstring(l_bstr_tSource) : std::wstring(pwcharHandler_in),
        l_bstr_tDescription.length() != 0 ? std::wstring(l_bstr_tDescription) : GetErrorText(error_in.Error())});
}

void TraceEnter(const wchar_t* pwcharName_in) {
    Trace(L"%s enter.\n", pwcharName_in);
}

// Reads the method's first N parameters, in order, as texts into texts_out; stops at the first that fails to
// convert.
template <size_t N>
HRESULT ReadTexts(DorWEXMethodCall& call_io, const wchar_t* pwcharTraceName_in, Text (&texts_out)[N]) {
    for (size_t l_index = 0; l_index < N; ++l_index) {
        const HRESULT l_HRESULT = ReadText(call_io, l_index, pwcharTraceName_in, texts_out[l_index]);
        if (FAILED(l_HRESULT)) {
            return l_HRESULT;
        }
    }
    return S_OK;
}

void SetOneOrZero(DorWEXMethodCall& call_io, int intResult_in) {
    call_io.SetReturnText(intResult_in == 1 ? L"1" : L"0");
}

// The shape of the methods that act on one device: the outer handler reads its N text parameters in order
// (the storage path first, the device id last), the inner handler finds the device and hands it to work_in,
// which makes the "ReturnValue". Without a device, answerIfMissing_in is the "ReturnValue".
template <size_t N, class Work>
HRESULT DeviceMethod(DorWEXMethodCall& call_io, const wchar_t* pwcharOuter_in, const wchar_t* pwcharInner_in,
                     const wchar_t* pwcharAnswerIfMissing_in, Work work_in) {
    TraceEnter(pwcharOuter_in);
    Text l_Texts[N];
    const HRESULT l_HRESULT = ReadTexts(call_io, pwcharOuter_in, l_Texts);
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    TraceEnter(pwcharInner_in);
    if (const auto l_pDevice = FindDevice(call_io, pwcharInner_in, l_Texts[N - 1], l_Texts[0])) {
        work_in(*l_pDevice, l_Texts);
    } else {
        call_io.SetReturnText(pwcharAnswerIfMissing_in);
    }
    return S_OK;
}

// The calling client's identity for the local-file side of a copy, as Windows' own providers take it: the
// provider runs as LocalSystem, and a client must not make it read or write a file the client itself may
// not. A call whose client cannot be impersonated does not touch a local file at all: the call fails.
class ClientImpersonation {
public:
    ClientImpersonation(DorWEXMethodCall& call_io, const wchar_t* pwcharOperation_in) {
        const HRESULT l_HRESULT = CoImpersonateClient();
        m_boolImpersonating = SUCCEEDED(l_HRESULT);
        Trace(L"%s, CoImpersonateClient %x\n", pwcharOperation_in, l_HRESULT);
        if (!m_boolImpersonating) {
            call_io.SetExtendedStatus(pwcharOperation_in, L"The client could not be impersonated");
            call_io.SetReturnText(L"0");
        }
    }
    ~ClientImpersonation() {
        if (m_boolImpersonating) {
            CoRevertToSelf();
        }
    }
    ClientImpersonation(const ClientImpersonation&) = delete;
    ClientImpersonation& operator=(const ClientImpersonation&) = delete;

    // False when the call has already failed for want of the client's identity.
    bool Impersonating() const { return m_boolImpersonating; }

private:
    bool m_boolImpersonating = false;
};

// A copy that reaches local files: its storage path must be accepted, then the work runs in the client's
// identity, and not at all when that cannot be had (the call has then failed with its reason).
template <class Work>
void RunAsTheClient(DorWEXMethodCall& call_io, const wchar_t* pwcharInnerName_in, const IDorWEXWPDDevice& device_in,
                    const Text& storagePath_in, bool boolChangesContent_in, Work work_in) {
    if (!PathAccepted(call_io, pwcharInnerName_in, device_in, storagePath_in, boolChangesContent_in)) {
        return;
    }
    const ClientImpersonation l_Impersonation(call_io, pwcharInnerName_in);
    if (l_Impersonation.Impersonating()) {
        work_in();
    }
}

}  // namespace

HRESULT MethodGetProperty(DorWEXMethodCall& call_io) {
    return DeviceMethod<3>(call_io, L"CDorWEXWPDWMI::MethodGetProperty", L"CDorWEXWPDWMI::MethodGetProperty2", L"",
                           [&](IDorWEXWPDDevice& device_in, const Text(&texts_in)[3]) {
                               if (!PathAccepted(call_io, L"CDorWEXWPDWMI::MethodGetProperty2", device_in, texts_in[0],
                                                 false)) {
                                   return;
                               }
                               const _bstr_t l_bstr_tValue =
                                   device_in.GetStorageObjectProperty(Pointer(texts_in[0]), Pointer(texts_in[1]));
                               call_io.SetReturnText(BstrText(l_bstr_tValue));
                           });
}

HRESULT MethodCopyFileFromDevice(DorWEXMethodCall& call_io) {
    return DeviceMethod<3>(call_io, L"CDorWEXWPDWMI::MethodCopyFileFromDevice",
                           L"CDorWEXWPDWMI::MethodCopyFileFromDevice2", L"0",
                           [&](IDorWEXWPDDevice& device_in, const Text(&texts_in)[3]) {
                               constexpr wchar_t kInner[] = L"CDorWEXWPDWMI::MethodCopyFileFromDevice2";
                               RunAsTheClient(call_io, kInner, device_in, texts_in[0], false, [&] {
                                   const HRESULT l_HRESULT = CopyCatchingComErrors(
                                       [&] {
                                           return device_in.CopyFileFromDevice(Pointer(texts_in[0]), Pointer(texts_in[1]));
                                       },
                                       [&](const _com_error& error_in) { RecordComError(call_io, kInner, error_in); });
                                   SetOneOrZero(call_io, SUCCEEDED(l_HRESULT) ? 1 : 0);
                               });
                           });
}

HRESULT MethodMoveFileFromDevice(DorWEXMethodCall& call_io) {
    return DeviceMethod<3>(
        call_io, L"CDorWEXWPDWMI::MethodMoveFileFromDevice", L"CDorWEXWPDWMI::MethodMoveFileFromDevice2", L"0",
        [&](IDorWEXWPDDevice& device_in, const Text(&texts_in)[3]) {
            constexpr wchar_t kInner[] = L"CDorWEXWPDWMI::MethodMoveFileFromDevice2";
            RunAsTheClient(call_io, kInner, device_in, texts_in[0], true, [&] {
                SetOneOrZero(call_io, device_in.MoveFileFromDevice(Pointer(texts_in[0]), Pointer(texts_in[1])));
            });
        });
}

HRESULT MethodDeleteFileFromDevice(DorWEXMethodCall& call_io) {
    return DeviceMethod<2>(
        call_io, L"CDorWEXWPDWMI::MethodDeleteFileFromDevice", L"CDorWEXWPDWMI::MethodDeleteFileFromDevice2", L"0",
        [&](IDorWEXWPDDevice& device_in, const Text(&texts_in)[2]) {
            if (!PathAccepted(call_io, L"CDorWEXWPDWMI::MethodDeleteFileFromDevice2", device_in, texts_in[0], true)) {
                return;
            }
            const _bstr_t l_bstr_tDeviceId = device_in.Identity()->m_bstr_tDeviceId;
            SetOneOrZero(call_io, device_in.DeleteFileFromDevice(Pointer(texts_in[0]), l_bstr_tDeviceId));
        });
}

HRESULT MethodEnumerateDevicePath(DorWEXMethodCall& call_io) {
    constexpr wchar_t kOuter[] = L"CDorWEXWPDWMI::MethodEnumerateDevicePath";
    constexpr wchar_t kInner[] = L"CDorWEXWPDWMI::MethodEnumerateDevicePath2";
    TraceEnter(kOuter);
    Text l_Texts[2];
    HRESULT l_HRESULT = ReadTexts(call_io, kOuter, l_Texts);
    std::optional<ULONG> l_ContentType;
    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = ReadNumber(call_io, InputValue(call_io, 2), 1, kOuter, l_ContentType);
    }
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    TraceEnter(kInner);
    _bstr_t l_bstr_tListing;
    const auto l_pDevice = FindDevice(call_io, kInner, l_Texts[1], l_Texts[0]);
    if (l_pDevice && !PathAccepted(call_io, kInner, *l_pDevice, l_Texts[0], false)) {
        return S_OK;
    }
    if (l_pDevice) {
        l_bstr_tListing = l_pDevice->EnumerateDevicePath(Pointer(l_Texts[0]), l_ContentType.value_or(0));
    }
    call_io.SetReturnText(std::move(l_bstr_tListing));
    return S_OK;
}

HRESULT MethodCreateFolderOnDevice(DorWEXMethodCall& call_io) {
    return DeviceMethod<3>(
        call_io, L"CDorWEXWPDWMI::MethodCreateFolderOnDevice", L"CDorWEXWPDWMI::MethodCreateFolderOnDevice2", L"0",
        [&](IDorWEXWPDDevice& device_in, const Text(&texts_in)[3]) {
            if (!PathAccepted(call_io, L"CDorWEXWPDWMI::MethodCreateFolderOnDevice2", device_in, texts_in[0], true)) {
                return;
            }
            SetOneOrZero(call_io,
                         SUCCEEDED(device_in.CreateFolderOnDevice(Pointer(texts_in[0]), Pointer(texts_in[1]))) ? 1 : 0);
        });
}

HRESULT MethodRequestWriteToken(DorWEXMethodCall& call_io) {
    constexpr wchar_t kOuter[] = L"CDorWEXWPDWMI::MethodRequestWriteToken";
    TraceEnter(kOuter);
    std::optional<ULONG> l_ProcessId;
    std::optional<ULONG> l_ClientProcessId;
    HRESULT l_HRESULT = ReadNumber(call_io, InputValue(call_io, 0), 0, kOuter, l_ProcessId);
    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = ReadContextProcessId(call_io, kOuter, l_ClientProcessId);
    }
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    // A token is only for the calling process itself.
    if (!l_ProcessId || !l_ClientProcessId || *l_ProcessId != *l_ClientProcessId) {
        call_io.SetExtendedStatus(kOuter, L"Invalid PID specified when requesting a write token.");
        return S_OK;
    }
    Trace(L"CDorWEXWPDWMI::MethodRequestWriteToken2 enter.\n");
    IDorWEXMonitor* l_pCore = call_io.pProvider->GetCore();
    const _bstr_t l_bstr_tToken =
        l_pCore != nullptr ? l_pCore->WriteTokens().RequestWPDWriteToken(*l_ProcessId) : _bstr_t(L"");
    call_io.SetReturnText(BstrText(l_bstr_tToken));
    return S_OK;
}

HRESULT MethodCopyFileToDevice(DorWEXMethodCall& call_io) {
    constexpr wchar_t kOuter[] = L"CDorWEXWPDWMI::MethodCopyFileToDevice";
    constexpr wchar_t kInner[] = L"CDorWEXWPDWMI::MethodCopyFileToDevice2";
    TraceEnter(kOuter);
    Text l_Texts[4];
    const HRESULT l_HRESULT = ReadTexts(call_io, kOuter, l_Texts);
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    TraceEnter(kInner);
    const auto l_pDevice = FindDevice(call_io, kInner, l_Texts[3], l_Texts[0]);
    if (!l_pDevice) {
        call_io.SetReturnText(L"");
        return S_OK;
    }
    // The write-token gate: a token the core issued to the calling process.
    std::optional<ULONG> l_ClientProcessId;
    const HRESULT l_HRESULTContext = ReadContextProcessId(call_io, kOuter, l_ClientProcessId);
    if (FAILED(l_HRESULTContext)) {
        return l_HRESULTContext;
    }
    if (!l_Texts[2]) {
        call_io.SetExtendedStatus(kInner, L"Write token not specified.");
        return S_OK;
    }
    IDorWEXMonitor* l_pCore = call_io.pProvider->GetCore();
    const DWORD l_dwordTokenProcessId =
        l_pCore != nullptr ? l_pCore->WriteTokens().GetPidForWriteToken(l_Texts[2]->c_str()) : 0;
    if (l_dwordTokenProcessId == 0 || !l_ClientProcessId || l_dwordTokenProcessId != *l_ClientProcessId) {
        call_io.SetExtendedStatus(kInner, L"Write token not found");
        return S_OK;
    }
    RunAsTheClient(call_io, kInner, *l_pDevice, l_Texts[0], true, [&] {
        const _bstr_t l_bstr_tResult = l_pDevice->CopyFileToDevice(Pointer(l_Texts[0]), Pointer(l_Texts[1]),
                                                                   Pointer(l_Texts[2]), l_dwordTokenProcessId);
        call_io.SetReturnText(BstrText(l_bstr_tResult));
    });
    return S_OK;
}

// Ejecting uses an object of its own for the device: the device in the collection is dropped while the
// eject runs, and the eject must not reach into its session.
HRESULT MethodEjectDevice(DorWEXMethodCall& call_io) {
    constexpr wchar_t kOuter[] = L"CDorWEXWPDWMI::MethodEjectDevice";
    constexpr wchar_t kInner[] = L"CDorWEXWPDWMI::MethodEjectDevice2";
    TraceEnter(kOuter);
    Text l_Texts[1];
    const HRESULT l_HRESULT = ReadTexts(call_io, kOuter, l_Texts);
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    TraceEnter(kInner);
    const auto l_pDevice = FindDevice(call_io, kInner, l_Texts[0], Text());
    if (!l_pDevice) {
        SetOneOrZero(call_io, 0);
        return S_OK;
    }
    const _bstr_t l_bstr_tDeviceId = l_pDevice->Identity()->m_bstr_tDeviceId;
    IDorWEXMonitor* l_pCore = call_io.pProvider->GetCore();
    const auto l_pEjectObject = CreateWPDDevice(l_pCore != nullptr ? &l_pCore->DeviceHost() : nullptr);
    LONG l_longResult = 0;
    // The eject object knows the device by its maker text alone, which decides the way it is ejected.
    if (SUCCEEDED(l_pEjectObject->InitializeForEject(l_bstr_tDeviceId))) {
        l_pEjectObject->GetManufacturer();
        l_longResult = l_pEjectObject->EjectDevice();
    }
    SetOneOrZero(call_io, l_longResult);
    return S_OK;
}
