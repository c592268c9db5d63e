// Raising Win32ext_WPDEvent to WMI's event sink.
#include <array>

#include "../common/com_memory.h"
#include "provider.h"
#include "schema.h"
#include "../common/trace.h"

HRESULT CDorWEXWPDWMI::SendEvent(const wchar_t* pwcharEventId_in, const wchar_t* pwcharObjectId_in,
                                 const wchar_t* pwcharObjectDeviceId_in,
                                 const wchar_t* pwcharObjectDevicePersistentUniqueId_in,
                                 const wchar_t* pwcharObjectParentId_in, const wchar_t* pwcharObjectName_in,
                                 const wchar_t* pwcharTargetPath_in, const wchar_t* pwcharSourcePath_in,
                                 const wchar_t* pwcharDeviceName_in, const wchar_t* pwcharOriginalFileName_in,
                                 const _bstr_t& bstr_tEventText_in, const wchar_t* pwcharPID_in) {
    Trace(L"CDorWEXWPDWMI::SendEvent enter.\n");
    if (m_pIWbemObjectSink == nullptr) {
        // No consumer has subscribed yet: the event is dropped.
        Trace(L"CDorWEXWPDWMI::SendEvent, ERROR: m_pIWbemObjectSink == NULL.\n");
        if (m_pIWbemServices != nullptr) {
            return WBEM_S_NO_ERROR;
        }
    }
    if (m_pIWbemServices == nullptr || m_pIWbemObjectSink == nullptr) {
        Trace(L"CDorWEXWPDWMI::SendEvent, ERROR: m_pIWbemServices == NULL.\n");
        return WBEM_S_NO_ERROR;
    }
    IWbemClassObject* l_pClass = nullptr;
    HRESULT l_HRESULT = GetIWbemClassObjectClassInstance(&l_pClass, nullptr);
    if (FAILED(l_HRESULT) || l_pClass == nullptr) {
        return FAILED(l_HRESULT) ? l_HRESULT : E_FAIL;
    }
    IWbemClassObject* l_pEvent = nullptr;
    l_HRESULT = l_pClass->SpawnInstance(0, &l_pEvent);
    l_pClass->Release();
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    // Every property of a delivered event holds a string: a null argument gives the empty text.
    const auto l_Text = [](const wchar_t* pwcharText_in) {
        return _variant_t(pwcharText_in != nullptr ? pwcharText_in : L"");
    };
    std::array<_variant_t, dorwex::schema::kWPDEventPropertyCount> l_Values = {
        l_Text(pwcharEventId_in),
        l_Text(pwcharObjectId_in),
        l_Text(pwcharObjectDeviceId_in),
        l_Text(pwcharObjectDevicePersistentUniqueId_in),
        l_Text(pwcharObjectParentId_in),
        l_Text(pwcharObjectName_in),
        l_Text(pwcharTargetPath_in),
        l_Text(pwcharSourcePath_in),
        l_Text(pwcharDeviceName_in),
        l_Text(pwcharOriginalFileName_in),
        l_Text(BstrText(bstr_tEventText_in)),
        l_Text(pwcharPID_in),
    };
    for (size_t l_index = 0; l_index < l_Values.size(); ++l_index) {
        l_HRESULT = l_pEvent->Put(dorwex::schema::kWPDEventProperties[l_index], 0,
                                  &l_Values[l_index], 0);
    }
    m_pIWbemObjectSink->Indicate(1, &l_pEvent);
    l_pEvent->Release();
    return l_HRESULT;
}
