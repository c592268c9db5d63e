// The Windows Portable Devices client API as this provider uses it.
//
// With the Windows SDK the SDK's own headers are used. The mingw-w64 headers ship only the value and
// collection types (portabledevicetypes.h), so the device, content, property, resource, capability,
// event-callback and data-stream interfaces, the class ids and the WPD_* keys, content types, functional
// categories and events are declared here, from the SDK's published interface definitions: the same
// IIDs, the same vtable order and the same key values.
//
// GUIDs and keys are declared with DEFINE_GUID / DEFINE_PROPERTYKEY; portable_device_guids.cpp
// instantiates them once, as the SDK's PortableDeviceGuids.lib does.
#pragma once

#include <windows.h>
#include <objidl.h>
#include <propidl.h>
#include <propsys.h>
#include <propkeydef.h>

#if defined(_MSC_VER) && __has_include(<PortableDeviceApi.h>) && __has_include(<PortableDevice.h>)

#include <PortableDeviceApi.h>
#include <PortableDevice.h>
#include <PortableDeviceTypes.h>

#else

#include <portabledevicetypes.h>

#ifndef __CRT_UUID_DECL
#define __CRT_UUID_DECL(type, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8)
#endif

struct IPortableDeviceContent;
struct IPortableDeviceCapabilities;
struct IPortableDeviceEventCallback;
struct IPortableDeviceProperties;
struct IPortableDeviceResources;
struct IEnumPortableDeviceObjectIDs;

// IPortableDeviceManager {a1567595-4c2f-4574-a6fa-ecef917b9a40}
struct IPortableDeviceManager : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetDevices(LPWSTR* pPnPDeviceIDs, DWORD* pcPnPDeviceIDs) = 0;
    virtual HRESULT STDMETHODCALLTYPE RefreshDeviceList() = 0;
    virtual HRESULT STDMETHODCALLTYPE GetDeviceFriendlyName(LPCWSTR pszPnPDeviceID, WCHAR* pDeviceFriendlyName,
                                                            DWORD* pcchDeviceFriendlyName) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetDeviceDescription(LPCWSTR pszPnPDeviceID, WCHAR* pDeviceDescription,
                                                           DWORD* pcchDeviceDescription) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetDeviceManufacturer(LPCWSTR pszPnPDeviceID, WCHAR* pDeviceManufacturer,
                                                            DWORD* pcchDeviceManufacturer) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetDeviceProperty(LPCWSTR pszPnPDeviceID, LPCWSTR pszDevicePropertyName,
                                                        BYTE* pData, DWORD* pcbData, DWORD* pdwType) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetPrivateDevices(LPWSTR* pPnPDeviceIDs, DWORD* pcPnPDeviceIDs) = 0;
};
__CRT_UUID_DECL(IPortableDeviceManager, 0xa1567595, 0x4c2f, 0x4574, 0xa6, 0xfa, 0xec, 0xef, 0x91, 0x7b, 0x9a, 0x40)

// IPortableDevice {625e2df8-6392-4cf0-9ad1-3cfa5f17775c}
struct IPortableDevice : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Open(LPCWSTR pszPnPDeviceID, IPortableDeviceValues* pClientInfo) = 0;
    virtual HRESULT STDMETHODCALLTYPE SendCommand(const DWORD dwFlags, IPortableDeviceValues* pParameters,
                                                  IPortableDeviceValues** ppResults) = 0;
    virtual HRESULT STDMETHODCALLTYPE Content(IPortableDeviceContent** ppContent) = 0;
    virtual HRESULT STDMETHODCALLTYPE Capabilities(IPortableDeviceCapabilities** ppCapabilities) = 0;
    virtual HRESULT STDMETHODCALLTYPE Cancel() = 0;
    virtual HRESULT STDMETHODCALLTYPE Close() = 0;
    virtual HRESULT STDMETHODCALLTYPE Advise(const DWORD dwFlags, IPortableDeviceEventCallback* pCallback,
                                             IPortableDeviceValues* pParameters, LPWSTR* ppszCookie) = 0;
    virtual HRESULT STDMETHODCALLTYPE Unadvise(LPCWSTR pszCookie) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetPnPDeviceID(LPWSTR* ppszPnPDeviceID) = 0;
};
__CRT_UUID_DECL(IPortableDevice, 0x625e2df8, 0x6392, 0x4cf0, 0x9a, 0xd1, 0x3c, 0xfa, 0x5f, 0x17, 0x77, 0x5c)

