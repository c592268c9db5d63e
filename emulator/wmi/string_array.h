// A SAFEARRAY of BSTRs, as GetNames and array-valued properties hand them to clients.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <string>
#include <vector>

namespace dorwex::emulator::wmi {

// Null when out of memory; the caller owns the array.
inline SAFEARRAY* StringArray(const std::vector<std::wstring>& texts) {
    SAFEARRAY* array = SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(texts.size()));
    for (LONG i = 0; array != nullptr && i < static_cast<LONG>(texts.size()); ++i) {
        BSTR text = SysAllocString(texts[static_cast<size_t>(i)].c_str());
        SafeArrayPutElement(array, &i, text);  // copies the string
        SysFreeString(text);
    }
    return array;
}

}  // namespace dorwex::emulator::wmi
