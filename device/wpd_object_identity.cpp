// The identity steps of a freshly opened device: maker and manufacturer class, friendly name and
// description, the survey of the device's own properties, and its functional categories and storages.
#include <string>

#include "wpd_object_events.h"
#include "../common/trace.h"
#include "../common/error_text.h"
#include "../common/com_memory.h"
#include "wpd_object.h"

using Microsoft::WRL::ComPtr;

namespace {

// Win32 error 4306 (ERROR_INVALID_OPERATION for a device still setting up its storages).
constexpr HRESULT kStorageBusy = static_cast<HRESULT>(0x800710D2L);
constexpr int kStorageAttempts = 3;

using ManagerTextCall = HRESULT (STDMETHODCALLTYPE IPortableDeviceManager::*)(LPCWSTR, WCHAR*, DWORD*);

// The manager's size-query convention: ask for the length, then fetch into a buffer of that length.
HRESULT FetchManagerText(IPortableDeviceManager* pIPortableDeviceManager_in, ManagerTextCall pCall_in,
                         const wchar_t* pwcharDeviceId_in, _bstr_t& bstr_tText_out) {
    DWORD l_dwordLength = 0;
    HRESULT l_HRESULT = (pIPortableDeviceManager_in->*pCall_in)(pwcharDeviceId_in, nullptr, &l_dwordLength);
    if (FAILED(l_HRESULT) || l_dwordLength == 0) {
        return l_HRESULT;
    }
    std::wstring l_wstringText(l_dwordLength + 1, L'\0');
    l_HRESULT = (pIPortableDeviceManager_in->*pCall_in)(pwcharDeviceId_in, &l_wstringText[0], &l_dwordLength);
    if (SUCCEEDED(l_HRESULT)) {
        bstr_tText_out = l_wstringText.c_str();
    }
    return l_HRESULT;
}

// How each surveyed device property is read and traced.
enum class PropertyType { String, UInt32, UInt64 };
struct SurveyedProperty {
    const PROPERTYKEY* pKey;
    const wchar_t* pwcharName;
    PropertyType eType;
};
const SurveyedProperty kSurveyedProperties[] = {
    {&WPD_OBJECT_ID, L"WPD_OBJECT_ID", PropertyType::String},
    {&WPD_DEVICE_SYNC_PARTNER, L"WPD_DEVICE_SYNC_PARTNER", PropertyType::String},
    {&WPD_DEVICE_FIRMWARE_VERSION, L"WPD_DEVICE_FIRMWARE_VERSION", PropertyType::String},
    {&WPD_DEVICE_POWER_LEVEL, L"WPD_DEVICE_POWER_LEVEL", PropertyType::UInt32},
    {&WPD_DEVICE_POWER_SOURCE, L"WPD_DEVICE_POWER_SOURCE", PropertyType::UInt32},
    {&WPD_DEVICE_PROTOCOL, L"WPD_DEVICE_PROTOCOL", PropertyType::String},
    {&WPD_DEVICE_MANUFACTURER, L"WPD_DEVICE_MANUFACTURER", PropertyType::String},
    {&WPD_DEVICE_MODEL, L"WPD_DEVICE_MODEL", PropertyType::String},
    {&WPD_DEVICE_SERIAL_NUMBER, L"WPD_DEVICE_SERIAL_NUMBER", PropertyType::String},
    {&WPD_DEVICE_FRIENDLY_NAME, L"WPD_DEVICE_FRIENDLY_NAME", PropertyType::String},
    {&WPD_DEVICE_NETWORK_IDENTIFIER, L"WPD_DEVICE_NETWORK_IDENTIFIER", PropertyType::UInt64},
};

struct NamedCategory {
    const GUID* pCategory;
    const wchar_t* pwcharName;
    bool DeviceIdentity::*pFlag;
};
const NamedCategory kCategories[] = {
    {&WPD_FUNCTIONAL_CATEGORY_STORAGE, L"WPD_FUNCTIONAL_CATEGORY_STORAGE",
     &DeviceIdentity::m_bFunctionalCategoryStorage},
    {&WPD_FUNCTIONAL_CATEGORY_STILL_IMAGE_CAPTURE, L"WPD_FUNCTIONAL_CATEGORY_STILL_IMAGE_CAPTURE",
     &DeviceIdentity::m_bFunctionalCategoryStillImageCapture},
    {&WPD_FUNCTIONAL_CATEGORY_AUDIO_CAPTURE, L"WPD_FUNCTIONAL_CATEGORY_AUDIO_CAPTURE",
     &DeviceIdentity::m_bFunctionalCategoryAudioCapture},
    {&WPD_FUNCTIONAL_CATEGORY_SMS, L"WPD_FUNCTIONAL_CATEGORY_SMS", &DeviceIdentity::m_bFunctionalCategorySMS},
    {&WPD_FUNCTIONAL_CATEGORY_RENDERING_INFORMATION, L"WPD_FUNCTIONAL_CATEGORY_RENDERING_INFORMATION",
     &DeviceIdentity::m_bFunctionalCategoryRenderingInformation},
};

// Object and storage keys read for each storage.
const PROPERTYKEY* const kStorageKeys[] = {
    &WPD_OBJECT_ID,
    &WPD_OBJECT_NAME,
    &WPD_OBJECT_PERSISTENT_UNIQUE_ID,
    &WPD_OBJECT_PARENT_ID,
    &WPD_OBJECT_CONTENT_TYPE,
    &WPD_OBJECT_FORMAT,
    &WPD_STORAGE_TYPE,
    &WPD_STORAGE_FILE_SYSTEM_TYPE,
    &WPD_STORAGE_CAPACITY,
    &WPD_STORAGE_FREE_SPACE_IN_BYTES,
    &WPD_STORAGE_FREE_SPACE_IN_OBJECTS,
    &WPD_STORAGE_DESCRIPTION,
    &WPD_STORAGE_SERIAL_NUMBER,
    &WPD_STORAGE_MAX_OBJECT_SIZE,
    &WPD_STORAGE_CAPACITY_IN_OBJECTS,
    &WPD_STORAGE_ACCESS_CAPABILITY,
};

_bstr_t ReadString(IPortableDeviceValues* pIPortableDeviceValues_in, const PROPERTYKEY& key_in) {
    CoTaskString l_Value;
    if (FAILED(pIPortableDeviceValues_in->GetStringValue(key_in, &l_Value)) || l_Value.Get() == nullptr) {
        return _bstr_t(L"");
    }
    return _bstr_t(l_Value.Get());
}

}  // namespace

