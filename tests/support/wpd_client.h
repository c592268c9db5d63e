// A client of the portable-device API in the test's own process, as Explorer is one: it opens a device
// through the (emulated) runtime and adds, names and removes objects the way any application does.
#pragma once

#include <windows.h>
#include <wrl/client.h>

#include <string>

#include "device/portable_device_api.h"

class WpdClient {
public:
    // Opens the device; Opened() says whether that worked.
    explicit WpdClient(const std::wstring& deviceId);
    bool Opened() const { return m_content != nullptr; }
    IPortableDevice* Device() const { return m_device.Get(); }

    // The new object's id, or empty when the stack refused.
    std::wstring CreateFolder(const std::wstring& parentId, const std::wstring& name);
    std::wstring CreateFile(const std::wstring& parentId, const std::wstring& name, const std::string& bytes);
    HRESULT Delete(const std::wstring& objectId);
    // WPD_OBJECT_NAME of an object, or empty when the stack knows no such object.
    std::wstring Name(const std::wstring& objectId);

private:
    Microsoft::WRL::ComPtr<IPortableDevice> m_device;
    Microsoft::WRL::ComPtr<IPortableDeviceContent> m_content;
};
