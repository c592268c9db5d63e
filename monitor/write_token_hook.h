// The write-token hook of the surrounding security service. The service registers a COM class that
// implements this interface; the provider asks it to hook a process before it hands that process a write
// token. The class and interface ids are the service's; the call is the first method after IDispatch's.
#pragma once

#include <windows.h>
#include <oaidl.h>

// {8E1B6D2C-3F4A-4C57-9B0E-61D2A7C4F5B3}
DEFINE_GUID(CLSID_DorWEXPidHook, 0x8e1b6d2c, 0x3f4a, 0x4c57, 0x9b, 0x0e, 0x61, 0xd2, 0xa7, 0xc4, 0xf5, 0xb3);
// {2D7C9A41-85E6-4B1F-A3C8-0F5E9B6D1274}
DEFINE_GUID(IID_IDorWEXPidHook, 0x2d7c9a41, 0x85e6, 0x4b1f, 0xa3, 0xc8, 0x0f, 0x5e, 0x9b, 0x6d, 0x12, 0x74);

struct IDorWEXPidHook : public IDispatch {
    // operation is the text "PIDHOOK", processId a VT_I4, reserved the missing-argument variant
    // (VT_ERROR, DISP_E_PARAMNOTFOUND). What result carries is the service's business.
    virtual HRESULT STDMETHODCALLTYPE Hook(VARIANT operation, VARIANT processId, VARIANT reserved,
                                           VARIANT* result) = 0;
};
#ifdef __CRT_UUID_DECL
__CRT_UUID_DECL(IDorWEXPidHook, 0x2d7c9a41, 0x85e6, 0x4b1f, 0xa3, 0xc8, 0x0f, 0x5e, 0x9b, 0x6d, 0x12, 0x74)
#endif
