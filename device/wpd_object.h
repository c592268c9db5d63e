// One attached portable device as the provider sees it: the open WPD session, the texts that identify it,
// its manufacturer class, its storages, its Plug and Play view and its event callback.
#pragma once

#include <windows.h>
#include <comdef.h>
#include <wrl/client.h>

#include <memory>

#include "../monitor/pnp_topology.h"
#include "companion_record.h"
#include "manufacturer_class.h"
#include "portable_device_api.h"

class CDorWEXWMIWPDCore;
class CDorWEXWPDObjectEvents;

class CDorWEXWPDObject {
public:
    using Manufacturer = dorwex::Manufacturer;

    explicit CDorWEXWPDObject(CDorWEXWMIWPDCore* pCore_in);
    ~CDorWEXWPDObject();
    CDorWEXWPDObject(const CDorWEXWPDObject&) = delete;
    CDorWEXWPDObject& operator=(const CDorWEXWPDObject&) = delete;

    // Opens the device and fills the identity; a null id returns S_OK and does nothing.
    HRESULT InitializeWPD(const wchar_t* pwcharDeviceId_in);
    // Unregisters the event callback and closes the session.
    void Terminate();

    // Identity steps, in the order InitializeWPD runs them.
    HRESULT GetManufacturer();
    HRESULT GetFriendlyName();
    HRESULT GetDescription();
    HRESULT GetAdditionalProperties();
    HRESULT GetFunctionalCategories();
    void FinalizeSerialNumbersToUse();

    _bstr_t m_bstr_tDeviceId;
    _bstr_t m_bstr_tDeviceObjectId;
    _bstr_t m_bstr_tFriendlyName;
    _bstr_t m_bstr_tManufacturer;
    _bstr_t m_bstr_tDescription;
    _bstr_t m_bstr_tSerialNumber;
    _bstr_t m_bstr_tExtraProperties;
    Manufacturer m_eManufacturer = Manufacturer::UNKNOWN;
    bool m_bFunctionalCategoryStorage = false;
    bool m_bFunctionalCategoryStillImageCapture = false;
    bool m_bFunctionalCategoryAudioCapture = false;
    bool m_bFunctionalCategorySMS = false;
    bool m_bFunctionalCategoryRenderingInformation = false;
    _bstr_t m_bstr_tDisk1Name;
    _bstr_t m_bstr_tDisk2Name;
    _bstr_t m_bstr_tDisk1ObjectId;
    _bstr_t m_bstr_tDisk2ObjectId;
    _bstr_t m_bstr_tDisk1PersistentUniqueId;  // null, not empty, until a storage fills it
    _bstr_t m_bstr_tDisk2PersistentUniqueId;
    _bstr_t m_bstr_tDisk1Description;
    _bstr_t m_bstr_tDisk2Description;
    _bstr_t m_bstr_tWPDSerialNumber;
    _bstr_t m_bstr_tUSBSerialNumber;
    _bstr_t m_bstr_tDiskText3;
    _bstr_t m_bstr_tDiskText4;
    Microsoft::WRL::ComPtr<IPortableDeviceManager> m_pIPortableDeviceManager;
    Microsoft::WRL::ComPtr<IPortableDevice> m_pIPortableDevice;
    Microsoft::WRL::ComPtr<IPortableDeviceValues> m_pIPortableDeviceValuesClientInfo;
    CDorWEXWMIWPDCore* m_pCore;
    CDorWEXWPDObjectEvents* m_pEvents = nullptr;  // owns one reference
    CDorWEXWPDObjectInWin32 m_Win32;
    Microsoft::WRL::ComPtr<IUnknown> m_IdorWEXWPDAppleCOMPtr;
    std::unique_ptr<dorwex::CompanionRecord> m_pCompanionRecord;
    LONG m_longReserved = 0;

private:
    void SetClientInformation();
    void ReleaseEvents();
    // One storage's properties into the Disk1 or Disk2 members (index 0 or 1) and the summary text.
    void ReadStorage(IPortableDeviceProperties* pIPortableDeviceProperties_in,
                     IPortableDeviceKeyCollection* pIPortableDeviceKeyCollection_in, const wchar_t* pwcharObjectId_in,
                     int intStorageIndex_in);
    HRESULT ReadStorages(IPortableDevicePropVariantCollection* pIPortableDevicePropVariantCollection_in);
    HRESULT ReadAppleIdentity();
    // hresultRunning_in is what InitializeWPD had so far; it stays the result when the device is no BlackBerry.
    HRESULT ReadBlackBerryIdentity(HRESULT hresultRunning_in);
};
