// The Apple companion double: reaches an emulated device, found by its WPD serial number, through the
// directories that back its storages. Identity values come from the description's [registry] section;
// a [fault] entry named after a method ("AppleCopyFileToDevice", ...) makes that method fail, one for
// "AppleGetDeviceAbsolutePath" makes the path answer a number instead of a text, and one for
// "AppleGetDeviceAbsolutePathEmpty" an empty text (a companion that knows no device path for it).
#include <objbase.h>

#include <string>

#include "device/apple_companion.h"
#include "emulated_api.h"
#include "emulator/common/com_object.h"
#include "emulator_state.h"
#include "text.h"

namespace dorwex::emulator {

namespace {

std::wstring Text(BSTR text) {
    return text != nullptr ? std::wstring(text, SysStringLen(text)) : std::wstring();
}

void SetNumber(VARIANT* result, LONG value) {
    VariantInit(result);
    result->vt = VT_I4;
    result->lVal = value;
}

HRESULT SetText(VARIANT* result, const std::wstring& text) {
    VariantInit(result);
    result->bstrVal = SysAllocStringLen(text.c_str(), static_cast<UINT>(text.size()));
    if (result->bstrVal == nullptr) {
        return E_OUTOFMEMORY;
    }
    result->vt = VT_BSTR;
    return S_OK;
}

// A device and the local path a storage path names on it: the first component is taken for a storage name
// when a storage has that name, otherwise the path lies in the first storage.
struct Place {
    std::shared_ptr<EmulatedDevice> device;
    std::wstring relative;  // inside the storage, without leading "\"
    std::wstring local;     // the file or folder in the storage's directory
};

bool Resolve(BSTR serialNumber, BSTR storagePath, Place& place) {
    const std::wstring serial = Text(serialNumber);
    if (serial.empty()) {
        return false;
    }
    for (const auto& device : EmulatorState::Get().Scan()) {
        const auto found = device->Description().properties.find("WPD_DEVICE_SERIAL_NUMBER");
        if (device->Removed() || found == device->Description().properties.end() || Widen(found->second) != serial ||
            device->Description().storages.empty()) {
            continue;
        }
        std::wstring path = Text(storagePath);
        int storage = 0;
        const std::wstring first = path.substr(0, path.find(L'\\'));
        for (size_t i = 0; i < device->Description().storages.size(); ++i) {
            if (!first.empty() && _wcsicmp(Widen(device->Description().storages[i].name).c_str(), first.c_str()) == 0) {
                storage = static_cast<int>(i);
                path = path.size() > first.size() ? path.substr(first.size() + 1) : std::wstring();
                break;
            }
        }
        while (!path.empty() && path.front() == L'\\') {
            path.erase(0, 1);
        }
        if (path.find(L"..") != std::wstring::npos) {
            return false;  // nothing outside the storage
        }
        place.device = device;
        place.relative = path;
        place.local = device->StoragePath(storage) + (path.empty() ? L"" : L"\\" + path);
        return true;
    }
    return false;
}

// The place a call works on, and the failure its [fault] entry asks for: S_OK when the call goes ahead.
HRESULT Prepare(BSTR serialNumber, BSTR storagePath, VARIANT* result, const char* call, Place& place) {
    if (result == nullptr || !Resolve(serialNumber, storagePath, place)) {
        return E_INVALIDARG;
    }
    return place.device->Fault(call);
}

std::wstring FileNameOf(const std::wstring& path) {
    const size_t separator = path.find_last_of(L"\\/");
    return separator == std::wstring::npos ? path : path.substr(separator + 1);
}

class AppleCompanion final : public ComObject<IdorWEXWPDApple> {
public:
    HRESULT STDMETHODCALLTYPE GetIdentityValue(BSTR serialNumber, BSTR name, VARIANT* result) override {
        Place place;
        if (const HRESULT prepared = Prepare(serialNumber, nullptr, result, "AppleGetIdentityValue", place);
            FAILED(prepared)) {
            return prepared;
        }
        const std::wstring which = Text(name);
        return SetText(result, which == L"SerialNumber" ? Text(serialNumber)
                                                       : place.device->DevicePropertyText(Narrow(which)));
    }