HRESULT CDorWEXWPDObject::GetManufacturer() {
    Trace(L"CDorWEXWPDObject::GetManufacturer entered\n.");
    DWORD l_DWORDManufacturer = 0;
    HRESULT l_HRESULT = m_pIPortableDeviceManager->GetDeviceManufacturer(Identity()->m_bstr_tDeviceId, nullptr,
                                                                         &l_DWORDManufacturer);
    if (FAILED(l_HRESULT) || l_DWORDManufacturer == 0) {
        Trace(L"CDorWEXWPDObject::GetManufacturer call toGetDeviceManufacturer failed, HRESULT=%08x, "
              L"l_DWORDManufacturer=%ld\n",
              l_HRESULT, l_DWORDManufacturer);
        return l_HRESULT;
    }
    std::unique_ptr<wchar_t[]> l_pTCHARManufacturer(new (std::nothrow) wchar_t[l_DWORDManufacturer + 1]);
    if (!l_pTCHARManufacturer) {
        Trace(L"CDorWEXWPDObject::GetManufacturer call toallocate memory (new) for l_pTCHARManufacturer failed.\n");
        l_HRESULT = E_FAIL;
    } else {
        l_pTCHARManufacturer[0] = L'\0';
        l_pTCHARManufacturer[l_DWORDManufacturer] = L'\0';
        l_HRESULT = m_pIPortableDeviceManager->GetDeviceManufacturer(Identity()->m_bstr_tDeviceId,
                                                                     l_pTCHARManufacturer.get(), &l_DWORDManufacturer);
    }
    if (SUCCEEDED(l_HRESULT)) {
        Trace(L"CDorWEXWPDObject::GetManufacturer got <%s>\n.", l_pTCHARManufacturer.get());
        const std::wstring l_wstringMaker(l_pTCHARManufacturer.get());
        const dorwex::ManufacturerMatch l_Match =
            dorwex::ClassifyManufacturer(std::u16string_view(reinterpret_cast<const char16_t*>(l_wstringMaker.data()),
                                                             l_wstringMaker.size()));
        UpdateIdentity([&](DeviceIdentity& identity_io) {
            identity_io.m_bstr_tManufacturer = l_wstringMaker.c_str();
            identity_io.m_eManufacturer = l_Match.manufacturer;
        });
        switch (l_Match.manufacturer) {
        case Manufacturer::APPLE:
            Trace(L"CDorWEXWPDObject::GetManufacturer is APPLE.\n");
            break;
        case Manufacturer::WINDOWS:
            Trace(L"CDorWEXWPDObject::GetManufacturer is WINDOWS.\n");
            break;
        case Manufacturer::LOGICALDISK:
            Trace(L"CDorWEXWPDObject::GetManufacturer is LOGICALDISK.\n");
            // A USB storage stick that shows up through WPD is not taken on as a portable device.
            l_HRESULT = E_FAIL;
            break;
        default:
            Trace(l_Match.defaulted ? L"CDorWEXWPDObject::GetManufacturer defaulting to ANDROID\n."
                                    : L"CDorWEXWPDObject::GetManufacturer is ANDROID.\n");
            break;
        }
    }
    Trace(L"CDorWEXWPDObject::GetManufacturer, %x: %s.\n", l_HRESULT, BstrText(Identity()->m_bstr_tManufacturer));
    return l_HRESULT;
}

