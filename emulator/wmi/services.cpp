// IWbemServices of the emulated namespace: classes are answered from the MOF, everything about instances,
// methods and events is routed to the provider the way the WMI service routes it.
#include <windows.h>
#include <oleauto.h>

#include <atomic>
#include <functional>
#include <new>
#include <string>

#include "client_context.h"
#include "namespace.h"
#include "sinks.h"
#include "wbem_path.h"

namespace dorwex::emulator::wmi {

namespace {

// How long the service waits for the final SetStatus of a provider call that returned success. WMI waits
// without end on a local connection; the tests want a clear failure instead of a hang.
DWORD StatusWait() {
    wchar_t text[16] = {};
    const DWORD length = GetEnvironmentVariableW(L"DORWEX_WMI_STATUS_WAIT_MS", text, 16);
    return length > 0 && length < 16 ? static_cast<DWORD>(_wtoi(text)) : 30000;
}

void ReleaseAll(std::vector<IWbemClassObject*>& objects) {
    for (auto* object : objects) {
        object->Release();
    }
    objects.clear();
}

BSTR Text(const std::wstring& text) {
    return SysAllocString(text.c_str());
}

// A BSTR owned for the length of one provider call.
class OwnedText {
public:
    explicit OwnedText(const std::wstring& text) : m_text(Text(text)) {}
    ~OwnedText() { SysFreeString(m_text); }
    OwnedText(const OwnedText&) = delete;
    OwnedText& operator=(const OwnedText&) = delete;
    BSTR get() const { return m_text; }

private:
    BSTR m_text;
};

bool IsExtendedStatus(IWbemClassObject* object) {
    if (object->InheritsFrom(L"__ExtendedStatus") == WBEM_S_NO_ERROR) {
        return true;
    }
    VARIANT name;
    VariantInit(&name);
    const bool is = SUCCEEDED(object->Get(L"__CLASS", 0, &name, nullptr, nullptr)) && name.vt == VT_BSTR &&
                    _wcsicmp(name.bstrVal, L"__ExtendedStatus") == 0;
    VariantClear(&name);
    return is;
}

void PutText(IWbemClassObject* object, const wchar_t* name, const std::wstring& text) {
    VARIANT value;
    VariantInit(&value);
    value.vt = VT_BSTR;
    value.bstrVal = Text(text);
    object->Put(name, 0, &value, 0);
    VariantClear(&value);
}

// An __ExtendedStatus as WMI hands it to clients. The provider's StatusCode and Description are kept
// (from `base` when there is one); WMI itself fills Operation, ParameterInfo and ProviderName.
IWbemClassObject* ClientStatus(IWbemClassObject* base, const wchar_t* operation, const std::wstring& parameter,
                               const std::wstring& description) {
    IWbemClassObject* status = nullptr;
    if (base != nullptr) {
        if (!IsExtendedStatus(base)) {
            base->AddRef();
            return base;  // another kind of status object goes through as it is
        }
        if (FAILED(base->Clone(&status))) {
            return nullptr;
        }
    } else {
        const auto definition = Namespace::Get().FindClass(L"__ExtendedStatus");
        status = definition ? new (std::nothrow) ClassObject(definition, true) : nullptr;
        if (status == nullptr) {
            return nullptr;
        }
        PutText(status, L"Description", description);
    }
    PutText(status, L"Operation", operation);
    PutText(status, L"ParameterInfo", parameter);
    PutText(status, L"ProviderName", Namespace::Get().ProviderName());
    return status;
}

// What one asynchronous provider call produced.
struct ProviderResult {
    HRESULT hr = WBEM_S_NO_ERROR;
    std::vector<IWbemClassObject*> objects;
    IWbemClassObject* status = nullptr;  // as the client sees it

