// The provider object: COM identity, initialisation, the instance operations and event registration.
#include "provider.h"

#include <wrl/client.h>

#include "../device/wpd_device.h"
#include "../monitor/device_registry.h"
#include "../monitor/monitor.h"
#include "com_boundary.h"
#include "module.h"
#include "object_path.h"
#include "schema.h"
#include "../common/trace.h"

namespace {

// One BSTR for a schema name, for the calls that take BSTRs.
class Name {
public:
    explicit Name(const wchar_t* pwcharText_in) : m_bstr(SysAllocString(pwcharText_in)) {}
    ~Name() { SysFreeString(m_bstr); }
    Name(const Name&) = delete;
    Name& operator=(const Name&) = delete;
    operator BSTR() const { return m_bstr; }

private:
    BSTR m_bstr;
};

}  // namespace

CDorWEXWPDWMI::CDorWEXWPDWMI() {
    Trace(L"CDorWEXWPDWMI::CDorWEXWPDWMI");
}

CDorWEXWPDWMI::~CDorWEXWPDWMI() {
    Trace(L"CDorWEXWPDWMI::~CDorWEXWPDWMI");
    if (m_pIWbemObjectSink != nullptr) {
        for (ULONG l_ulongIndex = 0; l_ulongIndex < m_ulongIWbemObjectSinkCount; ++l_ulongIndex) {
            m_pIWbemObjectSink->Release();
        }
    }
    m_QueryMap.clear();
    // The core outlives provider objects; it must not call into this one any more.
    if (m_pCore != nullptr) {
        m_pCore->DetachProvider(this);
    }
    InterlockedDecrement(&g_longInstanceCountOfDorWEXWMIWPDClass);
}

STDMETHODIMP CDorWEXWPDWMI::QueryInterface(REFIID riid, void** ppv) {
    if (ppv == nullptr) {
        return E_POINTER;
    }
    *ppv = nullptr;
    const wchar_t* l_pwcharTrace = nullptr;
    if (IsEqualIID(riid, IID_IWbemServices)) {
        *ppv = static_cast<IWbemServices*>(this);
        l_pwcharTrace = L"CDorWEXWPDWMI::QueryInterface, IID_IWbemServices";
    } else if (IsEqualIID(riid, IID_IWbemEventProvider)) {
        *ppv = static_cast<IWbemEventProvider*>(this);
        l_pwcharTrace = L"CDorWEXWPDWMI::QueryInterface, IID_IWbemEventProvider";
    } else if (IsEqualIID(riid, IID_IWbemEventProviderQuerySink)) {
        *ppv = static_cast<IWbemEventProviderQuerySink*>(this);
        l_pwcharTrace = L"CDorWEXWPDWMI::QueryInterface, IID_IWbemEventProviderQuerySink";
    } else if (IsEqualIID(riid, IID_IWbemProviderInit)) {
        *ppv = static_cast<IWbemProviderInit*>(this);
        l_pwcharTrace = L"CDorWEXWPDWMI::QueryInterface, IID_IWbemProviderInit";
    } else if (IsEqualIID(riid, IID_IUnknown)) {
        *ppv = static_cast<IWbemProviderInit*>(this);
        l_pwcharTrace = L"CDorWEXWPDWMI::QueryInterface, IID_IUnknown";
    }
    if (*ppv == nullptr) {
        if (GetTraceLevel() > 1) {
            Trace(L"CDorWEXWPDWMI::QueryInterface, E_NOINTERFACE");
        }
        return E_NOINTERFACE;
    }
    AddRef();
    if (GetTraceLevel() > 1) {
        Trace(l_pwcharTrace);
    }
    return S_OK;
}

STDMETHODIMP_(ULONG) CDorWEXWPDWMI::AddRef() {
    const LONG l_longCount = InterlockedIncrement(&m_longReferenceCount);
    if (GetTraceLevel() >= 2) {
        Trace(L"CDorWEXWPDWMI::AddRef, %ld", l_longCount);
    }
    return static_cast<ULONG>(l_longCount);
}

