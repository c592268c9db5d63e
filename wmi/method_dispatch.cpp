// ExecMethodAsync: routing a method call to its handler, converting parameters, and handing the outcome
// back as "ReturnValue" or as an __ExtendedStatus.
#include "method_dispatch.h"

#include "com_boundary.h"

#include <wrl/client.h>

#include <cwchar>

#include "object_path.h"
#include "provider.h"
#include "schema.h"
#include "../common/trace.h"

namespace {

std::wstring Format(const wchar_t* pwcharFormat_in, ...) {
    wchar_t l_wcharText[1024];
    va_list l_va_list;
    va_start(l_va_list, pwcharFormat_in);
    _vsnwprintf_s(l_wcharText, _countof(l_wcharText), _TRUNCATE, pwcharFormat_in, l_va_list);
    va_end(l_va_list);
    return l_wcharText;
}

}  // namespace

DorWEXMethodCall::~DorWEXMethodCall() {
    if (pExtendedStatus != nullptr) {
        pExtendedStatus->Release();
    }
}

void DorWEXMethodCall::SetReturnText(const wchar_t* pwcharText_in) {
    boolHasReturnValue = true;
    variant_tReturnValue = _variant_t(pwcharText_in != nullptr ? pwcharText_in : L"");
}

void DorWEXMethodCall::SetReturnText(_bstr_t&& bstr_tText_in) {
    if (bstr_tText_in.length() == 0) {
        SetReturnText(L"");
        return;
    }
    boolHasReturnValue = true;
    variant_tReturnValue.Clear();
    variant_tReturnValue.bstrVal = bstr_tText_in.Detach();
    variant_tReturnValue.vt = VT_BSTR;
}

void DorWEXMethodCall::SetExtendedStatus(const wchar_t* pwcharOperation_in, const wchar_t* pwcharDescription_in) {
    IWbemClassObject* l_pStatus =
        CreateExtendedStatus(pProvider->GetNamespace(), pwcharOperation_in, pwcharDescription_in);
    if (l_pStatus == nullptr) {
        pErrorRecord = std::make_unique<DorWEXErrorRecord>(DorWEXErrorRecord{pwcharOperation_in, pwcharDescription_in});
        return;
    }
    if (pExtendedStatus != nullptr) {
        pExtendedStatus->Release();
    }
    pExtendedStatus = l_pStatus;
}

HRESULT ConvertParameter(DorWEXMethodCall& call_io, const VARIANT& variant_in, int intIndex_in,
                         VARTYPE vartypeDesired_in, const wchar_t* pwcharMethodTraceName_in) {
    const bool l_boolByReference = variant_in.vt == (VT_BYREF | VT_VARIANT) && variant_in.pvarVal != nullptr;
    const VARIANT& l_VARIANT = l_boolByReference ? *variant_in.pvarVal : variant_in;
    _variant_t& l_Slot = call_io.variant_tSlots[intIndex_in];
    l_Slot.Clear();
    switch (l_VARIANT.vt) {
    case VT_I2:
        l_Slot = Format(L"%i", l_VARIANT.iVal).c_str();
        break;
    case VT_I4:
        l_Slot = Format(L"%i", l_VARIANT.lVal).c_str();
        break;
    case VT_R4:
        l_Slot = Format(L"%g", static_cast<double>(l_VARIANT.fltVal)).c_str();
        break;
    case VT_R8:
        l_Slot = Format(L"%g", l_VARIANT.dblVal).c_str();
        break;
    case VT_BSTR:
        l_Slot = l_VARIANT;
        break;
    case VT_DISPATCH:
        if (!l_boolByReference) {
            l_Slot = l_VARIANT;
            break;
        }
        [[fallthrough]];
    case VT_BOOL:
        if (l_VARIANT.vt == VT_BOOL) {
            l_Slot = _variant_t(l_VARIANT.boolVal, VT_BOOL);
            break;
        }
        [[fallthrough]];
    default:
        call_io.pErrorRecord = std::make_unique<DorWEXErrorRecord>(DorWEXErrorRecord{
            pwcharMethodTraceName_in,
            std::wstring(pwcharMethodTraceName_in) +
                Format(L": Unknown variable (variant) type passed in:%i.  Desired variable type:%i.  Parameter index:%i",
                       l_VARIANT.vt, vartypeDesired_in, intIndex_in)});
        return E_FAIL;
    }
    if (l_Slot.vt != vartypeDesired_in) {
        HRESULT l_HRESULT;
        try {
            l_HRESULT = VariantChangeType(&l_Slot, &l_Slot, 0, vartypeDesired_in);
        } catch (...) {
            l_HRESULT = E_FAIL;
        }
        if (FAILED(l_HRESULT)) {
            call_io.pErrorRecord = std::make_unique<DorWEXErrorRecord>(DorWEXErrorRecord{
                pwcharMethodTraceName_in,
                std::wstring(pwcharMethodTraceName_in) +
                    Format(L": Could not convert parameter %i to proper data type: %i", intIndex_in, vartypeDesired_in)});
            return E_FAIL;
        }
    }
    return S_OK;
}

