// One attached portable device as the provider sees it: the open WPD session, the texts that identify it,
// its manufacturer class, its storages, its Plug and Play view and its event callback.
#pragma once

#include <windows.h>
#include <comdef.h>
#include <wrl/client.h>

#include <functional>
#include <memory>
#include <mutex>

#include "apple_companion.h"
#include "companion_record.h"
#include "device_identity.h"
#include "manufacturer_class.h"
#include "path_id_cache.h"
#include "portable_device_api.h"
#include "wpd_device.h"

class CDorWEXBlackBerry;
namespace dorwex {
class ChildReader;
struct ObjectFacts;
}
class CDorWEXWPDObjectEvents;

class CDorWEXWPDObject final : public IDorWEXWPDDevice, public std::enable_shared_from_this<CDorWEXWPDObject> {
public:
    // The file by which the security service knows a device again: written as a system object, which a
    // device may keep elsewhere in the storage than where it was asked for.
    static constexpr wchar_t kTrackerFile[] = L"dorWEXDeviceTracker.bin";
    // Why a storage path is refused.
    static constexpr wchar_t kPathTooLong[] = L"The storage path is longer than 260 characters";
    static constexpr wchar_t kNoSuchStorage[] = L"The device has no storage of that name";
    // Why a change of content is refused on a device that could be opened for reading only.
    static constexpr wchar_t kWriteDenied[] = L"Write access to the device is denied";

    using Manufacturer = dorwex::Manufacturer;

    explicit CDorWEXWPDObject(IDorWEXDeviceHost* pHost_in);
    ~CDorWEXWPDObject() override;
    CDorWEXWPDObject(const CDorWEXWPDObject&) = delete;
    CDorWEXWPDObject& operator=(const CDorWEXWPDObject&) = delete;

    HRESULT InitializeWPD(const wchar_t* pwcharDeviceId_in) override;
    HRESULT InitializeForEject(const wchar_t* pwcharDeviceId_in) override;
    LONG EjectDevice() override;
    // The Apple companion object, created on first use; a new reference for the caller.
    HRESULT GetAppleCOMObject(IdorWEXWPDApple** ppIdorWEXWPDApple_out);
    int SimulateWPDWriteEvent(const wchar_t* pTCHARObjectStoragePath_in, const wchar_t* pwcharFileName_in,
                              const wchar_t* pwcharObjectInfo_in, DWORD dwordNumber_in) override;
    void Terminate() override;

    // Identity steps, in the order InitializeWPD runs them.
    HRESULT GetManufacturer() override;
    HRESULT GetFriendlyName();
    HRESULT GetDescription();
    HRESULT GetAdditionalProperties();
    HRESULT GetFunctionalCategories();
    void FinalizeSerialNumbersToUse();

    // What a storage path names on the device (first component a storage name, then object names).
    // Lookup modes: 1 the file to copy from the device, 2 the file to move, 3 the object to delete, 4 the
    // folder to create a folder in, 5 the folder to list, 6 the folder to copy a file into, 7 the file or
    // folder whose property is read.
    enum LookupMode { LOOKUP_COPY_FROM = 1, LOOKUP_MOVE = 2, LOOKUP_DELETE = 3, LOOKUP_CREATE_FOLDER = 4,
                      LOOKUP_LIST = 5, LOOKUP_COPY_TO = 6, LOOKUP_PROPERTY = 7 };
    // The root object id of the storage the path names, or null; an unknown name reads in the first storage
    // unless boolNamedStorageOnly_in. A path over the length limit names nothing.
    _bstr_t GetStorageRootObjectId(const wchar_t* pwcharObjectStoragePath_in, bool boolNamedStorageOnly_in = false) const;
    // Whether a lookup mode leads to a change of the device's content (move, delete, new folder, upload).
    static bool ChangesContent(int intMode_in);
    // The object id the path names for the mode, or null; *pHRESULTDevice_out tells a device that failed to
    // list a folder on the way from one that has nothing of that name. *pFacts_out gets the object's facts,
    // its size among them, when the check of a remembered id read them on the way (sized stays false
    // otherwise).
    _bstr_t FindObjectByPath(const wchar_t* pwcharObjectStoragePath_in, int intMode_in,
                             HRESULT* pHRESULTDevice_out = nullptr, dorwex::ObjectFacts* pFacts_out = nullptr);
    // The device removed or changed the object (null: an object it did not name): what the path lookups
    // remember of it goes.
    void ForgetObject(const wchar_t* pwcharObjectId_in);
    // Storage name and folder names down to the object: "Phone\DCIM\a.jpg"; "DEVICE" for the root.
    _bstr_t GetObjectTargetPath(const wchar_t* pwcharObjectId_in);

