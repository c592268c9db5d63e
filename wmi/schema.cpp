#include "schema.h"

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
constexpr MethodDefinition Method(const wchar_t* name, const PropertyDefinition (&inputs)[N]) {
    return {name, inputs, N};
}
}  // namespace

const MethodDefinition kWPDMethods[kWPDMethodCount] = {
    Method(L"SetDebugLevel", kSetDebugLevel),
    Method(L"GetProperty", kGetProperty),
    Method(L"CopyFileFromDevice", kCopyFileFromDevice),
    Method(L"MoveFileFromDevice", kCopyFileFromDevice),
    Method(L"DeleteFileFromDevice", kDeleteFileFromDevice),
    Method(L"EnumerateDevicePath", kEnumerateDevicePath),
    Method(L"CreateFolderOnDevice", kCreateFolderOnDevice),
    Method(L"RequestWriteToken", kRequestWriteToken),
    Method(L"CopyFileToDevice", kCopyFileToDevice),
    Method(L"EjectDevice", kEjectDevice),
};

}  // namespace dorwex::schema
