// The attached portable devices, one device object each, and the rules for finding the one a request
// means.
//
// WMI calls arrive on many threads at once, so the map is guarded by a lock, and device objects are shared:
// a device found by a lookup stays valid for whoever holds it, even if the device is removed meanwhile.
// No lock is held while a device object talks to the device or while companion monitoring starts or stops.
#pragma once

#include <windows.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "../device/manufacturer_class.h"

class CDorWEXWMIWPDCore;
class CDorWEXWPDObject;

class CDorWEXWPDCollection {
public:
    using DevicePtr = std::shared_ptr<CDorWEXWPDObject>;

    explicit CDorWEXWPDCollection(CDorWEXWMIWPDCore* pCore_in);
    ~CDorWEXWPDCollection();
    CDorWEXWPDCollection(const CDorWEXWPDCollection&) = delete;
    CDorWEXWPDCollection& operator=(const CDorWEXWPDCollection&) = delete;

    // Opens and adds a device; the device's failure when it is not taken on, 0 for a null id.
    HRESULT AddWPD(const wchar_t* pwcharDeviceId_in);
    // Terminates and drops a device; returns 0.
    int RemoveWPD(const wchar_t* pwcharDeviceId_in);
    DevicePtr FindWPDObjectById(const wchar_t* pwcharDeviceId_in);
    // Either argument may be null.
    DevicePtr FindWPDObject(const wchar_t* pwcharDeviceOrDiskId_in, const wchar_t* pwcharObjectStoragePath_in);
    void SetDeviceTypeCounter(const DevicePtr& pDevice_in);

    // The devices in key order, for enumeration.
    std::vector<std::pair<std::wstring, DevicePtr>> Snapshot();
    size_t Count();
    LONG GetAppleCount();
    LONG GetBlackBerryCount();

private:
    using DeviceMap = std::map<std::wstring, DevicePtr>;

    // Traces the transition, then starts or stops the companion of that maker to match its count.
    void SyncCompanionMonitoring(dorwex::Manufacturer eManufacturer_in, const wchar_t* pwcharTrace_in);

    std::mutex m_mutexDevices;
    DeviceMap m_ActiveWpdDevicesMap;  // upper-case device id -> device, in code-unit order
    CDorWEXWMIWPDCore* m_pCore;
    LONG m_longAppleCount = 0;
    LONG m_longBlackBerryCount = 0;
    std::mutex m_mutexCompanionMonitoring;  // one start or stop of a companion at a time
};
