// The edge of every call into the module from COM or from a thread entry: nothing thrown inside may cross
// it. Allocation failures become E_OUTOFMEMORY, a COM error its own code, anything else E_FAIL.
#pragma once

#include <windows.h>
#include <comdef.h>
#include <wbemcli.h>

#include <new>

template <class Call>
HRESULT CallAtComBoundary(Call&& call_in) noexcept {
    try {
        return call_in();
    } catch (const _com_error& l_com_error) {
        return l_com_error.Error();
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_FAIL;
    }
}

// The end of an asynchronous WMI call that has a response handler: the result goes to the handler's
// SetStatus and the call returns WBEM_S_NO_ERROR. WMI uses the handler only after a call that returned
// WBEM_S_NO_ERROR, and then waits for its SetStatus; a failure returned instead would leave the handler
// unread and any status object with it. Without a handler the result is returned.
inline HRESULT CompleteOnHandler(IWbemObjectSink* pResponseHandler_in, HRESULT result_in,
                                 IWbemClassObject* pStatus_in = nullptr) {
    if (pResponseHandler_in == nullptr) {
        return result_in;
    }
    pResponseHandler_in->SetStatus(WBEM_STATUS_COMPLETE, result_in, nullptr, pStatus_in);
    return WBEM_S_NO_ERROR;
}