// IPortableDeviceContent {6a96ed84-7c73-4480-9938-bf5af477d426}
struct IPortableDeviceContent : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE EnumObjects(const DWORD dwFlags, LPCWSTR pszParentObjectID,
                                                  IPortableDeviceValues* pFilter,
                                                  IEnumPortableDeviceObjectIDs** ppEnum) = 0;
    virtual HRESULT STDMETHODCALLTYPE Properties(IPortableDeviceProperties** ppProperties) = 0;
    virtual HRESULT STDMETHODCALLTYPE Transfer(IPortableDeviceResources** ppResources) = 0;
    virtual HRESULT STDMETHODCALLTYPE CreateObjectWithPropertiesOnly(IPortableDeviceValues* pValues,
                                                                     LPWSTR* ppszObjectID) = 0;
    virtual HRESULT STDMETHODCALLTYPE CreateObjectWithPropertiesAndData(IPortableDeviceValues* pValues,
                                                                        IStream** ppData,
                                                                        DWORD* pdwOptimalWriteBufferSize,
                                                                        LPWSTR* ppszCookie) = 0;
    virtual HRESULT STDMETHODCALLTYPE Delete(const DWORD dwOptions, IPortableDevicePropVariantCollection* pObjectIDs,
                                             IPortableDevicePropVariantCollection** ppResults) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetObjectIDsFromPersistentUniqueIDs(
        IPortableDevicePropVariantCollection* pPersistentUniqueIDs,
        IPortableDevicePropVariantCollection** ppObjectIDs) = 0;
    virtual HRESULT STDMETHODCALLTYPE Cancel() = 0;
    virtual HRESULT STDMETHODCALLTYPE Move(IPortableDevicePropVariantCollection* pObjectIDs,
                                           LPCWSTR pszDestinationFolderObjectID,
                                           IPortableDevicePropVariantCollection** ppResults) = 0;
    virtual HRESULT STDMETHODCALLTYPE Copy(IPortableDevicePropVariantCollection* pObjectIDs,
                                           LPCWSTR pszDestinationFolderObjectID,
                                           IPortableDevicePropVariantCollection** ppResults) = 0;
};
__CRT_UUID_DECL(IPortableDeviceContent, 0x6a96ed84, 0x7c73, 0x4480, 0x99, 0x38, 0xbf, 0x5a, 0xf4, 0x77, 0xd4, 0x26)

// IEnumPortableDeviceObjectIDs {10ece955-cf41-4728-bfa0-41eedf1bbf19}
struct IEnumPortableDeviceObjectIDs : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Next(ULONG cObjects, LPWSTR* pObjIDs, ULONG* pcFetched) = 0;
    virtual HRESULT STDMETHODCALLTYPE Skip(ULONG cObjects) = 0;
    virtual HRESULT STDMETHODCALLTYPE Reset() = 0;
    virtual HRESULT STDMETHODCALLTYPE Clone(IEnumPortableDeviceObjectIDs** ppEnum) = 0;
    virtual HRESULT STDMETHODCALLTYPE Cancel() = 0;
};
__CRT_UUID_DECL(IEnumPortableDeviceObjectIDs, 0x10ece955, 0xcf41, 0x4728, 0xbf, 0xa0, 0x41, 0xee, 0xdf, 0x1b, 0xbf,
                0x19)

// IPortableDeviceProperties {7f6d695c-03df-4439-a809-59266beee3a6}
struct IPortableDeviceProperties : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetSupportedProperties(LPCWSTR pszObjectID,
                                                             IPortableDeviceKeyCollection** ppKeys) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetPropertyAttributes(LPCWSTR pszObjectID, REFPROPERTYKEY Key,
                                                            IPortableDeviceValues** ppAttributes) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetValues(LPCWSTR pszObjectID, IPortableDeviceKeyCollection* pKeys,
                                                IPortableDeviceValues** ppValues) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetValues(LPCWSTR pszObjectID, IPortableDeviceValues* pValues,
                                                IPortableDeviceValues** ppResults) = 0;
    virtual HRESULT STDMETHODCALLTYPE Delete(LPCWSTR pszObjectID, IPortableDeviceKeyCollection* pKeys) = 0;
    virtual HRESULT STDMETHODCALLTYPE Cancel() = 0;
};
__CRT_UUID_DECL(IPortableDeviceProperties, 0x7f6d695c, 0x03df, 0x4439, 0xa8, 0x09, 0x59, 0x26, 0x6b, 0xee, 0xe3, 0xa6)