HRESULT CDorWEXWPDObject::GetFriendlyName() {
    const auto l_pIdentity = Identity();
    _bstr_t l_bstr_tText = l_pIdentity->m_bstr_tFriendlyName;
    const HRESULT l_HRESULT = FetchManagerText(m_pIPortableDeviceManager.Get(),
                                               &IPortableDeviceManager::GetDeviceFriendlyName,
                                               l_pIdentity->m_bstr_tDeviceId, l_bstr_tText);
    UpdateIdentity([&](DeviceIdentity& identity_io) { identity_io.m_bstr_tFriendlyName = l_bstr_tText; });
    Trace(L"CDorWEXWPDObject::GetFriendlyName, %x: %s.\n", l_HRESULT, BstrText(l_bstr_tText));
    return l_HRESULT;
}

// The description is the maker text exactly as the manager reports it, before any upper-casing.
HRESULT CDorWEXWPDObject::GetDescription() {
    const auto l_pIdentity = Identity();
    _bstr_t l_bstr_tText = l_pIdentity->m_bstr_tDescription;
    const HRESULT l_HRESULT = FetchManagerText(m_pIPortableDeviceManager.Get(),
                                               &IPortableDeviceManager::GetDeviceManufacturer,
                                               l_pIdentity->m_bstr_tDeviceId, l_bstr_tText);
    UpdateIdentity([&](DeviceIdentity& identity_io) { identity_io.m_bstr_tDescription = l_bstr_tText; });
    Trace(L"CDorWEXWPDObject::GetDescription, %x: %s.\n", l_HRESULT, BstrText(l_bstr_tText));
    return l_HRESULT;
}

