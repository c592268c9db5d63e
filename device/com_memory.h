// Owners for what the portable-device API hands out: task-allocated strings and PROPVARIANTs.
#pragma once

#include <windows.h>
#include <objbase.h>
#include <propidl.h>

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
