// How a device object finds what a storage path names: the storage's root object, the object at the end of
// the path, and the path of an object given by its id.
//
// Path components are matched against an object's original file name, or its object name when it has no
// original file name, without regard to case (ordinal, as file names on Windows): a device shows "DCIM" and a
// caller may say "dcim".
#include <wrl/client.h>

#include <string>

#include "../common/com_memory.h"
#include "../common/trace.h"
#include "child_reader.h"
#include "same_name.h"
#include "storage_path.h"
#include "wpd_object.h"

using Microsoft::WRL::ComPtr;
using dorwex::ChildObject;
using dorwex::ChildReader;
using dorwex::ObjectFacts;

namespace {

// The index form of a name: upper case by the invariant table. The cache only proposes; the check compares
// names as the lookup does, so a character this folds otherwise costs a reading of the folder, never a wrong
// object.
std::wstring FoldedName(std::wstring_view name_in) {
    std::wstring l_wstringFolded(name_in);
    if (!l_wstringFolded.empty() &&
        LCMapStringEx(LOCALE_NAME_INVARIANT, LCMAP_UPPERCASE, name_in.data(), static_cast<int>(name_in.size()),
                      l_wstringFolded.data(), static_cast<int>(l_wstringFolded.size()), nullptr, nullptr, 0) == 0) {
        l_wstringFolded.assign(name_in);
    }
    return l_wstringFolded;
}

// Only folders lead further down; the last name must be what the mode asks for.
bool FolderFits(bool boolLast_in, bool boolWantsFile_in) {
    return !boolLast_in || !boolWantsFile_in;
}
bool FileFits(bool boolLast_in, bool boolWantsFolder_in) {
    return boolLast_in && !boolWantsFolder_in;
}

}  // namespace

_bstr_t CDorWEXWPDObject::GetStorageRootObjectId(const wchar_t* pwcharObjectStoragePath_in,
                                                 bool boolNamedStorageOnly_in) const {
    if (pwcharObjectStoragePath_in == nullptr || pwcharObjectStoragePath_in[0] == L'\0') {
        return _bstr_t();
    }
    const dorwex::StoragePath l_Path = dorwex::SplitStoragePath(pwcharObjectStoragePath_in);
    if (l_Path.tooLong) {
        return _bstr_t();
    }
    const auto l_pIdentity = Identity();
    // An empty first component equals an empty second storage name: such a path names no known storage.
    const bool l_boolSecond = SameName(BstrText(l_pIdentity->m_bstr_tDisk2Name), l_Path.storage.c_str());
    if (boolNamedStorageOnly_in && !l_boolSecond &&
        !SameName(BstrText(l_pIdentity->m_bstr_tDisk1Name), l_Path.storage.c_str())) {
        return _bstr_t();  // a storage that is not there (a card taken out) is not the first one
    }
    const _bstr_t& l_bstr_tRoot = l_boolSecond ? l_pIdentity->m_bstr_tDisk2ObjectId : l_pIdentity->m_bstr_tDisk1ObjectId;
    return l_bstr_tRoot.length() == 0 ? _bstr_t() : l_bstr_tRoot;
}

bool CDorWEXWPDObject::ChangesContent(int intMode_in) {
    return intMode_in == LOOKUP_MOVE || intMode_in == LOOKUP_DELETE || intMode_in == LOOKUP_CREATE_FOLDER ||
           intMode_in == LOOKUP_COPY_TO;
}