// IPortableDeviceResources {fd8878ac-d841-4d17-891c-e6829cdb6934}
struct IPortableDeviceResources : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetSupportedResources(LPCWSTR pszObjectID,
                                                            IPortableDeviceKeyCollection** ppKeys) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetResourceAttributes(LPCWSTR pszObjectID, REFPROPERTYKEY Key,
                                                            IPortableDeviceValues** ppResourceAttributes) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetStream(LPCWSTR pszObjectID, REFPROPERTYKEY Key, const DWORD dwMode,
                                                DWORD* pdwOptimalBufferSize, IStream** ppStream) = 0;
    virtual HRESULT STDMETHODCALLTYPE Delete(LPCWSTR pszObjectID, IPortableDeviceKeyCollection* pKeys) = 0;
    virtual HRESULT STDMETHODCALLTYPE Cancel() = 0;
    virtual HRESULT STDMETHODCALLTYPE CreateResource(IPortableDeviceValues* pResourceAttributes, IStream** ppData,
                                                     DWORD* pdwOptimalWriteBufferSize, LPWSTR* ppszCookie) = 0;
};
__CRT_UUID_DECL(IPortableDeviceResources, 0xfd8878ac, 0xd841, 0x4d17, 0x89, 0x1c, 0xe6, 0x82, 0x9c, 0xdb, 0x69, 0x34)

// IPortableDeviceCapabilities {2c8c6dbf-e3dc-4061-becc-8542e810d126}
struct IPortableDeviceCapabilities : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetSupportedCommands(IPortableDeviceKeyCollection** ppCommands) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetCommandOptions(REFPROPERTYKEY Command, IPortableDeviceValues** ppOptions) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetFunctionalCategories(IPortableDevicePropVariantCollection** ppCategories) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetFunctionalObjects(REFGUID Category,
                                                           IPortableDevicePropVariantCollection** ppObjectIDs) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetSupportedContentTypes(
        REFGUID Category, IPortableDevicePropVariantCollection** ppContentTypes) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetSupportedFormats(REFGUID ContentType,
                                                          IPortableDevicePropVariantCollection** ppFormats) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetSupportedFormatProperties(REFGUID Format,
                                                                   IPortableDeviceKeyCollection** ppKeys) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetFixedPropertyAttributes(REFGUID Format, REFPROPERTYKEY Key,
                                                                 IPortableDeviceValues** ppAttributes) = 0;
    virtual HRESULT STDMETHODCALLTYPE Cancel() = 0;
    virtual HRESULT STDMETHODCALLTYPE GetSupportedEvents(IPortableDevicePropVariantCollection** ppEvents) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetEventOptions(REFGUID Event, IPortableDeviceValues** ppOptions) = 0;
};
__CRT_UUID_DECL(IPortableDeviceCapabilities, 0x2c8c6dbf, 0xe3dc, 0x4061, 0xbe, 0xcc, 0x85, 0x42, 0xe8, 0x10, 0xd1,
                0x26)

// IPortableDeviceEventCallback {a8792a31-f385-493c-a893-40f64eb45f6e}
struct IPortableDeviceEventCallback : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE OnEvent(IPortableDeviceValues* pEventParameters) = 0;
};
__CRT_UUID_DECL(IPortableDeviceEventCallback, 0xa8792a31, 0xf385, 0x493c, 0xa8, 0x93, 0x40, 0xf6, 0x4e, 0xb4, 0x5f,
                0x6e)

// IPortableDeviceDataStream {88e04db3-1012-4d64-9996-f703a950d3f4}
struct IPortableDeviceDataStream : public IStream {
    virtual HRESULT STDMETHODCALLTYPE GetObjectID(LPWSTR* ppszObjectID) = 0;
    virtual HRESULT STDMETHODCALLTYPE Cancel() = 0;
};
__CRT_UUID_DECL(IPortableDeviceDataStream, 0x88e04db3, 0x1012, 0x4d64, 0x99, 0x96, 0xf7, 0x03, 0xa9, 0x50, 0xd3, 0xf4)

