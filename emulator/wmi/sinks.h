// Result carriers of the emulated WMI service: a sink that collects what a provider indicates, the
// enumerators handed to clients, and the error object behind a failed synchronous call.
#pragma once

#include <windows.h>
#include <wbemcli.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <vector>

#include "emulator/common/com_object.h"
#include "remote_enumerator.h"

namespace dorwex::emulator::wmi {

// Collects the objects and the final status of one asynchronous provider call.
class CollectingSink final : public ComObject<IWbemObjectSink> {
public:
    ~CollectingSink() override;
    HRESULT STDMETHODCALLTYPE Indicate(LONG lObjectCount, IWbemClassObject** apObjArray) override;
    HRESULT STDMETHODCALLTYPE SetStatus(LONG lFlags, HRESULT hResult, BSTR strParam,
                                        IWbemClassObject* pObjParam) override;

    // The objects indicated so far, each with a reference for the caller.
    std::vector<IWbemClassObject*> TakeObjects();
    // Waits for the final SetStatus; false when it has not come within the time.
    bool WaitCompleted(DWORD milliseconds);
    HRESULT Status();
    // The status object of SetStatus (an __ExtendedStatus), with a reference for the caller, or null.
    IWbemClassObject* TakeStatusObject();

private:
    std::mutex m_lock;
    std::condition_variable m_completion;
    std::vector<IWbemClassObject*> m_objects;
    bool m_completed = false;
    HRESULT m_status = WBEM_S_NO_ERROR;
    IWbemClassObject* m_statusObject = nullptr;
};

class EnumeratorSink;

// A client's enumerator: a fixed list, or a queue that keeps receiving (event queries). A fixed list that
// was not asked for forward-only can be reset and cloned, as WMI's own enumerators can.
class ObjectEnumerator final : public ComObject<IEnumWbemClassObject>, public MarshalledByFetch {
public:
    // Takes the references. An open enumerator is always forward-only.
    ObjectEnumerator(std::vector<IWbemClassObject*> objects, bool open, bool forwardOnly);
    // Cancels its event query, if it has one ("IWbemServices::ExecNotificationQuery": releasing the
    // enumerator cancels the query).
    ~ObjectEnumerator() override;

    // The event query whose sink fills this enumerator (semi-synchronous ExecNotificationQuery).
    void SetEventQuery(EnumeratorSink* sink);

    // Adds an object to an open enumerator (references are taken by the enumerator itself).
    void Push(IWbemClassObject* object);
    void Close();

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
    ULONG STDMETHODCALLTYPE AddRef() override { return ComObject<IEnumWbemClassObject>::AddRef(); }
    ULONG STDMETHODCALLTYPE Release() override { return ComObject<IEnumWbemClassObject>::Release(); }
    HRESULT STDMETHODCALLTYPE Reset() override;
    HRESULT STDMETHODCALLTYPE Next(LONG lTimeout, ULONG uCount, IWbemClassObject** apObjects,
                                   ULONG* puReturned) override;
    HRESULT STDMETHODCALLTYPE NextAsync(ULONG uCount, IWbemObjectSink* pSink) override;
    HRESULT STDMETHODCALLTYPE Clone(IEnumWbemClassObject** ppEnum) override;
    HRESULT STDMETHODCALLTYPE Skip(LONG lTimeout, ULONG nCount) override;

protected:
    IEnumWbemClassObject* Enumerator() override { return this; }

private:
    std::mutex m_lock;
    std::condition_variable m_arrived;
    std::deque<IWbemClassObject*> m_objects;  // forward-only: those not yet taken; else all of them
    size_t m_position = 0;                     // the next one to hand out, when not forward-only
    bool m_open;
    bool m_forwardOnly;
    EnumeratorSink* m_eventQuery = nullptr;  // with a reference
};

// Forwards indications to an open enumerator: the sink of a semi-synchronous event query. The enumerator
// holds the sink and the subscription holds it too; the sink does not hold the enumerator, so that the
// client's release of the enumerator ends it, and with it the query.
class EnumeratorSink final : public ComObject<IWbemObjectSink> {
public:
    explicit EnumeratorSink(ObjectEnumerator* enumerator) : m_enumerator(enumerator) {}
    HRESULT STDMETHODCALLTYPE Indicate(LONG lObjectCount, IWbemClassObject** apObjArray) override;
    HRESULT STDMETHODCALLTYPE SetStatus(LONG lFlags, HRESULT hResult, BSTR strParam,
                                        IWbemClassObject* pObjParam) override;
    // The enumerator is going: what arrives from now on goes nowhere.
    void Detach();

private:
    std::mutex m_lock;
    ObjectEnumerator* m_enumerator;  // not held; null once detached
};

// The COM error object of a failed synchronous call: IErrorInfo with the status object behind it, which
// clients reach by asking it for IWbemClassObject, as on Windows.
class StatusErrorInfo final : public ComObject<IErrorInfo> {
public:
    explicit StatusErrorInfo(IWbemClassObject* status);  // takes a reference of its own
    ~StatusErrorInfo() override;
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
    HRESULT STDMETHODCALLTYPE GetGUID(GUID* pGUID) override;
    HRESULT STDMETHODCALLTYPE GetSource(BSTR* pBstrSource) override;
    HRESULT STDMETHODCALLTYPE GetDescription(BSTR* pBstrDescription) override;
    HRESULT STDMETHODCALLTYPE GetHelpFile(BSTR* pBstrHelpFile) override;
    HRESULT STDMETHODCALLTYPE GetHelpContext(DWORD* pdwHelpContext) override;

private:
    IWbemClassObject* m_status;
};

}  // namespace dorwex::emulator::wmi