_bstr_t CDorWEXWPDObject::FindObjectByPath(const wchar_t* pwcharObjectStoragePath_in, int intMode_in,
                                           HRESULT* pHRESULTDevice_out, ObjectFacts* pFacts_out) {
    if (pHRESULTDevice_out != nullptr) {
        *pHRESULTDevice_out = S_OK;
    }
    if (pFacts_out != nullptr) {
        *pFacts_out = ObjectFacts();
    }
    if (!m_pIPortableDevice) {
        return _bstr_t();
    }
    const _bstr_t l_bstr_tRoot = GetStorageRootObjectId(pwcharObjectStoragePath_in, ChangesContent(intMode_in));
    if (l_bstr_tRoot.length() == 0) {
        return _bstr_t();
    }
    ChildReader l_Reader(m_pIPortableDevice.Get());
    if (!l_Reader.Ready()) {
        return _bstr_t();
    }
    const dorwex::StoragePath l_Path = dorwex::SplitStoragePath(pwcharObjectStoragePath_in);
    const bool l_boolWantsFolder =
        intMode_in == LOOKUP_CREATE_FOLDER || intMode_in == LOOKUP_LIST || intMode_in == LOOKUP_COPY_TO;
    const bool l_boolWantsFile = intMode_in == LOOKUP_COPY_FROM || intMode_in == LOOKUP_MOVE;
    if (l_Path.names.empty()) {
        return l_boolWantsFolder ? l_bstr_tRoot : _bstr_t();  // the storage itself
    }
    std::wstring l_wstringCurrent = static_cast<const wchar_t*>(l_bstr_tRoot);
    for (size_t l_index = 0; l_index < l_Path.names.size(); ++l_index) {
        // What is remembered from here down counts once the device confirms it; the walk reads folders only
        // below that.
        l_index += CheckRememberedChain(l_Reader, l_Path.names, l_index, l_boolWantsFolder, l_boolWantsFile,
                                        l_wstringCurrent, pFacts_out);
        if (l_index == l_Path.names.size()) {
            break;
        }
        const bool l_boolLast = l_index + 1 == l_Path.names.size();
        const bool l_boolFolderFits = FolderFits(l_boolLast, l_boolWantsFile);
        const bool l_boolFileFits = FileFits(l_boolLast, l_boolWantsFolder);
        std::wstring l_wstringFound;
        // Every child the folder's reading describes is remembered; the walk goes on past the one found only
        // while that costs no request.
        m_PathIds.BeginFolder(l_wstringCurrent);
        const HRESULT l_HRESULTChildren = l_Reader.ForEachChild(l_wstringCurrent.c_str(), [&](const ChildObject& child_in) {
            if (child_in.name.empty()) {
                return l_wstringFound.empty() || child_in.known;
            }
            m_PathIds.Remember(l_wstringCurrent, FoldedName(child_in.name), child_in.id, child_in.name, child_in.folder);
            if (l_wstringFound.empty() && SameName(child_in.name, l_Path.names[l_index]) &&
                (child_in.folder ? l_boolFolderFits : l_boolFileFits)) {
                l_wstringFound = child_in.id;
            }
            return l_wstringFound.empty() || child_in.known;
        });
        if (l_wstringFound.empty()) {
            // A folder the device could not read is not a folder without that name.
            if (FAILED(l_HRESULTChildren) && pHRESULTDevice_out != nullptr) {
                *pHRESULTDevice_out = l_HRESULTChildren;
            }
            l_wstringCurrent.clear();
            break;
        }
        l_wstringCurrent = l_wstringFound;
    }
    if (!l_wstringCurrent.empty()) {
        return _bstr_t(l_wstringCurrent.c_str());
    }
    // The tracker file is written as a system object, which devices may keep elsewhere in the storage than
    // where it was asked for: look for it by name anywhere in the storage, breadth first. Only a path that
    // ends in its name means it; "...\\dorWEXDeviceTracker.bin.bak" is another file.
    if (!l_boolWantsFolder && SameName(l_Path.names.back(), kTrackerFile)) {
        std::vector<std::wstring> l_Folders{static_cast<const wchar_t*>(l_bstr_tRoot)};
        for (size_t l_index = 0; l_index < l_Folders.size() && l_index < 1000; ++l_index) {
            std::wstring l_wstringTracker;
            l_Reader.ForEachChild(l_Folders[l_index].c_str(), [&](const ChildObject& child_in) {
                if (child_in.folder) {
                    l_Folders.emplace_back(child_in.id);
                } else if (SameName(child_in.name, kTrackerFile)) {
                    l_wstringTracker = child_in.id;
                    return false;
                }
                return true;
            });
            if (!l_wstringTracker.empty()) {
                return _bstr_t(l_wstringTracker.c_str());
            }
        }
    }
    return _bstr_t();
}

