// What an Apple device does through the Apple companion object: its identity, listing, copies, deletes,
// new folders and moves, and where a storage path lies on the device.
#include "local_replacement.h"
#include "wpd_object.h"

#include <string>

#include "../common/trace.h"
#include "../common/error_text.h"
#include "../common/com_error.h"
#include "../common/com_memory.h"

namespace {

// The answer of a companion call as a result: a number, an error code (success gives 1) or a boolean.
LONG ResultOf(const VARIANT& variant_in) {
    switch (variant_in.vt) {
    case VT_I4:
    case VT_INT:
        return variant_in.lVal;
    case VT_UI4:
    case VT_UINT:
        return static_cast<LONG>(variant_in.ulVal);
    case VT_ERROR:
        return SUCCEEDED(variant_in.scode) ? 1 : 0;
    case VT_BOOL:
        return variant_in.boolVal != VARIANT_FALSE ? 1 : 0;
    default:
        return 0;
    }
}

// A companion call's failure: the COM error line, then its code and text.
void TraceComError(const wchar_t* pwcharOperation_in, HRESULT hresultCode_in) {
    Trace(L"CDorWEXWPDObject::%s COM Error.\n", pwcharOperation_in);
    Trace(L"CDorWEXWPDObject::%s 0x%08x: %s.\n", pwcharOperation_in, hresultCode_in,
          GetErrorText(hresultCode_in).c_str());
}

// A companion call that answers with a result: its failure traced and passed on, otherwise S_OK when the
// result is 1 and E_FAIL for anything else.
HRESULT Outcome(const wchar_t* pwcharOperation_in, HRESULT hresultCall_in, const VARIANT& result_in) {
    if (FAILED(hresultCall_in)) {
        TraceComError(pwcharOperation_in, hresultCall_in);
        return hresultCall_in;
    }
    return ResultOf(result_in) == 1 ? S_OK : E_FAIL;
}

_bstr_t Bstr(const wchar_t* pwcharText_in) {
    return _bstr_t(pwcharText_in != nullptr ? pwcharText_in : L"");
}

}  // namespace

HRESULT CDorWEXWPDObject::GetAppleCOMObject(IdorWEXWPDApple** ppIdorWEXWPDApple_out) {
    if (ppIdorWEXWPDApple_out == nullptr) {
        return E_POINTER;
    }
    *ppIdorWEXWPDApple_out = nullptr;
    std::lock_guard<std::mutex> l_guard(m_mutexApple);
    if (m_IdorWEXWPDAppleCOMPtr) {
        Trace(L"CDorWEXWPDObject::GetAppleCOMObject already exists.\n");
        return m_IdorWEXWPDAppleCOMPtr.CopyTo(ppIdorWEXWPDApple_out);
    }
    const HRESULT l_HRESULT =
        CoCreateInstance(CLSID_DorWEXWPDApple, nullptr, CLSCTX_ALL, IID_IdorWEXWPDApple,
                         reinterpret_cast<void**>(m_IdorWEXWPDAppleCOMPtr.ReleaseAndGetAddressOf()));
    if (FAILED(l_HRESULT)) {
        Trace(L"CDorWEXWPDObject::GetAppleCOMObject ERROR:.\nHRESULT = 0x%08x.\n", l_HRESULT);
        return l_HRESULT;
    }
    Trace(L"CDorWEXWPDObject::GetAppleCOMObject SUCCESSFULLY created.\n");
    return m_IdorWEXWPDAppleCOMPtr.CopyTo(ppIdorWEXWPDApple_out);
}

Microsoft::WRL::ComPtr<IdorWEXWPDApple> CDorWEXWPDObject::AppleCompanion() {
    std::lock_guard<std::mutex> l_guard(m_mutexApple);
    return m_IdorWEXWPDAppleCOMPtr;
}

// The companion tells the identity WPD does not: serial number and the addresses of the device's radios.
// The companion knows a device by its serial number, always as a non-null text.
_bstr_t CDorWEXWPDObject::AppleSerialNumber() const {
    return Bstr(BstrText(Identity()->m_bstr_tSerialNumber));
}

