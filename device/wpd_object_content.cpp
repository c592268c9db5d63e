// What a device object does with content: listing, properties of stored objects, copies in both
// directions, deletion, folders and moves. Storage paths become object ids in wpd_object_paths.cpp.
#include <shlwapi.h>

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

namespace {

// Owns an IPortableDeviceValues built for a new object.
HRESULT NewValues(ComPtr<IPortableDeviceValues>& pValues_out) {
    return CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&pValues_out));
}

}  // namespace

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
    _bstr_t l_bstr_tObject = FindObjectByPath(pwcharObjectStoragePath_in, LOOKUP_DELETE);
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

// --- Transfer -------------------------------------------------------------------------------------

HRESULT CDorWEXWPDObject::StreamCopy(IStream* pIStreamDestination_in, IStream* pIStreamSource_in,
                                     DWORD dwordBufferSize_in, ULONGLONG* pulonglongBytesWritten_out) {
    std::unique_ptr<BYTE[]> l_pBuffer(new (std::nothrow) BYTE[dwordBufferSize_in == 0 ? 1 : dwordBufferSize_in]);
    if (!l_pBuffer) {
        Trace(L"! Failed to allocate %d bytes for the temporary transfer buffer.\n", dwordBufferSize_in);
        return S_OK;  // reported as success with nothing copied, as callers have always seen it
    }
    HRESULT l_HRESULT = S_OK;
    ULONGLONG l_ulonglongTotal = 0;
    for (;;) {
        ULONG l_ulongRead = 0;
        l_HRESULT = pIStreamSource_in->Read(l_pBuffer.get(), dwordBufferSize_in, &l_ulongRead);
        if (FAILED(l_HRESULT)) {
            Trace(L"! Failed to read %d bytes from the source stream, l_HRESULT = 0x%lx\n", dwordBufferSize_in,
                  l_HRESULT);
            return l_HRESULT;
        }
        // What every read gave is written, the final nothing too, and the last write's result is the answer.
        ULONG l_ulongWritten = 0;
        l_HRESULT = pIStreamDestination_in->Write(l_pBuffer.get(), l_ulongRead, &l_ulongWritten);
        if (FAILED(l_HRESULT)) {
            Trace(L"! Failed to write %d bytes of object data to the destination stream, l_HRESULT = 0x%lx\n",
                  l_ulongRead, l_HRESULT);
            return l_HRESULT;
        }
        l_ulonglongTotal += l_ulongWritten;
        // A short read is not the end: only a read of nothing is.
        if (l_ulongRead == 0) {
            break;
        }
        Trace(L"Read %d bytes from the source stream...Wrote %d bytes to the destination stream...\n", l_ulongRead,
              l_ulongWritten);
    }
    if (pulonglongBytesWritten_out != nullptr) {
        *pulonglongBytesWritten_out = l_ulonglongTotal;
    }
    return l_HRESULT;
}

_bstr_t CDorWEXWPDObject::ResolveFolderOrStorageRoot(const wchar_t* pwcharPath_in, int intMode_in) {
    _bstr_t l_bstr_tFolder = FindObjectByPath(pwcharPath_in, intMode_in);
    if (l_bstr_tFolder.length() == 0) {
        l_bstr_tFolder = GetStorageRootObjectId(pwcharPath_in);
    }
    return l_bstr_tFolder;
}

_bstr_t CDorWEXWPDObject::CopyFileToDevice(const wchar_t* pwcharObjectStoragePath_in, const wchar_t* pwcharFileToCopy_in,
                                           const wchar_t* pwcharWriteToken_in, DWORD) {
    Trace(L"CDorWEXWPDObject::CopyFileToDevice enter.\n");
    switch (Identity()->m_eManufacturer) {
    case Manufacturer::BLACKBERRY:
        return CopyFileToDevice3(pwcharObjectStoragePath_in, pwcharFileToCopy_in, pwcharWriteToken_in);
    case Manufacturer::APPLE:
        return CopyFileToDevice2(pwcharObjectStoragePath_in, pwcharFileToCopy_in, pwcharWriteToken_in);
    default:
        return CopyFileToDevice1(pwcharObjectStoragePath_in, pwcharFileToCopy_in);
    }
}