// IPortableDevicePropertiesBulkCallback {9deacb80-11e8-40e3-a9f3-f557986a7845}: what a bulk operation
// reports, on a thread of the portable-device runtime.
struct IPortableDevicePropertiesBulkCallback : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE OnStart(REFGUID pContext) = 0;
    virtual HRESULT STDMETHODCALLTYPE OnProgress(REFGUID pContext, IPortableDeviceValuesCollection* pResults) = 0;
    virtual HRESULT STDMETHODCALLTYPE OnEnd(REFGUID pContext, HRESULT hrStatus) = 0;
};
__CRT_UUID_DECL(IPortableDevicePropertiesBulkCallback, 0x9deacb80, 0x11e8, 0x40e3, 0xa9, 0xf3, 0xf5, 0x57, 0x98, 0x6a,
                0x78, 0x45)

// IPortableDevicePropertiesBulk {482b05c0-4056-44ed-9e0f-5e23b009da93}, reached by QueryInterface on
// IPortableDeviceProperties when the driver supports bulk operations.
struct IPortableDevicePropertiesBulk : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE QueueGetValuesByObjectList(IPortableDevicePropVariantCollection* pObjectIDs,
                                                                 IPortableDeviceKeyCollection* pKeys,
                                                                 IPortableDevicePropertiesBulkCallback* pCallback,
                                                                 GUID* pContext) = 0;
    virtual HRESULT STDMETHODCALLTYPE QueueGetValuesByObjectFormat(REFGUID pguidObjectFormat,
                                                                   LPCWSTR pszParentObjectID, const DWORD dwDepth,
                                                                   IPortableDeviceKeyCollection* pKeys,
                                                                   IPortableDevicePropertiesBulkCallback* pCallback,
                                                                   GUID* pContext) = 0;
    virtual HRESULT STDMETHODCALLTYPE QueueSetValuesByObjectList(IPortableDeviceValuesCollection* pObjectValues,
                                                                 IPortableDevicePropertiesBulkCallback* pCallback,
                                                                 GUID* pContext) = 0;
    virtual HRESULT STDMETHODCALLTYPE Start(REFGUID pContext) = 0;
    virtual HRESULT STDMETHODCALLTYPE Cancel(REFGUID pContext) = 0;
};
__CRT_UUID_DECL(IPortableDevicePropertiesBulk, 0x482b05c0, 0x4056, 0x44ed, 0x9e, 0x0f, 0x5e, 0x23, 0xb0, 0x09, 0xda,
                0x93)

DEFINE_GUID(IID_IPortableDeviceManager, 0xa1567595, 0x4c2f, 0x4574, 0xa6, 0xfa, 0xec, 0xef, 0x91, 0x7b, 0x9a, 0x40);
DEFINE_GUID(IID_IPortableDevice, 0x625e2df8, 0x6392, 0x4cf0, 0x9a, 0xd1, 0x3c, 0xfa, 0x5f, 0x17, 0x77, 0x5c);
DEFINE_GUID(IID_IPortableDeviceContent, 0x6a96ed84, 0x7c73, 0x4480, 0x99, 0x38, 0xbf, 0x5a, 0xf4, 0x77, 0xd4, 0x26);
DEFINE_GUID(IID_IEnumPortableDeviceObjectIDs, 0x10ece955, 0xcf41, 0x4728, 0xbf, 0xa0, 0x41, 0xee, 0xdf, 0x1b, 0xbf,
            0x19);
DEFINE_GUID(IID_IPortableDeviceProperties, 0x7f6d695c, 0x03df, 0x4439, 0xa8, 0x09, 0x59, 0x26, 0x6b, 0xee, 0xe3,
            0xa6);
DEFINE_GUID(IID_IPortableDeviceResources, 0xfd8878ac, 0xd841, 0x4d17, 0x89, 0x1c, 0xe6, 0x82, 0x9c, 0xdb, 0x69, 0x34);
DEFINE_GUID(IID_IPortableDeviceCapabilities, 0x2c8c6dbf, 0xe3dc, 0x4061, 0xbe, 0xcc, 0x85, 0x42, 0xe8, 0x10, 0xd1,
            0x26);
DEFINE_GUID(IID_IPortableDeviceEventCallback, 0xa8792a31, 0xf385, 0x493c, 0xa8, 0x93, 0x40, 0xf6, 0x4e, 0xb4, 0x5f,
            0x6e);