bool CDorWEXWPDWMI::TryAddRef() {
    LONG l_longCount = m_longReferenceCount;
    while (l_longCount > 0) {
        const LONG l_longSeen = InterlockedCompareExchange(&m_longReferenceCount, l_longCount + 1, l_longCount);
        if (l_longSeen == l_longCount) {
            return true;
        }
        l_longCount = l_longSeen;
    }
    return false;
}

STDMETHODIMP_(ULONG) CDorWEXWPDWMI::Release() {
    const LONG l_longCount = InterlockedDecrement(&m_longReferenceCount);
    if (l_longCount == 0) {
        // WMI unloads provider objects freely; the core they share is left running.
        Trace(L"CDorWEXWPDWMI::Release, wmi UNLOAD is occurring\n");
        if (m_pIWbemServices != nullptr) {
            m_pIWbemServices->Release();
            m_pIWbemServices = nullptr;
        }
        delete this;
    }
    return static_cast<ULONG>(l_longCount);
}

STDMETHODIMP CDorWEXWPDWMI::Initialize(LPWSTR, LONG, LPWSTR, LPWSTR, IWbemServices* pNamespace, IWbemContext*,
                                       IWbemProviderInitSink* pInitSink) {
    Trace(L"CDorWEXWPDWMI::Initialize");
    if (pNamespace != nullptr) {
        pNamespace->AddRef();
        m_pIWbemServices = pNamespace;
    }
    bool l_boolStarted = false;
    try {
        bool l_boolNewCore = false;
        {
            // Not while the module takes a core away to stop it (DllCanUnloadNow); this object's count is
            // already up, so no core goes away after this.
            std::lock_guard<std::mutex> l_guard(g_mutexCore);
            if (g_pCDorWEXWMIWPDCore != nullptr) {
                m_pCore = g_pCDorWEXWMIWPDCore;
                Trace(L"CDorWEXWMIWPDCore::ReInitialize");
                InterlockedExchange(&g_longShuttingDown, 0);
                m_pCore->AttachProvider(this);
            } else {
                m_pCore = CreateWPDMonitor(this);
                g_pCDorWEXWMIWPDCore = m_pCore;
                l_boolNewCore = true;
            }
        }
        // Started outside the lock. The start returns at once: the devices attached now are opened on the
        // monitor's own thread, and requests wait for them (DevicesWhenStarted).
        if (l_boolNewCore) {
            m_pCore->Initialize();
        }
        l_boolStarted = true;
    } catch (...) {
        // Out of memory: WMI hears that this object failed and loads the provider again later.
    }
    // Ready only once a request can be answered: WMI may dispatch one from another thread the moment it
    // hears this, before Initialize has returned.
    if (pInitSink != nullptr) {
        const bool l_boolReady = pNamespace != nullptr && m_pCore != nullptr && l_boolStarted;
        pInitSink->SetStatus(l_boolReady ? static_cast<LONG>(WBEM_S_INITIALIZED) : static_cast<LONG>(WBEM_E_FAILED), 0);
    }
    return WBEM_S_NO_ERROR;
}

