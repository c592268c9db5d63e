// A device registry and a device that record what the companion channels ask of them, so that the channels
// can be driven without a monitor or an emulated device stack behind them.
#pragma once

#include <windows.h>

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "device/wpd_device.h"
#include "monitor/device_registry.h"

class FakeDevice : public IDorWEXWPDDevice {
public:
    struct WriteEvent {
        std::wstring path;
        std::wstring fileName;
        std::wstring objectInfo;
        DWORD number;
    };
    struct Credentials {
        std::wstring share;
        std::wstring user;
        std::wstring password;
    };

    HRESULT InitializeWPD(const wchar_t*) override { return S_OK; }
    HRESULT InitializeForEject(const wchar_t*) override { return S_OK; }
    LONG EjectDevice() override { return 0; }
    void Terminate() override {}
    HRESULT GetManufacturer() override { return S_OK; }
    int SimulateWPDWriteEvent(const wchar_t* path, const wchar_t* fileName, const wchar_t* objectInfo,
                              DWORD number) override {
        std::lock_guard<std::mutex> guard(mutex);
        writes.push_back({Text(path), Text(fileName), Text(objectInfo), number});
        return 1;
    }
    const wchar_t* RefusedStoragePath(const wchar_t*, bool) const override { return nullptr; }
    _bstr_t EnumerateDevicePath(const wchar_t*, ULONG) override { return L""; }
    _bstr_t GetStorageObjectProperty(const wchar_t*, const wchar_t*) override { return L""; }
    _bstr_t CopyFileToDevice(const wchar_t*, const wchar_t*, const wchar_t*, DWORD) override { return L"0"; }
    HRESULT CopyFileFromDevice(const wchar_t*, const wchar_t*) override { return E_FAIL; }
    int DeleteFileFromDevice(const wchar_t*, const wchar_t*) override { return 0; }
    HRESULT CreateFolderOnDevice(const wchar_t*, const wchar_t*) override { return E_FAIL; }
    int MoveFileFromDevice(const wchar_t*, const wchar_t*) override { return 0; }
    std::shared_ptr<const DeviceIdentity> Identity() const override {
        std::lock_guard<std::mutex> guard(mutex);
        return identity;
    }
    void UpdateIdentity(const std::function<void(DeviceIdentity&)>& change) override {
        std::lock_guard<std::mutex> guard(mutex);
        auto changed = std::make_shared<DeviceIdentity>(*identity);
        change(*changed);
        identity = changed;
    }
    const CDorWEXWPDObjectInWin32& Win32View() const override { return view; }
    const dorwex::CompanionRecord* CompanionRecord() const override { return nullptr; }
    bool HasSession() const override { return false; }
    bool ConnectBlackBerryShare(const wchar_t* share, const wchar_t* user, const wchar_t* password,
                                DWORD& result) override {
        std::lock_guard<std::mutex> guard(mutex);
        connects.push_back({Text(share), Text(user), Text(password)});
        result = connectResult;
        return hasShare;
    }
    bool HasBlackBerryShare() const override { return hasShare; }
    void DisconnectBlackBerryShare() override { ++disconnects; }

    std::vector<WriteEvent> Writes() {
        std::lock_guard<std::mutex> guard(mutex);
        return writes;
    }
    std::vector<Credentials> Connects() {
        std::lock_guard<std::mutex> guard(mutex);
        return connects;
    }

    bool hasShare = false;
    DWORD connectResult = 0;
    int disconnects = 0;
    std::shared_ptr<const DeviceIdentity> identity = std::make_shared<const DeviceIdentity>();

private:
    static std::wstring Text(const wchar_t* text) { return text != nullptr ? text : L"<null>"; }
    mutable std::mutex mutex;
    CDorWEXWPDObjectInWin32 view;
    std::vector<WriteEvent> writes;
    std::vector<Credentials> connects;
};

// Answers every lookup with one device, or with none, and records the arguments of each.
class FakeRegistry : public IDorWEXDeviceRegistry {
public:
    HRESULT AddWPD(const wchar_t*) override { return E_NOTIMPL; }
    int RemoveWPD(const wchar_t*) override { return 0; }
    DevicePtr FindWPDObjectById(const wchar_t*) override { return device; }
    DevicePtr FindWPDObject(const wchar_t* deviceOrDiskId, const wchar_t* storagePath, bool* = nullptr) override {
        std::lock_guard<std::mutex> guard(mutex);
        lookups.emplace_back(deviceOrDiskId != nullptr ? deviceOrDiskId : L"<null>",
                             storagePath != nullptr ? storagePath : L"<null>");
        return device;
    }
    std::vector<std::pair<std::wstring, DevicePtr>> Snapshot() override { return {}; }

    std::vector<std::pair<std::wstring, std::wstring>> Lookups() {
        std::lock_guard<std::mutex> guard(mutex);
        return lookups;
    }

    std::shared_ptr<FakeDevice> device;

private:
    std::mutex mutex;
    std::vector<std::pair<std::wstring, std::wstring>> lookups;
};
