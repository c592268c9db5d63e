// Every name the provider shows to WMI: namespace, provider, classes, properties with the types the
// provider writes, methods with their input parameters, and the context values. Pure data, no Windows
// headers; the MOF in dorwex_wpd_provider.mof declares the same and a test keeps the two in step.
#pragma once

#include <cstddef>

namespace dorwex::schema {

inline constexpr wchar_t kNamespace[] = L"root\\cimv2";
inline constexpr wchar_t kProviderName[] = L"Win32ext_WPD_Provider";
inline constexpr wchar_t kClassWPD[] = L"Win32ext_WPD";
inline constexpr wchar_t kClassWPDEvent[] = L"Win32ext_WPDEvent";
inline constexpr wchar_t kClassExtendedStatus[] = L"__ExtendedStatus";
inline constexpr wchar_t kKeyProperty[] = L"strId";
inline constexpr wchar_t kReturnValue[] = L"ReturnValue";

// Context values.
inline constexpr wchar_t kContextWPDProp[] = L"dorWEXWPDProp";
inline constexpr wchar_t kContextClientPID[] = L"dorWEXWPDClientPID";
// What the provider's own publication puts into "dorWEXWPDProp".
inline constexpr wchar_t kTokenWPD[] = L"73lun!QBX#ZPT^";
inline constexpr wchar_t kTokenNonWPD[] = L"73lun!QBX#NONZPT^";
// A "strId" that a put accepts and ignores.
inline constexpr wchar_t kInternalId[] = L"_INTERNAL";

// __ExtendedStatus properties the provider sets.
inline constexpr wchar_t kStatusDescription[] = L"Description";
inline constexpr wchar_t kStatusOperation[] = L"Operation";
inline constexpr wchar_t kStatusProviderName[] = L"ProviderName";
inline constexpr wchar_t kStatusCode[] = L"StatusCode";

enum class ValueType { String, Boolean, UInt32 };

struct PropertyDefinition {
    const wchar_t* name;
    ValueType type;
};

inline constexpr std::size_t kWPDPropertyCount = 25;
inline constexpr std::size_t kWPDEventPropertyCount = 12;
inline constexpr std::size_t kWPDMethodCount = 10;

// Win32ext_WPD properties in the order the provider writes them; "strId" is the key.
extern const PropertyDefinition kWPDProperties[kWPDPropertyCount];
// Win32ext_WPDEvent properties (all strings) in the order SendEvent writes them.
extern const wchar_t* const kWPDEventProperties[kWPDEventPropertyCount];

// The methods of Win32ext_WPD, as the code knows them; their WMI names and parameters are in kWPDMethods.
enum class Method {
    SetDebugLevel,
    GetProperty,
    CopyFileFromDevice,
    MoveFileFromDevice,
    DeleteFileFromDevice,
    EnumerateDevicePath,
    CreateFolderOnDevice,
    RequestWriteToken,
    CopyFileToDevice,
    EjectDevice,
};

struct MethodDefinition {
    Method id;
    const wchar_t* name;
    const PropertyDefinition* inputs;  // in the order the handler reads them
    std::size_t inputCount;
};
// Methods of Win32ext_WPD; each returns a string "ReturnValue". Dispatch and the handlers' parameter
// names come from here, so a method or parameter is named in this table and in the MOF only.
extern const MethodDefinition kWPDMethods[kWPDMethodCount];

// The method of that exact name, or null.
const MethodDefinition* FindMethod(const wchar_t* name);

}  // namespace dorwex::schema