HRESULT CDorWEXWPDObject::GetAdditionalProperties() {
    ComPtr<IPortableDeviceKeyCollection> l_pKeys;
    HRESULT l_HRESULT = CoCreateInstance(CLSID_PortableDeviceKeyCollection, nullptr, CLSCTX_INPROC_SERVER,
                                         IID_PPV_ARGS(&l_pKeys));
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    for (const auto& l_Property : kSurveyedProperties) {
        l_pKeys->Add(*l_Property.pKey);
    }
    ComPtr<IPortableDeviceContent> l_pContent;
    ComPtr<IPortableDeviceProperties> l_pProperties;
    ComPtr<IPortableDeviceValues> l_pValues;
    l_HRESULT = m_pIPortableDevice->Content(&l_pContent);
    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = l_pContent->Properties(&l_pProperties);
    }
    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = l_pProperties->GetValues(WPD_DEVICE_OBJECT_ID, l_pKeys.Get(), &l_pValues);
    }
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    DWORD l_dwordCount = 0;
    l_pValues->GetCount(&l_dwordCount);
    Trace(L"CDorWEXWPDObject::GetAdditionalProperties, l_IPortableDeviceProperties.Count: %ld.\n", l_dwordCount);
    for (DWORD l_dwordIndex = 0; l_dwordIndex < l_dwordCount; ++l_dwordIndex) {
        PROPERTYKEY l_PROPERTYKEY{};
        if (SUCCEEDED(l_pValues->GetAt(l_dwordIndex, &l_PROPERTYKEY, nullptr))) {
            wchar_t l_wcharSet[64];
            StringFromGUID2(l_PROPERTYKEY.fmtid, l_wcharSet, 64);
            Trace(L"CDorWEXWPDObject::GetAdditionalProperties, l_IPortableDeviceProperties[%ld]=%s,%ld.\n",
                  l_dwordIndex, l_wcharSet, l_PROPERTYKEY.pid);
        }
    }
    // A property the device does not report is skipped without a word.
    for (const auto& l_Property : kSurveyedProperties) {
        const std::wstring l_wstringPrefix =
            std::wstring(L"CDorWEXWPDObject::GetAdditionalProperties, ") + l_Property.pwcharName;
        if (l_Property.eType == PropertyType::String) {
            CoTaskString l_Value;
            if (FAILED(l_pValues->GetStringValue(*l_Property.pKey, &l_Value))) {
                continue;
            }
            Trace((l_wstringPrefix + L"=%s.\n").c_str(), l_Value.Get());
            if (l_Property.pKey == &WPD_OBJECT_ID) {
                const _bstr_t l_bstr_tObjectId(l_Value.Get());
                UpdateIdentity([&](DeviceIdentity& identity_io) { identity_io.m_bstr_tDeviceObjectId = l_bstr_tObjectId; });
            } else if (l_Property.pKey == &WPD_DEVICE_SERIAL_NUMBER) {
                const _bstr_t l_bstr_tSerialNumber(l_Value.Get());
                UpdateIdentity([&](DeviceIdentity& identity_io) { identity_io.m_bstr_tSerialNumber = l_bstr_tSerialNumber; });
            }
        } else if (l_Property.eType == PropertyType::UInt32) {
            ULONG l_ulongValue = 0;
            if (SUCCEEDED(l_pValues->GetUnsignedIntegerValue(*l_Property.pKey, &l_ulongValue))) {
                Trace((l_wstringPrefix + L"=%ld.\n").c_str(), l_ulongValue);
            }
        } else {
            ULONGLONG l_ulonglongValue = 0;
            if (SUCCEEDED(l_pValues->GetUnsignedLargeIntegerValue(*l_Property.pKey, &l_ulonglongValue))) {
                Trace((l_wstringPrefix + L"=%I64u.\n").c_str(), l_ulonglongValue);
            }
        }
    }
    return S_OK;
}

