#include "schema.h"

#include <cwchar>

namespace dorwex::schema {

namespace {
constexpr ValueType S = ValueType::String;
constexpr ValueType B = ValueType::Boolean;
constexpr ValueType U = ValueType::UInt32;
}  // namespace

const PropertyDefinition kWPDProperties[kWPDPropertyCount] = {
    {L"strId", S},
    {L"strFriendlyName", S},
    {L"strManufacturer", S},
    {L"strDescription", S},
    {L"strSerialNumber", S},
    {L"strExtraProperties", S},
    {L"bool_WPD_FUNCTIONAL_CATEGORY_STORAGE", B},
    {L"bool_WPD_FUNCTIONAL_CATEGORY_STILL_IMAGE_CAPTURE", B},
    {L"bool_WPD_FUNCTIONAL_CATEGORY_AUDIO_CAPTURE", B},
    {L"bool_WPD_FUNCTIONAL_CATEGORY_SMS", B},
    {L"bool_WPD_FUNCTIONAL_CATEGORY_RENDERING_INFORMATION", B},
    {L"strDisk1Name", S},
    {L"strDisk2Name", S},
    {L"strDisk1ObjectId", S},
    {L"strDisk2ObjectId", S},
    {L"strDisk1PersistentUniqueId", S},
    {L"strDisk2PersistentUniqueId", S},
    {L"strDisk1Description", S},
    {L"strDisk2Description", S},
    {L"strDisk1SerialNumber", S},
    {L"strDisk2SerialNumber", S},
    {L"strDisk1DevicePath", S},
    {L"strDisk2DevicePath", S},
    {L"strDisk1PhysicalName", S},
    {L"strDisk2PhysicalName", S},
};

const wchar_t* const kWPDEventProperties[kWPDEventPropertyCount] = {
    L"strEventId",     L"strObjectId",   L"strObjectDeviceId", L"strObjectDevicePersistentUniqueId",
    L"strObjectParentId", L"strObjectName", L"strTargetPath",  L"strSourcePath",
    L"strDeviceName",  L"strOriginalFileName", L"strEventText", L"strPID",
};

namespace {
const PropertyDefinition kSetDebugLevel[] = {{L"uint32DebugLevel", U}};
const PropertyDefinition kGetProperty[] = {
    {L"strObjectStoragePath", S}, {L"strPropertyName", S}, {L"strObjectDeviceId", S}};
const PropertyDefinition kCopyFileFromDevice[] = {
    {L"strObjectStoragePath", S}, {L"strLocalFileName", S}, {L"strObjectDeviceId", S}};
const PropertyDefinition kDeleteFileFromDevice[] = {{L"strObjectStoragePath", S}, {L"strObjectDeviceId", S}};
const PropertyDefinition kEnumerateDevicePath[] = {
    {L"strObjectStoragePath", S}, {L"strObjectDeviceId", S}, {L"uint32ContentType", U}};
const PropertyDefinition kCreateFolderOnDevice[] = {
    {L"strObjectStoragePath", S}, {L"strNewFolderName", S}, {L"strObjectDeviceId", S}};
const PropertyDefinition kRequestWriteToken[] = {{L"uint32ProcessId", U}};
const PropertyDefinition kCopyFileToDevice[] = {
    {L"strObjectStoragePath", S}, {L"strFileToCopy", S}, {L"strWriteToken", S}, {L"strObjectDeviceId", S}};
const PropertyDefinition kEjectDevice[] = {{L"strObjectDeviceId", S}};

template <std::size_t N>
constexpr MethodDefinition Define(Method id, const wchar_t* name, const PropertyDefinition (&inputs)[N]) {
    return {id, name, inputs, N};
}
}  // namespace

const MethodDefinition kWPDMethods[kWPDMethodCount] = {
    Define(Method::SetDebugLevel, L"SetDebugLevel", kSetDebugLevel),
    Define(Method::GetProperty, L"GetProperty", kGetProperty),
    Define(Method::CopyFileFromDevice, L"CopyFileFromDevice", kCopyFileFromDevice),
    Define(Method::MoveFileFromDevice, L"MoveFileFromDevice", kCopyFileFromDevice),
    Define(Method::DeleteFileFromDevice, L"DeleteFileFromDevice", kDeleteFileFromDevice),
    Define(Method::EnumerateDevicePath, L"EnumerateDevicePath", kEnumerateDevicePath),
    Define(Method::CreateFolderOnDevice, L"CreateFolderOnDevice", kCreateFolderOnDevice),
    Define(Method::RequestWriteToken, L"RequestWriteToken", kRequestWriteToken),
    Define(Method::CopyFileToDevice, L"CopyFileToDevice", kCopyFileToDevice),
    Define(Method::EjectDevice, L"EjectDevice", kEjectDevice),
};

const MethodDefinition* FindMethod(const wchar_t* name) {
    for (const auto& method : kWPDMethods) {
        if (name != nullptr && std::wcscmp(method.name, name) == 0) {
            return &method;
        }
    }
    return nullptr;
}

}  // namespace dorwex::schema
