// Classes and instances of the emulated WMI service: one object type for both, as IWbemClassObject is.
#pragma once

#include <windows.h>
#include <wbemcli.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "by_value.h"
#include "emulator/common/com_object.h"
#include "qualifier_set.h"

namespace dorwex::emulator::wmi {

struct PropertyDefinition {
    std::wstring name;
    CIMTYPE type = CIM_STRING;
    bool key = false;
    std::vector<QualifierDefinition> qualifiers;  // as the MOF gives them, and CIMTYPE
};

struct ClassDefinition;

struct MethodDefinition {
    std::wstring name;
    std::shared_ptr<const ClassDefinition> in;   // a __PARAMETERS class; null without input parameters
    std::shared_ptr<const ClassDefinition> out;  // a __PARAMETERS class holding "ReturnValue"
    bool isStatic = false;     // runs on the class path; without it only on an instance path
    bool implemented = false;  // without it WMI runs no provider for the method
    std::vector<QualifierDefinition> qualifiers;
};

struct ClassDefinition {
    std::wstring name;
    std::vector<std::wstring> ancestors;  // nearest first
    std::vector<PropertyDefinition> properties;
    std::vector<MethodDefinition> methods;
    std::wstring provider;  // empty for a static class
    std::vector<QualifierDefinition> qualifiers;

    int FindProperty(const wchar_t* name) const;  // -1 when absent (names are case-blind)
    const MethodDefinition* FindMethod(const wchar_t* name) const;
};

// Marshalled by value: another apartment or process receives an independent copy.
class ClassObject final : public ComObject<IWbemClassObject>, public MarshalledByValue {
public:
    // A class (values all null) or, with instance set, an instance of it.
    ClassObject(std::shared_ptr<const ClassDefinition> definition, bool instance);
    ~ClassObject() override;

    static IWbemClassObject* NewClass(const std::shared_ptr<const ClassDefinition>& definition);

    const ClassDefinition& Definition() const { return *m_definition; }
    bool IsInstance() const { return m_instance; }
    // Class.key="value" for an instance with its keys set (empty when a key is missing), the class name
    // for a class.
    std::wstring RelativePath() const;
    // A copy holding only the named properties, as a query that selects them returns it (null when out of
    // memory).
    IWbemClassObject* Projected(const std::vector<std::wstring>& names) const;

    // The whole object, embedded objects included up to kMaxObjectDepth, as one tag::kClassObject item.
    HRESULT WriteObject(wire::Writer& writer, int objectDepth) const;
    // A new object (one reference) from such an item; WBEM_E_INVALID_STREAM when the stream holds none.
    static HRESULT ReadObject(wire::Reader& reader, int objectDepth, ClassObject** object_out);

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
    ULONG STDMETHODCALLTYPE AddRef() override { return ComObject<IWbemClassObject>::AddRef(); }
    ULONG STDMETHODCALLTYPE Release() override { return ComObject<IWbemClassObject>::Release(); }
    HRESULT STDMETHODCALLTYPE GetQualifierSet(IWbemQualifierSet** ppQualSet) override;
    HRESULT STDMETHODCALLTYPE Get(LPCWSTR wszName, LONG lFlags, VARIANT* pVal, CIMTYPE* pType, LONG* plFlavor) override;
    HRESULT STDMETHODCALLTYPE Put(LPCWSTR wszName, LONG lFlags, VARIANT* pVal, CIMTYPE Type) override;
    HRESULT STDMETHODCALLTYPE Delete(LPCWSTR wszName) override;
    HRESULT STDMETHODCALLTYPE GetNames(LPCWSTR wszQualifierName, LONG lFlags, VARIANT* pQualifierVal,
                                       SAFEARRAY** pNames) override;
    HRESULT STDMETHODCALLTYPE BeginEnumeration(LONG lEnumFlags) override;
    HRESULT STDMETHODCALLTYPE Next(LONG lFlags, BSTR* strName, VARIANT* pVal, CIMTYPE* pType, LONG* plFlavor) override;
    HRESULT STDMETHODCALLTYPE EndEnumeration() override;
    HRESULT STDMETHODCALLTYPE GetPropertyQualifierSet(LPCWSTR wszProperty, IWbemQualifierSet** ppQualSet) override;
    HRESULT STDMETHODCALLTYPE Clone(IWbemClassObject** ppCopy) override;
    HRESULT STDMETHODCALLTYPE GetObjectText(LONG lFlags, BSTR* pstrObjectText) override;
    HRESULT STDMETHODCALLTYPE SpawnDerivedClass(LONG lFlags, IWbemClassObject** ppNewClass) override;
    HRESULT STDMETHODCALLTYPE SpawnInstance(LONG lFlags, IWbemClassObject** ppNewInstance) override;
    HRESULT STDMETHODCALLTYPE CompareTo(LONG lFlags, IWbemClassObject* pCompareTo) override;
    HRESULT STDMETHODCALLTYPE GetPropertyOrigin(LPCWSTR wszName, BSTR* pstrClassName) override;
    HRESULT STDMETHODCALLTYPE InheritsFrom(LPCWSTR strAncestor) override;
    HRESULT STDMETHODCALLTYPE GetMethod(LPCWSTR wszName, LONG lFlags, IWbemClassObject** ppInSignature,
                                        IWbemClassObject** ppOutSignature) override;
    HRESULT STDMETHODCALLTYPE PutMethod(LPCWSTR wszName, LONG lFlags, IWbemClassObject* pInSignature,
                                        IWbemClassObject* pOutSignature) override;
    HRESULT STDMETHODCALLTYPE DeleteMethod(LPCWSTR wszName) override;
    HRESULT STDMETHODCALLTYPE BeginMethodEnumeration(LONG lEnumFlags) override;
    HRESULT STDMETHODCALLTYPE NextMethod(LONG lFlags, BSTR* pstrName, IWbemClassObject** ppInSignature,
                                         IWbemClassObject** ppOutSignature) override;
    HRESULT STDMETHODCALLTYPE EndMethodEnumeration() override;
    HRESULT STDMETHODCALLTYPE GetMethodQualifierSet(LPCWSTR wszMethod, IWbemQualifierSet** ppQualSet) override;
    HRESULT STDMETHODCALLTYPE GetMethodOrigin(LPCWSTR wszMethodName, BSTR* pstrClassName) override;

protected:
    HRESULT WriteState(wire::Writer& writer) const override { return WriteObject(writer, 0); }

private:
    struct Member {
        bool system;
        size_t index;  // into the system properties or into the definition's
    };
    // The properties that GetNames and an enumeration with these flags cover, system properties first.
    std::vector<Member> Members(LONG flags) const;
    std::wstring MemberName(const Member& member) const;
    VARIANT SystemValue(size_t index, CIMTYPE& type) const;
    LONG QualifierFlavor() const;

    std::shared_ptr<const ClassDefinition> m_definition;
    bool m_instance;
    mutable std::mutex m_lock;
    std::vector<VARIANT> m_values;  // one per property, VT_NULL when not set
    size_t m_enumeration = 0;
    LONG m_enumerationFlags = 0;
    size_t m_methodEnumeration = 0;
};

// The object behind an IWbemClassObject pointer handed back by the emulator, or null for a foreign one.
ClassObject* AsClassObject(IWbemClassObject* object);

}  // namespace dorwex::emulator::wmi