// Every operation the provider does not serve.
#define DORWEX_NOT_SUPPORTED return WBEM_E_NOT_SUPPORTED
STDMETHODIMP CDorWEXWPDWMI::OpenNamespace(const BSTR, LONG, IWbemContext*, IWbemServices**, IWbemCallResult**) {
    DORWEX_NOT_SUPPORTED;
}
STDMETHODIMP CDorWEXWPDWMI::CancelAsyncCall(IWbemObjectSink*) {
    DORWEX_NOT_SUPPORTED;
}
STDMETHODIMP CDorWEXWPDWMI::QueryObjectSink(LONG, IWbemObjectSink**) {
    DORWEX_NOT_SUPPORTED;
}
STDMETHODIMP CDorWEXWPDWMI::GetObject(const BSTR, LONG, IWbemContext*, IWbemClassObject**, IWbemCallResult**) {
    DORWEX_NOT_SUPPORTED;
}
STDMETHODIMP CDorWEXWPDWMI::PutClass(IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**) {
    DORWEX_NOT_SUPPORTED;
}
STDMETHODIMP CDorWEXWPDWMI::PutClassAsync(IWbemClassObject*, LONG, IWbemContext*, IWbemObjectSink*) {
    DORWEX_NOT_SUPPORTED;
}
STDMETHODIMP CDorWEXWPDWMI::DeleteClass(const BSTR, LONG, IWbemContext*, IWbemCallResult**) {
    DORWEX_NOT_SUPPORTED;
}
STDMETHODIMP CDorWEXWPDWMI::DeleteClassAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) {
    DORWEX_NOT_SUPPORTED;
}
STDMETHODIMP CDorWEXWPDWMI::CreateClassEnum(const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**) {
    DORWEX_NOT_SUPPORTED;
}
STDMETHODIMP CDorWEXWPDWMI::CreateClassEnumAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) {
    DORWEX_NOT_SUPPORTED;
}
STDMETHODIMP CDorWEXWPDWMI::CreateInstanceEnum(const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**) {
    DORWEX_NOT_SUPPORTED;
}
STDMETHODIMP CDorWEXWPDWMI::ExecQuery(const BSTR, const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**) {
    DORWEX_NOT_SUPPORTED;
}
STDMETHODIMP CDorWEXWPDWMI::ExecNotificationQuery(const BSTR, const BSTR, LONG, IWbemContext*,
                                                  IEnumWbemClassObject**) {
    DORWEX_NOT_SUPPORTED;
}
STDMETHODIMP CDorWEXWPDWMI::ExecNotificationQueryAsync(const BSTR, const BSTR, LONG, IWbemContext*,
                                                       IWbemObjectSink*) {
    DORWEX_NOT_SUPPORTED;
}
STDMETHODIMP CDorWEXWPDWMI::ExecMethod(const BSTR, const BSTR, LONG, IWbemContext*, IWbemClassObject*,
                                       IWbemClassObject**, IWbemCallResult**) {
    DORWEX_NOT_SUPPORTED;
}
#undef DORWEX_NOT_SUPPORTED

STDMETHODIMP CDorWEXWPDWMI::PutInstance(IWbemClassObject* pInst, LONG lFlags, IWbemContext* pCtx, IWbemCallResult**) {
    Trace(L"CDorWEXWPDWMI::PutInstance");
    return CallAtComBoundary([&] { return PutWPDInstance(pInst, lFlags, pCtx); });
}

STDMETHODIMP CDorWEXWPDWMI::PutInstanceAsync(IWbemClassObject* pInst, LONG lFlags, IWbemContext* pCtx,
                                             IWbemObjectSink* pResponseHandler) {
    Trace(L"CDorWEXWPDWMI::PutInstanceAsync");
    return CompleteOnHandler(pResponseHandler, CallAtComBoundary([&] { return PutWPDInstance(pInst, lFlags, pCtx); }));
}

STDMETHODIMP CDorWEXWPDWMI::DeleteInstance(const BSTR strObjectPath, LONG lFlags, IWbemContext* pCtx,
                                           IWbemCallResult**) {
    Trace(L"CDorWEXWPDWMI::DeleteInstance enter.\n");
    return CallAtComBoundary([&] { return DeleteWPDInstance(strObjectPath, lFlags, pCtx); });
}

STDMETHODIMP CDorWEXWPDWMI::DeleteInstanceAsync(const BSTR strObjectPath, LONG lFlags, IWbemContext* pCtx,
                                                IWbemObjectSink* pResponseHandler) {
    Trace(L"CDorWEXWPDWMI::DeleteInstanceAsync enter.\n");
    return CompleteOnHandler(pResponseHandler,
                             CallAtComBoundary([&] { return DeleteWPDInstance(strObjectPath, lFlags, pCtx); }));
}

