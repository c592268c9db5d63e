// The Apple companion object of the surrounding security service. Apple devices show little through WPD;
// the companion reaches their content and identity. It names a device by the serial number WPD reports
// and a location on it by a storage path ("Internal Storage\DCIM\a.jpg", the storage name optional). The
// class and interface ids are the companion's.
#pragma once

#include <windows.h>
#include <oaidl.h>

// {F3B0D229-6734-4B63-9188-33DDC84CF157}
DEFINE_GUID(CLSID_DorWEXWPDApple, 0xf3b0d229, 0x6734, 0x4b63, 0x91, 0x88, 0x33, 0xdd, 0xc8, 0x4c, 0xf1, 0x57);
// {0D852572-752F-49CF-85E7-8E79E4A8C678}
DEFINE_GUID(IID_IdorWEXWPDApple, 0x0d852572, 0x752f, 0x49cf, 0x85, 0xe7, 0x8e, 0x79, 0xe4, 0xa8, 0xc6, 0x78);

// Each method answers S_OK with its answer in result, or a failure the provider traces as a COM error.
struct IdorWEXWPDApple : public IUnknown {
    // "SerialNumber", "BluetoothAddress", "EthernetAddress" or "WiFiAddress" of the device: a VT_BSTR.
    virtual HRESULT STDMETHODCALLTYPE GetIdentityValue(BSTR serialNumber, BSTR name, VARIANT* result) = 0;
    // Copies a local file into the folder the storage path names; result VT_I4 1 or 0 (or VT_BOOL).
    virtual HRESULT STDMETHODCALLTYPE CopyFileToDevice(BSTR serialNumber, BSTR storagePath, BSTR localFile,
                                                       BSTR writeToken, VARIANT* result) = 0;
    // Copies the file the storage path names to a local file; result VT_I4 1 or 0 (or VT_BOOL).
    virtual HRESULT STDMETHODCALLTYPE CopyFileFromDevice(BSTR serialNumber, BSTR storagePath, BSTR localFile,
                                                         VARIANT* result) = 0;
    virtual HRESULT STDMETHODCALLTYPE DeleteFileFromDevice(BSTR serialNumber, BSTR storagePath, VARIANT* result) = 0;
    virtual HRESULT STDMETHODCALLTYPE CreateFolderOnDevice(BSTR serialNumber, BSTR parentPath, BSTR folderName,
                                                           VARIANT* result) = 0;
    // The folder's entries as "name@objectid@DIR~" or "name@objectid@FILE~"; content type 1 folders only,
    // 2 files only. A VT_BSTR.
    virtual HRESULT STDMETHODCALLTYPE EnumerateDevicePath(BSTR serialNumber, BSTR storagePath, ULONG contentType,
                                                          VARIANT* result) = 0;
    // Where the storage path lies in the device's own file system: a VT_BSTR.
    virtual HRESULT STDMETHODCALLTYPE GetDeviceAbsolutePath(BSTR serialNumber, BSTR storagePath,
                                                            VARIANT* result) = 0;
};
#ifdef __CRT_UUID_DECL
__CRT_UUID_DECL(IdorWEXWPDApple, 0x0d852572, 0x752f, 0x49cf, 0x85, 0xe7, 0x8e, 0x79, 0xe4, 0xa8, 0xc6, 0x78)
#endif
