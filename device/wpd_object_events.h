// The event callback one device object registers with its open WPD session.
#pragma once

#include <windows.h>

#include <atomic>
#include <memory>

#include "../common/module_state.h"
#include "portable_device_api.h"

class CDorWEXWPDObject;
class IDorWEXDeviceHost;

class CDorWEXWPDObjectEvents final : public IPortableDeviceEventCallback {
public:
    CDorWEXWPDObjectEvents(IDorWEXDeviceHost* pHost_in, CDorWEXWPDObject* pDevice_in);

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;
    HRESULT STDMETHODCALLTYPE OnEvent(IPortableDeviceValues* pEventParameters_in) override;

    // Advise on the session, keeping the cookie; a callback that holds a cookie is not registered again.
    HRESULT Register(IPortableDevice* pIPortableDevice_in);
    // Unadvise with the kept cookie, then free it; 0 when there was none.
    HRESULT UnRegister(IPortableDevice* pIPortableDevice_in);
    bool IsRegistered() const { return m_pwcharCookie != nullptr; }

private:
    ~CDorWEXWPDObjectEvents();

    std::atomic<LONG> m_longRefCount{1};
    IDorWEXDeviceHost* m_pHost;
    std::weak_ptr<CDorWEXWPDObject> m_pDevice;  // the device may go while an event is still on its way
    LPWSTR m_pwcharCookie = nullptr;
    ModuleCallbackCount m_Counted;
};