HRESULT CDorWEXWPDWMI::PutWPDInstance(IWbemClassObject* pInstance_in, LONG, IWbemContext* pIWbemContext_in) {
    Trace(L"CDorWEXWPDWMI::PutWPDInstance");
    if (pInstance_in == nullptr) {
        return WBEM_S_NO_ERROR;
    }
    _variant_t l_variant_tId;
    const HRESULT l_HRESULTGet = pInstance_in->Get(dorwex::schema::kKeyProperty, 0, &l_variant_tId, nullptr, nullptr);
    if (FAILED(l_HRESULTGet)) {
        return l_HRESULTGet;
    }
    const wchar_t* l_pTCHARWPDId =
        l_variant_tId.vt == VT_BSTR && l_variant_tId.bstrVal != nullptr ? l_variant_tId.bstrVal : nullptr;
    if (l_pTCHARWPDId == nullptr) {
        Trace(L"CDorWEXWPDWMI::PutWPDInstance: l_pTCHARWPDId == NULL.\n");
        return l_HRESULTGet;
    }
    if (_wcsicmp(l_pTCHARWPDId, dorwex::schema::kInternalId) == 0) {
        Trace(L"CDorWEXWPDWMI::PutWPDInstance: l_pTCHARWPDId == _INTERNAL.\n");
        return l_HRESULTGet;
    }
    if (pIWbemContext_in == nullptr) {
        Trace(L"CDorWEXWPDWMI::PutWPDInstance: E_ACCESSDENIED(2).\n");
        return E_ACCESSDENIED;
    }
    _variant_t l_variant_tToken;
    const HRESULT l_HRESULTValue = pIWbemContext_in->GetValue(dorwex::schema::kContextWPDProp, 0, &l_variant_tToken);
    const wchar_t* l_pwcharToken = SUCCEEDED(l_HRESULTValue) && l_variant_tToken.vt == VT_BSTR &&
                                           l_variant_tToken.bstrVal != nullptr
                                       ? l_variant_tToken.bstrVal
                                       : L"";
    if (wcscmp(l_pwcharToken, dorwex::schema::kTokenWPD) == 0) {
        Trace(L"CDorWEXWPDWMI::PutWPDInstance, GetValue succeeded.\n");
        HRESULT l_HRESULT = E_FAIL;
        if (m_pCore != nullptr && m_pCore->Devices() != nullptr) {
            l_HRESULT = m_pCore->Devices()->AddWPD(l_pTCHARWPDId);
        }
        Trace(FAILED(l_HRESULT) ? L"CDorWEXWPDWMI::PutWPDInstance, device NOT inserted into collection.\n"
                                : L"CDorWEXWPDWMI::PutWPDInstance, device inserted into collection.\n");
        return l_HRESULT;
    }
    if (wcscmp(l_pwcharToken, dorwex::schema::kTokenNonWPD) == 0) {
        Trace(L"CDorWEXWPDWMI::PutWPDInstance, g_bstr_tIWbemContext2Value.");
        return l_HRESULTValue;
    }
    Trace(L"CDorWEXWPDWMI::PutWPDInstance: E_ACCESSDENIED(1).\n");
    return E_ACCESSDENIED;
}

HRESULT CDorWEXWPDWMI::DeleteWPDInstance(const BSTR bstrObjectPath_in, LONG, IWbemContext* pIWbemContext_in) {
    Trace(L"CDorWEXWPDWMI::DeleteWPDInstance enter.\n");
    IWbemClassObject* l_pInstance = nullptr;
    if (FAILED(CreateWMIInstanceForWin32ext_WPD(&l_pInstance, pIWbemContext_in)) || l_pInstance == nullptr) {
        return E_FAIL;
    }
    HRESULT l_HRESULT = GetInstanceByPath(bstrObjectPath_in, l_pInstance);
    if (SUCCEEDED(l_HRESULT)) {
        _variant_t l_variant_tId;
        l_HRESULT = l_pInstance->Get(dorwex::schema::kKeyProperty, 0, &l_variant_tId, nullptr, nullptr);
        if (FAILED(l_HRESULT) || l_variant_tId.vt != VT_BSTR || m_pCore == nullptr ||
            m_pCore->Devices() == nullptr) {
            l_HRESULT = E_FAIL;
        } else {
            l_HRESULT = m_pCore->Devices()->RemoveWPD(l_variant_tId.bstrVal);
        }
    } else {
        l_HRESULT = E_FAIL;
    }
    l_pInstance->Release();
    return l_HRESULT;
}

