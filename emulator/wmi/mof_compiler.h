// The emulated WMI service's MOF compiler, served under CLSID_MofCompiler as Windows serves mofd.dll's.
#pragma once

#include <windows.h>
#include <wbemcli.h>

#include "emulator/common/com_object.h"

namespace dorwex::emulator::wmi {

class MofCompiler final : public ComObject<IMofCompiler> {
public:
    HRESULT STDMETHODCALLTYPE CompileFile(LPWSTR FileName, LPWSTR ServerAndNamespace, LPWSTR User, LPWSTR Authority,
                                          LPWSTR Password, LONG lOptionFlags, LONG lClassFlags, LONG lInstanceFlags,
                                          WBEM_COMPILE_STATUS_INFO* pInfo) override;
    HRESULT STDMETHODCALLTYPE CompileBuffer(LONG BuffSize, BYTE* pBuffer, LPWSTR ServerAndNamespace, LPWSTR User,
                                            LPWSTR Authority, LPWSTR Password, LONG lOptionFlags, LONG lClassFlags,
                                            LONG lInstanceFlags, WBEM_COMPILE_STATUS_INFO* pInfo) override;
    HRESULT STDMETHODCALLTYPE CreateBMOF(LPWSTR TextFileName, LPWSTR BMOFFileName, LPWSTR ServerAndNamespace,
                                         LONG lOptionFlags, LONG lClassFlags, LONG lInstanceFlags,
                                         WBEM_COMPILE_STATUS_INFO* pInfo) override;
};

}  // namespace dorwex::emulator::wmi