_bstr_t CDorWEXWPDObject::CopyFileToDevice1(const wchar_t* pwcharObjectStoragePath_in,
                                            const wchar_t* pwcharFileToCopy_in) {
    Trace(L"CDorWEXWPDObject::CopyFileToDevice1 enter.\n");
    if (!m_pIPortableDevice) {
        return _bstr_t(L"No portable device object, reason=1");
    }
    ComPtr<IPortableDeviceContent> l_pContent;
    HRESULT l_HRESULT = m_pIPortableDevice->Content(&l_pContent);
    const _bstr_t l_bstr_tFolder = SUCCEEDED(l_HRESULT) && pwcharObjectStoragePath_in != nullptr
                                       ? ResolveFolderOrStorageRoot(pwcharObjectStoragePath_in, LOOKUP_COPY_TO)
                                       : _bstr_t();
    if (l_bstr_tFolder.length() == 0) {
        return _bstr_t(L"Could not obtain portable device object id, reason=2");
    }
    ComPtr<IStream> l_pFileStream;
    if (pwcharFileToCopy_in == nullptr ||
        FAILED(SHCreateStreamOnFileW(pwcharFileToCopy_in, STGM_READ | STGM_SHARE_DENY_WRITE, &l_pFileStream))) {
        return _bstr_t(L"Could not create stream for source file, reason=3");
    }

    // The properties of the new object.
    ComPtr<IPortableDeviceValues> l_pValues;
    l_HRESULT = NewValues(l_pValues);
    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = l_pValues->SetStringValue(WPD_OBJECT_PARENT_ID, l_bstr_tFolder);
    }
    if (SUCCEEDED(l_HRESULT)) {
        STATSTG l_STATSTG{};
        l_HRESULT = l_pFileStream->Stat(&l_STATSTG, STATFLAG_NONAME);
        if (SUCCEEDED(l_HRESULT)) {
            l_HRESULT = l_pValues->SetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, l_STATSTG.cbSize.QuadPart);
        }
    }
    if (SUCCEEDED(l_HRESULT)) {
        wchar_t l_wcharName[MAX_PATH + 1];
        wchar_t l_wcharExtension[MAX_PATH + 1];
        if (_wsplitpath_s(pwcharFileToCopy_in, nullptr, 0, nullptr, 0, l_wcharName, _countof(l_wcharName),
                          l_wcharExtension, _countof(l_wcharExtension)) == 0) {
            const std::wstring l_wstringOriginal = std::wstring(l_wcharName) + l_wcharExtension;
            l_HRESULT = l_pValues->SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, l_wstringOriginal.c_str());
            if (SUCCEEDED(l_HRESULT)) {
                l_HRESULT = l_pValues->SetStringValue(WPD_OBJECT_NAME, l_wcharName);
            }
        }
    }
    if (SUCCEEDED(l_HRESULT) && wcsstr(pwcharFileToCopy_in, kTrackerFile) != nullptr) {
        l_HRESULT = l_pValues->SetBoolValue(WPD_OBJECT_ISSYSTEM, TRUE);  // the tracker file is a system object
    }
    // Some devices refuse a new object that does not say what it is.
    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = l_pValues->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_GENERIC_FILE);
    }
    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = l_pValues->SetGuidValue(WPD_OBJECT_FORMAT, WPD_OBJECT_FORMAT_UNSPECIFIED);
    }
    if (FAILED(l_HRESULT)) {
        return _bstr_t(L"Could not create required properties for target file content, reason=4");
    }

    ComPtr<IStream> l_pDeviceStream;
    DWORD l_dwordBufferSize = 0;
    if (FAILED(l_pContent->CreateObjectWithPropertiesAndData(l_pValues.Get(), &l_pDeviceStream, &l_dwordBufferSize,
                                                             nullptr))) {
        return _bstr_t(L"Could not create properties and data for target file, reason=5");
    }
    ComPtr<IPortableDeviceDataStream> l_pDataStream;
    if (FAILED(l_pDeviceStream.As(&l_pDataStream))) {
        return _bstr_t(L"Could not QI on target file stream, reason=6");
    }
    ULONGLONG l_ulonglongWritten = 0;
    if (FAILED(StreamCopy(l_pDeviceStream.Get(), l_pFileStream.Get(), l_dwordBufferSize, &l_ulonglongWritten))) {
        return _bstr_t(L"StreamCopy failed, reason=7");
    }
    if (FAILED(l_pDeviceStream->Commit(STGC_DEFAULT))) {
        return _bstr_t(L"Commit failed, reason=8");
    }
    CoTaskString l_NewObjectId;
    l_pDataStream->GetObjectID(&l_NewObjectId);
    return _bstr_t(L"1");
}

HRESULT CDorWEXWPDObject::CopyFileFromDevice(const wchar_t* pwcharObjectStoragePath_in,
                                             const wchar_t* pwcharLocalFileName_in) {
    Trace(L"CDorWEXWPDObject::CopyFileFromDevice enter.\n");
    switch (Identity()->m_eManufacturer) {
    case Manufacturer::BLACKBERRY:
        return CopyFileFromDevice3(pwcharObjectStoragePath_in, pwcharLocalFileName_in);
    case Manufacturer::APPLE:
        return CopyFileFromDevice2(pwcharObjectStoragePath_in, pwcharLocalFileName_in);
    default:
        Trace(L"CDorWEXWPDObject::CopyFileFromDevice1 enter.\n");
        return CopyFileFromDevice1(pwcharObjectStoragePath_in, pwcharLocalFileName_in);
    }
}

