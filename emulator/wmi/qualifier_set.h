// Qualifier sets of the emulated classes: what GetQualifierSet, GetPropertyQualifierSet and
// GetMethodQualifierSet answer, read from the MOF. Scripting clients read "static", "key" and "implemented"
// through them.
#pragma once

#include <windows.h>
#include <wbemcli.h>

#include <mutex>
#include <string>
#include <vector>

#include "emulator/common/com_object.h"

namespace dorwex::emulator::wmi {

// One qualifier: a flag (VT_BOOL true), a text (VT_BSTR) or a number (VT_I4).
struct QualifierDefinition {
    std::wstring name;
    VARTYPE type = VT_BOOL;
    std::wstring text;
    LONG number = 0;
    bool flag = true;
};

const QualifierDefinition* FindQualifierDefinition(const std::vector<QualifierDefinition>& qualifiers,
                                                   const wchar_t* name);

// A snapshot of one qualifier list. Qualifiers of the schema are not changed through it: Put and Delete
// answer WBEM_E_ACCESS_DENIED.
class QualifierSet final : public ComObject<IWbemQualifierSet> {
public:
    QualifierSet(std::vector<QualifierDefinition> qualifiers, LONG flavor);

    HRESULT STDMETHODCALLTYPE Get(LPCWSTR wszName, LONG lFlags, VARIANT* pVal, LONG* plFlavor) override;
    HRESULT STDMETHODCALLTYPE Put(LPCWSTR wszName, VARIANT* pVal, LONG lFlavor) override;
    HRESULT STDMETHODCALLTYPE Delete(LPCWSTR wszName) override;
    HRESULT STDMETHODCALLTYPE GetNames(LONG lFlags, SAFEARRAY** pNames) override;
    HRESULT STDMETHODCALLTYPE BeginEnumeration(LONG lFlags) override;
    HRESULT STDMETHODCALLTYPE Next(LONG lFlags, BSTR* pstrName, VARIANT* pVal, LONG* plFlavor) override;
    HRESULT STDMETHODCALLTYPE EndEnumeration() override;

private:
    const std::vector<QualifierDefinition> m_qualifiers;
    const LONG m_flavor;
    std::mutex m_lock;
    size_t m_position = 0;
    bool m_enumerating = false;
};

// Hands out a new set, or sets *out to null and answers the failure.
HRESULT NewQualifierSet(const std::vector<QualifierDefinition>& qualifiers, LONG flavor, IWbemQualifierSet** out);

}  // namespace dorwex::emulator::wmi
