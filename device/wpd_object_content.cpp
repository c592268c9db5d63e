// What a device object does with content: listing, properties of stored objects, deletion and folders.
// Copies and moves are in wpd_object_transfer.cpp; storage paths become object ids in wpd_object_paths.cpp.
#include <cwchar>
#include <memory>
#include <string_view>

#include "../common/com_memory.h"
#include "../common/trace.h"
#include "../monitor/device_host.h"
#include "../monitor/device_registry.h"
#include "blackberry_share.h"
#include "child_reader.h"
#include "same_name.h"
#include "storage_path.h"
#include "wpd_object.h"

using Microsoft::WRL::ComPtr;
using dorwex::ChildObject;
using dorwex::ChildReader;

HRESULT CDorWEXWPDObject::NewValues(ComPtr<IPortableDeviceValues>& pValues_out) {
    return CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&pValues_out));
}

// --- Listing and properties -----------------------------------------------------------------------

_bstr_t CDorWEXWPDObject::EnumerateDevicePath(const wchar_t* pwcharObjectStoragePath_in, ULONG ulongContentType_in) {
    Trace(L"CDorWEXWPDObject::EnumerateDevicePath enter.\n");
    switch (Identity()->m_eManufacturer) {
    case Manufacturer::BLACKBERRY:
        return EnumerateDevicePath3(pwcharObjectStoragePath_in, ulongContentType_in);
    case Manufacturer::APPLE:
        return EnumerateDevicePath2(pwcharObjectStoragePath_in, ulongContentType_in);
    default:
        return EnumerateDevicePath1(pwcharObjectStoragePath_in, ulongContentType_in);
    }
}

_bstr_t CDorWEXWPDObject::EnumerateDevicePath1(const wchar_t* pwcharObjectStoragePath_in, ULONG ulongContentType_in) {
    Trace(L"CDorWEXWPDObject::EnumerateDevicePath1 enter.\n");
    std::wstring l_wstringResult;
    if (pwcharObjectStoragePath_in == nullptr || !m_pIPortableDevice) {
        return _bstr_t(L"");
    }
    _bstr_t l_bstr_tFolder;
    const dorwex::StoragePath l_Path = dorwex::SplitStoragePath(pwcharObjectStoragePath_in);
    if (wcschr(pwcharObjectStoragePath_in, L'\\') == nullptr) {
        const auto l_pIdentity = Identity();
        if (SameName(l_pIdentity->m_bstr_tDisk1Name, l_Path.storage.c_str())) {
            l_bstr_tFolder = l_pIdentity->m_bstr_tDisk1ObjectId;
        } else if (SameName(l_pIdentity->m_bstr_tDisk2Name, l_Path.storage.c_str())) {
            l_bstr_tFolder = l_pIdentity->m_bstr_tDisk2ObjectId;
        }
    } else {
        l_bstr_tFolder = FindObjectByPath(pwcharObjectStoragePath_in, LOOKUP_LIST);
    }
    if (l_bstr_tFolder.length() == 0) {
        return _bstr_t(L"");
    }
    ChildReader l_Reader(m_pIPortableDevice.Get());
    if (!l_Reader.Ready()) {
        return _bstr_t(L"");
    }
    l_Reader.ForEachChild(l_bstr_tFolder, [&](const ChildObject& child_in) {
        const bool l_boolListed = ulongContentType_in == 1   ? child_in.folder
                                  : ulongContentType_in == 2 ? !child_in.folder
                                                             : true;
        if (l_boolListed && !child_in.name.empty()) {
            l_wstringResult += child_in.name;
            l_wstringResult += L'@';
            l_wstringResult += child_in.id;
            l_wstringResult += child_in.folder ? L"@DIR~" : L"@FILE~";
        }
        return true;
    });
    return _bstr_t(l_wstringResult.c_str());
}