DEFINE_GUID(IID_IPortableDeviceDataStream, 0x88e04db3, 0x1012, 0x4d64, 0x99, 0x96, 0xf7, 0x03, 0xa9, 0x50, 0xd3,
            0xf4);

// Class ids. CLSID_PortableDeviceValues comes with portabledevicetypes.h.
DEFINE_GUID(IID_IPortableDevicePropertiesBulk, 0x482b05c0, 0x4056, 0x44ed, 0x9e, 0x0f, 0x5e, 0x23, 0xb0, 0x09, 0xda,
            0x93);
DEFINE_GUID(IID_IPortableDevicePropertiesBulkCallback, 0x9deacb80, 0x11e8, 0x40e3, 0xa9, 0xf3, 0xf5, 0x57, 0x98, 0x6a,
            0x78, 0x45);

DEFINE_GUID(CLSID_PortableDeviceManager, 0x0af10cec, 0x2ecd, 0x4b92, 0x95, 0x81, 0x34, 0xf6, 0xae, 0x06, 0x37, 0xf3);
DEFINE_GUID(CLSID_PortableDevice, 0x728a21c5, 0x3d9e, 0x48d7, 0x98, 0x10, 0x86, 0x48, 0x48, 0xf0, 0xf4, 0x04);
DEFINE_GUID(CLSID_PortableDeviceFTM, 0xf7c0039a, 0x4762, 0x488a, 0xb4, 0xb3, 0x76, 0x0e, 0xf9, 0xa1, 0xba, 0x9b);
DEFINE_GUID(CLSID_PortableDeviceKeyCollection, 0xde2d022d, 0x2480, 0x43be, 0x97, 0xf0, 0xd1, 0xfa, 0x2c, 0xf9, 0x8f,
            0x4f);
DEFINE_GUID(CLSID_PortableDevicePropVariantCollection, 0x08a99e2f, 0x6d6d, 0x4b80, 0xaf, 0x5a, 0xba, 0xf2, 0xbc,
            0xbe, 0x4c, 0xb9);

// Delete options of IPortableDeviceContent::Delete.
enum DELETE_OBJECT_OPTIONS {
    PORTABLE_DEVICE_DELETE_NO_RECURSION = 0,
    PORTABLE_DEVICE_DELETE_WITH_RECURSION = 1
};

#define WPD_DEVICE_OBJECT_ID L"DEVICE"

// Errors of the portable-device API (facility 42).
#define FACILITY_WPD 42
#define E_WPD_DEVICE_ALREADY_OPENED MAKE_HRESULT(SEVERITY_ERROR, FACILITY_WPD, 1)
#define E_WPD_DEVICE_NOT_OPEN MAKE_HRESULT(SEVERITY_ERROR, FACILITY_WPD, 2)
#define E_WPD_OBJECT_NOT_ATTACHED_TO_DEVICE MAKE_HRESULT(SEVERITY_ERROR, FACILITY_WPD, 4)

// Events.
DEFINE_GUID(WPD_EVENT_OBJECT_ADDED, 0xa726da95, 0xe207, 0x4b02, 0x8d, 0x44, 0xbe, 0xf2, 0xe8, 0x6c, 0xbf, 0xfc);
DEFINE_GUID(WPD_EVENT_OBJECT_REMOVED, 0xbe82ab88, 0xa52c, 0x4823, 0x96, 0xe5, 0xd0, 0x27, 0x26, 0x71, 0xfc, 0x38);
DEFINE_GUID(WPD_EVENT_OBJECT_UPDATED, 0x1445a759, 0x2e01, 0x485d, 0x9f, 0x27, 0xff, 0x07, 0xda, 0xe6, 0x97, 0xab);
DEFINE_GUID(WPD_EVENT_DEVICE_REMOVED, 0xe4cbca1b, 0x6918, 0x48b9, 0x85, 0xee, 0x02, 0xbe, 0x7c, 0x85, 0x0a, 0xf9);

// Content types.
DEFINE_GUID(WPD_CONTENT_TYPE_FUNCTIONAL_OBJECT, 0x99ed0160, 0x17ff, 0x4c44, 0x9d, 0x98, 0x1d, 0x7a, 0x6f, 0x94, 0x19,
            0x21);