    const wchar_t* RefusedStoragePath(const wchar_t* pwcharObjectStoragePath_in, bool boolChangesContent_in) const override;
    _bstr_t EnumerateDevicePath(const wchar_t* pwcharObjectStoragePath_in, ULONG ulongContentType_in) override;
    _bstr_t GetStorageObjectProperty(const wchar_t* pwcharObjectStoragePath_in, const wchar_t* pwcharPropertyName_in) override;
    _bstr_t CopyFileToDevice(const wchar_t* pwcharObjectStoragePath_in, const wchar_t* pwcharFileToCopy_in,
                             const wchar_t* pwcharWriteToken_in, DWORD dwordProcessId_in) override;
    HRESULT CopyFileFromDevice(const wchar_t* pwcharObjectStoragePath_in, const wchar_t* pwcharLocalFileName_in) override;
    int DeleteFileFromDevice(const wchar_t* pwcharObjectStoragePath_in, const wchar_t* pwcharDeviceId_in) override;
    HRESULT DeleteWPDObject(const wchar_t* pTCHARObjectStoragePath_in, const wchar_t* pTCHARDeviceId_in,
                            bool boolRedirected_in = false);
    HRESULT CreateFolderOnDevice(const wchar_t* pwcharParentPath_in, const wchar_t* pwcharFolderName_in) override;
    int MoveFileFromDevice(const wchar_t* pwcharObjectStoragePath_in, const wchar_t* pwcharLocalFileName_in) override;

    // The copy loop every transfer uses: 64-bit byte counts, one buffer of the stream's optimal size. The bytes
    // written so far are stored also when it fails; a buffer that cannot be had is a failure. With the size
    // the object announced, a read that brings the last of it and says the end is reached (S_FALSE) ends the
    // copy without a read of nothing: each read of a device stream is a request.
    static HRESULT StreamCopy(IStream* pIStreamDestination_in, IStream* pIStreamSource_in, DWORD dwordBufferSize_in,
                              ULONGLONG* pulonglongBytesWritten_out, ULONGLONG ulonglongAnnounced_in = ~0ull);

    std::shared_ptr<const DeviceIdentity> Identity() const override;
    void UpdateIdentity(const std::function<void(DeviceIdentity&)>& change_in) override;

    // The Plug and Play view and the BlackBerry property record, made while the device starts up (before
    // it joins the collection) and read-only afterwards.
    const CDorWEXWPDObjectInWin32& Win32View() const override { return m_Win32; }
    const dorwex::CompanionRecord* CompanionRecord() const override { return m_pCompanionRecord.get(); }
    bool HasSession() const override { return static_cast<bool>(m_pIPortableDevice); }

    bool ConnectBlackBerryShare(const wchar_t* pwcharShare_in, const wchar_t* pwcharUser_in,
                                const wchar_t* pwcharPassword_in, DWORD& dwordResult_out) override;
    bool HasBlackBerryShare() const override { return static_cast<bool>(m_pCDorWEXBlackBerry); }
    void DisconnectBlackBerryShare() override;

    // A BlackBerry's share access, made while the device starts up; the share object keeps its own state.
    std::unique_ptr<CDorWEXBlackBerry> m_pCDorWEXBlackBerry;

private:
    Microsoft::WRL::ComPtr<IPortableDeviceManager> m_pIPortableDeviceManager;
    Microsoft::WRL::ComPtr<IPortableDevice> m_pIPortableDevice;
    Microsoft::WRL::ComPtr<IPortableDeviceValues> m_pIPortableDeviceValuesClientInfo;
    IDorWEXDeviceHost* m_pHost;
    CDorWEXWPDObjectEvents* m_pEvents = nullptr;  // owns one reference
    CDorWEXWPDObjectInWin32 m_Win32;
    Microsoft::WRL::ComPtr<IdorWEXWPDApple> m_IdorWEXWPDAppleCOMPtr;  // guarded by m_mutexApple
    std::unique_ptr<dorwex::CompanionRecord> m_pCompanionRecord;
    LONG m_longReserved = 0;
    bool m_boolReadOnly = false;  // set while the device starts up, before it joins the collection
    mutable std::mutex m_mutexIdentity;  // guards the pointer only
    std::mutex m_mutexUpdate;            // one identity change at a time
    std::shared_ptr<const DeviceIdentity> m_pIdentity = std::make_shared<const DeviceIdentity>();