    ProviderResult() = default;
    ProviderResult(const ProviderResult&) = delete;
    ProviderResult& operator=(const ProviderResult&) = delete;
    ~ProviderResult() {
        ReleaseAll(objects);
        if (status != nullptr) {
            status->Release();
        }
    }
    // The first object, with its reference, or null.
    IWbemClassObject* TakeFirst() {
        if (objects.empty()) {
            return nullptr;
        }
        IWbemClassObject* first = objects.front();
        objects.erase(objects.begin());
        return first;
    }
};

// Runs one asynchronous provider call as WMI does. A call that returns a failure has finished with it and
// its sink is not used. A call that returns success has finished only when it calls SetStatus on the sink;
// the service waits for that, within StatusWait(), and reports a provider that never does as a failure
// naming the operation.
void CallProvider(const wchar_t* operation, const std::wstring& parameter,
                  const std::function<HRESULT(IWbemServices*, IWbemObjectSink*)>& call, ProviderResult& result) {
    IWbemServices* provider = nullptr;
    result.hr = Namespace::Get().Provider(&provider);
    if (FAILED(result.hr)) {
        return;
    }
    auto* sink = new CollectingSink();
    {
        const ClientCallScope clientCall(Namespace::Get().ProviderImpersonates());
        result.hr = call(provider, sink);
    }
    provider->Release();
    IWbemClassObject* providerStatus = nullptr;
    if (FAILED(result.hr)) {
        // The sink is not used after a failing return: what reached it anyway is dropped.
    } else if (const DWORD wait = StatusWait(); !sink->WaitCompleted(wait)) {
        result.hr = WBEM_E_FAILED;
        result.status = ClientStatus(nullptr, operation, parameter,
                                     std::wstring(L"The provider's ") + operation +
                                         L"Async returned success but did not call SetStatus on its response "
                                         L"handler within " + std::to_wstring(wait) + L" ms.");
    } else {
        result.hr = sink->Status();
        result.objects = sink->TakeObjects();
        providerStatus = sink->TakeStatusObject();
    }
    if (providerStatus != nullptr) {
        result.status = ClientStatus(providerStatus, operation, parameter, std::wstring());
        providerStatus->Release();
    }
    sink->Release();
}

// A synchronous call's status object becomes the thread's COM error object when the call failed, where
// clients find it; a call that succeeded leaves none.
HRESULT Report(const ProviderResult& result) {
    SetErrorInfo(0, nullptr);
    if (FAILED(result.hr) && result.status != nullptr) {
        auto* error = new StatusErrorInfo(result.status);
        SetErrorInfo(0, error);
        error->Release();
    }
    return result.hr;
}

// What a finished provider call hands to a client's own sink.
void Forward(ProviderResult& result, IWbemObjectSink* client) {
    for (auto* object : result.objects) {
        client->Indicate(1, &object);
    }
    client->SetStatus(WBEM_STATUS_COMPLETE, result.hr, nullptr, result.status);
}

// A client's path to an instance or class of the namespace: read with the service's own grammar, the class
// looked up, the keys checked against the class's key properties and named. The provider receives the
// relative path as WMI renders it.
struct ResolvedPath {
    WbemPath path;
    std::shared_ptr<const ClassDefinition> definition;
    std::wstring relative;
};

HRESULT Resolve(const BSTR text, ResolvedPath& out) {
    auto parsed = text != nullptr ? ParseWbemPath(text) : std::nullopt;
    if (!parsed) {
        return WBEM_E_INVALID_OBJECT_PATH;
    }
    HRESULT hr = Namespace::Get().Load();
    if (FAILED(hr)) {
        return hr;
    }
    out.definition = Namespace::Get().FindClass(parsed->className);
    if (!out.definition) {
        return WBEM_E_INVALID_CLASS;
    }
    parsed->className = out.definition->name;
    std::vector<const PropertyDefinition*> keys;
    for (const auto& property : out.definition->properties) {
        if (property.key) {
            keys.push_back(&property);
        }
    }
    if (parsed->singleton || (!parsed->keys.empty() && parsed->keys.size() != keys.size())) {
        return WBEM_E_INVALID_OBJECT_PATH;
    }
    for (auto& key : parsed->keys) {
        if (key.name.empty()) {
            if (keys.size() != 1) {
                return WBEM_E_INVALID_OBJECT_PATH;  // only a class with one key may leave it unnamed
            }
            key.name = keys.front()->name;
        }
        const int index = out.definition->FindProperty(key.name.c_str());
        if (index < 0 || !out.definition->properties[static_cast<size_t>(index)].key) {
            return WBEM_E_INVALID_OBJECT_PATH;
        }
        key.name = out.definition->properties[static_cast<size_t>(index)].name;
    }
    out.path = *parsed;
    out.relative = RenderRelativePath(out.path);
    return WBEM_S_NO_ERROR;
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
        ResolvedPath resolved;
        const HRESULT hr = Resolve(strObjectPath, resolved);
        if (hr == static_cast<HRESULT>(WBEM_E_INVALID_CLASS)) {
            return WBEM_E_NOT_FOUND;  // GetObject answers a class it does not know as not found
        }
        if (FAILED(hr)) {
            return hr;
        }
        if (resolved.path.IsClass()) {
            *ppObject = ClassObject::NewClass(resolved.definition);
            return *ppObject != nullptr ? WBEM_S_NO_ERROR : WBEM_E_OUT_OF_MEMORY;
        }
        if (resolved.definition->provider.empty()) {
            return WBEM_E_NOT_FOUND;  // a class without an instance provider has no instances
        }
        ProviderResult result;
        const OwnedText path(resolved.relative);
        CallProvider(L"GetObject", resolved.relative,
                     [&](IWbemServices* provider, IWbemObjectSink* sink) {
                         return provider->GetObjectAsync(path.get(), lFlags, pCtx, sink);
                     },
                     result);
        if (SUCCEEDED(result.hr)) {
            *ppObject = result.TakeFirst();
            if (*ppObject == nullptr) {
                result.hr = WBEM_E_NOT_FOUND;
            }
        }
        return Report(result);
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

    // Instances are written and deleted by the provider: through the return value of its call when that
    // fails, through SetStatus on the response handler when it returns success.
    HRESULT STDMETHODCALLTYPE PutInstance(IWbemClassObject* pInst, LONG lFlags, IWbemContext* pCtx,
                                          IWbemCallResult**) override {
        if (pInst == nullptr) {
            return WBEM_E_INVALID_PARAMETER;
        }
        ProviderResult result;
        Put(pInst, lFlags, pCtx, result);
        return Report(result);
    }
    HRESULT STDMETHODCALLTYPE PutInstanceAsync(IWbemClassObject* pInst, LONG lFlags, IWbemContext* pCtx,
                                               IWbemObjectSink* pResponseHandler) override {
        if (pResponseHandler == nullptr || pInst == nullptr) {
            return WBEM_E_INVALID_PARAMETER;
        }
        ProviderResult result;
        Put(pInst, lFlags, pCtx, result);
        Forward(result, pResponseHandler);
        return WBEM_S_NO_ERROR;
    }
    HRESULT STDMETHODCALLTYPE DeleteInstance(const BSTR strObjectPath, LONG lFlags, IWbemContext* pCtx,
                                             IWbemCallResult**) override {
        ProviderResult result;
        Delete(strObjectPath, lFlags, pCtx, result);
        return Report(result);
    }
    HRESULT STDMETHODCALLTYPE DeleteInstanceAsync(const BSTR strObjectPath, LONG lFlags, IWbemContext* pCtx,
                                                  IWbemObjectSink* pResponseHandler) override {
        if (pResponseHandler == nullptr) {
            return WBEM_E_INVALID_PARAMETER;
        }
        ProviderResult result;
        Delete(strObjectPath, lFlags, pCtx, result);
        Forward(result, pResponseHandler);
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
        enumerator->SetEventQuery(sink);
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
        ProviderResult result;
        Execute(strObjectPath, strMethodName, lFlags, pCtx, pInParams, result);
        if (SUCCEEDED(result.hr) && ppOutParams != nullptr) {
            *ppOutParams = result.TakeFirst();
        }
        return Report(result);
    }
    HRESULT STDMETHODCALLTYPE ExecMethodAsync(const BSTR strObjectPath, const BSTR strMethodName, LONG lFlags,
                                              IWbemContext* pCtx, IWbemClassObject* pInParams,
                                              IWbemObjectSink* pResponseHandler) override {
        if (pResponseHandler == nullptr) {
            return WBEM_E_INVALID_PARAMETER;
        }
        ProviderResult result;
        Execute(strObjectPath, strMethodName, lFlags, pCtx, pInParams, result);
        Forward(result, pResponseHandler);
        return WBEM_S_NO_ERROR;
    }

private:
    std::atomic<DWORD> m_authenticationLevel{RPC_C_AUTHN_LEVEL_CONNECT};
    std::atomic<DWORD> m_impersonationLevel{RPC_C_IMP_LEVEL_IMPERSONATE};

    void Put(IWbemClassObject* pInst, LONG lFlags, IWbemContext* pCtx, ProviderResult& result) {
        CallProvider(L"PutInstance", std::wstring(),
                     [&](IWbemServices* provider, IWbemObjectSink* sink) {
                         return provider->PutInstanceAsync(pInst, lFlags, pCtx, sink);
                     },
                     result);
    }

    void Delete(const BSTR strObjectPath, LONG lFlags, IWbemContext* pCtx, ProviderResult& result) {
        ResolvedPath resolved;
        result.hr = Resolve(strObjectPath, resolved);
        if (SUCCEEDED(result.hr) && resolved.path.IsClass()) {
            result.hr = WBEM_E_INVALID_OBJECT_PATH;  // a class is deleted with DeleteClass
        }
        if (FAILED(result.hr)) {
            return;
        }
        const OwnedText path(resolved.relative);
        CallProvider(L"DeleteInstance", resolved.relative,
                     [&](IWbemServices* provider, IWbemObjectSink* sink) {
                         return provider->DeleteInstanceAsync(path.get(), lFlags, pCtx, sink);
                     },
                     result);
    }

    // WMI runs a method only when the class declares it with the implemented qualifier, and a method that
    // is not static only on an instance path. No source names the code WMI answers the latter with; the
    // service answers WBEM_E_INVALID_OPERATION, and the provider is not called.
    void Execute(const BSTR strObjectPath, const BSTR strMethodName, LONG lFlags, IWbemContext* pCtx,
                 IWbemClassObject* pInParams, ProviderResult& result) {
        ResolvedPath resolved;
        result.hr = Resolve(strObjectPath, resolved);
        if (FAILED(result.hr)) {
            return;
        }
        const MethodDefinition* method =
            strMethodName != nullptr ? resolved.definition->FindMethod(strMethodName) : nullptr;
        if (method == nullptr) {
            result.hr = WBEM_E_INVALID_METHOD;
            return;
        }
        if (!method->implemented) {
            result.hr = WBEM_E_METHOD_NOT_IMPLEMENTED;
            return;
        }
        if (!method->isStatic && resolved.path.IsClass()) {
            result.hr = WBEM_E_INVALID_OPERATION;
            return;
        }
        const OwnedText path(resolved.relative);
        CallProvider(L"ExecMethod", resolved.relative,
                     [&](IWbemServices* provider, IWbemObjectSink* sink) {
                         return provider->ExecMethodAsync(path.get(), strMethodName, lFlags, pCtx, pInParams,
                                                          sink);
                     },
                     result);
    }

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
        ProviderResult result;
        if (definition->provider.empty()) {
            // A static class answers the instances compiled into the namespace.
            result.objects = Namespace::Get().StaticInstances(definition->name);
        } else {
            const OwnedText className(definition->name);
            CallProvider(L"CreateInstanceEnum", definition->name,
                         [&](IWbemServices* provider, IWbemObjectSink* sink) {
                             return provider->CreateInstanceEnumAsync(className.get(), lFlags, pCtx, sink);
                         },
                         result);
        }
        hr = result.hr;
        for (auto* object : result.objects) {
            ClassObject* ours = AsClassObject(object);
            if (!MatchesQuery(object, query)) {
                continue;
            }
            if (query.properties.empty() || ours == nullptr) {
                object->AddRef();
                out.push_back(object);
                continue;
            }
            // A query that names its properties returns instances holding only those.
            IWbemClassObject* projected = ours->Projected(query.properties);
            if (projected == nullptr) {
                hr = WBEM_E_OUT_OF_MEMORY;
                break;
            }
            out.push_back(projected);
        }
        if (FAILED(hr)) {
            ReleaseAll(out);
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