HRESULT CDorWEXWPDObject::ReadAppleIdentity() {
    Microsoft::WRL::ComPtr<IdorWEXWPDApple> l_pApple;
    const HRESULT l_HRESULT = GetAppleCOMObject(l_pApple.GetAddressOf());
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    const _bstr_t l_bstr_tSerialNumber = AppleSerialNumber();
    // The serial number is also the device's object id: the companion names the device by it.
    const struct {
        const wchar_t* pwcharName;
        _bstr_t DeviceIdentity::*pMember;
        _bstr_t DeviceIdentity::*pAlsoMember;
    } l_Values[] = {
        {L"SerialNumber", &DeviceIdentity::m_bstr_tSerialNumber, &DeviceIdentity::m_bstr_tDeviceObjectId},
        {L"BluetoothAddress", &DeviceIdentity::m_bstr_tBluetoothAddress, nullptr},
        {L"EthernetAddress", &DeviceIdentity::m_bstr_tEthernetAddress, nullptr},
        {L"WiFiAddress", &DeviceIdentity::m_bstr_tWiFiAddress, nullptr},
    };
    for (const auto& l_Value : l_Values) {
        _variant_t l_variant_tValue;
        const HRESULT l_HRESULTValue =
            l_pApple->GetIdentityValue(l_bstr_tSerialNumber, _bstr_t(l_Value.pwcharName), &l_variant_tValue);
        if (FAILED(l_HRESULTValue)) {
            TraceComError(L"ReadAppleIdentity", l_HRESULTValue);
            continue;
        }
        if (l_variant_tValue.vt == VT_BSTR && SysStringLen(l_variant_tValue.bstrVal) != 0) {
            const _bstr_t l_bstr_tValue(l_variant_tValue.bstrVal);
            UpdateIdentity([&](DeviceIdentity& identity_io) {
                identity_io.*l_Value.pMember = l_bstr_tValue;
                if (l_Value.pAlsoMember != nullptr) {
                    identity_io.*l_Value.pAlsoMember = l_bstr_tValue;
                }
            });
        }
    }
    UpdateIdentity([](DeviceIdentity& identity_io) {
        if (identity_io.m_bstr_tDisk1Name.length() == 0 ||
            wcscmp(identity_io.m_bstr_tDisk1Name, L"Internal Storage") != 0) {
            identity_io.m_bstr_tDisk1Name = L"Internal Storage";
        }
    });
    return S_OK;
}

_bstr_t CDorWEXWPDObject::EnumerateDevicePath2(const wchar_t* pwcharObjectStoragePath_in, ULONG ulongContentType_in) {
    Trace(L"CDorWEXWPDObject::EnumerateDevicePath2 enter.\n");
    const auto l_pApple = AppleCompanion();
    if (!l_pApple) {
        return _bstr_t(L"");
    }
    _variant_t l_variant_tListing;
    const HRESULT l_HRESULT = l_pApple->EnumerateDevicePath(AppleSerialNumber(),
                                                            Bstr(pwcharObjectStoragePath_in), ulongContentType_in,
                                                            &l_variant_tListing);
    if (FAILED(l_HRESULT)) {
        TraceComError(L"EnumerateDevicePath2", l_HRESULT);
        return _bstr_t(L"");
    }
    return l_variant_tListing.vt == VT_BSTR ? _bstr_t(l_variant_tListing.bstrVal) : _bstr_t(L"");
}

_bstr_t CDorWEXWPDObject::CopyFileToDevice2(const wchar_t* pTCHARObjectStoragePath_in,
                                            const wchar_t* pTCHARstrFileToCopy_in,
                                            const wchar_t* pTCHARWriteToken_in) {
    Trace(L"CDorWEXWPDObject::CopyFileToDevice2 enter.\n");
    const auto l_pApple = AppleCompanion();
    if (!l_pApple) {
        Trace(L"CDorWEXWPDObject::CopyFileToDevice2 ERROR m_IdorWEXWPDAppleCOMPtr == NULL.\n");
        return _bstr_t(L"0");
    }
    if (pTCHARObjectStoragePath_in == nullptr) {
        Trace(L"CDorWEXWPDObject::CopyFileToDevice2 ERROR pTCHARObjectStoragePath_in == NULL.\n");
        return _bstr_t(L"0");
    }
    if (pTCHARstrFileToCopy_in == nullptr) {
        Trace(L"CDorWEXWPDObject::CopyFileToDevice2 ERROR pTCHARstrFileToCopy_in == NULL.\n");
        return _bstr_t(L"0");
    }
    if (pTCHARWriteToken_in == nullptr) {
        Trace(L"CDorWEXWPDObject::CopyFileToDevice2 ERROR pTCHARWriteToken_in == NULL.\n");
        return _bstr_t(L"0");
    }
    Trace(L"CDorWEXWPDObject::CopyFileToDevice2 calling COM.\n");
    _variant_t l_variant_tResult;
    const HRESULT l_HRESULT =
        l_pApple->CopyFileToDevice(AppleSerialNumber(), _bstr_t(pTCHARObjectStoragePath_in),
                                   _bstr_t(pTCHARstrFileToCopy_in), _bstr_t(pTCHARWriteToken_in), &l_variant_tResult);
    if (FAILED(l_HRESULT)) {
        TraceComError(L"CopyFileToDevice2", l_HRESULT);
        return _bstr_t(L"0");
    }
    return _bstr_t(std::to_wstring(ResultOf(l_variant_tResult)).c_str());
}

