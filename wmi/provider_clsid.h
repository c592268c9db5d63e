// The one COM class this module serves. The braced text is also read by the build (registration tests,
// MOF) so that every place uses the same value.
#pragma once

#include <guiddef.h>

#define DORWEX_PROVIDER_CLSID_TEXT L"{5C2F4E1A-7B3D-4E8A-9D61-2A4F0B7C3E91}"

inline constexpr GUID CLSID_DorWEXWPDWMIProvider = {
    0x5c2f4e1a, 0x7b3d, 0x4e8a, {0x9d, 0x61, 0x2a, 0x4f, 0x0b, 0x7c, 0x3e, 0x91}};