DEFINE_GUID(WPD_CONTENT_TYPE_FOLDER, 0x27e2e392, 0xa111, 0x48e0, 0xab, 0x0c, 0xe1, 0x77, 0x05, 0xa0, 0x5f, 0x85);
DEFINE_GUID(WPD_CONTENT_TYPE_GENERIC_FILE, 0x0085e0a6, 0x8d34, 0x45d7, 0xbc, 0x5c, 0x44, 0x7e, 0x59, 0xc7, 0x3d,
            0x48);
DEFINE_GUID(WPD_CONTENT_TYPE_ALL, 0x80e170d2, 0x1055, 0x4a3e, 0xb9, 0x52, 0x82, 0xcc, 0x4f, 0x8a, 0x86, 0x89);

// Object formats.
DEFINE_GUID(WPD_OBJECT_FORMAT_UNSPECIFIED, 0x30000000, 0xae6c, 0x4804, 0x98, 0xba, 0xc5, 0x7b, 0x46, 0x96, 0x5f,
            0xe7);
// Only a parameter of API calls and driver commands ("every format"), never an object's own format.
DEFINE_GUID(WPD_OBJECT_FORMAT_ALL, 0xc1f62eb2, 0x4bb3, 0x479c, 0x9c, 0xfa, 0x05, 0xb5, 0xf3, 0xa5, 0x7b, 0x22);
DEFINE_GUID(WPD_OBJECT_FORMAT_PROPERTIES_ONLY, 0x30010000, 0xae6c, 0x4804, 0x98, 0xba, 0xc5, 0x7b, 0x46, 0x96, 0x5f,
            0xe7);

// Functional categories.
DEFINE_GUID(WPD_FUNCTIONAL_CATEGORY_DEVICE, 0x08ea466b, 0xe3a4, 0x4336, 0xa1, 0xf3, 0xa4, 0x4d, 0x2b, 0x5c, 0x43,
            0x8c);
DEFINE_GUID(WPD_FUNCTIONAL_CATEGORY_STORAGE, 0x23f05bbc, 0x15de, 0x4c2a, 0xa5, 0x5b, 0xa9, 0xaf, 0x5c, 0xe4, 0x12,
            0xef);
DEFINE_GUID(WPD_FUNCTIONAL_CATEGORY_STILL_IMAGE_CAPTURE, 0x613ca327, 0xab93, 0x4900, 0xb4, 0xfa, 0x89, 0x5b, 0xb5,
            0x87, 0x4b, 0x79);
DEFINE_GUID(WPD_FUNCTIONAL_CATEGORY_AUDIO_CAPTURE, 0x3f2a1919, 0xc7c2, 0x4a00, 0x85, 0x5d, 0xf5, 0x7c, 0xf0, 0x6d,
            0xeb, 0xbb);
DEFINE_GUID(WPD_FUNCTIONAL_CATEGORY_VIDEO_CAPTURE, 0xe23e5f6b, 0x7243, 0x43aa, 0x8d, 0xf1, 0x0e, 0xb3, 0xd9, 0x68,
            0xa9, 0x18);
DEFINE_GUID(WPD_FUNCTIONAL_CATEGORY_SMS, 0x0044a0b1, 0xc1e9, 0x4afd, 0xb3, 0x58, 0xa6, 0x2c, 0x61, 0x17, 0xc9, 0xcf);
DEFINE_GUID(WPD_FUNCTIONAL_CATEGORY_RENDERING_INFORMATION, 0x08600ba4, 0xa7ba, 0x4a01, 0xab, 0x0e, 0x00, 0x65, 0xd0,
            0xa3, 0x56, 0xd3);
DEFINE_GUID(WPD_FUNCTIONAL_CATEGORY_ALL, 0x2d8a6512, 0xa74c, 0x448e, 0xba, 0x8a, 0xf4, 0xac, 0x07, 0xc4, 0x93, 0x99);

// Property sets.
DEFINE_GUID(WPD_OBJECT_PROPERTIES_V1, 0xef6b490d, 0x5cd8, 0x437a, 0xaf, 0xfc, 0xda, 0x8b, 0x60, 0xee, 0x4a, 0x3c);
DEFINE_GUID(WPD_FUNCTIONAL_OBJECT_PROPERTIES_V1, 0x8f052d93, 0xabca, 0x4fc5, 0xa5, 0xac, 0xb0, 0x1d, 0xf4, 0xdb, 0xe5,
            0x98);