HRESULT CDorWEXWPDObject::GetFunctionalCategories() {
    ComPtr<IPortableDeviceCapabilities> l_pCapabilities;
    HRESULT l_HRESULT = m_pIPortableDevice->Capabilities(&l_pCapabilities);
    if (FAILED(l_HRESULT)) {
        Trace(L"CDorWEXWPDObject::GetFunctionalCategories: Failed to get IPortableDeviceCapabilities from "
              L"IPortableDevice, l_HRESULT = 0x%lx\n",
              l_HRESULT);
        return l_HRESULT;
    }
    ComPtr<IPortableDevicePropVariantCollection> l_pCategories;
    l_HRESULT = l_pCapabilities->GetFunctionalCategories(&l_pCategories);
    if (FAILED(l_HRESULT)) {
        Trace(L"CDorWEXWPDObject::GetFunctionalCategories: Failed to get functional categories from the device, "
              L"l_HRESULT = 0x%lx\n",
              l_HRESULT);
        return l_HRESULT;
    }
    DWORD l_dwordCount = 0;
    l_HRESULT = l_pCategories->GetCount(&l_dwordCount);
    if (FAILED(l_HRESULT)) {
        Trace(L"CDorWEXWPDObject::GetFunctionalCategories: Failed to get number of functional categories, "
              L"l_HRESULT = 0x%lx\n",
              l_HRESULT);
        return l_HRESULT;
    }
    Trace(L"CDorWEXWPDObject::GetFunctionalCategories: Functional Categories Found on the device\n\n");
    for (DWORD l_dwordIndex = 0; l_dwordIndex < l_dwordCount; ++l_dwordIndex) {
        PropVariant l_Category;
        if (FAILED(l_pCategories->GetAt(l_dwordIndex, &l_Category)) || l_Category.Get().vt != VT_CLSID ||
            l_Category.Get().puuid == nullptr) {
            continue;
        }
        for (const auto& l_Named : kCategories) {
            if (*l_Category.Get().puuid == *l_Named.pCategory) {
                UpdateIdentity([&](DeviceIdentity& identity_io) { identity_io.*l_Named.pFlag = true; });
                Trace(L"CDorWEXWPDObject::GetFunctionalCategories: %s\n", l_Named.pwcharName);
                break;
            }
        }
    }
    if (!Identity()->m_bFunctionalCategoryStorage) {
        return l_HRESULT;
    }

    // A device that is still setting up its storages answers 4306 for a moment; other failures are final.
    ComPtr<IPortableDevicePropVariantCollection> l_pStorages;
    for (int l_intAttempt = 1; l_intAttempt <= kStorageAttempts; ++l_intAttempt) {
        l_pStorages.Reset();
        l_HRESULT = l_pCapabilities->GetFunctionalObjects(WPD_FUNCTIONAL_CATEGORY_STORAGE, &l_pStorages);
        if (l_HRESULT != kStorageBusy) {
            break;
        }
        std::wstring l_wstringMessage;
        if (GetSystemErrorText(l_HRESULT, l_wstringMessage)) {
            Trace(L"CDorWEXWPDObject::GetFunctionalCategories: GetFunctionalObjects(WPD_FUNCTIONAL_CATEGORY_STORAGE "
                  L"failed %08x: %s.\n",
                  l_HRESULT, l_wstringMessage.c_str());
        } else {
            Trace(L"CDorWEXWPDObject::GetFunctionalCategories: GetFunctionalObjects(WPD_FUNCTIONAL_CATEGORY_STORAGE "
                  L"failed %08x: could not get error message text.\n",
                  l_HRESULT);
        }
        if (l_intAttempt < kStorageAttempts) {
            Sleep(1000);
        }
    }
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    return ReadStorages(l_pStorages.Get());
}

HRESULT CDorWEXWPDObject::ReadStorages(IPortableDevicePropVariantCollection* pIPortableDevicePropVariantCollection_in) {
    ComPtr<IPortableDeviceKeyCollection> l_pKeys;
    HRESULT l_HRESULT = CoCreateInstance(CLSID_PortableDeviceKeyCollection, nullptr, CLSCTX_INPROC_SERVER,
                                         IID_PPV_ARGS(&l_pKeys));
    if (FAILED(l_HRESULT)) {
        return S_OK;  // the storages stay unknown; the device is still usable
    }
    for (const PROPERTYKEY* l_pKey : kStorageKeys) {
        l_pKeys->Add(*l_pKey);
    }
    DWORD l_dwordCount = 0;
    pIPortableDevicePropVariantCollection_in->GetCount(&l_dwordCount);
    int l_intStorageIndex = 0;
    for (DWORD l_dwordIndex = 0; l_dwordIndex < l_dwordCount; ++l_dwordIndex) {
        PropVariant l_ObjectId;
        if (FAILED(pIPortableDevicePropVariantCollection_in->GetAt(l_dwordIndex, &l_ObjectId)) ||
            l_ObjectId.Get().vt != VT_LPWSTR || l_ObjectId.Get().pwszVal == nullptr) {
            Trace(L"! Invalid functional object identifier found\n");
            continue;
        }
        ComPtr<IPortableDeviceContent> l_pContent;
        l_HRESULT = m_pIPortableDevice->Content(&l_pContent);
        if (FAILED(l_HRESULT)) {
            Trace(L"! Failed to get IPortableDeviceContent from IPortableDevice, l_HRESULT = 0x%lx\n", l_HRESULT);
            continue;
        }
        ComPtr<IPortableDeviceProperties> l_pProperties;
        l_HRESULT = l_pContent->Properties(&l_pProperties);
        if (FAILED(l_HRESULT)) {
            Trace(L"! Failed to get IPortableDeviceProperties from IPortableDevice, l_HRESULT = 0x%lx\n", l_HRESULT);
            continue;
        }
        ReadStorage(l_pProperties.Get(), l_pKeys.Get(), l_ObjectId.Get().pwszVal, l_intStorageIndex++);
    }
    return S_OK;
}

