// The value, key and PROPVARIANT collections of the portable-device API (PortableDeviceTypes), as the
// emulated stack serves them under their real class ids.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "device/portable_device_api.h"
#include "emulator/common/com_object.h"

namespace dorwex::emulator {

class PortableDeviceValues final : public ComObject<IPortableDeviceValues> {
public:
    ~PortableDeviceValues() override;

    HRESULT STDMETHODCALLTYPE GetCount(DWORD* pcelt) override;
    HRESULT STDMETHODCALLTYPE GetAt(const DWORD index, PROPERTYKEY* pKey, PROPVARIANT* pValue) override;
    HRESULT STDMETHODCALLTYPE SetValue(REFPROPERTYKEY key, const PROPVARIANT* pValue) override;
    HRESULT STDMETHODCALLTYPE GetValue(REFPROPERTYKEY key, PROPVARIANT* pValue) override;
    HRESULT STDMETHODCALLTYPE SetStringValue(REFPROPERTYKEY key, LPCWSTR Value) override;
    HRESULT STDMETHODCALLTYPE GetStringValue(REFPROPERTYKEY key, LPWSTR* pValue) override;
    HRESULT STDMETHODCALLTYPE SetUnsignedIntegerValue(REFPROPERTYKEY key, const ULONG Value) override;
    HRESULT STDMETHODCALLTYPE GetUnsignedIntegerValue(REFPROPERTYKEY key, ULONG* pValue) override;
    HRESULT STDMETHODCALLTYPE SetSignedIntegerValue(REFPROPERTYKEY key, const LONG Value) override;
    HRESULT STDMETHODCALLTYPE GetSignedIntegerValue(REFPROPERTYKEY key, LONG* pValue) override;
    HRESULT STDMETHODCALLTYPE SetUnsignedLargeIntegerValue(REFPROPERTYKEY key, const ULONGLONG Value) override;
    HRESULT STDMETHODCALLTYPE GetUnsignedLargeIntegerValue(REFPROPERTYKEY key, ULONGLONG* pValue) override;
    HRESULT STDMETHODCALLTYPE SetSignedLargeIntegerValue(REFPROPERTYKEY key, const LONGLONG Value) override;
    HRESULT STDMETHODCALLTYPE GetSignedLargeIntegerValue(REFPROPERTYKEY key, LONGLONG* pValue) override;
    HRESULT STDMETHODCALLTYPE SetFloatValue(REFPROPERTYKEY key, const FLOAT Value) override;
    HRESULT STDMETHODCALLTYPE GetFloatValue(REFPROPERTYKEY key, FLOAT* pValue) override;
    HRESULT STDMETHODCALLTYPE SetErrorValue(REFPROPERTYKEY key, const HRESULT Value) override;
    HRESULT STDMETHODCALLTYPE GetErrorValue(REFPROPERTYKEY key, HRESULT* pValue) override;
    HRESULT STDMETHODCALLTYPE SetKeyValue(REFPROPERTYKEY key, REFPROPERTYKEY Value) override;
    HRESULT STDMETHODCALLTYPE GetKeyValue(REFPROPERTYKEY key, PROPERTYKEY* pValue) override;
    HRESULT STDMETHODCALLTYPE SetBoolValue(REFPROPERTYKEY key, const WINBOOL Value) override;
    HRESULT STDMETHODCALLTYPE GetBoolValue(REFPROPERTYKEY key, WINBOOL* pValue) override;
    HRESULT STDMETHODCALLTYPE SetIUnknownValue(REFPROPERTYKEY key, IUnknown* pValue) override;
    HRESULT STDMETHODCALLTYPE GetIUnknownValue(REFPROPERTYKEY key, IUnknown** ppValue) override;
    HRESULT STDMETHODCALLTYPE SetGuidValue(REFPROPERTYKEY key, REFGUID Value) override;
    HRESULT STDMETHODCALLTYPE GetGuidValue(REFPROPERTYKEY key, GUID* pValue) override;
    HRESULT STDMETHODCALLTYPE SetBufferValue(REFPROPERTYKEY key, BYTE* pValue, DWORD cbValue) override;
    HRESULT STDMETHODCALLTYPE GetBufferValue(REFPROPERTYKEY key, BYTE** ppValue, DWORD* pcbValue) override;
    HRESULT STDMETHODCALLTYPE SetIPortableDeviceValuesValue(REFPROPERTYKEY key, IPortableDeviceValues* pValue) override;
    HRESULT STDMETHODCALLTYPE GetIPortableDeviceValuesValue(REFPROPERTYKEY key,
                                                            IPortableDeviceValues** ppValue) override;
    HRESULT STDMETHODCALLTYPE SetIPortableDevicePropVariantCollectionValue(
        REFPROPERTYKEY key, IPortableDevicePropVariantCollection* pValue) override;
    HRESULT STDMETHODCALLTYPE GetIPortableDevicePropVariantCollectionValue(
        REFPROPERTYKEY key, IPortableDevicePropVariantCollection** ppValue) override;
    HRESULT STDMETHODCALLTYPE SetIPortableDeviceKeyCollectionValue(REFPROPERTYKEY key,
                                                                   IPortableDeviceKeyCollection* pValue) override;
    HRESULT STDMETHODCALLTYPE GetIPortableDeviceKeyCollectionValue(REFPROPERTYKEY key,
                                                                   IPortableDeviceKeyCollection** ppValue) override;
    HRESULT STDMETHODCALLTYPE SetIPortableDeviceValuesCollectionValue(
        REFPROPERTYKEY key, IPortableDeviceValuesCollection* pValue) override;
    HRESULT STDMETHODCALLTYPE GetIPortableDeviceValuesCollectionValue(
        REFPROPERTYKEY key, IPortableDeviceValuesCollection** ppValue) override;
    HRESULT STDMETHODCALLTYPE RemoveValue(REFPROPERTYKEY key) override;
    HRESULT STDMETHODCALLTYPE CopyValuesFromPropertyStore(IPropertyStore* pStore) override;
    HRESULT STDMETHODCALLTYPE CopyValuesToPropertyStore(IPropertyStore* pStore) override;
    HRESULT STDMETHODCALLTYPE Clear() override;

private:
    // The stored value of a key, or null.
    const PROPVARIANT* Find(REFPROPERTYKEY key) const;
    // Takes ownership of *value (cleared afterwards) and stores it under key.
    HRESULT Store(REFPROPERTYKEY key, PROPVARIANT& value);
    // The stored value if it has the given type; the error a missing or mistyped value gives otherwise.
    HRESULT FindTyped(REFPROPERTYKEY key, VARTYPE type, const PROPVARIANT*& value_out) const;
    // Under the lock: the stored value of that type handed to read, or the error FindTyped gives.
    template <class F>
    HRESULT Read(REFPROPERTYKEY key, VARTYPE type, F&& read) const;
    HRESULT SetInterface(REFPROPERTYKEY key, IUnknown* value);
    template <class I>
    HRESULT GetInterface(REFPROPERTYKEY key, I** value_out);

