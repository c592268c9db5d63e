// What identifies an attached device and its storages, as the provider publishes it. A device object
// keeps one behind a lock and replaces it whole on every change, so a reader holds a snapshot that does
// not change under it (a BlackBerry's second storage, for one, is learnt from its pipe while WMI threads
// read the device).
#pragma once

#include <comdef.h>

#include "manufacturer_class.h"

struct DeviceIdentity {
    DeviceIdentity() {
        // Empty, not null: length 0 is the test for "unknown" everywhere. The persistent unique ids stay null.
        for (_bstr_t* l_pbstr_t :
             {&m_bstr_tDeviceId, &m_bstr_tDeviceObjectId, &m_bstr_tFriendlyName, &m_bstr_tManufacturer,
              &m_bstr_tDescription, &m_bstr_tSerialNumber, &m_bstr_tExtraProperties, &m_bstr_tDisk1Name,
              &m_bstr_tDisk2Name, &m_bstr_tDisk1ObjectId, &m_bstr_tDisk2ObjectId, &m_bstr_tDisk1Description,
              &m_bstr_tDisk2Description, &m_bstr_tWPDSerialNumber, &m_bstr_tUSBSerialNumber, &m_bstr_tDiskText3,
              &m_bstr_tDiskText4}) {
            *l_pbstr_t = L"";
        }
    }

    _bstr_t m_bstr_tDeviceId;
    _bstr_t m_bstr_tDeviceObjectId;
    _bstr_t m_bstr_tFriendlyName;
    _bstr_t m_bstr_tManufacturer;
    _bstr_t m_bstr_tDescription;
    _bstr_t m_bstr_tSerialNumber;
    _bstr_t m_bstr_tExtraProperties;
    dorwex::Manufacturer m_eManufacturer = dorwex::Manufacturer::UNKNOWN;
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
    // What the Apple companion tells of an Apple device.
    _bstr_t m_bstr_tBluetoothAddress;
    _bstr_t m_bstr_tEthernetAddress;
    _bstr_t m_bstr_tWiFiAddress;
};
