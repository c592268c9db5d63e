// COM errors as a copy raises them: the failure code together with the error object the failing
// component left on the thread (its source and description), so that the WMI method can tell the caller
// what failed and why.
#pragma once

#include <windows.h>
#include <oleauto.h>
#include <comdef.h>

// Drops an error object an earlier call left on the thread, so that a later failure is not blamed on it.
inline void ClearThreadErrorInfo() {
    SetErrorInfo(0, nullptr);
}

// The error object a failing component left on the thread, taken off it (the caller owns the reference);
// null when there is none.
inline IErrorInfo* TakeThreadErrorInfo() {
    IErrorInfo* l_pErrorInfo = nullptr;
    return GetErrorInfo(0, &l_pErrorInfo) == S_OK ? l_pErrorInfo : nullptr;
}

// Raises hresultCode_in as a _com_error that takes over pErrorInfo_in (which may be null).
[[noreturn]] inline void RaiseComError(HRESULT hresultCode_in, IErrorInfo* pErrorInfo_in) {
    throw _com_error(hresultCode_in, pErrorInfo_in, false);
}

// Runs a copy whose COM errors are its failures: a raised error goes to onError_in and its code is the
// result; running out of memory still reaches the caller.
template <class Copy, class OnError>
HRESULT CopyCatchingComErrors(Copy copy_in, OnError onError_in) {
    try {
        return copy_in();
    } catch (const _com_error& error_in) {
        if (error_in.Error() == E_OUTOFMEMORY) {
            throw;
        }
        onError_in(error_in);
        return FAILED(error_in.Error()) ? error_in.Error() : E_FAIL;
    }
}

// A copy from a device as a move runs it: a COM error the copy raises is a failed copy, and the move
// answers 0 as for any other failure.
template <class Copy>
bool CopiedFromDevice(Copy copy_in) {
    return SUCCEEDED(CopyCatchingComErrors(copy_in, [](const _com_error&) {}));
}
