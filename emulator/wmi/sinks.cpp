#include "sinks.h"

#include <oleauto.h>

#include <chrono>
#include <exception>

#include "namespace.h"

namespace dorwex::emulator::wmi {

// --- CollectingSink -------------------------------------------------------------------------------

CollectingSink::~CollectingSink() {
    for (auto* object : m_objects) {
        object->Release();
    }
    if (m_statusObject != nullptr) {
        m_statusObject->Release();
    }
}

HRESULT CollectingSink::Indicate(LONG lObjectCount, IWbemClassObject** apObjArray) {
    if (lObjectCount < 0 || (lObjectCount > 0 && apObjArray == nullptr)) {
        return WBEM_E_INVALID_PARAMETER;
    }
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_completed) {
        return WBEM_E_FAILED;  // nothing follows the final status
    }
    for (LONG i = 0; i < lObjectCount; ++i) {
        if (apObjArray[i] != nullptr) {
            apObjArray[i]->AddRef();
            m_objects.push_back(apObjArray[i]);
        }
    }
    return WBEM_S_NO_ERROR;
}

HRESULT CollectingSink::SetStatus(LONG lFlags, HRESULT hResult, BSTR, IWbemClassObject* pObjParam) {
    if (lFlags != WBEM_STATUS_COMPLETE) {
        return WBEM_S_NO_ERROR;  // progress
    }
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_completed) {
            return WBEM_E_FAILED;  // the final status comes once
        }
        m_completed = true;
        m_status = hResult;
        if (pObjParam != nullptr) {
            pObjParam->AddRef();
            m_statusObject = pObjParam;
        }
    }
    m_completion.notify_all();
    return WBEM_S_NO_ERROR;
}

bool CollectingSink::WaitCompleted(DWORD milliseconds) {
    std::unique_lock<std::mutex> guard(m_lock);
    return m_completion.wait_for(guard, std::chrono::milliseconds(milliseconds), [this] { return m_completed; });
}

std::vector<IWbemClassObject*> CollectingSink::TakeObjects() {
    std::lock_guard<std::mutex> guard(m_lock);
    std::vector<IWbemClassObject*> objects;
    objects.swap(m_objects);
    return objects;
}

HRESULT CollectingSink::Status() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_status;
}

IWbemClassObject* CollectingSink::TakeStatusObject() {
    std::lock_guard<std::mutex> guard(m_lock);
    IWbemClassObject* object = m_statusObject;
    m_statusObject = nullptr;
    return object;
}

// --- ObjectEnumerator -----------------------------------------------------------------------------

ObjectEnumerator::ObjectEnumerator(std::vector<IWbemClassObject*> objects, bool open, bool forwardOnly)
    : m_objects(objects.begin(), objects.end()), m_open(open), m_forwardOnly(forwardOnly || open) {}

ObjectEnumerator::~ObjectEnumerator() {
    if (m_eventQuery != nullptr) {
        m_eventQuery->Detach();
        try {
            Namespace::Get().Unsubscribe(m_eventQuery);
        } catch (const std::exception&) {
            // Out of memory: the query stays, as if the client still held it.
        }
        m_eventQuery->Release();
    }
    for (auto* object : m_objects) {
        object->Release();
    }
}

void ObjectEnumerator::SetEventQuery(EnumeratorSink* sink) {
    sink->AddRef();
    m_eventQuery = sink;
}

void ObjectEnumerator::Push(IWbemClassObject* object) {
    object->AddRef();
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_objects.push_back(object);
    }
    m_arrived.notify_all();
}

void ObjectEnumerator::Close() {
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_open = false;
    }
    m_arrived.notify_all();
}

HRESULT ObjectEnumerator::QueryInterface(REFIID riid, void** ppv) {
    if (ppv != nullptr && riid == IID_IMarshal) {
        *ppv = static_cast<IMarshal*>(this);
        AddRef();
        return S_OK;
    }
    return ComObject<IEnumWbemClassObject>::QueryInterface(riid, ppv);
}

HRESULT ObjectEnumerator::Reset() {
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_forwardOnly) {
        return WBEM_E_INVALID_OPERATION;
    }
    m_position = 0;
    return WBEM_S_NO_ERROR;
}

HRESULT ObjectEnumerator::Next(LONG lTimeout, ULONG uCount, IWbemClassObject** apObjects, ULONG* puReturned) {
    if (apObjects == nullptr || puReturned == nullptr) {
        return WBEM_E_INVALID_PARAMETER;
    }
    *puReturned = 0;
    std::unique_lock<std::mutex> lock(m_lock);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(lTimeout < 0 ? 0 : lTimeout);
    while (*puReturned < uCount) {
        if (m_forwardOnly && !m_objects.empty()) {
            apObjects[(*puReturned)++] = m_objects.front();  // the reference passes to the caller
            m_objects.pop_front();
            continue;
        }
        if (!m_forwardOnly && m_position < m_objects.size()) {
            IWbemClassObject* object = m_objects[m_position++];
            object->AddRef();
            apObjects[(*puReturned)++] = object;
            continue;
        }
        if (!m_open) {
            return WBEM_S_FALSE;
        }
        if (lTimeout == static_cast<LONG>(WBEM_INFINITE)) {
            m_arrived.wait(lock);
        } else if (m_arrived.wait_until(lock, deadline) == std::cv_status::timeout && m_objects.empty()) {
            return *puReturned == uCount ? WBEM_S_NO_ERROR : WBEM_S_TIMEDOUT;
        }
    }
    return WBEM_S_NO_ERROR;
}

