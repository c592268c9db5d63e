// Owners for what the portable-device API hands out: task-allocated strings and PROPVARIANTs.
#pragma once

#include <windows.h>
#include <objbase.h>
#include <propidl.h>
#include <comdef.h>

// The text of a _bstr_t, the empty text for a null one (length 0 means unknown everywhere).
inline const wchar_t* BstrText(const _bstr_t& bstr_t_in) {
    return bstr_t_in.length() == 0 ? L"" : static_cast<const wchar_t*>(bstr_t_in);
}

// A string allocated with CoTaskMemAlloc, freed when the owner goes.
class CoTaskString {
public:
    CoTaskString() = default;
    ~CoTaskString() { CoTaskMemFree(m_pwchar); }
    CoTaskString(const CoTaskString&) = delete;
    CoTaskString& operator=(const CoTaskString&) = delete;

    LPWSTR* operator&() {
        CoTaskMemFree(m_pwchar);
        m_pwchar = nullptr;
        return &m_pwchar;
    }
    const wchar_t* Get() const { return m_pwchar; }

private:
    LPWSTR m_pwchar = nullptr;
};

// A PROPVARIANT cleared when the owner goes.
class PropVariant {
public:
    PropVariant() { PropVariantInit(&m_PROPVARIANT); }
    ~PropVariant() { PropVariantClear(&m_PROPVARIANT); }
    PropVariant(const PropVariant&) = delete;
    PropVariant& operator=(const PropVariant&) = delete;

    PROPVARIANT* operator&() {
        PropVariantClear(&m_PROPVARIANT);
        return &m_PROPVARIANT;
    }
    const PROPVARIANT& Get() const { return m_PROPVARIANT; }

private:
    PROPVARIANT m_PROPVARIANT;
};
