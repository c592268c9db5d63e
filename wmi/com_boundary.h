// The edge of every call into the module from COM or from a thread entry: nothing thrown inside may cross
// it. Allocation failures become E_OUTOFMEMORY, a COM error its own code, anything else E_FAIL.
#pragma once

#include <windows.h>
#include <comdef.h>

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