HRESULT CDorWEXWPDWMI::GetInstanceByPath(const BSTR bstrObjectPath_in, IWbemClassObject* pInstance_io) {
    const auto l_ObjectPath = bstrObjectPath_in != nullptr ? dorwex::ParseObjectPath(bstrObjectPath_in) : std::nullopt;
    if (!l_ObjectPath || l_ObjectPath->keys.empty()) {
        return WBEM_E_INVALID_OBJECT_PATH;
    }
    const std::wstring l_wstringId = l_ObjectPath->keys.front().ToText();
    IDorWEXDeviceRegistry* const l_pDevices = m_pCore != nullptr ? m_pCore->DevicesWhenStarted() : nullptr;
    const auto l_pDevice = l_pDevices != nullptr ? l_pDevices->FindWPDObjectById(l_wstringId.c_str()) : nullptr;
    if (!l_pDevice) {
        return WBEM_E_NOT_FOUND;
    }
    return FillWPDInstance(pInstance_io, *l_pDevice);
}

HRESULT CDorWEXWPDWMI::CreateWMIInstanceForWin32ext_WPD(IWbemClassObject** ppInstance_out,
                                                        IWbemContext* pIWbemContext_in) {
    Trace(L"CDorWEXWPDWMI::CreateWMIInstanceForWin32ext_WPD enter.\n");
    *ppInstance_out = nullptr;
    if (m_pIWbemServices == nullptr) {
        return WBEM_E_FAILED;
    }
    IWbemClassObject* l_pClass = nullptr;
    const Name l_Class(dorwex::schema::kClassWPD);
    HRESULT l_HRESULT = m_pIWbemServices->GetObject(l_Class, 0, pIWbemContext_in, &l_pClass, nullptr);
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    l_HRESULT = l_pClass->SpawnInstance(0, ppInstance_out);
    l_pClass->Release();
    return l_HRESULT;
}

HRESULT CDorWEXWPDWMI::GetIWbemClassObjectClassInstance(IWbemClassObject** ppClass_out,
                                                        IWbemContext* pIWbemContext_in) {
    const Name l_Class(dorwex::schema::kClassWPDEvent);
    for (int l_intAttempt = 1; l_intAttempt <= 4; ++l_intAttempt) {
        try {
            return m_pIWbemServices->GetObject(l_Class, 0, pIWbemContext_in, ppClass_out, nullptr);
        } catch (...) {
            Trace(L"CDorWEXWPDWMI::GetIWbemClassObjectClassInstance: Calling WMI FAILED, retry attempt=%i",
                  l_intAttempt);
            Sleep(1000);
        }
    }
    return E_FAIL;
}

STDMETHODIMP CDorWEXWPDWMI::GetObjectAsync(const BSTR strObjectPath, LONG, IWbemContext*,
                                           IWbemObjectSink* pResponseHandler) {
    if (strObjectPath == nullptr || pResponseHandler == nullptr || m_pIWbemServices == nullptr) {
        return CompleteOnHandler(pResponseHandler, WBEM_E_INVALID_PARAMETER);
    }
    // Any path gives one blank instance: what WMI has always been given here.
    IWbemClassObject* l_pInstance = nullptr;
    const HRESULT l_HRESULT = CreateWMIInstanceForWin32ext_WPD(&l_pInstance, nullptr);
    if (SUCCEEDED(l_HRESULT) && l_pInstance != nullptr) {
        pResponseHandler->Indicate(1, &l_pInstance);
        l_pInstance->Release();
    }
    return CompleteOnHandler(pResponseHandler, l_HRESULT);
}