void CDorWEXWPDObject::ReadStorage(IPortableDeviceProperties* pIPortableDeviceProperties_in,
                                   IPortableDeviceKeyCollection* pIPortableDeviceKeyCollection_in,
                                   const wchar_t* pwcharObjectId_in, int intStorageIndex_in) {
    ComPtr<IPortableDeviceValues> l_pValues;
    if (FAILED(pIPortableDeviceProperties_in->GetValues(pwcharObjectId_in, pIPortableDeviceKeyCollection_in,
                                                        &l_pValues))) {
        return;
    }
    const _bstr_t l_bstr_tObjectId = ReadString(l_pValues.Get(), WPD_OBJECT_ID);
    const _bstr_t l_bstr_tName = ReadString(l_pValues.Get(), WPD_OBJECT_NAME);
    const _bstr_t l_bstr_tPersistentUniqueId = ReadString(l_pValues.Get(), WPD_OBJECT_PERSISTENT_UNIQUE_ID);
    const _bstr_t l_bstr_tDescription = ReadString(l_pValues.Get(), WPD_STORAGE_DESCRIPTION);
    const _bstr_t l_bstr_tFileSystem = ReadString(l_pValues.Get(), WPD_STORAGE_FILE_SYSTEM_TYPE);
    ULONGLONG l_ulonglongCapacity = 0;
    l_pValues->GetUnsignedLargeIntegerValue(WPD_STORAGE_CAPACITY, &l_ulonglongCapacity);

    // The first two storages are the device's disks.
    struct DiskMembers {
        _bstr_t DeviceIdentity::*pName;
        _bstr_t DeviceIdentity::*pObjectId;
        _bstr_t DeviceIdentity::*pPersistentUniqueId;
        _bstr_t DeviceIdentity::*pDescription;
    };
    static const DiskMembers kDisks[] = {
        {&DeviceIdentity::m_bstr_tDisk1Name, &DeviceIdentity::m_bstr_tDisk1ObjectId,
         &DeviceIdentity::m_bstr_tDisk1PersistentUniqueId, &DeviceIdentity::m_bstr_tDisk1Description},
        {&DeviceIdentity::m_bstr_tDisk2Name, &DeviceIdentity::m_bstr_tDisk2ObjectId,
         &DeviceIdentity::m_bstr_tDisk2PersistentUniqueId, &DeviceIdentity::m_bstr_tDisk2Description},
    };
    // Object id, name, description, file system and capacity of every storage, one line each.
    wchar_t l_wcharSummary[1024];
    _snwprintf_s(l_wcharSummary, _countof(l_wcharSummary), _TRUNCATE, L"%s %s %s %s %s\n", pwcharObjectId_in,
                 BstrText(l_bstr_tName), BstrText(l_bstr_tDescription), BstrText(l_bstr_tFileSystem),
                 std::to_wstring(l_ulonglongCapacity).c_str());
    UpdateIdentity([&](DeviceIdentity& identity_io) {
        if (intStorageIndex_in < 2) {
            const DiskMembers& l_Disk = kDisks[intStorageIndex_in];
            identity_io.*l_Disk.pName = l_bstr_tName;
            identity_io.*l_Disk.pObjectId = l_bstr_tObjectId.length() != 0 ? l_bstr_tObjectId : _bstr_t(pwcharObjectId_in);
            identity_io.*l_Disk.pPersistentUniqueId = l_bstr_tPersistentUniqueId;
            identity_io.*l_Disk.pDescription = l_bstr_tDescription;
        }
        identity_io.m_bstr_tExtraProperties += l_wcharSummary;
    });
}