HRESULT CDorWEXWPDObject::CopyFileFromDevice1(const wchar_t* pwcharObjectStoragePath_in,
                                              const wchar_t* pwcharLocalFileName_in) {
    if (pwcharObjectStoragePath_in == nullptr || pwcharLocalFileName_in == nullptr) {
        return E_INVALIDARG;
    }
    const _bstr_t l_bstr_tObject = FindObjectByPath(pwcharObjectStoragePath_in, LOOKUP_COPY_FROM);
    if (l_bstr_tObject.length() == 0) {
        return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
    }
    if (!m_pIPortableDevice) {
        return S_OK;
    }
    ComPtr<IPortableDeviceContent> l_pContent;
    ComPtr<IPortableDeviceResources> l_pResources;
    ComPtr<IStream> l_pDeviceStream;
    ComPtr<IStream> l_pFileStream;
    DWORD l_dwordBufferSize = 0;
    HRESULT l_HRESULT = m_pIPortableDevice->Content(&l_pContent);
    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = l_pContent->Transfer(&l_pResources);
    }
    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = l_pResources->GetStream(l_bstr_tObject, WPD_RESOURCE_DEFAULT, STGM_READ, &l_dwordBufferSize,
                                            &l_pDeviceStream);
    }
    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = SHCreateStreamOnFileW(pwcharLocalFileName_in, STGM_CREATE | STGM_WRITE, &l_pFileStream);
    }
    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = StreamCopy(l_pFileStream.Get(), l_pDeviceStream.Get(), l_dwordBufferSize, nullptr);
    }
    return l_HRESULT;
}

// --- Deleting, folders, moving --------------------------------------------------------------------

int CDorWEXWPDObject::DeleteFileFromDevice(const wchar_t* pwcharObjectStoragePath_in, const wchar_t* pwcharDeviceId_in) {
    Trace(L"CDorWEXWPDObject::DeleteFileFromDevice enter.\n");
    if (pwcharObjectStoragePath_in == nullptr) {
        return 0;
    }
    int l_intResult = 0;
    if (Identity()->m_eManufacturer == Manufacturer::BLACKBERRY) {
        l_intResult = DeleteFileFromDevice3(pwcharObjectStoragePath_in);
    } else if (Identity()->m_eManufacturer == Manufacturer::APPLE) {
        l_intResult = DeleteFileFromDevice2(pwcharObjectStoragePath_in);
    } else {
        Trace(L"CDorWEXWPDObject::DeleteFileFromDevice1 enter.\n");
        const _bstr_t l_bstr_tObject = FindObjectByPath(pwcharObjectStoragePath_in, LOOKUP_DELETE);
        if (l_bstr_tObject.length() != 0) {
            const _bstr_t l_bstr_tOwnId = Identity()->m_bstr_tDeviceId;
            const wchar_t* l_pwcharDeviceId =
                pwcharDeviceId_in != nullptr ? pwcharDeviceId_in : static_cast<const wchar_t*>(l_bstr_tOwnId);
            l_intResult = SUCCEEDED(DeleteWPDObject(l_bstr_tObject, l_pwcharDeviceId)) ? 1 : 0;
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
    // A folder goes with everything in it.
    l_HRESULT = l_pContent->Delete(PORTABLE_DEVICE_DELETE_WITH_RECURSION, l_pObjects.Get(), nullptr);
    Trace(FAILED(l_HRESULT) || l_HRESULT == S_FALSE
              ? L"CDorWEXWPDObject::DeleteWPDObject, IPortableDeviceContent->Delete failed, HRESULT=0x%08x.\n"
              : L"CDorWEXWPDObject::DeleteWPDObject, IPortableDeviceContent->Delete succeeded, HRESULT=0x%08x.\n",
          l_HRESULT);
    // S_FALSE: the device kept the object (its result says why).
    return l_HRESULT == S_FALSE ? E_FAIL : l_HRESULT;
}

HRESULT CDorWEXWPDObject::CreateFolderOnDevice(const wchar_t* pwcharParentPath_in, const wchar_t* pwcharFolderName_in) {
    Trace(L"CDorWEXWPDObject::CreateFolderOnDevice enter.\n");
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
    if (pwcharParentPath_in == nullptr || pwcharFolderName_in == nullptr || pwcharFolderName_in[0] == L'\0') {
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

int CDorWEXWPDObject::MoveFileFromDevice(const wchar_t* pwcharObjectStoragePath_in,
                                         const wchar_t* pwcharLocalFileName_in) {
    if (Identity()->m_eManufacturer == Manufacturer::APPLE) {
        return MoveFileFromDevice2(pwcharObjectStoragePath_in, pwcharLocalFileName_in);
    }
    if (Identity()->m_eManufacturer == Manufacturer::BLACKBERRY) {
        return MoveFileFromDevice3(pwcharObjectStoragePath_in, pwcharLocalFileName_in);
    }
    const _bstr_t l_bstr_tObject =
        pwcharObjectStoragePath_in != nullptr ? FindObjectByPath(pwcharObjectStoragePath_in, LOOKUP_MOVE) : _bstr_t();
    if (l_bstr_tObject.length() == 0) {
        return 0;
    }
    const HRESULT l_HRESULT = CopyFileFromDevice1(pwcharObjectStoragePath_in, pwcharLocalFileName_in);
    if (FAILED(l_HRESULT)) {
        return 0;
    }
    // The file has arrived: a delete that fails does not undo the move's success.
    DeleteWPDObject(l_bstr_tObject, Identity()->m_bstr_tDeviceId);
    return 1;
}