size_t CDorWEXWPDObject::CheckRememberedChain(ChildReader& reader_in, const std::vector<std::wstring>& names_in,
                                              size_t index_in, bool boolWantsFolder_in, bool boolWantsFile_in,
                                              std::wstring& wstringFolder_io, ObjectFacts* pFacts_out) {
    std::vector<std::wstring> l_Ids;
    std::vector<bool> l_Folders;
    std::wstring l_wstringParent = wstringFolder_io;
    for (size_t l_index = index_in; l_index < names_in.size(); ++l_index) {
        const bool l_boolLast = l_index + 1 == names_in.size();
        dorwex::PathIdCache::Child l_Child;
        if (!m_PathIds.Find(l_wstringParent, FoldedName(names_in[l_index]), l_Child) ||
            !(l_Child.folder ? FolderFits(l_boolLast, boolWantsFile_in) : FileFits(l_boolLast, boolWantsFolder_in))) {
            break;  // not remembered, or not of the kind wanted: the folder decides
        }
        l_wstringParent = l_Child.id;
        l_Ids.push_back(std::move(l_Child.id));
        l_Folders.push_back(l_Child.folder);
    }
    if (l_Ids.empty()) {
        return 0;
    }
    // The device may have removed, renamed or moved any of them since (another client, events not yet here,
    // a driver that sends none): each id counts only when its object is still there as remembered, under
    // the one before it. All are read at once, the size of the last too when the caller wants it.
    const bool l_boolWhole = index_in + l_Ids.size() == names_in.size();
    std::vector<HRESULT> l_Results;
    std::vector<ObjectFacts> l_Facts;
    reader_in.CheckAll(l_Ids, l_boolWhole && pFacts_out != nullptr, l_Results, l_Facts);
    size_t l_sizeConfirmed = 0;
    for (; l_sizeConfirmed < l_Ids.size(); ++l_sizeConfirmed) {
        const ObjectFacts& l_Object = l_Facts[l_sizeConfirmed];
        const std::wstring& l_wstringName = names_in[index_in + l_sizeConfirmed];
        if (FAILED(l_Results[l_sizeConfirmed]) || l_Object.parent != wstringFolder_io ||
            l_Object.folder != l_Folders[l_sizeConfirmed] || !SameName(l_Object.name, l_wstringName)) {
            Trace(L"CDorWEXWPDObject::FindObjectByPath: remembered %s is no longer %s, 0x%08x.\n",
                  l_Ids[l_sizeConfirmed].c_str(), l_wstringName.c_str(), l_Results[l_sizeConfirmed]);
            m_PathIds.Forget(l_Ids[l_sizeConfirmed]);
            break;
        }
        wstringFolder_io = l_Ids[l_sizeConfirmed];
    }
    if (l_boolWhole && l_sizeConfirmed == l_Ids.size() && pFacts_out != nullptr) {
        *pFacts_out = std::move(l_Facts.back());
    }
    return l_sizeConfirmed;
}

void CDorWEXWPDObject::ForgetObject(const wchar_t* pwcharObjectId_in) {
    if (pwcharObjectId_in == nullptr || pwcharObjectId_in[0] == L'\0') {
        m_PathIds.Clear();
    } else {
        m_PathIds.Forget(pwcharObjectId_in);
    }
}

const wchar_t* CDorWEXWPDObject::RefusedStoragePath(const wchar_t* pwcharObjectStoragePath_in,
                                                   bool boolChangesContent_in) const {
    // Write access was denied: no change, by whatever way the device's content is reached.
    if (boolChangesContent_in && m_boolReadOnly) {
        return kWriteDenied;
    }
    // The companions' paths are theirs to read: an Apple path goes to the companion whole, a BlackBerry's
    // is a path on its share.
    const Manufacturer l_eManufacturer = Identity()->m_eManufacturer;
    if (pwcharObjectStoragePath_in == nullptr || l_eManufacturer == Manufacturer::APPLE ||
        l_eManufacturer == Manufacturer::BLACKBERRY) {
        return nullptr;
    }
    const dorwex::StoragePath l_Path = dorwex::SplitStoragePath(pwcharObjectStoragePath_in);
    if (l_Path.tooLong) {
        return kPathTooLong;
    }
    if (boolChangesContent_in && GetStorageRootObjectId(pwcharObjectStoragePath_in, true).length() == 0) {
        return kNoSuchStorage;
    }
    return nullptr;
}

