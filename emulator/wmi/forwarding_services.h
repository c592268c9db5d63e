// An IWbemServices that hands every call on to another one, with a Scope object alive around each call
// (the service's count of calls in flight, the client's call context in the provider host).
#pragma once

#include <windows.h>
#include <wbemcli.h>

#include "emulator/common/com_object.h"

namespace dorwex::emulator::wmi {

// A Scope that does nothing.
struct NoCallScope {
    explicit NoCallScope(bool) {}
};

template <class Scope>
class ForwardingServices : public ComObject<IWbemServices> {
public:
    ForwardingServices(IWbemServices* target, bool scopeArgument) : m_target(target), m_scopeArgument(scopeArgument) {
        m_target->AddRef();
    }
    ~ForwardingServices() override { m_target->Release(); }

    HRESULT STDMETHODCALLTYPE OpenNamespace(const BSTR a, LONG b, IWbemContext* c, IWbemServices** d,
                                            IWbemCallResult** e) override {
        const Scope scope(m_scopeArgument);
        return m_target->OpenNamespace(a, b, c, d, e);
    }
    HRESULT STDMETHODCALLTYPE CancelAsyncCall(IWbemObjectSink* a) override {
        const Scope scope(m_scopeArgument);
        return m_target->CancelAsyncCall(a);
    }
    HRESULT STDMETHODCALLTYPE QueryObjectSink(LONG a, IWbemObjectSink** b) override {
        const Scope scope(m_scopeArgument);
        return m_target->QueryObjectSink(a, b);
    }
    HRESULT STDMETHODCALLTYPE GetObject(const BSTR a, LONG b, IWbemContext* c, IWbemClassObject** d,
                                        IWbemCallResult** e) override {
        const Scope scope(m_scopeArgument);
        return m_target->GetObject(a, b, c, d, e);
    }
    HRESULT STDMETHODCALLTYPE GetObjectAsync(const BSTR a, LONG b, IWbemContext* c, IWbemObjectSink* d) override {
        const Scope scope(m_scopeArgument);
        return m_target->GetObjectAsync(a, b, c, d);
    }
    HRESULT STDMETHODCALLTYPE PutClass(IWbemClassObject* a, LONG b, IWbemContext* c, IWbemCallResult** d) override {
        const Scope scope(m_scopeArgument);
        return m_target->PutClass(a, b, c, d);
    }
    HRESULT STDMETHODCALLTYPE PutClassAsync(IWbemClassObject* a, LONG b, IWbemContext* c,
                                            IWbemObjectSink* d) override {
        const Scope scope(m_scopeArgument);
        return m_target->PutClassAsync(a, b, c, d);
    }
    HRESULT STDMETHODCALLTYPE DeleteClass(const BSTR a, LONG b, IWbemContext* c, IWbemCallResult** d) override {
        const Scope scope(m_scopeArgument);
        return m_target->DeleteClass(a, b, c, d);
    }
    HRESULT STDMETHODCALLTYPE DeleteClassAsync(const BSTR a, LONG b, IWbemContext* c, IWbemObjectSink* d) override {
        const Scope scope(m_scopeArgument);
        return m_target->DeleteClassAsync(a, b, c, d);
    }
    HRESULT STDMETHODCALLTYPE CreateClassEnum(const BSTR a, LONG b, IWbemContext* c,
                                              IEnumWbemClassObject** d) override {
        const Scope scope(m_scopeArgument);
        return m_target->CreateClassEnum(a, b, c, d);
    }
    HRESULT STDMETHODCALLTYPE CreateClassEnumAsync(const BSTR a, LONG b, IWbemContext* c,
                                                   IWbemObjectSink* d) override {
        const Scope scope(m_scopeArgument);
        return m_target->CreateClassEnumAsync(a, b, c, d);
    }
    HRESULT STDMETHODCALLTYPE PutInstance(IWbemClassObject* a, LONG b, IWbemContext* c,
                                          IWbemCallResult** d) override {
        const Scope scope(m_scopeArgument);
        return m_target->PutInstance(a, b, c, d);
    }
    HRESULT STDMETHODCALLTYPE PutInstanceAsync(IWbemClassObject* a, LONG b, IWbemContext* c,
                                               IWbemObjectSink* d) override {
        const Scope scope(m_scopeArgument);
        return m_target->PutInstanceAsync(a, b, c, d);
    }
    HRESULT STDMETHODCALLTYPE DeleteInstance(const BSTR a, LONG b, IWbemContext* c, IWbemCallResult** d) override {
        const Scope scope(m_scopeArgument);
        return m_target->DeleteInstance(a, b, c, d);
    }
    HRESULT STDMETHODCALLTYPE DeleteInstanceAsync(const BSTR a, LONG b, IWbemContext* c,
                                                  IWbemObjectSink* d) override {
        const Scope scope(m_scopeArgument);
        return m_target->DeleteInstanceAsync(a, b, c, d);
    }
    HRESULT STDMETHODCALLTYPE CreateInstanceEnum(const BSTR a, LONG b, IWbemContext* c,
                                                 IEnumWbemClassObject** d) override {
        const Scope scope(m_scopeArgument);
        return m_target->CreateInstanceEnum(a, b, c, d);
    }
    HRESULT STDMETHODCALLTYPE CreateInstanceEnumAsync(const BSTR a, LONG b, IWbemContext* c,
                                                      IWbemObjectSink* d) override {
        const Scope scope(m_scopeArgument);
        return m_target->CreateInstanceEnumAsync(a, b, c, d);
    }
    HRESULT STDMETHODCALLTYPE ExecQuery(const BSTR a, const BSTR b, LONG c, IWbemContext* d,
                                        IEnumWbemClassObject** e) override {
        const Scope scope(m_scopeArgument);
        return m_target->ExecQuery(a, b, c, d, e);
    }
    HRESULT STDMETHODCALLTYPE ExecQueryAsync(const BSTR a, const BSTR b, LONG c, IWbemContext* d,
                                             IWbemObjectSink* e) override {
        const Scope scope(m_scopeArgument);
        return m_target->ExecQueryAsync(a, b, c, d, e);
    }
    HRESULT STDMETHODCALLTYPE ExecNotificationQuery(const BSTR a, const BSTR b, LONG c, IWbemContext* d,
                                                    IEnumWbemClassObject** e) override {
        const Scope scope(m_scopeArgument);
        return m_target->ExecNotificationQuery(a, b, c, d, e);
    }
    HRESULT STDMETHODCALLTYPE ExecNotificationQueryAsync(const BSTR a, const BSTR b, LONG c, IWbemContext* d,
                                                         IWbemObjectSink* e) override {
        const Scope scope(m_scopeArgument);
        return m_target->ExecNotificationQueryAsync(a, b, c, d, e);
    }
    HRESULT STDMETHODCALLTYPE ExecMethod(const BSTR a, const BSTR b, LONG c, IWbemContext* d, IWbemClassObject* e,
                                         IWbemClassObject** f, IWbemCallResult** g) override {
        const Scope scope(m_scopeArgument);
        return m_target->ExecMethod(a, b, c, d, e, f, g);
    }
    HRESULT STDMETHODCALLTYPE ExecMethodAsync(const BSTR a, const BSTR b, LONG c, IWbemContext* d,
                                              IWbemClassObject* e, IWbemObjectSink* f) override {
        const Scope scope(m_scopeArgument);
        return m_target->ExecMethodAsync(a, b, c, d, e, f);
    }


private:
    IWbemServices* const m_target;
    const bool m_scopeArgument;
};

}  // namespace dorwex::emulator::wmi
