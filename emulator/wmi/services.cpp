// IWbemServices of the emulated namespace: classes are answered from the MOF, everything about instances,
// methods and events is routed to the provider the way the WMI service routes it.
#include <windows.h>
#include <oleauto.h>

#include <atomic>
#include <functional>

#include "client_context.h"
#include "namespace.h"
#include "sinks.h"
#include "wmi/object_path.h"

namespace dorwex::emulator::wmi {

namespace {

// Runs one asynchronous provider call with a collecting sink. The result is the call's failure, or the
// status the provider completed with, or (a provider that returns without completing) its return value.
HRESULT CallProvider(const std::function<HRESULT(IWbemServices*, IWbemObjectSink*)>& call,
                     CollectingSink** sink_out) {
    *sink_out = nullptr;
    IWbemServices* provider = nullptr;
    HRESULT hr = Namespace::Get().Provider(&provider);
    if (FAILED(hr)) {
        return hr;
    }
    auto* sink = new CollectingSink();
    {
        const ClientCallScope clientCall;  // a client call context when tests provide one
        hr = call(provider, sink);
    }
    provider->Release();
    if (SUCCEEDED(hr) && sink->Completed()) {
        hr = sink->Status();
    }
    *sink_out = sink;
    return hr;
}

// What a finished provider call hands to a client's own sink.
HRESULT Forward(CollectingSink* sink, HRESULT hr, IWbemObjectSink* client) {
    for (auto* object : sink->TakeObjects()) {
        client->Indicate(1, &object);
        object->Release();
    }
    IWbemClassObject* status = sink->TakeStatusObject();
    client->SetStatus(WBEM_STATUS_COMPLETE, hr, nullptr, status);
    if (status != nullptr) {
        status->Release();
    }
    return WBEM_S_NO_ERROR;
}

void ReleaseAll(std::vector<IWbemClassObject*>& objects) {
    for (auto* object : objects) {
        object->Release();
    }
    objects.clear();
}

std::wstring ClassOfPath(const BSTR path) {
    const auto parsed = path != nullptr ? ParseObjectPath(path) : std::nullopt;
    return parsed ? parsed->className : std::wstring();
}

// Clients reach Windows WMI through a proxy and set its security with CoSetProxyBlanket; the emulated
// namespace answers IClientSecurity so that such clients run unchanged. The blanket is kept and reported
// back; calls run in process either way.
class Services final : public ComObject<IWbemServices>, public IClientSecurity {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
        if (ppv != nullptr && riid == IID_IClientSecurity) {
            *ppv = static_cast<IClientSecurity*>(this);
            AddRef();
            return S_OK;
        }
        return ComObject<IWbemServices>::QueryInterface(riid, ppv);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ComObject<IWbemServices>::AddRef(); }
    ULONG STDMETHODCALLTYPE Release() override { return ComObject<IWbemServices>::Release(); }

