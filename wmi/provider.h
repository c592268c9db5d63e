// The provider object that WMI creates through the class factory: instance, method and event provider for
// Win32ext_WPD and Win32ext_WPDEvent. It holds no device state: it answers from the process-wide core's
// device collection, and it is the path by which the core publishes devices and raises events.
#pragma once

#include <windows.h>
#include <comdef.h>
#include <wbemcli.h>
#include <wbemprov.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>

#include "event_sink.h"

class IDorWEXMonitor;
class IDorWEXWPDDevice;

class CDorWEXWPDWMI : public IWbemProviderInit,
                      public IWbemServices,
                      public IWbemEventProvider,
                      public IWbemEventProviderQuerySink,
                      public IWbemEventConsumerProvider,
                      public IDorWEXEventSink {
public:
    CDorWEXWPDWMI();
    CDorWEXWPDWMI(const CDorWEXWPDWMI&) = delete;
    CDorWEXWPDWMI& operator=(const CDorWEXWPDWMI&) = delete;

    // IUnknown, shared by the five interfaces.
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;
    // A reference for a caller that found this object through a plain pointer (the core's list): false
    // once the count has reached 0, when the object is already being destroyed.
    bool TryAddRef() override;

    // IWbemProviderInit
    STDMETHODIMP Initialize(LPWSTR wszUser, LONG lFlags, LPWSTR wszNamespace, LPWSTR wszLocale,
                            IWbemServices* pNamespace, IWbemContext* pCtx,
                            IWbemProviderInitSink* pInitSink) override;

    // IWbemServices
    STDMETHODIMP OpenNamespace(const BSTR, LONG, IWbemContext*, IWbemServices**, IWbemCallResult**) override;
    STDMETHODIMP CancelAsyncCall(IWbemObjectSink*) override;
    STDMETHODIMP QueryObjectSink(LONG, IWbemObjectSink**) override;
    STDMETHODIMP GetObject(const BSTR, LONG, IWbemContext*, IWbemClassObject**, IWbemCallResult**) override;
    STDMETHODIMP GetObjectAsync(const BSTR strObjectPath, LONG lFlags, IWbemContext* pCtx,
                                IWbemObjectSink* pResponseHandler) override;
    STDMETHODIMP PutClass(IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**) override;
    STDMETHODIMP PutClassAsync(IWbemClassObject*, LONG, IWbemContext*, IWbemObjectSink*) override;
    STDMETHODIMP DeleteClass(const BSTR, LONG, IWbemContext*, IWbemCallResult**) override;
    STDMETHODIMP DeleteClassAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) override;
    STDMETHODIMP CreateClassEnum(const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**) override;
    STDMETHODIMP CreateClassEnumAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) override;
    STDMETHODIMP PutInstance(IWbemClassObject* pInst, LONG lFlags, IWbemContext* pCtx,
                             IWbemCallResult** ppCallResult) override;
    STDMETHODIMP PutInstanceAsync(IWbemClassObject* pInst, LONG lFlags, IWbemContext* pCtx,
                                  IWbemObjectSink* pResponseHandler) override;
    STDMETHODIMP DeleteInstance(const BSTR strObjectPath, LONG lFlags, IWbemContext* pCtx,
                                IWbemCallResult** ppCallResult) override;
    STDMETHODIMP DeleteInstanceAsync(const BSTR strObjectPath, LONG lFlags, IWbemContext* pCtx,
                                     IWbemObjectSink* pResponseHandler) override;
    STDMETHODIMP CreateInstanceEnum(const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**) override;
    STDMETHODIMP CreateInstanceEnumAsync(const BSTR strClass, LONG lFlags, IWbemContext* pCtx,
                                         IWbemObjectSink* pResponseHandler) override;
    STDMETHODIMP ExecQuery(const BSTR, const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**) override;
    STDMETHODIMP ExecQueryAsync(const BSTR strQueryLanguage, const BSTR strQuery, LONG lFlags, IWbemContext* pCtx,
                                IWbemObjectSink* pResponseHandler) override;
    STDMETHODIMP ExecNotificationQuery(const BSTR, const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**) override;
    STDMETHODIMP ExecNotificationQueryAsync(const BSTR, const BSTR, LONG, IWbemContext*, IWbemObjectSink*) override;
    STDMETHODIMP ExecMethod(const BSTR, const BSTR, LONG, IWbemContext*, IWbemClassObject*, IWbemClassObject**,
                            IWbemCallResult**) override;
    STDMETHODIMP ExecMethodAsync(const BSTR strObjectPath, const BSTR strMethodName, LONG lFlags, IWbemContext* pCtx,
                                 IWbemClassObject* pInParams, IWbemObjectSink* pResponseHandler) override;

    // IWbemEventProvider
    STDMETHODIMP ProvideEvents(IWbemObjectSink* pSink, LONG lFlags) override;
    // IWbemEventProviderQuerySink
    STDMETHODIMP NewQuery(ULONG dwId, WBEM_WSTR wszQueryLanguage, WBEM_WSTR wszQuery) override;
    STDMETHODIMP CancelQuery(ULONG dwId) override;
    // IWbemEventConsumerProvider
    STDMETHODIMP FindConsumer(IWbemClassObject* pLogicalConsumer, IWbemUnboundObjectSink** ppConsumer) override;

    // The internal publication check: only a put carrying the provider's own token adds a device.
    HRESULT PutWPDInstance(IWbemClassObject* pInstance_in, LONG lFlags_in, IWbemContext* pIWbemContext_in);
    HRESULT DeleteWPDInstance(const BSTR bstrObjectPath_in, LONG lFlags_in, IWbemContext* pIWbemContext_in);
    // Fills the instance from the device the path names.
    HRESULT GetInstanceByPath(const BSTR bstrObjectPath_in, IWbemClassObject* pInstance_io);
    // A blank Win32ext_WPD instance.
    HRESULT CreateWMIInstanceForWin32ext_WPD(IWbemClassObject** ppInstance_out, IWbemContext* pIWbemContext_in);
    // The Win32ext_WPDEvent class, with up to four attempts.
    HRESULT GetIWbemClassObjectClassInstance(IWbemClassObject** ppClass_out, IWbemContext* pIWbemContext_in);

    // Raises a Win32ext_WPDEvent with the twelve texts, each of which may be null.
    HRESULT SendEvent(const DorWEXWPDEvent& event_in) override;

    // Whether WMI gave this object a sink for events (ProvideEvents): only such an object can deliver them.
    bool ProvidesEvents() const override { return m_boolProvidesEvents.load(); }

    IWbemServices* GetNamespace() const { return m_pIWbemServices; }
    IDorWEXMonitor* GetCore() const { return m_pCore; }

private:
    // Only Release destroys a provider object.
    virtual ~CDorWEXWPDWMI();

    IDorWEXMonitor* m_pCore = nullptr;
    IWbemServices* m_pIWbemServices = nullptr;
    IWbemObjectSink* m_pIWbemObjectSink = nullptr;
    ULONG m_ulongIWbemObjectSinkCount = 0;
    std::atomic<bool> m_boolProvidesEvents{false};
    volatile LONG m_longReferenceCount = 0;
    std::map<ULONG, std::wstring> m_QueryMap;
    std::mutex m_mutexQueries;
};

// Puts the 25 Win32ext_WPD properties of a device into an instance.
HRESULT FillWPDInstance(IWbemClassObject* pInstance_io, const IDorWEXWPDDevice& device_in);