    void SetClientInformation();
    // Opens the session again asking for GENERIC_READ after Open answered hrDenied_in (E_ACCESSDENIED).
    HRESULT OpenForReadingOnly(const wchar_t* pwcharDeviceId_in, HRESULT hrDenied_in);
    // True, after tracing the refusal, when the session is open for reading only: no change is asked for.
    bool RefusesChanges(const wchar_t* pwcharOperation_in) const;
    void ReleaseEvents();
    // One storage's properties into the Disk1 or Disk2 members (index 0 or 1) and the summary text.
    void ReadStorage(IPortableDeviceProperties* pIPortableDeviceProperties_in,
                     IPortableDeviceKeyCollection* pIPortableDeviceKeyCollection_in, const wchar_t* pwcharObjectId_in,
                     int intStorageIndex_in);
    HRESULT ReadStorages(IPortableDevicePropVariantCollection* pIPortableDevicePropVariantCollection_in);
    HRESULT ReadAppleIdentity();
    _bstr_t AppleSerialNumber() const;
    // The companion if it was created, without creating it.
    Microsoft::WRL::ComPtr<IdorWEXWPDApple> AppleCompanion();
    _bstr_t EnumerateDevicePath2(const wchar_t* pwcharObjectStoragePath_in, ULONG ulongContentType_in);
    _bstr_t CopyFileToDevice2(const wchar_t* pTCHARObjectStoragePath_in, const wchar_t* pTCHARstrFileToCopy_in,
                              const wchar_t* pTCHARWriteToken_in);
    HRESULT CopyFileFromDevice2(const wchar_t* pwcharObjectStoragePath_in, const wchar_t* pwcharLocalFileName_in);
    int DeleteFileFromDevice2(const wchar_t* pwcharObjectStoragePath_in);
    HRESULT CreateFolderOnDevice2(const wchar_t* pwcharParentPath_in, const wchar_t* pwcharFolderName_in);
    int MoveFileFromDevice2(const wchar_t* pwcharObjectStoragePath_in, const wchar_t* pwcharLocalFileName_in);
    // False after tracing why when the companion gives no text for the path.
    bool GetAppleDeviceAbsolutePath(const wchar_t* pwcharObjectStoragePath_in, _bstr_t& bstr_tDeviceAbsolutePath_out);
    std::mutex m_mutexApple;
    _bstr_t EnumerateDevicePath3(const wchar_t* pwcharObjectStoragePath_in, ULONG ulongContentType_in);
    _bstr_t CopyFileToDevice3(const wchar_t* pwcharObjectStoragePath_in, const wchar_t* pwcharFileToCopy_in,
                              const wchar_t* pwcharWriteToken_in);
    HRESULT CopyFileFromDevice3(const wchar_t* pwcharObjectStoragePath_in, const wchar_t* pwcharLocalFileName_in);
    int DeleteFileFromDevice3(const wchar_t* pwcharObjectStoragePath_in);
    HRESULT CreateFolderOnDevice3(const wchar_t* pwcharParentPath_in, const wchar_t* pwcharFolderName_in);
    int MoveFileFromDevice3(const wchar_t* pwcharObjectStoragePath_in, const wchar_t* pwcharLocalFileName_in);
    LONG EjectDeviceWPD(const wchar_t* pwcharDeviceId_in);
    LONG EjectDeviceApple(const wchar_t* pwcharDeviceId_in);
    LONG EjectDeviceBlackBerry(const wchar_t* pwcharDeviceId_in);
    _bstr_t EnumerateDevicePath1(const wchar_t* pwcharObjectStoragePath_in, ULONG ulongContentType_in);
    _bstr_t CopyFileToDevice1(const wchar_t* pwcharObjectStoragePath_in, const wchar_t* pwcharFileToCopy_in);
    HRESULT CopyFileFromDevice1(const wchar_t* pwcharObjectStoragePath_in, const wchar_t* pwcharLocalFileName_in);
    // The object's data into the local file, whole (WPD_OBJECT_SIZE bytes where the device reports it) or
    // not at all: an existing file stays as it was when the transfer fails. A size the lookup read already
    // (pulonglongSize_in) is not asked for again.
    HRESULT CopyObjectToLocalFile(const wchar_t* pwcharObjectId_in, const wchar_t* pwcharLocalFileName_in,
                                  const ULONGLONG* pulonglongSize_in = nullptr);
    HRESULT CreateFolderOnDevice1(const wchar_t* pwcharParentPath_in, const wchar_t* pwcharFolderName_in);
    HRESULT DeleteWPDObjectThroughWPD(const wchar_t* pwcharObjectId_in);
    // A fresh IPortableDeviceValues for the properties of a new object.
    static HRESULT NewValues(Microsoft::WRL::ComPtr<IPortableDeviceValues>& pValues_out);
    // The target folder of an upload or a new folder: the path's folder, or the root of the storage it names
    // (never another storage).
    _bstr_t ResolveFolderOrStorageRoot(const wchar_t* pwcharPath_in, int intMode_in);
    // The object ids path lookups found, checked against the device before each use.
    dorwex::PathIdCache m_PathIds;
    // The remembered children that follow the path's names from index_in on below wstringFolder_io, all
    // checked in one request: how many the device confirms (parent, name and kind as remembered), from the
    // first; the first it does not is forgotten. wstringFolder_io becomes the last confirmed id; pFacts_out,
    // when given, gets the facts of the path's last object if it was confirmed.
    size_t CheckRememberedChain(dorwex::ChildReader& reader_in, const std::vector<std::wstring>& names_in,
                                size_t index_in, bool boolWantsFolder_in, bool boolWantsFile_in,
                                std::wstring& wstringFolder_io, dorwex::ObjectFacts* pFacts_out);
    // The identity step of a device whose class is still unknown; S_OK unless the Plug and Play view fails.
    HRESULT ReadBlackBerryIdentity();
};
