#include "value_coercion.h"

#include <oleauto.h>

#include <string>

namespace dorwex::emulator::wmi {

namespace {

// The value of an integer VARIANT, or false when it holds no integer.
bool IntegerValue(const VARIANT& value, LONGLONG& out) {
    switch (value.vt) {
    case VT_I1: out = value.cVal; return true;
    case VT_UI1: out = value.bVal; return true;
    case VT_I2: out = value.iVal; return true;
    case VT_UI2: out = value.uiVal; return true;
    case VT_I4:
    case VT_INT: out = value.lVal; return true;
    case VT_UI4:
    case VT_UINT: out = value.ulVal; return true;
    case VT_I8: out = value.llVal; return true;
    case VT_UI8:
        if (value.ullVal > static_cast<ULONGLONG>(MAXLONGLONG)) {
            return false;
        }
        out = static_cast<LONGLONG>(value.ullVal);
        return true;
    default: return false;
    }
}

// An integer of `bits` bits fits when it is within the signed or the unsigned range: WMI keeps the bits, so
// a uint32 4294967295 reads back as VT_I4 -1.
bool Fits(LONGLONG number, int bits) {
    const LONGLONG lowest = -(1LL << (bits - 1));
    const LONGLONG highest = (1LL << bits) - 1;
    return number >= lowest && number <= highest;
}

HRESULT Integer(const VARIANT& value, int bits, VARTYPE type, VARIANT& out) {
    LONGLONG number = 0;
    if (!IntegerValue(value, number) || !Fits(number, bits)) {
        return WBEM_E_TYPE_MISMATCH;
    }
    out.vt = type;
    switch (type) {
    case VT_UI1: out.bVal = static_cast<BYTE>(number); break;
    case VT_I2: out.iVal = static_cast<SHORT>(number); break;
    default: out.lVal = static_cast<LONG>(number); break;
    }
    return WBEM_S_NO_ERROR;
}

// 64-bit integers travel as decimal text; a text must be one.
HRESULT Integer64(const VARIANT& value, bool isSigned, VARIANT& out) {
    std::wstring text;
    LONGLONG number = 0;
    if (value.vt == VT_BSTR) {
        text = value.bstrVal != nullptr ? value.bstrVal : L"";
        size_t start = isSigned && !text.empty() && text[0] == L'-' ? 1 : 0;
        if (text.size() == start || text.size() > 20) {
            return WBEM_E_TYPE_MISMATCH;
        }
        for (size_t i = start; i < text.size(); ++i) {
            if (text[i] < L'0' || text[i] > L'9') {
                return WBEM_E_TYPE_MISMATCH;
            }
        }
    } else if (value.vt == VT_UI8) {
        text = std::to_wstring(value.ullVal);
    } else if (IntegerValue(value, number) && (isSigned || number >= 0)) {
        text = std::to_wstring(number);
    } else {
        return WBEM_E_TYPE_MISMATCH;
    }
    out.vt = VT_BSTR;
    out.bstrVal = SysAllocString(text.c_str());
    if (out.bstrVal == nullptr) {
        out.vt = VT_EMPTY;
        return WBEM_E_OUT_OF_MEMORY;
    }
    return WBEM_S_NO_ERROR;
}

HRESULT Real(const VARIANT& value, VARTYPE type, VARIANT& out) {
    LONGLONG number = 0;
    if (value.vt != VT_R4 && value.vt != VT_R8 && !IntegerValue(value, number)) {
        return WBEM_E_TYPE_MISMATCH;
    }
    return SUCCEEDED(VariantChangeType(&out, const_cast<VARIANT*>(&value), 0, type)) ? WBEM_S_NO_ERROR
                                                                                    : WBEM_E_TYPE_MISMATCH;
}

HRESULT Copy(const VARIANT& value, VARIANT& out) {
    return SUCCEEDED(VariantCopy(&out, const_cast<VARIANT*>(&value))) ? WBEM_S_NO_ERROR : WBEM_E_OUT_OF_MEMORY;
}

HRESULT CopyOf(const VARIANT& value, VARTYPE expected, VARIANT& out) {
    return value.vt == expected ? Copy(value, out) : static_cast<HRESULT>(WBEM_E_TYPE_MISMATCH);
}

}  // namespace

HRESULT CoerceToCimType(CIMTYPE type, const VARIANT& value, VARIANT& out) {
    VariantInit(&out);
    if (value.vt == VT_NULL || value.vt == VT_EMPTY) {
        out.vt = VT_NULL;
        return WBEM_S_NO_ERROR;
    }
    if ((type & CIM_FLAG_ARRAY) != 0 || (value.vt & VT_ARRAY) != 0) {
        // Arrays are only taken into array properties, element type unchecked.
        if ((type & CIM_FLAG_ARRAY) == 0 || (value.vt & VT_ARRAY) == 0) {
            return WBEM_E_TYPE_MISMATCH;
        }
        return Copy(value, out);
    }
    switch (type) {
    case CIM_STRING:
    case CIM_DATETIME:
    case CIM_REFERENCE: return CopyOf(value, VT_BSTR, out);
    case CIM_BOOLEAN: return CopyOf(value, VT_BOOL, out);
    case CIM_SINT8:
    case CIM_SINT16: return Integer(value, type == CIM_SINT8 ? 8 : 16, VT_I2, out);
    case CIM_UINT8: return Integer(value, 8, VT_UI1, out);
    case CIM_UINT16: return Integer(value, 16, VT_I4, out);
    case CIM_SINT32:
    case CIM_UINT32: return Integer(value, 32, VT_I4, out);
    case CIM_SINT64: return Integer64(value, true, out);
    case CIM_UINT64: return Integer64(value, false, out);
    case CIM_REAL32: return Real(value, VT_R4, out);
    case CIM_REAL64: return Real(value, VT_R8, out);
    case CIM_OBJECT:
        return value.vt == VT_UNKNOWN || value.vt == VT_DISPATCH ? Copy(value, out)
                                                                : static_cast<HRESULT>(WBEM_E_TYPE_MISMATCH);
    default: return WBEM_E_TYPE_MISMATCH;
    }
}

}  // namespace dorwex::emulator::wmi