bool CDorWEXWPDObject::RefusesChanges(const wchar_t* pwcharOperation_in) const {
    if (!m_boolReadOnly) {
        return false;
    }
    Trace(L"%s refused: %s.\n", pwcharOperation_in, kWriteDenied);
    return true;
}

_bstr_t CDorWEXWPDObject::ResolveFolderOrStorageRoot(const wchar_t* pwcharPath_in, int intMode_in) {
    HRESULT l_HRESULTDevice = S_OK;
    _bstr_t l_bstr_tFolder = FindObjectByPath(pwcharPath_in, intMode_in, &l_HRESULTDevice);
    // Only a folder that is not there sends the object to the storage's root; one the device failed to
    // look through may be there, and the object would land beside it.
    if (l_bstr_tFolder.length() == 0 && SUCCEEDED(l_HRESULTDevice)) {
        l_bstr_tFolder = GetStorageRootObjectId(pwcharPath_in, ChangesContent(intMode_in));
    }
    return l_bstr_tFolder;
}

_bstr_t CDorWEXWPDObject::GetObjectTargetPath(const wchar_t* pwcharObjectId_in) {
    Trace(L"CDorWEXWPDObject::GetObjectTargetPath %s\n", pwcharObjectId_in != nullptr ? pwcharObjectId_in : L"NULL");
    if (pwcharObjectId_in == nullptr || !m_pIPortableDevice) {
        return _bstr_t(L"NULL");
    }
    ComPtr<IPortableDeviceContent> l_pContent;
    ComPtr<IPortableDeviceProperties> l_pProperties;
    ComPtr<IPortableDeviceKeyCollection> l_pKeys;
    if (FAILED(m_pIPortableDevice->Content(&l_pContent)) || FAILED(l_pContent->Properties(&l_pProperties)) ||
        FAILED(CoCreateInstance(CLSID_PortableDeviceKeyCollection, nullptr, CLSCTX_INPROC_SERVER,
                                IID_PPV_ARGS(&l_pKeys)))) {
        return _bstr_t(L"NULL");
    }
    l_pKeys->Add(WPD_OBJECT_PARENT_ID);
    l_pKeys->Add(WPD_OBJECT_ORIGINAL_FILE_NAME);
    l_pKeys->Add(WPD_OBJECT_NAME);
    std::wstring l_wstringPath;
    std::wstring l_wstringId = pwcharObjectId_in;
    // Up the parent chain to the device root; the depth is bounded against a device that loops.
    for (int l_intDepth = 0; l_intDepth < 256; ++l_intDepth) {
        if (l_wstringId == WPD_DEVICE_OBJECT_ID) {
            l_wstringPath = l_wstringPath.empty() ? L"DEVICE" : l_wstringPath;
            break;
        }
        ComPtr<IPortableDeviceValues> l_pValues;
        if (FAILED(l_pProperties->GetValues(l_wstringId.c_str(), l_pKeys.Get(), &l_pValues))) {
            break;
        }
        CoTaskString l_Name;
        CoTaskString l_Parent;
        if (FAILED(l_pValues->GetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, &l_Name))) {
            l_pValues->GetStringValue(WPD_OBJECT_NAME, &l_Name);
        }
        l_pValues->GetStringValue(WPD_OBJECT_PARENT_ID, &l_Parent);
        const std::wstring l_wstringName = l_Name.Get() != nullptr ? l_Name.Get() : L"NULL";
        l_wstringPath = l_wstringPath.empty() ? l_wstringName : l_wstringName + L"\\" + l_wstringPath;
        if (l_Parent.Get() == nullptr || l_Parent.Get()[0] == L'\0' || wcscmp(l_Parent.Get(), WPD_DEVICE_OBJECT_ID) == 0) {
            break;  // a storage: its name starts the path
        }
        l_wstringId = l_Parent.Get();
    }
    Trace(L"CDorWEXWPDObject::GetObjectTargetPath: %s %s\n", pwcharObjectId_in, l_wstringPath.c_str());
    return _bstr_t(l_wstringPath.c_str());
}