IWbemClassObject* CreateExtendedStatus(IWbemServices* pIWbemServices_in, const wchar_t* pwcharOperation_in,
                                       const wchar_t* pwcharDescription_in) {
    if (pIWbemServices_in == nullptr) {
        return nullptr;
    }
    Microsoft::WRL::ComPtr<IWbemClassObject> l_Class;
    IWbemClassObject* l_pStatus = nullptr;
    _bstr_t l_bstr_tClass(dorwex::schema::kClassExtendedStatus);
    if (FAILED(pIWbemServices_in->GetObject(l_bstr_tClass, 0, nullptr, l_Class.ReleaseAndGetAddressOf(), nullptr)) || l_Class.Get() == nullptr ||
        FAILED(l_Class->SpawnInstance(0, &l_pStatus))) {
        return nullptr;
    }
    _variant_t l_Description(pwcharDescription_in != nullptr ? pwcharDescription_in : L"");
    _variant_t l_Operation(pwcharOperation_in != nullptr ? pwcharOperation_in : L"");
    _variant_t l_ProviderName(dorwex::schema::kProviderName);
    _variant_t l_StatusCode(static_cast<long>(E_FAIL), VT_I4);
    l_pStatus->Put(dorwex::schema::kStatusDescription, 0, &l_Description, 0);
    l_pStatus->Put(dorwex::schema::kStatusOperation, 0, &l_Operation, 0);
    l_pStatus->Put(dorwex::schema::kStatusProviderName, 0, &l_ProviderName, 0);
    // An instance's property keeps its class's type: Put takes no type for it (0), and uint32 is VT_I4.
    l_pStatus->Put(dorwex::schema::kStatusCode, 0, &l_StatusCode, 0);
    return l_pStatus;
}

STDMETHODIMP CDorWEXWPDWMI::ExecMethodAsync(const BSTR strObjectPath, const BSTR strMethodName, LONG,
                                            IWbemContext* pCtx, IWbemClassObject* pInParams,
                                            IWbemObjectSink* pResponseHandler) {
    Trace(L"CDorWEXWPDWMI::ExecMethodAsync enter.\n");
    if (pResponseHandler == nullptr) {
        return WBEM_E_INVALID_PARAMETER;
    }
    DorWEXMethodCall l_Call;
    l_Call.pProvider = this;
    l_Call.pInParams = pInParams;
    l_Call.pContext = pCtx;
    HRESULT l_HRESULT = WBEM_S_NO_ERROR;
    try {
        const auto l_ObjectPath = strObjectPath != nullptr ? dorwex::ParseObjectPath(strObjectPath) : std::nullopt;
        if (l_ObjectPath && m_pIWbemServices != nullptr) {
            Microsoft::WRL::ComPtr<IWbemClassObject> l_Class;
            _bstr_t l_bstr_tClass(l_ObjectPath->className.c_str());
            l_HRESULT = m_pIWbemServices->GetObject(l_bstr_tClass, 0, pCtx, l_Class.ReleaseAndGetAddressOf(), nullptr);
            Microsoft::WRL::ComPtr<IWbemClassObject> l_OutSignature;
            Microsoft::WRL::ComPtr<IWbemClassObject> l_OutParams;
            if (SUCCEEDED(l_HRESULT) && l_Class.Get() != nullptr) {
                l_HRESULT = l_Class->GetMethod(strMethodName, 0, nullptr, l_OutSignature.ReleaseAndGetAddressOf());
            }
            if (SUCCEEDED(l_HRESULT) && l_OutSignature.Get() != nullptr) {
                l_HRESULT = l_OutSignature->SpawnInstance(0, l_OutParams.ReleaseAndGetAddressOf());
            }
            if (SUCCEEDED(l_HRESULT) && l_OutParams.Get() != nullptr) {
                Trace(L"CDorWEXWPDWMI::ExecMethodAsync %s.\n", strMethodName);
                l_Call.pMethod = dorwex::schema::FindMethod(strMethodName);
                const DorWEXMethodHandler l_pHandler =
                    l_Call.pMethod != nullptr ? HandlerFor(l_Call.pMethod->id) : nullptr;
                if (l_pHandler != nullptr) {
                    l_HRESULT = l_pHandler(l_Call);
                }
                // Put copies the value, so the call's own is handed as it is.
                _variant_t l_NoValue;
                l_OutParams->Put(dorwex::schema::kReturnValue, 0,
                                 l_Call.boolHasReturnValue ? &l_Call.variant_tReturnValue : &l_NoValue, 0);
                pResponseHandler->Indicate(1, l_OutParams.GetAddressOf());
            }
        }
    } catch (const _com_error& l_com_error) {
        l_HRESULT = l_com_error.Error();
    } catch (const std::bad_alloc&) {
        l_HRESULT = E_OUTOFMEMORY;
    }

    // A failure described by an __ExtendedStatus always reaches the caller as E_FAIL.
    HRESULT l_HRESULTStatus = l_HRESULT;
    IWbemClassObject* l_pStatusObject = nullptr;
    if (l_Call.pExtendedStatus != nullptr) {
        l_HRESULTStatus = E_FAIL;
        l_pStatusObject = l_Call.pExtendedStatus;
        l_pStatusObject->AddRef();
    } else if (l_Call.pErrorRecord) {
        l_HRESULTStatus = E_FAIL;
        l_pStatusObject = CreateExtendedStatus(m_pIWbemServices, l_Call.pErrorRecord->wstringOperation.c_str(),
                                               l_Call.pErrorRecord->wstringDescription.c_str());
    }
    const HRESULT l_HRESULTReturn = CompleteOnHandler(pResponseHandler, l_HRESULTStatus, l_pStatusObject);
    if (l_pStatusObject != nullptr) {
        l_pStatusObject->Release();
    }
    return l_HRESULTReturn;
}

