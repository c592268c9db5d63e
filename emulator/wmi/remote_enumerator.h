// Enumerators of the service cross processes as WMI's do: not through a proxy of IEnumWbemClassObject but
// by a marshaller of their own. The service's enumerator marshals an IDorwexObjectFetch in its place; the
// client's copy, created by the unmarshaller class below, answers IEnumWbemClassObject by fetching one
// object per call, each class object travelling by value.
#pragma once

#include <windows.h>
#include <objidl.h>
#include <wbemcli.h>

#include "emulator/common/com_object.h"
#include "unmarshaller.h"

namespace dorwex::emulator::wmi {

// {5B0F4B6E-3C7A-4D52-9D1E-7A2F60C81A04}
constexpr CLSID kCLSID_EnumeratorUnmarshaller = {
    0x5b0f4b6e, 0x3c7a, 0x4d52, {0x9d, 0x1e, 0x7a, 0x2f, 0x60, 0xc8, 0x1a, 0x04}};

// IMarshal of an enumerator: what it writes is a marshalled IDorwexObjectFetch over it.
class MarshalledByFetch : public IMarshal {
public:
    HRESULT STDMETHODCALLTYPE GetUnmarshalClass(REFIID riid, void* pv, DWORD dwDestContext, void* pvDestContext,
                                                DWORD mshlflags, CLSID* pCid) override;
    HRESULT STDMETHODCALLTYPE GetMarshalSizeMax(REFIID riid, void* pv, DWORD dwDestContext, void* pvDestContext,
                                                DWORD mshlflags, DWORD* pSize) override;
    HRESULT STDMETHODCALLTYPE MarshalInterface(IStream* pStm, REFIID riid, void* pv, DWORD dwDestContext,
                                               void* pvDestContext, DWORD mshlflags) override;
    HRESULT STDMETHODCALLTYPE UnmarshalInterface(IStream* pStm, REFIID riid, void** ppv) override;
    HRESULT STDMETHODCALLTYPE ReleaseMarshalData(IStream* pStm) override;
    HRESULT STDMETHODCALLTYPE DisconnectObject(DWORD dwReserved) override;

protected:
    virtual ~MarshalledByFetch() = default;
    virtual IEnumWbemClassObject* Enumerator() = 0;
};

// What COM creates from kCLSID_EnumeratorUnmarshaller in the client's process.
class EnumeratorUnmarshaller final : public Unmarshaller {
public:
    HRESULT STDMETHODCALLTYPE UnmarshalInterface(IStream* pStm, REFIID riid, void** ppv) override;
    HRESULT STDMETHODCALLTYPE ReleaseMarshalData(IStream* pStm) override;
};

}  // namespace dorwex::emulator::wmi