    HRESULT STDMETHODCALLTYPE CopyFileToDevice(BSTR serialNumber, BSTR storagePath, BSTR localFile, BSTR writeToken,
                                               VARIANT* result) override {
        Place place;
        if (Text(writeToken).empty()) {
            return E_INVALIDARG;
        }
        if (const HRESULT prepared = Prepare(serialNumber, storagePath, result, "AppleCopyFileToDevice", place);
            FAILED(prepared)) {
            return prepared;
        }
        const std::wstring target = place.local + L"\\" + FileNameOf(Text(localFile));
        SetNumber(result, CopyFileW(Text(localFile).c_str(), target.c_str(), TRUE) ? 1 : 0);
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE CopyFileFromDevice(BSTR serialNumber, BSTR storagePath, BSTR localFile,
                                                 VARIANT* result) override {
        Place place;
        if (const HRESULT prepared = Prepare(serialNumber, storagePath, result, "AppleCopyFileFromDevice", place);
            FAILED(prepared)) {
            return prepared;
        }
        VariantInit(result);
        result->vt = VT_BOOL;
        result->boolVal = CopyFileW(place.local.c_str(), Text(localFile).c_str(), FALSE) ? VARIANT_TRUE : VARIANT_FALSE;
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE DeleteFileFromDevice(BSTR serialNumber, BSTR storagePath, VARIANT* result) override {
        Place place;
        if (const HRESULT prepared = Prepare(serialNumber, storagePath, result, "AppleDeleteFileFromDevice", place);
            FAILED(prepared)) {
            return prepared;
        }
        SetNumber(result, DeleteFileW(place.local.c_str()) ? 1 : 0);
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE CreateFolderOnDevice(BSTR serialNumber, BSTR parentPath, BSTR folderName,
                                                   VARIANT* result) override {
        Place place;
        const std::wstring name = Text(folderName);
        if (name.empty() || name.find_first_of(L"\\/") != std::wstring::npos || name == L"..") {
            return E_INVALIDARG;
        }
        if (const HRESULT prepared = Prepare(serialNumber, parentPath, result, "AppleCreateFolderOnDevice", place);
            FAILED(prepared)) {
            return prepared;
        }
        SetNumber(result, CreateDirectoryW((place.local + L"\\" + name).c_str(), nullptr) ? 1 : 0);
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE EnumerateDevicePath(BSTR serialNumber, BSTR storagePath, ULONG contentType,
                                                  VARIANT* result) override {
        Place place;
        if (const HRESULT prepared = Prepare(serialNumber, storagePath, result, "AppleEnumerateDevicePath", place);
            FAILED(prepared)) {
            return prepared;
        }
        std::wstring listing;
        WIN32_FIND_DATAW found = {};
        HANDLE search = FindFirstFileW((place.local + L"\\*").c_str(), &found);
        for (BOOL more = search != INVALID_HANDLE_VALUE; more; more = FindNextFileW(search, &found)) {
            const std::wstring name = found.cFileName;
            const bool folder = (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
            if (name == L"." || name == L".." || (contentType == 1 && !folder) || (contentType == 2 && folder)) {
                continue;
            }
            const std::wstring id = place.relative.empty() ? name : place.relative + L"\\" + name;
            listing += name + L"@" + id + (folder ? L"@DIR~" : L"@FILE~");
        }
        if (search != INVALID_HANDLE_VALUE) {
            FindClose(search);
        }
        return SetText(result, listing);
    }

    HRESULT STDMETHODCALLTYPE GetDeviceAbsolutePath(BSTR serialNumber, BSTR storagePath, VARIANT* result) override {
        Place place;
        if (result == nullptr || !Resolve(serialNumber, storagePath, place)) {
            return E_INVALIDARG;
        }
        if (FAILED(place.device->Fault("AppleGetDeviceAbsolutePath"))) {
            SetNumber(result, 0);  // an answer that is no text
            return S_OK;
        }
        if (FAILED(place.device->Fault("AppleGetDeviceAbsolutePathEmpty"))) {
            return SetText(result, std::wstring());
        }
        std::wstring path = L"/private/var/mobile/Media/" + place.relative;
        for (auto& c : path) {
            if (c == L'\\') {
                c = L'/';
            }
        }
        return SetText(result, path);
    }
};

}  // namespace

HRESULT CreateAppleCompanion(REFIID riid, void** ppv) {
    return CreateComObject<AppleCompanion>(riid, ppv);
}

}  // namespace dorwex::emulator
