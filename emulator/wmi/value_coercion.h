// What IWbemClassObject::Put makes of a value: WMI keeps each CIM type in one VARIANT type ("Numbers (WMI)":
// uint32 and uint16 as VT_I4, sint8 and sint16 as VT_I2, uint8 as VT_UI1, 64-bit integers as decimal text,
// real32 as VT_R4, real64 as VT_R8, strings and datetimes as VT_BSTR, booleans as VT_BOOL) and refuses a
// value of another kind with WBEM_E_TYPE_MISMATCH.
#pragma once

#include <windows.h>
#include <wbemcli.h>

namespace dorwex::emulator::wmi {

// The value in the property's own VARIANT type in `out` (VT_NULL for VT_NULL or VT_EMPTY), or
// WBEM_E_TYPE_MISMATCH when it is of another kind or out of the type's range.
HRESULT CoerceToCimType(CIMTYPE type, const VARIANT& value, VARIANT& out);

}  // namespace dorwex::emulator::wmi
