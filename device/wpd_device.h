// One attached portable device as the rest of the provider uses it: what identifies it, the content
// operations WMI methods ask for, and the steps of its life (open, eject, close). Code outside this
// folder reaches a device only through this interface.
#pragma once

#include <windows.h>
#include <comdef.h>

#include <functional>
#include <memory>

#include "companion_record.h"
#include "device_identity.h"
#include "pnp_topology.h"

class IDorWEXDeviceHost;

class IDorWEXWPDDevice {
public:
    virtual ~IDorWEXWPDDevice() = default;

    // Opens the device and fills the identity; a null id returns S_OK and does nothing.
    virtual HRESULT InitializeWPD(const wchar_t* pwcharDeviceId_in) = 0;
    // Prepares an object for one eject: the device id, the manager and the Plug and Play view; no session.
    virtual HRESULT InitializeForEject(const wchar_t* pwcharDeviceId_in) = 0;
    // 1 when the device was ejected and stayed away, or came back and was disabled; 0 otherwise.
    virtual LONG EjectDevice() = 0;
    // Unregisters the event callback and closes the session.
    virtual void Terminate() = 0;
    // Reads the maker and the manufacturer class (the identity step an eject object needs too).
    virtual HRESULT GetManufacturer() = 0;
    // Raises the object-added event of a file written through a companion channel; 1 when it was sent.
    virtual int SimulateWPDWriteEvent(const wchar_t* pTCHARObjectStoragePath_in, const wchar_t* pwcharFileName_in,
                                      const wchar_t* pwcharObjectInfo_in, DWORD dwordNumber_in) = 0;

    // Why the device will not act on a storage path, or null when it will: a path over the length limit
    // names nothing, an operation that changes content needs a storage the device has, and a device whose
    // write access was denied (open for reading only) changes nothing.
    virtual const wchar_t* RefusedStoragePath(const wchar_t* pwcharObjectStoragePath_in,
                                              bool boolChangesContent_in) const = 0;
    // Content operations; each chooses its variant by the manufacturer class.
    virtual _bstr_t EnumerateDevicePath(const wchar_t* pwcharObjectStoragePath_in, ULONG ulongContentType_in) = 0;
    virtual _bstr_t GetStorageObjectProperty(const wchar_t* pwcharObjectStoragePath_in,
                                             const wchar_t* pwcharPropertyName_in) = 0;
    virtual _bstr_t CopyFileToDevice(const wchar_t* pwcharObjectStoragePath_in, const wchar_t* pwcharFileToCopy_in,
                                     const wchar_t* pwcharWriteToken_in, DWORD dwordProcessId_in) = 0;
    virtual HRESULT CopyFileFromDevice(const wchar_t* pwcharObjectStoragePath_in,
                                       const wchar_t* pwcharLocalFileName_in) = 0;
    // 1 when the object was deleted, else 0. The device deletes under its own id; the caller's id names
    // the device the caller found, which is this one.
    virtual int DeleteFileFromDevice(const wchar_t* pwcharObjectStoragePath_in, const wchar_t* pwcharDeviceId_in) = 0;
    virtual HRESULT CreateFolderOnDevice(const wchar_t* pwcharParentPath_in, const wchar_t* pwcharFolderName_in) = 0;
    // Copy, then delete; 1 when the copy succeeded, whatever the delete did. A device open for reading only
    // copies nothing and answers 0.
    virtual int MoveFileFromDevice(const wchar_t* pwcharObjectStoragePath_in, const wchar_t* pwcharLocalFileName_in) = 0;

    // A snapshot of the identity: it does not change under the caller, whatever other threads do.
    virtual std::shared_ptr<const DeviceIdentity> Identity() const = 0;
    // The one way to change the identity: the change is made on a copy that then replaces it, so a reader
    // sees the identity before or after, never half-way.
    virtual void UpdateIdentity(const std::function<void(DeviceIdentity&)>& change_in) = 0;
    // The Plug and Play view and the BlackBerry property record, made while the device starts up (before it
    // joins the collection) and read-only afterwards.
    virtual const CDorWEXWPDObjectInWin32& Win32View() const = 0;
    virtual const dorwex::CompanionRecord* CompanionRecord() const = 0;
    virtual bool HasSession() const = 0;

    // A BlackBerry's share: connects with the credentials its companion sent. False when the device has no
    // share access; otherwise the network result (0 connected) is in dwordResult_out.
    virtual bool ConnectBlackBerryShare(const wchar_t* pwcharShare_in, const wchar_t* pwcharUser_in,
                                        const wchar_t* pwcharPassword_in, DWORD& dwordResult_out) = 0;
    virtual bool HasBlackBerryShare() const = 0;
    virtual void DisconnectBlackBerryShare() = 0;
};

// A device object that reaches the monitor through pHost_in (which may be null).
std::shared_ptr<IDorWEXWPDDevice> CreateWPDDevice(IDorWEXDeviceHost* pHost_in);