    HRESULT STDMETHODCALLTYPE QueryBlanket(IUnknown*, DWORD* pAuthnSvc, DWORD* pAuthzSvc, OLECHAR** pServerPrincName,
                                           DWORD* pAuthnLevel, DWORD* pImpLevel, void** pAuthInfo,
                                           DWORD* pCapabilities) override {
        const auto set = [](auto* out, auto value) {
            if (out != nullptr) {
                *out = value;
            }
        };
        set(pAuthnSvc, static_cast<DWORD>(RPC_C_AUTHN_WINNT));
        set(pAuthzSvc, static_cast<DWORD>(RPC_C_AUTHZ_NONE));
        set(pServerPrincName, static_cast<OLECHAR*>(nullptr));
        set(pAuthnLevel, m_authenticationLevel.load());
        set(pImpLevel, m_impersonationLevel.load());
        set(pAuthInfo, static_cast<void*>(nullptr));
        set(pCapabilities, static_cast<DWORD>(EOAC_NONE));
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE SetBlanket(IUnknown*, DWORD, DWORD, OLECHAR*, DWORD dwAuthnLevel, DWORD dwImpLevel,
                                         void*, DWORD) override {
        if (dwAuthnLevel != RPC_C_AUTHN_LEVEL_DEFAULT) {
            m_authenticationLevel = dwAuthnLevel;
        }
        if (dwImpLevel != RPC_C_IMP_LEVEL_DEFAULT) {
            m_impersonationLevel = dwImpLevel;
        }
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE CopyProxy(IUnknown* pProxy, IUnknown** ppCopy) override {
        if (ppCopy == nullptr) {
            return E_POINTER;
        }
        *ppCopy = pProxy;
        if (pProxy != nullptr) {
            pProxy->AddRef();
        }
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE OpenNamespace(const BSTR, LONG, IWbemContext*, IWbemServices**,
                                            IWbemCallResult**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE CancelAsyncCall(IWbemObjectSink* pSink) override {
        return Namespace::Get().Unsubscribe(pSink);
    }
    HRESULT STDMETHODCALLTYPE QueryObjectSink(LONG, IWbemObjectSink**) override { return WBEM_E_NOT_SUPPORTED; }

    HRESULT STDMETHODCALLTYPE GetObject(const BSTR strObjectPath, LONG lFlags, IWbemContext* pCtx,
                                        IWbemClassObject** ppObject, IWbemCallResult**) override {
        if (ppObject == nullptr) {
            return WBEM_E_INVALID_PARAMETER;
        }
        *ppObject = nullptr;
        const auto parsed = strObjectPath != nullptr ? ParseObjectPath(strObjectPath) : std::nullopt;
        if (!parsed) {
            return WBEM_E_INVALID_OBJECT_PATH;
        }
        HRESULT hr = Namespace::Get().Load();
        if (FAILED(hr)) {
            return hr;
        }
        const auto definition = Namespace::Get().FindClass(parsed->className);
        if (!definition) {
            return WBEM_E_NOT_FOUND;
        }
        if (parsed->keys.empty()) {
            *ppObject = ClassObject::NewClass(definition);
            return *ppObject != nullptr ? WBEM_S_NO_ERROR : WBEM_E_OUT_OF_MEMORY;
        }
        CollectingSink* sink = nullptr;
        hr = CallProvider(
            [&](IWbemServices* provider, IWbemObjectSink* s) {
                return provider->GetObjectAsync(strObjectPath, lFlags, pCtx, s);
            },
            &sink);
        auto objects = sink != nullptr ? sink->TakeObjects() : std::vector<IWbemClassObject*>();
        if (SUCCEEDED(hr)) {
            if (objects.empty()) {
                hr = WBEM_E_NOT_FOUND;
            } else {
                *ppObject = objects.front();
                objects.erase(objects.begin());
            }
        }
        ReleaseAll(objects);
        if (sink != nullptr) {
            sink->Release();
        }
        return hr;
    }

    HRESULT STDMETHODCALLTYPE GetObjectAsync(const BSTR strObjectPath, LONG lFlags, IWbemContext* pCtx,
                                             IWbemObjectSink* pResponseHandler) override {
        if (pResponseHandler == nullptr) {
            return WBEM_E_INVALID_PARAMETER;
        }
        IWbemClassObject* object = nullptr;
        const HRESULT hr = GetObject(strObjectPath, lFlags, pCtx, &object, nullptr);
        if (object != nullptr) {
            pResponseHandler->Indicate(1, &object);
            object->Release();
        }
        pResponseHandler->SetStatus(WBEM_STATUS_COMPLETE, hr, nullptr, nullptr);
        return WBEM_S_NO_ERROR;
    }

    HRESULT STDMETHODCALLTYPE PutClass(IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE PutClassAsync(IWbemClassObject*, LONG, IWbemContext*, IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE DeleteClass(const BSTR, LONG, IWbemContext*, IWbemCallResult**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE DeleteClassAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE CreateClassEnum(const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE CreateClassEnumAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }

    // Instances are written and deleted by the provider; it answers through its own return value.
    HRESULT STDMETHODCALLTYPE PutInstance(IWbemClassObject* pInst, LONG lFlags, IWbemContext* pCtx,
                                          IWbemCallResult**) override {
        if (pInst == nullptr) {
            return WBEM_E_INVALID_PARAMETER;
        }
        CollectingSink* sink = nullptr;
        const HRESULT hr = CallProvider(
            [&](IWbemServices* provider, IWbemObjectSink* s) {
                return provider->PutInstanceAsync(pInst, lFlags, pCtx, s);
            },
            &sink);
        if (sink != nullptr) {
            sink->Release();
        }
        return hr;
    }
    HRESULT STDMETHODCALLTYPE PutInstanceAsync(IWbemClassObject* pInst, LONG lFlags, IWbemContext* pCtx,
                                               IWbemObjectSink* pResponseHandler) override {
        if (pResponseHandler == nullptr) {
            return WBEM_E_INVALID_PARAMETER;
        }
        pResponseHandler->SetStatus(WBEM_STATUS_COMPLETE, PutInstance(pInst, lFlags, pCtx, nullptr), nullptr,
                                    nullptr);
        return WBEM_S_NO_ERROR;
    }
    HRESULT STDMETHODCALLTYPE DeleteInstance(const BSTR strObjectPath, LONG lFlags, IWbemContext* pCtx,
                                             IWbemCallResult**) override {
        if (ClassOfPath(strObjectPath).empty()) {
            return WBEM_E_INVALID_OBJECT_PATH;
        }
        CollectingSink* sink = nullptr;
        const HRESULT hr = CallProvider(
            [&](IWbemServices* provider, IWbemObjectSink* s) {
                return provider->DeleteInstanceAsync(strObjectPath, lFlags, pCtx, s);
            },
            &sink);
        if (sink != nullptr) {
            sink->Release();
        }
        return hr;
    }
    HRESULT STDMETHODCALLTYPE DeleteInstanceAsync(const BSTR strObjectPath, LONG lFlags, IWbemContext* pCtx,
                                                  IWbemObjectSink* pResponseHandler) override {
        if (pResponseHandler == nullptr) {
            return WBEM_E_INVALID_PARAMETER;
        }
        pResponseHandler->SetStatus(WBEM_STATUS_COMPLETE, DeleteInstance(strObjectPath, lFlags, pCtx, nullptr),
                                    nullptr, nullptr);
        return WBEM_S_NO_ERROR;
    }

    HRESULT STDMETHODCALLTYPE CreateInstanceEnum(const BSTR strFilter, LONG lFlags, IWbemContext* pCtx,
                                                 IEnumWbemClassObject** ppEnum) override {
        Query query;
        query.className = strFilter != nullptr ? strFilter : L"";
        return Enumerate(query, lFlags, pCtx, ppEnum);
    }
    HRESULT STDMETHODCALLTYPE CreateInstanceEnumAsync(const BSTR strFilter, LONG lFlags, IWbemContext* pCtx,
                                                      IWbemObjectSink* pResponseHandler) override {
        Query query;
        query.className = strFilter != nullptr ? strFilter : L"";
        return EnumerateTo(query, lFlags, pCtx, pResponseHandler);
    }

    // Queries are answered by enumerating the class through its provider and filtering here, as WMI does
    // for providers that do not answer queries themselves.
    HRESULT STDMETHODCALLTYPE ExecQuery(const BSTR strQueryLanguage, const BSTR strQuery, LONG lFlags,
                                        IWbemContext* pCtx, IEnumWbemClassObject** ppEnum) override {
        Query query;
        if (strQueryLanguage == nullptr || _wcsicmp(strQueryLanguage, L"WQL") != 0) {
            return WBEM_E_INVALID_QUERY_TYPE;
        }
        if (!ParseQuery(strQuery, query)) {
            return WBEM_E_INVALID_QUERY;
        }
        return Enumerate(query, lFlags, pCtx, ppEnum);
    }
    HRESULT STDMETHODCALLTYPE ExecQueryAsync(const BSTR strQueryLanguage, const BSTR strQuery, LONG lFlags,
                                             IWbemContext* pCtx, IWbemObjectSink* pResponseHandler) override {
        Query query;
        if (strQueryLanguage == nullptr || _wcsicmp(strQueryLanguage, L"WQL") != 0) {
            return WBEM_E_INVALID_QUERY_TYPE;
        }
        if (!ParseQuery(strQuery, query)) {
            return WBEM_E_INVALID_QUERY;
        }
        return EnumerateTo(query, lFlags, pCtx, pResponseHandler);
    }

    HRESULT STDMETHODCALLTYPE ExecNotificationQuery(const BSTR strQueryLanguage, const BSTR strQuery, LONG,
                                                    IWbemContext*, IEnumWbemClassObject** ppEnum) override {
        if (ppEnum == nullptr || strQueryLanguage == nullptr || _wcsicmp(strQueryLanguage, L"WQL") != 0) {
            return WBEM_E_INVALID_PARAMETER;
        }
        auto* enumerator = new ObjectEnumerator({}, true, true);
        auto* sink = new EnumeratorSink(enumerator);
        const HRESULT hr = Namespace::Get().Subscribe(strQuery, sink);
        sink->Release();
        if (FAILED(hr)) {
            enumerator->Release();
            *ppEnum = nullptr;
            return hr;
        }
        *ppEnum = enumerator;
        return WBEM_S_NO_ERROR;
    }
    HRESULT STDMETHODCALLTYPE ExecNotificationQueryAsync(const BSTR strQueryLanguage, const BSTR strQuery, LONG,
                                                         IWbemContext*, IWbemObjectSink* pResponseHandler) override {
        if (pResponseHandler == nullptr || strQueryLanguage == nullptr || _wcsicmp(strQueryLanguage, L"WQL") != 0) {
            return WBEM_E_INVALID_PARAMETER;
        }
        return Namespace::Get().Subscribe(strQuery, pResponseHandler);
    }

    // A failed method leaves its __ExtendedStatus as the thread's COM error object, where clients of the
    // synchronous call find it.
    HRESULT STDMETHODCALLTYPE ExecMethod(const BSTR strObjectPath, const BSTR strMethodName, LONG lFlags,
                                         IWbemContext* pCtx, IWbemClassObject* pInParams,
                                         IWbemClassObject** ppOutParams, IWbemCallResult**) override {
        if (ppOutParams != nullptr) {
            *ppOutParams = nullptr;
        }
        CollectingSink* sink = nullptr;
        HRESULT hr = CallProvider(
            [&](IWbemServices* provider, IWbemObjectSink* s) {
                return provider->ExecMethodAsync(strObjectPath, strMethodName, lFlags, pCtx, pInParams, s);
            },
            &sink);
        auto objects = sink->TakeObjects();
        IWbemClassObject* status = sink->TakeStatusObject();
        sink->Release();
        SetErrorInfo(0, nullptr);
        if (FAILED(hr) && status != nullptr) {
            auto* error = new StatusErrorInfo(status);
            SetErrorInfo(0, error);
            error->Release();
        }
        if (status != nullptr) {
            status->Release();
        }
        if (SUCCEEDED(hr) && ppOutParams != nullptr && !objects.empty()) {
            *ppOutParams = objects.front();
            objects.erase(objects.begin());
        }
        ReleaseAll(objects);
        return hr;
    }
    HRESULT STDMETHODCALLTYPE ExecMethodAsync(const BSTR strObjectPath, const BSTR strMethodName, LONG lFlags,
                                              IWbemContext* pCtx, IWbemClassObject* pInParams,
                                              IWbemObjectSink* pResponseHandler) override {
        if (pResponseHandler == nullptr) {
            return WBEM_E_INVALID_PARAMETER;
        }
        CollectingSink* sink = nullptr;
        const HRESULT hr = CallProvider(
            [&](IWbemServices* provider, IWbemObjectSink* s) {
                return provider->ExecMethodAsync(strObjectPath, strMethodName, lFlags, pCtx, pInParams, s);
            },
            &sink);
        if (sink == nullptr) {
            pResponseHandler->SetStatus(WBEM_STATUS_COMPLETE, hr, nullptr, nullptr);
            return WBEM_S_NO_ERROR;
        }
        Forward(sink, hr, pResponseHandler);
        sink->Release();
        return WBEM_S_NO_ERROR;
    }

private:
    std::atomic<DWORD> m_authenticationLevel{RPC_C_AUTHN_LEVEL_CONNECT};
    std::atomic<DWORD> m_impersonationLevel{RPC_C_IMP_LEVEL_IMPERSONATE};

    // The instances of a class (through its provider) that match the query.
    HRESULT Collect(const Query& query, LONG lFlags, IWbemContext* pCtx, std::vector<IWbemClassObject*>& out) {
        HRESULT hr = Namespace::Get().Load();
        if (FAILED(hr)) {
            return hr;
        }
        const auto definition = Namespace::Get().FindClass(query.className);
        if (!definition) {
            return WBEM_E_INVALID_CLASS;
        }
        for (const auto& property : query.properties) {
            if (definition->FindProperty(property.c_str()) < 0) {
                return WBEM_E_INVALID_QUERY;
            }
        }
        if (definition->provider.empty()) {
            return WBEM_S_NO_ERROR;  // static classes have no instances here
        }
        CollectingSink* sink = nullptr;
        BSTR className = SysAllocString(definition->name.c_str());
        hr = CallProvider(
            [&](IWbemServices* provider, IWbemObjectSink* s) {
                return provider->CreateInstanceEnumAsync(className, lFlags, pCtx, s);
            },
            &sink);
        SysFreeString(className);
        if (sink != nullptr) {
            for (auto* object : sink->TakeObjects()) {
                ClassObject* ours = AsClassObject(object);
                if (!MatchesQuery(object, query)) {
                    object->Release();
                } else if (query.properties.empty() || ours == nullptr) {
                    out.push_back(object);
                } else {
                    // A query that names its properties returns instances holding only those.
                    IWbemClassObject* projected = ours->Projected(query.properties);
                    object->Release();
                    if (projected == nullptr) {
                        hr = WBEM_E_OUT_OF_MEMORY;
                    } else {
                        out.push_back(projected);
                    }
                }
            }
            if (FAILED(hr)) {
                ReleaseAll(out);
            }
            sink->Release();
        }
        return hr;
    }

    HRESULT Enumerate(const Query& query, LONG lFlags, IWbemContext* pCtx, IEnumWbemClassObject** ppEnum) {
        if (ppEnum == nullptr) {
            return WBEM_E_INVALID_PARAMETER;
        }
        *ppEnum = nullptr;
        std::vector<IWbemClassObject*> objects;
        const HRESULT hr = Collect(query, lFlags, pCtx, objects);
        if (FAILED(hr)) {
            ReleaseAll(objects);
            return hr;
        }
        *ppEnum = new ObjectEnumerator(std::move(objects), false, (lFlags & WBEM_FLAG_FORWARD_ONLY) != 0);
        return WBEM_S_NO_ERROR;
    }

    HRESULT EnumerateTo(const Query& query, LONG lFlags, IWbemContext* pCtx, IWbemObjectSink* handler) {
        if (handler == nullptr) {
            return WBEM_E_INVALID_PARAMETER;
        }
        std::vector<IWbemClassObject*> objects;
        const HRESULT hr = Collect(query, lFlags, pCtx, objects);
        for (auto* object : objects) {
            handler->Indicate(1, &object);
        }
        ReleaseAll(objects);
        handler->SetStatus(WBEM_STATUS_COMPLETE, hr, nullptr, nullptr);
        return WBEM_S_NO_ERROR;
    }
};

}  // namespace

HRESULT CreateServices(REFIID riid, void** ppv) {
    return CreateComObject<Services>(riid, ppv);
}

}  // namespace dorwex::emulator::wmi
