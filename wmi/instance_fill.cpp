// Filling a Win32ext_WPD instance from a device object.
#include <array>

#include "../device/wpd_device.h"
#include "provider.h"
#include "schema.h"

namespace {

// A member text as a string value; a member that holds no string gives a null string.
_variant_t Text(const _bstr_t& bstr_t_in) {
    _variant_t l_variant_t;
    l_variant_t.vt = VT_BSTR;
    l_variant_t.bstrVal = bstr_t_in.length() == 0 && static_cast<const wchar_t*>(bstr_t_in) == nullptr
                              ? nullptr
                              : bstr_t_in.copy();
    return l_variant_t;
}

_variant_t Text(const std::wstring& wstring_in) {
    return _variant_t(wstring_in.c_str());
}

_variant_t Flag(bool bool_in) {
    return _variant_t(bool_in ? VARIANT_TRUE : VARIANT_FALSE, VT_BOOL);
}

}  // namespace

// All values are built before anything is put; a put that fails (a property the class lacks) is ignored.
HRESULT FillWPDInstance(IWbemClassObject* pInstance_io, const IDorWEXWPDDevice& device_in) {
    const CDorWEXWPDObjectInWin32& l_Win32 = device_in.Win32View();
    // One snapshot: the instance never mixes texts from before and after a change.
    const auto l_pIdentity = device_in.Identity();
    std::array<_variant_t, dorwex::schema::kWPDPropertyCount> l_Values = {
        Text(l_pIdentity->m_bstr_tDeviceId),
        Text(l_pIdentity->m_bstr_tFriendlyName),
        Text(l_pIdentity->m_bstr_tManufacturer),
        Text(l_pIdentity->m_bstr_tDescription),
        Text(l_pIdentity->m_bstr_tSerialNumber),
        Text(l_pIdentity->m_bstr_tExtraProperties),
        Flag(l_pIdentity->m_bFunctionalCategoryStorage),
        Flag(l_pIdentity->m_bFunctionalCategoryStillImageCapture),
        Flag(l_pIdentity->m_bFunctionalCategoryAudioCapture),
        Flag(l_pIdentity->m_bFunctionalCategorySMS),
        Flag(l_pIdentity->m_bFunctionalCategoryRenderingInformation),
        Text(l_pIdentity->m_bstr_tDisk1Name),
        Text(l_pIdentity->m_bstr_tDisk2Name),
        Text(l_pIdentity->m_bstr_tDisk1ObjectId),
        Text(l_pIdentity->m_bstr_tDisk2ObjectId),
        Text(l_pIdentity->m_bstr_tDisk1PersistentUniqueId),
        Text(l_pIdentity->m_bstr_tDisk2PersistentUniqueId),
        Text(l_pIdentity->m_bstr_tDisk1Description),
        Text(l_pIdentity->m_bstr_tDisk2Description),
        Text(l_pIdentity->m_bstr_tWPDSerialNumber),
        Text(l_pIdentity->m_bstr_tUSBSerialNumber),
        Text(l_Win32.GetEntry(CDorWEXWPDObjectInWin32::kNotifiedNode).wstringDevicePath),
        Text(l_Win32.GetEntry(CDorWEXWPDObjectInWin32::kUSBDeviceNode).wstringDevicePath),
        Text(l_Win32.GetEntry(CDorWEXWPDObjectInWin32::kNotifiedNode).Property(SPDRP_PHYSICAL_DEVICE_OBJECT_NAME)),
        Text(l_Win32.GetEntry(CDorWEXWPDObjectInWin32::kUSBDeviceNode).Property(SPDRP_PHYSICAL_DEVICE_OBJECT_NAME)),
    };
    for (size_t l_index = 0; l_index < l_Values.size(); ++l_index) {
        pInstance_io->Put(dorwex::schema::kWPDProperties[l_index].name, 0, &l_Values[l_index], 0);
    }
    return S_OK;
}