    mutable std::mutex m_lock;  // event parameter sets are read on several threads
    std::vector<std::pair<PROPERTYKEY, PROPVARIANT>> m_values;
};

class PortableDeviceKeyCollection final : public ComObject<IPortableDeviceKeyCollection> {
public:
    HRESULT STDMETHODCALLTYPE GetCount(DWORD* pcElems) override;
    HRESULT STDMETHODCALLTYPE GetAt(const DWORD dwIndex, PROPERTYKEY* pKey) override;
    HRESULT STDMETHODCALLTYPE Add(REFPROPERTYKEY Key) override;
    HRESULT STDMETHODCALLTYPE Clear() override;
    HRESULT STDMETHODCALLTYPE RemoveAt(const DWORD dwIndex) override;

private:
    std::vector<PROPERTYKEY> m_keys;
};

class PortableDevicePropVariantCollection final : public ComObject<IPortableDevicePropVariantCollection> {
public:
    ~PortableDevicePropVariantCollection() override;
    HRESULT STDMETHODCALLTYPE GetCount(DWORD* pcElems) override;
    HRESULT STDMETHODCALLTYPE GetAt(const DWORD dwIndex, PROPVARIANT* pValue) override;
    HRESULT STDMETHODCALLTYPE Add(const PROPVARIANT* pValue) override;
    HRESULT STDMETHODCALLTYPE GetType(VARTYPE* pvt) override;
    HRESULT STDMETHODCALLTYPE ChangeType(const VARTYPE vt) override;
    HRESULT STDMETHODCALLTYPE Clear() override;
    HRESULT STDMETHODCALLTYPE RemoveAt(const DWORD dwIndex) override;

    // Convenience for the emulator itself.
    HRESULT AddString(const std::wstring& text);
    HRESULT AddGuid(const GUID& guid);

private:
    std::vector<PROPVARIANT> m_values;
};

// The result sets a bulk property operation hands its callback.
class PortableDeviceValuesCollection final : public ComObject<IPortableDeviceValuesCollection> {
public:
    ~PortableDeviceValuesCollection() override;
    HRESULT STDMETHODCALLTYPE GetCount(DWORD* pcElems) override;
    HRESULT STDMETHODCALLTYPE GetAt(const DWORD dwIndex, IPortableDeviceValues** ppValues) override;
    HRESULT STDMETHODCALLTYPE Add(IPortableDeviceValues* pValues) override;
    HRESULT STDMETHODCALLTYPE Clear() override;
    HRESULT STDMETHODCALLTYPE RemoveAt(const DWORD dwIndex) override;

private:
    std::vector<IPortableDeviceValues*> m_values;
};

// Missing key, as the portable-device API reports it.
constexpr HRESULT kNotFound = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);

}  // namespace dorwex::emulator
