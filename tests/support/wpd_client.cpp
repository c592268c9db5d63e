#include "support/wpd_client.h"

#include "common/com_memory.h"

using Microsoft::WRL::ComPtr;

namespace {

ComPtr<IPortableDeviceValues> NewValues() {
    ComPtr<IPortableDeviceValues> values;
    CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&values));
    return values;
}

}  // namespace

WpdClient::WpdClient(const std::wstring& deviceId) {
    const auto client = NewValues();
    if (client && SUCCEEDED(CoCreateInstance(CLSID_PortableDeviceFTM, nullptr, CLSCTX_INPROC_SERVER,
                                             IID_PPV_ARGS(&m_device))) &&
        SUCCEEDED(m_device->Open(deviceId.c_str(), client.Get()))) {
        m_device->Content(&m_content);
    }
}

std::wstring WpdClient::CreateFolder(const std::wstring& parentId, const std::wstring& name) {
    const auto folder = NewValues();
    if (!folder || !m_content) {
        return L"";
    }
    folder->SetStringValue(WPD_OBJECT_PARENT_ID, parentId.c_str());
    folder->SetStringValue(WPD_OBJECT_NAME, name.c_str());
    folder->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FOLDER);
    CoTaskString id;
    return SUCCEEDED(m_content->CreateObjectWithPropertiesOnly(folder.Get(), &id)) && id.Get() != nullptr
               ? id.Get()
               : L"";
}

std::wstring WpdClient::CreateFile(const std::wstring& parentId, const std::wstring& name, const std::string& bytes) {
    const auto file = NewValues();
    if (!file || !m_content) {
        return L"";
    }
    file->SetStringValue(WPD_OBJECT_PARENT_ID, parentId.c_str());
    file->SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, name.c_str());
    file->SetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, bytes.size());
    file->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_GENERIC_FILE);
    file->SetGuidValue(WPD_OBJECT_FORMAT, WPD_OBJECT_FORMAT_UNSPECIFIED);
    ComPtr<IStream> data;
    ULONG written = 0;
    ComPtr<IPortableDeviceDataStream> object;
    CoTaskString id;
    if (FAILED(m_content->CreateObjectWithPropertiesAndData(file.Get(), &data, nullptr, nullptr)) ||
        FAILED(data->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written)) ||
        FAILED(data->Commit(STGC_DEFAULT)) || FAILED(data.As(&object)) || FAILED(object->GetObjectID(&id)) ||
        id.Get() == nullptr) {
        return L"";
    }
    return id.Get();
}

HRESULT WpdClient::Delete(const std::wstring& objectId) {
    ComPtr<IPortableDevicePropVariantCollection> ids;
    HRESULT hr = CoCreateInstance(CLSID_PortableDevicePropVariantCollection, nullptr, CLSCTX_INPROC_SERVER,
                                  IID_PPV_ARGS(&ids));
    if (FAILED(hr) || !m_content) {
        return FAILED(hr) ? hr : E_FAIL;
    }
    PROPVARIANT id;
    PropVariantInit(&id);
    id.vt = VT_LPWSTR;
    id.pwszVal = const_cast<LPWSTR>(objectId.c_str());
    ids->Add(&id);  // the collection keeps a copy
    return m_content->Delete(PORTABLE_DEVICE_DELETE_NO_RECURSION, ids.Get(), nullptr);
}

std::wstring WpdClient::Name(const std::wstring& objectId) {
    ComPtr<IPortableDeviceProperties> properties;
    ComPtr<IPortableDeviceValues> values;
    CoTaskString name;
    if (!m_content || FAILED(m_content->Properties(&properties)) ||
        FAILED(properties->GetValues(objectId.c_str(), nullptr, &values)) ||
        FAILED(values->GetStringValue(WPD_OBJECT_NAME, &name)) || name.Get() == nullptr) {
        return L"";
    }
    return name.Get();
}