// A property of the object a path names: "ObjectId" and "strObjectDeviceId" by these names, otherwise the
// WPD object property of that name (WPD_OBJECT_NAME, WPD_OBJECT_SIZE, ...), as text.
_bstr_t CDorWEXWPDObject::GetStorageObjectProperty(const wchar_t* pwcharObjectStoragePath_in,
                                                   const wchar_t* pwcharPropertyName_in) {
    Trace(L"CDorWEXWPDObject::GetStorageObjectProperty enter.\n");
    if (pwcharPropertyName_in == nullptr) {
        return _bstr_t(L"");
    }
    if (SameName(pwcharPropertyName_in, L"strObjectDeviceId")) {
        return Identity()->m_bstr_tDeviceId;
    }
    if (Identity()->m_eManufacturer == Manufacturer::BLACKBERRY) {
        return m_pCDorWEXBlackBerry
                   ? _bstr_t(m_pCDorWEXBlackBerry->GetProperty(pwcharObjectStoragePath_in, pwcharPropertyName_in).c_str())
                   : _bstr_t(L"");
    }
    if (Identity()->m_eManufacturer == Manufacturer::APPLE) {
        return _bstr_t(L"");  // the Apple companion has no object properties to ask for
    }
    _bstr_t l_bstr_tObject = FindObjectByPath(pwcharObjectStoragePath_in, LOOKUP_PROPERTY);
    if (l_bstr_tObject.length() == 0) {
        l_bstr_tObject = FindObjectByPath(pwcharObjectStoragePath_in, LOOKUP_LIST);  // a storage
    }
    if (l_bstr_tObject.length() == 0) {
        return _bstr_t(L"");
    }
    if (SameName(pwcharPropertyName_in, L"ObjectId")) {
        return l_bstr_tObject;
    }
    static const struct {
        const wchar_t* pwcharName;
        const PROPERTYKEY* pKey;
    } kProperties[] = {
        {L"WPD_OBJECT_NAME", &WPD_OBJECT_NAME},
        {L"WPD_OBJECT_ORIGINAL_FILE_NAME", &WPD_OBJECT_ORIGINAL_FILE_NAME},
        {L"WPD_OBJECT_PARENT_ID", &WPD_OBJECT_PARENT_ID},
        {L"WPD_OBJECT_PERSISTENT_UNIQUE_ID", &WPD_OBJECT_PERSISTENT_UNIQUE_ID},
        {L"WPD_OBJECT_SIZE", &WPD_OBJECT_SIZE},
        {L"WPD_OBJECT_CONTENT_TYPE", &WPD_OBJECT_CONTENT_TYPE},
        {L"WPD_OBJECT_ISSYSTEM", &WPD_OBJECT_ISSYSTEM},
        {L"WPD_OBJECT_ISHIDDEN", &WPD_OBJECT_ISHIDDEN},
    };
    for (const auto& l_Property : kProperties) {
        if (!SameName(pwcharPropertyName_in, l_Property.pwcharName)) {
            continue;
        }
        ChildReader l_Reader(m_pIPortableDevice.Get());
        ComPtr<IPortableDeviceKeyCollection> l_pKeys;
        ComPtr<IPortableDeviceValues> l_pValues;
        PropVariant l_Value;
        if (!l_Reader.Ready() ||
            FAILED(CoCreateInstance(CLSID_PortableDeviceKeyCollection, nullptr, CLSCTX_INPROC_SERVER,
                                    IID_PPV_ARGS(&l_pKeys))) ||
            FAILED(l_pKeys->Add(*l_Property.pKey)) ||
            FAILED(l_Reader.Properties()->GetValues(l_bstr_tObject, l_pKeys.Get(), &l_pValues)) ||
            FAILED(l_pValues->GetValue(*l_Property.pKey, &l_Value))) {
            return _bstr_t(L"");
        }
        const PROPVARIANT& l_PROPVARIANT = l_Value.Get();
        switch (l_PROPVARIANT.vt) {
        case VT_LPWSTR:
            return _bstr_t(l_PROPVARIANT.pwszVal != nullptr ? l_PROPVARIANT.pwszVal : L"");
        case VT_UI8:
            return _bstr_t(std::to_wstring(l_PROPVARIANT.uhVal.QuadPart).c_str());
        case VT_UI4:
            return _bstr_t(std::to_wstring(l_PROPVARIANT.ulVal).c_str());
        case VT_BOOL:
            return _bstr_t(l_PROPVARIANT.boolVal ? L"TRUE" : L"FALSE");
        case VT_CLSID: {
            wchar_t l_wcharGUID[64];
            StringFromGUID2(*l_PROPVARIANT.puuid, l_wcharGUID, 64);
            return _bstr_t(l_wcharGUID);
        }
        default:
            return _bstr_t(L"");
        }
    }
    return _bstr_t(L"");
}

// --- Deleting and folders ---------------------------------------------------------------------------------------------------------------------------------------