DEFINE_GUID(WPD_STORAGE_OBJECT_PROPERTIES_V1, 0x01a3057a, 0x74d6, 0x4e80, 0xbe, 0xa7, 0xdc, 0x4c, 0x21, 0x2c, 0xe5,
            0x0a);
DEFINE_GUID(WPD_DEVICE_PROPERTIES_V1, 0x26d4979a, 0xe643, 0x4626, 0x9e, 0x2b, 0x73, 0x6d, 0xc0, 0xc9, 0x2f, 0xdc);
DEFINE_GUID(WPD_CLIENT_INFORMATION_PROPERTIES_V1, 0x204d9f0c, 0x2292, 0x4080, 0x9f, 0x42, 0x40, 0x66, 0x4e, 0x70,
            0xf8, 0x59);
DEFINE_GUID(WPD_EVENT_PROPERTIES_V1, 0x15ab1953, 0xf817, 0x4fef, 0xa9, 0x21, 0x56, 0x76, 0xe8, 0x38, 0xf6, 0xe0);


// Object properties {EF6B490D-5CD8-437A-AFFC-DA8B60EE4A3C}.
#define DORWEX_WPD_OBJECT_KEY(name, pid) \
    DEFINE_PROPERTYKEY(name, 0xef6b490d, 0x5cd8, 0x437a, 0xaf, 0xfc, 0xda, 0x8b, 0x60, 0xee, 0x4a, 0x3c, pid)
DORWEX_WPD_OBJECT_KEY(WPD_OBJECT_ID, 2);
DORWEX_WPD_OBJECT_KEY(WPD_OBJECT_PARENT_ID, 3);
DORWEX_WPD_OBJECT_KEY(WPD_OBJECT_NAME, 4);
DORWEX_WPD_OBJECT_KEY(WPD_OBJECT_PERSISTENT_UNIQUE_ID, 5);
DORWEX_WPD_OBJECT_KEY(WPD_OBJECT_FORMAT, 6);
DORWEX_WPD_OBJECT_KEY(WPD_OBJECT_CONTENT_TYPE, 7);
DORWEX_WPD_OBJECT_KEY(WPD_OBJECT_ISHIDDEN, 9);
DORWEX_WPD_OBJECT_KEY(WPD_OBJECT_ISSYSTEM, 10);
DORWEX_WPD_OBJECT_KEY(WPD_OBJECT_SIZE, 11);
DORWEX_WPD_OBJECT_KEY(WPD_OBJECT_ORIGINAL_FILE_NAME, 12);
DORWEX_WPD_OBJECT_KEY(WPD_OBJECT_DATE_CREATED, 18);
DORWEX_WPD_OBJECT_KEY(WPD_OBJECT_DATE_MODIFIED, 19);

// Functional object properties {8F052D93-ABCA-4FC5-A5AC-B01DF4DBE598}.
DEFINE_PROPERTYKEY(WPD_FUNCTIONAL_OBJECT_CATEGORY, 0x8f052d93, 0xabca, 0x4fc5, 0xa5, 0xac, 0xb0, 0x1d, 0xf4, 0xdb, 0xe5,
               0x98, 2);

// Storage properties {01A3057A-74D6-4E80-BEA7-DC4C212CE50A}.
#define DORWEX_WPD_STORAGE_KEY(name, pid) \
    DEFINE_PROPERTYKEY(name, 0x01a3057a, 0x74d6, 0x4e80, 0xbe, 0xa7, 0xdc, 0x4c, 0x21, 0x2c, 0xe5, 0x0a, pid)
DORWEX_WPD_STORAGE_KEY(WPD_STORAGE_TYPE, 2);
DORWEX_WPD_STORAGE_KEY(WPD_STORAGE_FILE_SYSTEM_TYPE, 3);
DORWEX_WPD_STORAGE_KEY(WPD_STORAGE_CAPACITY, 4);
DORWEX_WPD_STORAGE_KEY(WPD_STORAGE_FREE_SPACE_IN_BYTES, 5);
DORWEX_WPD_STORAGE_KEY(WPD_STORAGE_FREE_SPACE_IN_OBJECTS, 6);
DORWEX_WPD_STORAGE_KEY(WPD_STORAGE_DESCRIPTION, 7);
DORWEX_WPD_STORAGE_KEY(WPD_STORAGE_SERIAL_NUMBER, 8);
DORWEX_WPD_STORAGE_KEY(WPD_STORAGE_MAX_OBJECT_SIZE, 9);
DORWEX_WPD_STORAGE_KEY(WPD_STORAGE_CAPACITY_IN_OBJECTS, 10);
DORWEX_WPD_STORAGE_KEY(WPD_STORAGE_ACCESS_CAPABILITY, 11);