DorWEXMethodHandler HandlerFor(dorwex::schema::Method id_in) {
    using dorwex::schema::Method;
    switch (id_in) {
    case Method::SetDebugLevel:
        return MethodSetDebugLevel;
    case Method::GetProperty:
        return MethodGetProperty;
    case Method::CopyFileFromDevice:
        return MethodCopyFileFromDevice;
    case Method::MoveFileFromDevice:
        return MethodMoveFileFromDevice;
    case Method::DeleteFileFromDevice:
        return MethodDeleteFileFromDevice;
    case Method::EnumerateDevicePath:
        return MethodEnumerateDevicePath;
    case Method::CreateFolderOnDevice:
        return MethodCreateFolderOnDevice;
    case Method::RequestWriteToken:
        return MethodRequestWriteToken;
    case Method::CopyFileToDevice:
        return MethodCopyFileToDevice;
    case Method::EjectDevice:
        return MethodEjectDevice;
    }
    return nullptr;
}

HRESULT MethodSetDebugLevel(DorWEXMethodCall& call_io) {
    call_io.SetReturnText(L"");
    if (call_io.pInParams == nullptr) {
        return WBEM_S_NO_ERROR;
    }
    _variant_t l_Value;
    if (call_io.pMethod == nullptr || call_io.pMethod->inputCount < 1 ||
        FAILED(call_io.pInParams->Get(call_io.pMethod->inputs[0].name, 0, &l_Value, nullptr, nullptr)) ||
        l_Value.vt == VT_NULL) {
        return WBEM_S_NO_ERROR;  // the level stays as it is
    }
    const HRESULT l_HRESULT =
        ConvertParameter(call_io, l_Value, 0, VT_BSTR, L"CDorWEXWPDWMI::MethodSetDebugLevel");
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    const _variant_t& l_Text = call_io.variant_tSlots[0];
    ULONG l_ulongLevel = 0;
    if (l_Text.vt == VT_BSTR && l_Text.bstrVal != nullptr && l_Text.bstrVal[0] != L'\0' &&
        wcscmp(l_Text.bstrVal, L"0") != 0) {
        l_ulongLevel = static_cast<ULONG>(_wtoi(l_Text.bstrVal));
        if (l_ulongLevel == 0) {
            l_ulongLevel = 1;  // a text that is not a number switches tracing on
        }
    }
    SetTraceLevel(l_ulongLevel);
    Trace(L"CDorWEXWPDWMI::MethodSetDebugLevel, set to %i", static_cast<int>(l_ulongLevel));
    return WBEM_S_NO_ERROR;
}