int CDorWEXWPDObject::DeleteFileFromDevice(const wchar_t* pwcharObjectStoragePath_in, const wchar_t* /*pwcharDeviceId_in*/) {
    Trace(L"CDorWEXWPDObject::DeleteFileFromDevice enter.\n");
    if (pwcharObjectStoragePath_in == nullptr || RefusesChanges(L"CDorWEXWPDObject::DeleteFileFromDevice")) {
        return 0;
    }
    int l_intResult = 0;
    if (Identity()->m_eManufacturer == Manufacturer::BLACKBERRY) {
        l_intResult = DeleteFileFromDevice3(pwcharObjectStoragePath_in);
    } else if (Identity()->m_eManufacturer == Manufacturer::APPLE) {
        l_intResult = DeleteFileFromDevice2(pwcharObjectStoragePath_in);
    } else {
        Trace(L"CDorWEXWPDObject::DeleteFileFromDevice1 enter.\n");
        // The object was resolved on this device: it is deleted here, under this device's own id.
        const _bstr_t l_bstr_tObject = FindObjectByPath(pwcharObjectStoragePath_in, LOOKUP_DELETE);
        if (l_bstr_tObject.length() != 0) {
            l_intResult = SUCCEEDED(DeleteWPDObject(l_bstr_tObject, Identity()->m_bstr_tDeviceId)) ? 1 : 0;
        }
    }
    Trace(L"CDorWEXWPDObject::DeleteFileFromDevice %s=%s", pwcharObjectStoragePath_in,
          l_intResult == 1 ? L"TRUE" : L"FALSE");
    return l_intResult;
}

HRESULT CDorWEXWPDObject::DeleteWPDObject(const wchar_t* pTCHARObjectStoragePath_in, const wchar_t* pTCHARDeviceId_in,
                                          bool boolRedirected_in) {
    if (pTCHARObjectStoragePath_in == nullptr) {
        Trace(L"CDorWEXWPDObject::DeleteWPDObject, ERROR pTCHARObjectStoragePath_in == NULL\n");
        return E_FAIL;
    }
    if (pTCHARDeviceId_in == nullptr) {
        Trace(L"CDorWEXWPDObject::DeleteWPDObject, ERROR pTCHARDeviceId_in == NULL\n");
        return E_FAIL;
    }
    if (Identity()->m_bstr_tDeviceId.length() != 0) {
        if (!SameName(Identity()->m_bstr_tDeviceId, pTCHARDeviceId_in)) {
            return E_FAIL;
        }
        if (RefusesChanges(L"CDorWEXWPDObject::DeleteWPDObject")) {
            return E_ACCESSDENIED;
        }
        if (Identity()->m_eManufacturer == Manufacturer::APPLE) {
            Microsoft::WRL::ComPtr<IdorWEXWPDApple> l_pApple;
            if (SUCCEEDED(GetAppleCOMObject(l_pApple.GetAddressOf()))) {
                DeleteFileFromDevice2(pTCHARObjectStoragePath_in);
            }
            return S_OK;  // the companion's answer is not passed on
        }
        return DeleteWPDObjectThroughWPD(pTCHARObjectStoragePath_in);
    }
    // A placeholder object passes the request on to the real device object, once.
    IDorWEXDeviceRegistry* l_pDevices = m_pHost != nullptr ? m_pHost->Devices() : nullptr;
    if (boolRedirected_in || l_pDevices == nullptr) {
        return E_FAIL;
    }
    const auto l_pDevice = std::dynamic_pointer_cast<CDorWEXWPDObject>(l_pDevices->FindWPDObjectById(pTCHARDeviceId_in));
    if (!l_pDevice) {
        return E_FAIL;
    }
    return l_pDevice->DeleteWPDObject(pTCHARObjectStoragePath_in, pTCHARDeviceId_in, true);
}