HRESULT CDorWEXWPDObject::CopyFileFromDevice2(const wchar_t* pwcharObjectStoragePath_in,
                                              const wchar_t* pwcharLocalFileName_in) {
    Trace(L"CDorWEXWPDObject::CopyFileFromDevice2 enter.\n");
    const auto l_pApple = AppleCompanion();
    if (!l_pApple || pwcharObjectStoragePath_in == nullptr || pwcharLocalFileName_in == nullptr) {
        return E_FAIL;
    }
    // The companion writes beside the target; the target is replaced only when the companion reports the
    // whole copy done.
    CDorWEXLocalReplacement l_Replacement(pwcharLocalFileName_in);
    if (FAILED(l_Replacement.Created())) {
        return l_Replacement.Created();
    }
    _variant_t l_variant_tResult;
    ClearThreadErrorInfo();
    const HRESULT l_HRESULT = l_pApple->CopyFileFromDevice(AppleSerialNumber(), _bstr_t(pwcharObjectStoragePath_in),
                                                           _bstr_t(l_Replacement.TemporaryPath()), &l_variant_tResult);
    if (FAILED(l_HRESULT)) {
        // The companion's failure goes to the caller with what the companion said about it.
        TraceComError(L"CopyFileFromDevice2", l_HRESULT);
        RaiseComError(l_HRESULT, TakeThreadErrorInfo());
    }
    const HRESULT l_HRESULTOutcome = Outcome(L"CopyFileFromDevice2", l_HRESULT, l_variant_tResult);
    return FAILED(l_HRESULTOutcome) ? l_HRESULTOutcome : l_Replacement.Commit();
}

int CDorWEXWPDObject::DeleteFileFromDevice2(const wchar_t* pwcharObjectStoragePath_in) {
    Trace(L"CDorWEXWPDObject::DeleteFileFromDevice2 enter.\n");
    int l_intResult = 0;
    const auto l_pApple = AppleCompanion();
    if (l_pApple && pwcharObjectStoragePath_in != nullptr) {
        _variant_t l_variant_tResult;
        const HRESULT l_HRESULT = l_pApple->DeleteFileFromDevice(
            AppleSerialNumber(), _bstr_t(pwcharObjectStoragePath_in), &l_variant_tResult);
        l_intResult = SUCCEEDED(Outcome(L"DeleteFileFromDevice2", l_HRESULT, l_variant_tResult)) ? 1 : 0;
    }
    Trace(L"CDorWEXWPDObject::DeleteFileFromDevice2 %s=%s", pwcharObjectStoragePath_in != nullptr ? pwcharObjectStoragePath_in : L"",
          l_intResult == 1 ? L"TRUE" : L"FALSE");
    return l_intResult;
}

HRESULT CDorWEXWPDObject::CreateFolderOnDevice2(const wchar_t* pwcharParentPath_in, const wchar_t* pwcharFolderName_in) {
    Trace(L"CDorWEXWPDObject::CreateFolderOnDevice2 enter.\n");
    const auto l_pApple = AppleCompanion();
    if (!l_pApple || pwcharParentPath_in == nullptr || pwcharFolderName_in == nullptr) {
        return E_FAIL;
    }
    _variant_t l_variant_tResult;
    return Outcome(L"CreateFolderOnDevice2",
                   l_pApple->CreateFolderOnDevice(AppleSerialNumber(), _bstr_t(pwcharParentPath_in),
                                                  _bstr_t(pwcharFolderName_in), &l_variant_tResult),
                   l_variant_tResult);
}

// Copy, then delete; 1 when the copy succeeded, whatever the delete did.
int CDorWEXWPDObject::MoveFileFromDevice2(const wchar_t* pwcharObjectStoragePath_in,
                                          const wchar_t* pwcharLocalFileName_in) {
    if (!CopiedFromDevice([&] { return CopyFileFromDevice2(pwcharObjectStoragePath_in, pwcharLocalFileName_in); })) {
        return 0;
    }
    DeleteFileFromDevice2(pwcharObjectStoragePath_in);
    return 1;
}

bool CDorWEXWPDObject::GetAppleDeviceAbsolutePath(const wchar_t* pwcharObjectStoragePath_in,
                                                  _bstr_t& bstr_tDeviceAbsolutePath_out) {
    Microsoft::WRL::ComPtr<IdorWEXWPDApple> l_pApple;
    if (FAILED(GetAppleCOMObject(l_pApple.GetAddressOf()))) {
        return false;
    }
    _variant_t l_variant_tDeviceAbsolutePath;
    const HRESULT l_HRESULT = l_pApple->GetDeviceAbsolutePath(
        AppleSerialNumber(), _bstr_t(pwcharObjectStoragePath_in), &l_variant_tDeviceAbsolutePath);
    if (FAILED(l_HRESULT)) {
        TraceComError(L"SimulateWPDWriteEvent", l_HRESULT);
        return false;
    }
    if (l_variant_tDeviceAbsolutePath.vt != VT_BSTR) {
        Trace(L"CDorWEXWPDObject::SimulateWPDWriteEvent, ERROR: l_variant_tDeviceAbsolutePath.vt != VT_BSTR.\n");
        return false;
    }
    bstr_tDeviceAbsolutePath_out = l_variant_tDeviceAbsolutePath.bstrVal;
    return true;
}
