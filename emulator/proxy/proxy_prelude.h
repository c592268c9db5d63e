/* Declarations the generated proxies use that mingw-w64's headers give only to C++ (rpcrt4 exports them). */
#pragma once
#include <objbase.h>
HRESULT STDMETHODCALLTYPE IUnknown_QueryInterface_Proxy(IUnknown *This, REFIID riid, void **ppvObject);
ULONG STDMETHODCALLTYPE IUnknown_AddRef_Proxy(IUnknown *This);
ULONG STDMETHODCALLTYPE IUnknown_Release_Proxy(IUnknown *This);