HRESULT CDorWEXWPDObject::DeleteWPDObjectThroughWPD(const wchar_t* pwcharObjectId_in) {
    if (!m_pIPortableDevice) {
        Trace(L"CDorWEXWPDObject::DeleteWPDObject, ERROR: IPortableDevice == NULL.\n");
        return E_FAIL;
    }
    ComPtr<IPortableDeviceContent> l_pContent;
    HRESULT l_HRESULT = m_pIPortableDevice->Content(&l_pContent);
    if (FAILED(l_HRESULT)) {
        Trace(L"CDorWEXWPDObject::DeleteWPDObject, ERROR: IPortableDevice->Content failed, HRESULT=0x%08x.\n", l_HRESULT);
        return l_HRESULT;
    }
    ComPtr<IPortableDevicePropVariantCollection> l_pObjects;
    l_HRESULT = CoCreateInstance(CLSID_PortableDevicePropVariantCollection, nullptr, CLSCTX_INPROC_SERVER,
                                 IID_PPV_ARGS(&l_pObjects));
    if (FAILED(l_HRESULT)) {
        Trace(L"CDorWEXWPDObject::DeleteWPDObject, ERROR: CoCreateInstance CLSID_PortableDevicePropVariantCollection "
              L"failed, HRESULT=0x%08x.\n",
              l_HRESULT);
        return l_HRESULT;
    }
    PropVariant l_ObjectId;
    PROPVARIANT* l_pPROPVARIANT = &l_ObjectId;
    const size_t l_sizeBytes = (wcslen(pwcharObjectId_in) + 1) * sizeof(wchar_t);
    l_pPROPVARIANT->pwszVal = static_cast<LPWSTR>(CoTaskMemAlloc(l_sizeBytes));
    if (l_pPROPVARIANT->pwszVal == nullptr) {
        Trace(L"CDorWEXWPDObject::DeleteWPDObject, ERROR: AtlAllocTaskWideString failed.\n");
        return E_OUTOFMEMORY;
    }
    l_pPROPVARIANT->vt = VT_LPWSTR;
    memcpy(l_pPROPVARIANT->pwszVal, pwcharObjectId_in, l_sizeBytes);
    l_HRESULT = l_pObjects->Add(&l_ObjectId.Get());
    if (FAILED(l_HRESULT)) {
        Trace(L"CDorWEXWPDObject::DeleteWPDObject, IPortableDevicePropVariantCollection->Add failed, HRESULT=0x%08x.\n",
              l_HRESULT);
        return l_HRESULT;
    }
    // A folder goes with everything in it. Its remembered id goes whatever the device answers: a failure
    // halfway may have removed it.
    l_HRESULT = l_pContent->Delete(PORTABLE_DEVICE_DELETE_WITH_RECURSION, l_pObjects.Get(), nullptr);
    m_PathIds.Forget(pwcharObjectId_in);
    Trace(FAILED(l_HRESULT) || l_HRESULT == S_FALSE
              ? L"CDorWEXWPDObject::DeleteWPDObject, IPortableDeviceContent->Delete failed, HRESULT=0x%08x.\n"
              : L"CDorWEXWPDObject::DeleteWPDObject, IPortableDeviceContent->Delete succeeded, HRESULT=0x%08x.\n",
          l_HRESULT);
    // S_FALSE: the device kept the object (its result says why).
    return l_HRESULT == S_FALSE ? E_FAIL : l_HRESULT;
}

HRESULT CDorWEXWPDObject::CreateFolderOnDevice(const wchar_t* pwcharParentPath_in, const wchar_t* pwcharFolderName_in) {
    Trace(L"CDorWEXWPDObject::CreateFolderOnDevice enter.\n");
    if (RefusesChanges(L"CDorWEXWPDObject::CreateFolderOnDevice")) {
        return E_ACCESSDENIED;
    }
    switch (Identity()->m_eManufacturer) {
    case Manufacturer::BLACKBERRY:
        return CreateFolderOnDevice3(pwcharParentPath_in, pwcharFolderName_in);
    case Manufacturer::APPLE:
        return CreateFolderOnDevice2(pwcharParentPath_in, pwcharFolderName_in);
    default:
        return CreateFolderOnDevice1(pwcharParentPath_in, pwcharFolderName_in);
    }
}

HRESULT CDorWEXWPDObject::CreateFolderOnDevice1(const wchar_t* pwcharParentPath_in, const wchar_t* pwcharFolderName_in) {
    Trace(L"CDorWEXWPDObject::CreateFolderOnDevice1 enter.\n");
    if (!m_pIPortableDevice) {
        return S_OK;
    }
    if (pwcharParentPath_in == nullptr || pwcharFolderName_in == nullptr) {
        return E_INVALIDARG;
    }
    ComPtr<IPortableDeviceContent> l_pContent;
    HRESULT l_HRESULT = m_pIPortableDevice->Content(&l_pContent);
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    // A parent that does not resolve puts the folder into the root of the storage the path names.
    const _bstr_t l_bstr_tParent = ResolveFolderOrStorageRoot(pwcharParentPath_in, LOOKUP_CREATE_FOLDER);
    if (l_bstr_tParent.length() == 0) {
        return E_FAIL;
    }
    ComPtr<IPortableDeviceValues> l_pValues;
    l_HRESULT = NewValues(l_pValues);
    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = l_pValues->SetStringValue(WPD_OBJECT_PARENT_ID, l_bstr_tParent);
    }
    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = l_pValues->SetStringValue(WPD_OBJECT_NAME, pwcharFolderName_in);
    }
    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = l_pValues->SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, pwcharFolderName_in);
    }
    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = l_pValues->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FOLDER);
    }
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    CoTaskString l_NewFolderId;
    return l_pContent->CreateObjectWithPropertiesOnly(l_pValues.Get(), &l_NewFolderId);
}