STDMETHODIMP CDorWEXWPDWMI::CreateInstanceEnumAsync(const BSTR strClass, LONG, IWbemContext* pCtx,
                                                    IWbemObjectSink* pResponseHandler) {
    if (GetTraceLevel() > 1) {
        Trace(L"CDorWEXWPDWMI::CreateInstanceEnumAsync");
    }
    if (pResponseHandler == nullptr || m_pIWbemServices == nullptr) {
        return WBEM_E_INVALID_PARAMETER;
    }
    // The snapshot and the texts of an instance allocate: what they throw ends the enumeration with its
    // code, told to the handler like any other end.
    const HRESULT l_HRESULT = CallAtComBoundary([&] {
        Microsoft::WRL::ComPtr<IWbemClassObject> l_pClass;
        HRESULT l_HRESULTEnum = m_pIWbemServices->GetObject(strClass, 0, pCtx, l_pClass.GetAddressOf(), nullptr);
        IDorWEXDeviceRegistry* const l_pDevices =
            SUCCEEDED(l_HRESULTEnum) && l_pClass && m_pCore != nullptr ? m_pCore->DevicesWhenStarted() : nullptr;
        if (l_pDevices == nullptr) {
            return l_HRESULTEnum;
        }
        for (const auto& l_Entry : l_pDevices->Snapshot()) {
            Microsoft::WRL::ComPtr<IWbemClassObject> l_pInstance;
            l_HRESULTEnum = l_pClass->SpawnInstance(0, l_pInstance.GetAddressOf());
            if (SUCCEEDED(l_HRESULTEnum) && l_Entry.second) {
                l_HRESULTEnum = CallAtComBoundary([&] { return FillWPDInstance(l_pInstance.Get(), *l_Entry.second); });
                if (SUCCEEDED(l_HRESULTEnum)) {
                    pResponseHandler->Indicate(1, l_pInstance.GetAddressOf());
                }
            }
        }
        return l_HRESULTEnum;
    });
    return CompleteOnHandler(pResponseHandler, l_HRESULT);
}

// A query yields no instances here; WMI answers queries by enumerating.
STDMETHODIMP CDorWEXWPDWMI::ExecQueryAsync(const BSTR, const BSTR, LONG, IWbemContext*,
                                           IWbemObjectSink* pResponseHandler) {
    if (pResponseHandler != nullptr) {
        pResponseHandler->SetStatus(WBEM_STATUS_COMPLETE, WBEM_S_NO_ERROR, nullptr, nullptr);
    }
    return WBEM_S_NO_ERROR;
}

STDMETHODIMP CDorWEXWPDWMI::ProvideEvents(IWbemObjectSink* pSink, LONG) {
    if (pSink == nullptr) {
        return WBEM_S_NO_ERROR;
    }
    m_pIWbemObjectSink = pSink;  // an earlier sink keeps the references it was given
    pSink->AddRef();
    ++m_ulongIWbemObjectSinkCount;
    m_boolProvidesEvents = true;
    return WBEM_S_NO_ERROR;
}

STDMETHODIMP CDorWEXWPDWMI::NewQuery(ULONG dwId, WBEM_WSTR, WBEM_WSTR wszQuery) {
    if (wszQuery == nullptr) {
        return WBEM_S_NO_ERROR;
    }
    Trace(L"CDorWEXWPDWMI::NewQuery %s\n", wszQuery);
    return CallAtComBoundary([&] {
        std::lock_guard<std::mutex> l_guard(m_mutexQueries);
        m_QueryMap[dwId] = wszQuery;
        return WBEM_S_NO_ERROR;
    });
}

STDMETHODIMP CDorWEXWPDWMI::CancelQuery(ULONG dwId) {
    std::lock_guard<std::mutex> l_guard(m_mutexQueries);
    const auto l_Found = m_QueryMap.find(dwId);
    if (l_Found == m_QueryMap.end()) {
        return WBEM_S_NO_ERROR;
    }
    Trace(L"CDorWEXWPDWMI::CancelQuery %ld %s\n", dwId, l_Found->second.c_str());
    m_QueryMap.erase(l_Found);
    return WBEM_S_NO_ERROR;
}

STDMETHODIMP CDorWEXWPDWMI::FindConsumer(IWbemClassObject*, IWbemUnboundObjectSink**) {
    Trace(L"CDorWEXWPDWMI::FindConsumer");
    return WBEM_S_NO_ERROR;
}