HRESULT ObjectEnumerator::NextAsync(ULONG, IWbemObjectSink*) {
    return WBEM_E_NOT_SUPPORTED;
}

HRESULT ObjectEnumerator::Clone(IEnumWbemClassObject** ppEnum) {
    if (ppEnum == nullptr) {
        return WBEM_E_INVALID_PARAMETER;
    }
    *ppEnum = nullptr;
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_forwardOnly) {
        return WBEM_E_INVALID_OPERATION;
    }
    std::vector<IWbemClassObject*> objects(m_objects.begin(), m_objects.end());
    for (auto* object : objects) {
        object->AddRef();
    }
    auto* clone = new (std::nothrow) ObjectEnumerator(std::move(objects), false, false);
    if (clone == nullptr) {
        return WBEM_E_OUT_OF_MEMORY;
    }
    clone->m_position = m_position;
    *ppEnum = clone;
    return WBEM_S_NO_ERROR;
}

HRESULT ObjectEnumerator::Skip(LONG lTimeout, ULONG nCount) {
    for (ULONG i = 0; i < nCount; ++i) {
        IWbemClassObject* object = nullptr;
        ULONG returned = 0;
        const HRESULT hr = Next(lTimeout, 1, &object, &returned);
        if (returned == 0) {
            return hr;
        }
        object->Release();
    }
    return WBEM_S_NO_ERROR;
}

// --- EnumeratorSink -------------------------------------------------------------------------------

// Under the sink's lock, so that the enumerator is not destroyed while an object is put into it.
HRESULT EnumeratorSink::Indicate(LONG lObjectCount, IWbemClassObject** apObjArray) {
    std::lock_guard<std::mutex> guard(m_lock);
    for (LONG i = 0; m_enumerator != nullptr && i < lObjectCount; ++i) {
        if (apObjArray != nullptr && apObjArray[i] != nullptr) {
            m_enumerator->Push(apObjArray[i]);
        }
    }
    return WBEM_S_NO_ERROR;
}

HRESULT EnumeratorSink::SetStatus(LONG lFlags, HRESULT, BSTR, IWbemClassObject*) {
    std::lock_guard<std::mutex> guard(m_lock);
    if (lFlags == WBEM_STATUS_COMPLETE && m_enumerator != nullptr) {
        m_enumerator->Close();
    }
    return WBEM_S_NO_ERROR;
}

void EnumeratorSink::Detach() {
    std::lock_guard<std::mutex> guard(m_lock);
    m_enumerator = nullptr;
}

// --- StatusErrorInfo ------------------------------------------------------------------------------

StatusErrorInfo::StatusErrorInfo(IWbemClassObject* status) : m_status(status) {
    m_status->AddRef();
}

StatusErrorInfo::~StatusErrorInfo() {
    m_status->Release();
}

HRESULT StatusErrorInfo::QueryInterface(REFIID riid, void** ppv) {
    if (ppv != nullptr && riid == IID_IWbemClassObject) {
        return m_status->QueryInterface(riid, ppv);
    }
    return ComObject<IErrorInfo>::QueryInterface(riid, ppv);
}

HRESULT StatusErrorInfo::GetGUID(GUID* pGUID) {
    if (pGUID != nullptr) {
        *pGUID = GUID_NULL;
    }
    return S_OK;
}

HRESULT StatusErrorInfo::GetSource(BSTR* pBstrSource) {
    return m_status->Get(L"ProviderName", 0, nullptr, nullptr, nullptr) == S_OK && pBstrSource != nullptr
               ? (*pBstrSource = SysAllocString(L"WMI"), S_OK)
               : E_INVALIDARG;
}

HRESULT StatusErrorInfo::GetDescription(BSTR* pBstrDescription) {
    if (pBstrDescription == nullptr) {
        return E_INVALIDARG;
    }
    VARIANT description;
    VariantInit(&description);
    *pBstrDescription = nullptr;
    if (SUCCEEDED(m_status->Get(L"Description", 0, &description, nullptr, nullptr)) && description.vt == VT_BSTR) {
        *pBstrDescription = SysAllocString(description.bstrVal);
    }
    VariantClear(&description);
    return S_OK;
}

HRESULT StatusErrorInfo::GetHelpFile(BSTR* pBstrHelpFile) {
    if (pBstrHelpFile != nullptr) {
        *pBstrHelpFile = nullptr;
    }
    return S_OK;
}

HRESULT StatusErrorInfo::GetHelpContext(DWORD* pdwHelpContext) {
    if (pdwHelpContext != nullptr) {
        *pdwHelpContext = 0;
    }
    return S_OK;
}

}  // namespace dorwex::emulator::wmi
