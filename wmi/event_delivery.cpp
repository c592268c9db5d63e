// Raising Win32ext_WPDEvent to WMI's event sink.
#include <array>

#include "../common/com_memory.h"
#include "provider.h"
#include "schema.h"
#include "../common/trace.h"

HRESULT CDorWEXWPDWMI::SendEvent(const DorWEXWPDEvent& event_in) {
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
        l_Text(event_in.pwcharEventId),
        l_Text(event_in.pwcharObjectId),
        l_Text(event_in.pwcharObjectDeviceId),
        l_Text(event_in.pwcharObjectDevicePersistentUniqueId),
        l_Text(event_in.pwcharObjectParentId),
        l_Text(event_in.pwcharObjectName),
        l_Text(event_in.pwcharTargetPath),
        l_Text(event_in.pwcharSourcePath),
        l_Text(event_in.pwcharDeviceName),
        l_Text(event_in.pwcharOriginalFileName),
        l_Text(event_in.pwcharEventText),
        l_Text(event_in.pwcharPID),
    };
    for (size_t l_index = 0; l_index < l_Values.size(); ++l_index) {
        l_HRESULT = l_pEvent->Put(dorwex::schema::kWPDEventProperties[l_index], 0,
                                  &l_Values[l_index], 0);
    }
    m_pIWbemObjectSink->Indicate(1, &l_pEvent);
    l_pEvent->Release();
    return l_HRESULT;
}
