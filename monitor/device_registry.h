// The attached devices as the rest of the provider uses them: find the one a request means, add one, drop
// one. A device that was found stays valid for whoever holds it, even after it is removed.
#pragma once

#include <windows.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

class IDorWEXWPDDevice;

class IDorWEXDeviceRegistry {
public:
    using DevicePtr = std::shared_ptr<IDorWEXWPDDevice>;

    // Opens and adds a device; the device's failure when it is not taken on, 0 for a null id.
    virtual HRESULT AddWPD(const wchar_t* pwcharDeviceId_in) = 0;
    // Terminates and drops a device; returns 0.
    virtual int RemoveWPD(const wchar_t* pwcharDeviceId_in) = 0;
    virtual DevicePtr FindWPDObjectById(const wchar_t* pwcharDeviceId_in) = 0;
    // Either argument may be null. The storage path's first component (a storage name) finds a device only
    // when no device id is given. A lookup that finds more than one device finds none; then
    // *pboolAmbiguous_out (when given) is set.
    virtual DevicePtr FindWPDObject(const wchar_t* pwcharDeviceOrDiskId_in, const wchar_t* pwcharObjectStoragePath_in,
                                    bool* pboolAmbiguous_out = nullptr) = 0;
    // The devices in key order, for enumeration.
    virtual std::vector<std::pair<std::wstring, DevicePtr>> Snapshot() = 0;

protected:
    ~IDorWEXDeviceRegistry() = default;
};