// Device properties {26D4979A-E643-4626-9E2B-736DC0C92FDC}.
#define DORWEX_WPD_DEVICE_KEY(name, pid) \
    DEFINE_PROPERTYKEY(name, 0x26d4979a, 0xe643, 0x4626, 0x9e, 0x2b, 0x73, 0x6d, 0xc0, 0xc9, 0x2f, 0xdc, pid)
DORWEX_WPD_DEVICE_KEY(WPD_DEVICE_SYNC_PARTNER, 2);
DORWEX_WPD_DEVICE_KEY(WPD_DEVICE_FIRMWARE_VERSION, 3);
DORWEX_WPD_DEVICE_KEY(WPD_DEVICE_POWER_LEVEL, 4);
DORWEX_WPD_DEVICE_KEY(WPD_DEVICE_POWER_SOURCE, 5);
DORWEX_WPD_DEVICE_KEY(WPD_DEVICE_PROTOCOL, 6);
DORWEX_WPD_DEVICE_KEY(WPD_DEVICE_MANUFACTURER, 7);
DORWEX_WPD_DEVICE_KEY(WPD_DEVICE_MODEL, 8);
DORWEX_WPD_DEVICE_KEY(WPD_DEVICE_SERIAL_NUMBER, 9);
DORWEX_WPD_DEVICE_KEY(WPD_DEVICE_FRIENDLY_NAME, 12);
DORWEX_WPD_DEVICE_KEY(WPD_DEVICE_TYPE, 15);
DORWEX_WPD_DEVICE_KEY(WPD_DEVICE_NETWORK_IDENTIFIER, 16);

// Client information {204D9F0C-2292-4080-9F42-40664E70F859}.
#define DORWEX_WPD_CLIENT_KEY(name, pid) \
    DEFINE_PROPERTYKEY(name, 0x204d9f0c, 0x2292, 0x4080, 0x9f, 0x42, 0x40, 0x66, 0x4e, 0x70, 0xf8, 0x59, pid)
DORWEX_WPD_CLIENT_KEY(WPD_CLIENT_NAME, 2);
DORWEX_WPD_CLIENT_KEY(WPD_CLIENT_MAJOR_VERSION, 3);
DORWEX_WPD_CLIENT_KEY(WPD_CLIENT_MINOR_VERSION, 4);
DORWEX_WPD_CLIENT_KEY(WPD_CLIENT_REVISION, 5);
DORWEX_WPD_CLIENT_KEY(WPD_CLIENT_SECURITY_QUALITY_OF_SERVICE, 8);
DORWEX_WPD_CLIENT_KEY(WPD_CLIENT_DESIRED_ACCESS, 9);
DORWEX_WPD_CLIENT_KEY(WPD_CLIENT_SHARE_MODE, 10);

// Event parameters {15AB1953-F817-4FEF-A921-5676E838F6E0}.
#define DORWEX_WPD_EVENT_KEY(name, pid) \
    DEFINE_PROPERTYKEY(name, 0x15ab1953, 0xf817, 0x4fef, 0xa9, 0x21, 0x56, 0x76, 0xe8, 0x38, 0xf6, 0xe0, pid)
DORWEX_WPD_EVENT_KEY(WPD_EVENT_PARAMETER_PNP_DEVICE_ID, 2);
DORWEX_WPD_EVENT_KEY(WPD_EVENT_PARAMETER_EVENT_ID, 3);

// The default resource (an object's data) {E81E79BE-34F0-41BF-B53F-F1A06AE87842}.
DEFINE_PROPERTYKEY(WPD_RESOURCE_DEFAULT, 0xe81e79be, 0x34f0, 0x41bf, 0xb5, 0x3f, 0xf1, 0xa0, 0x6a, 0xe8, 0x78, 0x42, 0);

#undef DORWEX_WPD_OBJECT_KEY
#undef DORWEX_WPD_STORAGE_KEY
#undef DORWEX_WPD_DEVICE_KEY
#undef DORWEX_WPD_CLIENT_KEY
#undef DORWEX_WPD_EVENT_KEY

#endif
