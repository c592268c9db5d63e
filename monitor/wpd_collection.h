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
#include "device_registry.h"

class CDorWEXWMIWPDCore;

class CDorWEXWPDCollection final : public IDorWEXDeviceRegistry {
public:

    explicit CDorWEXWPDCollection(CDorWEXWMIWPDCore* pCore_in);
    ~CDorWEXWPDCollection();
    CDorWEXWPDCollection(const CDorWEXWPDCollection&) = delete;
    CDorWEXWPDCollection& operator=(const CDorWEXWPDCollection&) = delete;

    HRESULT AddWPD(const wchar_t* pwcharDeviceId_in) override;
    int RemoveWPD(const wchar_t* pwcharDeviceId_in) override;
    DevicePtr FindWPDObjectById(const wchar_t* pwcharDeviceId_in) override;
    DevicePtr FindWPDObject(const wchar_t* pwcharDeviceOrDiskId_in, const wchar_t* pwcharObjectStoragePath_in,
                            bool* pboolAmbiguous_out = nullptr) override;
    std::vector<std::pair<std::wstring, DevicePtr>> Snapshot() override;
    void SetDeviceTypeCounter(const DevicePtr& pDevice_in);

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
