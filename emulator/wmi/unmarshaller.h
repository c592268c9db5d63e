// The receiving side of a custom marshalling: COM creates it from the class id the sender named and asks it
// only to read the stream back into an object; it marshals nothing itself.
#pragma once

#include <windows.h>
#include <objidl.h>

#include "emulator/common/com_object.h"

namespace dorwex::emulator::wmi {

class Unmarshaller : public ComObject<IMarshal> {
public:
    HRESULT STDMETHODCALLTYPE GetUnmarshalClass(REFIID, void*, DWORD, void*, DWORD, CLSID*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetMarshalSizeMax(REFIID, void*, DWORD, void*, DWORD, DWORD*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE MarshalInterface(IStream*, REFIID, void*, DWORD, void*, DWORD) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE DisconnectObject(DWORD) override { return S_OK; }
};

}  // namespace dorwex::emulator::wmi
