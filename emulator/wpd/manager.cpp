// IPortableDeviceManager: the list of attached devices and the texts the manager reports for each.
#include <cstring>

#include "collections.h"
#include "emulated_api.h"
#include "emulator_state.h"
#include "text.h"

namespace dorwex::emulator {

namespace {

// The size-query convention of the manager's text calls: a null buffer asks for the length (terminator
// included); an empty text has length 0; a short buffer gets ERROR_INSUFFICIENT_BUFFER and the length.
HRESULT ReturnText(const std::wstring& text, WCHAR* buffer, DWORD* count) {
    if (count == nullptr) {
        return E_POINTER;
    }
    const DWORD needed = text.empty() ? 0 : static_cast<DWORD>(text.size() + 1);
    if (buffer == nullptr) {
        *count = needed;
        return S_OK;
    }
    if (*count < needed) {
        *count = needed;
        return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
    }
    if (needed > 0) {
        std::memcpy(buffer, text.c_str(), needed * sizeof(WCHAR));
    } else if (*count > 0) {
        buffer[0] = L'\0';
    }
    *count = needed;
    return S_OK;
}

class PortableDeviceManager final : public ComObject<IPortableDeviceManager> {
public:
    PortableDeviceManager() : m_devices(EmulatorState::Get().Scan()) {}

    HRESULT STDMETHODCALLTYPE GetDevices(LPWSTR* pPnPDeviceIDs, DWORD* pcPnPDeviceIDs) override {
        if (pcPnPDeviceIDs == nullptr) {
            return E_POINTER;
        }
        if (pPnPDeviceIDs == nullptr) {
            *pcPnPDeviceIDs = static_cast<DWORD>(m_devices.size());
            return S_OK;
        }
        DWORD filled = 0;
        for (const auto& device : m_devices) {
            if (filled == *pcPnPDeviceIDs) {
                break;
            }
            pPnPDeviceIDs[filled] = CoTaskStrDup(device->Id().c_str());
            if (pPnPDeviceIDs[filled] == nullptr) {
                for (DWORD i = 0; i < filled; ++i) {
                    CoTaskMemFree(pPnPDeviceIDs[i]);
                }
                return E_OUTOFMEMORY;
            }
            ++filled;
        }
        *pcPnPDeviceIDs = filled;
        return filled < m_devices.size() ? S_FALSE : S_OK;  // the buffer was too small for the whole list
    }

    HRESULT STDMETHODCALLTYPE RefreshDeviceList() override {
        m_devices = EmulatorState::Get().Scan();
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE GetDeviceFriendlyName(LPCWSTR id, WCHAR* buffer, DWORD* count) override {
        return Text(id, "GetDeviceFriendlyName", &EmulatedDevice::FriendlyName, buffer, count);
    }
    HRESULT STDMETHODCALLTYPE GetDeviceDescription(LPCWSTR id, WCHAR* buffer, DWORD* count) override {
        return Text(id, "GetDeviceDescription", &EmulatedDevice::DeviceDescriptionText, buffer, count);
    }
    HRESULT STDMETHODCALLTYPE GetDeviceManufacturer(LPCWSTR id, WCHAR* buffer, DWORD* count) override {
        return Text(id, "GetDeviceManufacturer", &EmulatedDevice::Manufacturer, buffer, count);
    }

    // Device registry properties, REG_SZ, sized in bytes.
    HRESULT STDMETHODCALLTYPE GetDeviceProperty(LPCWSTR id, LPCWSTR name, BYTE* data, DWORD* bytes,
                                                DWORD* type) override {
        if (id == nullptr || name == nullptr || bytes == nullptr || type == nullptr) {
            return E_POINTER;
        }
        const auto device = EmulatorState::Get().Find(id);
        if (!device) {
            return kNotFound;
        }
        const HRESULT fault = device->Fault("GetDeviceProperty");
        if (FAILED(fault)) {
            return fault;
        }
        const std::wstring value = device->DevicePropertyText(Narrow(name));
        if (value.empty()) {
            return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
        }
        const DWORD needed = static_cast<DWORD>((value.size() + 1) * sizeof(WCHAR));
        *type = REG_SZ;
        if (data == nullptr) {
            *bytes = needed;
            return S_OK;
        }
        if (*bytes < needed) {
            *bytes = needed;
            return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
        }
        std::memcpy(data, value.c_str(), needed);
        *bytes = needed;
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE GetPrivateDevices(LPWSTR*, DWORD* count) override {
        if (count == nullptr) {
            return E_POINTER;
        }
        *count = 0;
        return S_OK;
    }

private:
    HRESULT Text(LPCWSTR id, const char* call, const std::wstring& (EmulatedDevice::*field)() const, WCHAR* buffer,
                 DWORD* count) {
        if (id == nullptr) {
            return E_POINTER;
        }
        const auto device = EmulatorState::Get().Find(id);
        if (!device || device->Removed()) {
            return kNotFound;
        }
        const HRESULT fault = device->Fault(call);
        if (FAILED(fault)) {
            return fault;
        }
        return ReturnText(((*device).*field)(), buffer, count);
    }

    std::vector<std::shared_ptr<EmulatedDevice>> m_devices;  // the list as of creation or the last refresh
};

}  // namespace

HRESULT CreatePortableDeviceManager(REFIID riid, void** ppv) {
    return CreateComObject<PortableDeviceManager>(riid, ppv);
}

}  // namespace dorwex::emulator
