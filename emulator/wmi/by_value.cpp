#include "by_value.h"

#include <oleauto.h>
#include <wrl/client.h>

#include <cstring>
#include <new>
#include <vector>

#include "class_object.h"
#include "context.h"

namespace dorwex::emulator::wmi {

namespace {

constexpr std::uint64_t kFormatVersion = 1;
// A stream claiming more than this is refused before anything is allocated for it.
constexpr DWORD kMaxStateBytes = 64 * 1024 * 1024;

// Bytes a number of this type occupies in a VARIANT or an array element; 0 for what is not a number.
size_t NumberSize(VARTYPE type) {
    switch (type) {
    case VT_I1:
    case VT_UI1: return 1;
    case VT_I2:
    case VT_UI2:
    case VT_BOOL: return 2;
    case VT_I4:
    case VT_UI4:
    case VT_INT:
    case VT_UINT:
    case VT_R4: return 4;
    case VT_I8:
    case VT_UI8:
    case VT_R8:
    case VT_DATE: return 8;
    default: return 0;
    }
}

bool IsObject(VARTYPE type) {
    return type == VT_UNKNOWN || type == VT_DISPATCH;
}

// What an array element of this type occupies; 0 when such arrays do not travel.
size_t ElementSize(VARTYPE type) {
    if (type == VT_BSTR || IsObject(type)) {
        return sizeof(void*);
    }
    return type == VT_VARIANT ? sizeof(VARIANT) : NumberSize(type);
}

HRESULT WriteScalar(wire::Writer& writer, VARTYPE type, const void* storage, int objectDepth) {
    if (type == VT_BSTR) {
        const BSTR text = *static_cast<const BSTR*>(storage);
        writer.Text(tag::kText, std::u16string(text, text + SysStringLen(text)));
        return S_OK;
    }
    if (type == VT_VARIANT) {
        return WriteVariant(writer, *static_cast<const VARIANT*>(storage), objectDepth);
    }
    if (IsObject(type)) {
        IUnknown* object = *static_cast<IUnknown* const*>(storage);
        if (object == nullptr) {
            writer.Unsigned(tag::kNone, 0);
            return S_OK;
        }
        Microsoft::WRL::ComPtr<IWbemClassObject> classObject;
        ClassObject* ours = SUCCEEDED(object->QueryInterface(IID_PPV_ARGS(&classObject)))
                                ? AsClassObject(classObject.Get())
                                : nullptr;
        return ours != nullptr ? ours->WriteObject(writer, objectDepth + 1)
                               : static_cast<HRESULT>(WBEM_E_INVALID_OBJECT);
    }
    const size_t size = NumberSize(type);
    if (size == 0) {
        return DISP_E_BADVARTYPE;
    }
    std::uint64_t bits = 0;  // little-endian, as every Windows target is
    std::memcpy(&bits, storage, size);
    writer.Unsigned(tag::kNumber, bits);
    return S_OK;
}

// Fills zeroed storage of that type; on failure the storage holds nothing to free.
HRESULT ReadScalar(wire::Reader& reader, VARTYPE type, void* storage, int objectDepth) {
    if (type == VT_BSTR) {
        std::u16string text;
        if (!reader.Text(tag::kText, text)) {
            return WBEM_E_INVALID_STREAM;
        }
        const std::wstring wide = FromWireText(text);
        BSTR copy = SysAllocStringLen(wide.data(), static_cast<UINT>(wide.size()));
        if (copy == nullptr) {
            return WBEM_E_OUT_OF_MEMORY;
        }
        *static_cast<BSTR*>(storage) = copy;
        return S_OK;
    }
    if (type == VT_VARIANT) {
        return ReadVariant(reader, *static_cast<VARIANT*>(storage), objectDepth);
    }
    if (IsObject(type)) {
        std::uint64_t none = 0;
        if (reader.Unsigned(tag::kNone, none)) {
            return S_OK;
        }
        ClassObject* object = nullptr;
        const HRESULT hr = ClassObject::ReadObject(reader, objectDepth + 1, &object);
        if (SUCCEEDED(hr)) {
            *static_cast<IUnknown**>(storage) = static_cast<IWbemClassObject*>(object);
        }
        return hr;
    }
    const size_t size = NumberSize(type);
    std::uint64_t bits = 0;
    if (size == 0 || !reader.Unsigned(tag::kNumber, bits)) {
        return WBEM_E_INVALID_STREAM;
    }
    std::memcpy(storage, &bits, size);
    return S_OK;
}

HRESULT WriteArray(wire::Writer& writer, VARTYPE type, SAFEARRAY* array, int objectDepth) {
    if (array == nullptr) {
        writer.Unsigned(tag::kNone, 0);
        return S_OK;
    }
    LONG lower = 0;
    LONG upper = -1;
    if (SafeArrayGetDim(array) != 1 || SafeArrayGetElemsize(array) != ElementSize(type) ||
        FAILED(SafeArrayGetLBound(array, 1, &lower)) || FAILED(SafeArrayGetUBound(array, 1, &upper))) {
        return DISP_E_BADVARTYPE;
    }
    writer.Unsigned(tag::kNumber, static_cast<std::uint32_t>(lower));
    const size_t list = writer.Open(tag::kList);
    char* data = nullptr;
    HRESULT hr = SafeArrayAccessData(array, reinterpret_cast<void**>(&data));
    for (LONG i = 0; SUCCEEDED(hr) && i <= upper - lower; ++i) {
        hr = WriteScalar(writer, type, data + static_cast<size_t>(i) * ElementSize(type), objectDepth);
    }
    if (data != nullptr) {
        SafeArrayUnaccessData(array);
    }
    writer.Close(list);
    return hr;
}

HRESULT ReadArray(wire::Reader& reader, VARTYPE type, SAFEARRAY** array_out, int objectDepth) {
    *array_out = nullptr;
    std::uint64_t lower = 0;
    if (reader.Unsigned(tag::kNone, lower)) {
        return S_OK;
    }
    wire::Reader elements;
    if (!reader.Unsigned(tag::kNumber, lower) || lower > 0xffffffffu || !reader.Open(tag::kList, elements)) {
        return WBEM_E_INVALID_STREAM;
    }
    ULONG count = 0;
    for (wire::Reader counter = elements; !counter.AtEnd(); ++count) {
        wire::Item item;
        if (!counter.Next(item)) {
            return WBEM_E_INVALID_STREAM;
        }
    }
    SAFEARRAY* array = SafeArrayCreateVector(type, static_cast<LONG>(static_cast<std::uint32_t>(lower)), count);
    if (array == nullptr) {
        return WBEM_E_OUT_OF_MEMORY;
    }
    char* data = nullptr;
    HRESULT hr = SafeArrayAccessData(array, reinterpret_cast<void**>(&data));
    for (ULONG i = 0; SUCCEEDED(hr) && i < count; ++i) {
        hr = ReadScalar(elements, type, data + static_cast<size_t>(i) * ElementSize(type), objectDepth);
    }
    if (data != nullptr) {
        SafeArrayUnaccessData(array);
    }
    if (FAILED(hr)) {
        SafeArrayDestroy(array);  // frees the elements read so far; the rest are zero
        return hr;
    }
    *array_out = array;
    return S_OK;
}

// Reads the length-prefixed state that MarshalInterface wrote.
HRESULT ReadState(IStream* stream, std::vector<std::uint8_t>& bytes) {
    DWORD size = 0;
    ULONG read = 0;
    if (stream == nullptr) {
        return E_INVALIDARG;
    }
    if (FAILED(stream->Read(&size, sizeof(size), &read)) || read != sizeof(size) || size > kMaxStateBytes) {
        return WBEM_E_INVALID_STREAM;
    }
    bytes.resize(size);
    for (ULONG done = 0; done < size; done += read) {
        read = 0;
        if (FAILED(stream->Read(bytes.data() + done, size - done, &read)) || read == 0) {
            return WBEM_E_INVALID_STREAM;
        }
    }
    return S_OK;
}

// Moves the stream past the state, as releasing marshalled data must.
HRESULT SkipState(IStream* stream) {
    DWORD size = 0;
    ULONG read = 0;
    if (stream == nullptr) {
        return E_INVALIDARG;
    }
    if (FAILED(stream->Read(&size, sizeof(size), &read)) || read != sizeof(size)) {
        return WBEM_E_INVALID_STREAM;
    }
    LARGE_INTEGER move;
    move.QuadPart = size;
    return stream->Seek(move, STREAM_SEEK_CUR, nullptr);
}

}  // namespace

std::u16string WireText(const std::wstring& text) {
    return std::u16string(text.begin(), text.end());
}

std::wstring FromWireText(const std::u16string& text) {
    return std::wstring(text.begin(), text.end());
}

HRESULT WriteVariant(wire::Writer& writer, const VARIANT& value, int objectDepth) {
    const VARTYPE base = value.vt & VT_TYPEMASK;
    if ((value.vt & ~(VT_ARRAY | VT_TYPEMASK)) != 0) {
        return DISP_E_BADVARTYPE;  // by reference or vectors: no property or context value holds them
    }
    const size_t mark = writer.Open(tag::kValue);
    writer.Unsigned(tag::kType, value.vt);
    HRESULT hr = S_OK;
    if ((value.vt & VT_ARRAY) != 0) {
        hr = ElementSize(base) != 0 ? WriteArray(writer, base, value.parray, objectDepth)
                                    : static_cast<HRESULT>(DISP_E_BADVARTYPE);
    } else if (base != VT_EMPTY && base != VT_NULL) {
        hr = base != VT_VARIANT ? WriteScalar(writer, base, &value.llVal, objectDepth)
                                : static_cast<HRESULT>(DISP_E_BADVARTYPE);  // VT_VARIANT only in arrays
    }
    writer.Close(mark);
    return hr;
}

HRESULT ReadVariant(wire::Reader& reader, VARIANT& value, int objectDepth) {
    VariantInit(&value);
    wire::Reader inner;
    std::uint64_t type = 0;
    if (!reader.Open(tag::kValue, inner) || !inner.Unsigned(tag::kType, type) ||
        (type & ~static_cast<std::uint64_t>(VT_ARRAY | VT_TYPEMASK)) != 0) {
        return WBEM_E_INVALID_STREAM;
    }
    const VARTYPE base = static_cast<VARTYPE>(type & VT_TYPEMASK);
    // Embedded objects come back as what WMI hands out for them: VT_UNKNOWN.
    const VARTYPE stored = IsObject(base) ? static_cast<VARTYPE>(VT_UNKNOWN) : base;
    HRESULT hr = S_OK;
    if ((type & VT_ARRAY) != 0) {
        SAFEARRAY* array = nullptr;
        hr = ElementSize(base) != 0 ? ReadArray(inner, stored, &array, objectDepth)
                                    : static_cast<HRESULT>(WBEM_E_INVALID_STREAM);
        if (SUCCEEDED(hr)) {
            value.vt = VT_ARRAY | stored;
            value.parray = array;
        }
    } else if (base != VT_EMPTY && base != VT_NULL) {
        hr = base != VT_VARIANT && ElementSize(base) != 0 ? ReadScalar(inner, base, &value.llVal, objectDepth)
                                                          : static_cast<HRESULT>(WBEM_E_INVALID_STREAM);
        if (SUCCEEDED(hr)) {
            value.vt = stored;
        }
    } else {
        value.vt = base;
    }
    if (SUCCEEDED(hr) && !inner.AtEnd()) {
        hr = WBEM_E_INVALID_STREAM;
    }
    if (FAILED(hr)) {
        VariantClear(&value);
    }
    return hr;
}

// --- The sending side -----------------------------------------------------------------------------

HRESULT MarshalledByValue::Encode(wire::Writer& writer) const {
    try {
        writer.Unsigned(tag::kFormat, kFormatVersion);
        return WriteState(writer);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

HRESULT MarshalledByValue::GetUnmarshalClass(REFIID, void*, DWORD, void*, DWORD, CLSID* pCid) {
    if (pCid == nullptr) {
        return E_POINTER;
    }
    *pCid = kCLSID_ByValueUnmarshaller;
    return S_OK;
}

HRESULT MarshalledByValue::GetMarshalSizeMax(REFIID, void*, DWORD, void*, DWORD, DWORD* pSize) {
    if (pSize == nullptr) {
        return E_POINTER;
    }
    wire::Writer writer;
    const HRESULT hr = Encode(writer);
    if (FAILED(hr)) {
        return hr;
    }
    if (writer.Bytes().size() > kMaxStateBytes) {
        return E_OUTOFMEMORY;
    }
    *pSize = static_cast<DWORD>(sizeof(DWORD) + writer.Bytes().size());
    return S_OK;
}

HRESULT MarshalledByValue::MarshalInterface(IStream* pStm, REFIID, void*, DWORD, void*, DWORD) {
    if (pStm == nullptr) {
        return E_INVALIDARG;
    }
    wire::Writer writer;
    HRESULT hr = Encode(writer);
    if (FAILED(hr)) {
        return hr;
    }
    if (writer.Bytes().size() > kMaxStateBytes) {
        return E_OUTOFMEMORY;
    }
    const DWORD size = static_cast<DWORD>(writer.Bytes().size());
    hr = pStm->Write(&size, sizeof(size), nullptr);
    return SUCCEEDED(hr) ? pStm->Write(writer.Bytes().data(), size, nullptr) : hr;
}

// The objects themselves never receive a stream: the unmarshaller class does.
HRESULT MarshalledByValue::UnmarshalInterface(IStream*, REFIID, void** ppv) {
    if (ppv != nullptr) {
        *ppv = nullptr;
    }
    return E_UNEXPECTED;
}

HRESULT MarshalledByValue::ReleaseMarshalData(IStream* pStm) {
    return SkipState(pStm);
}

HRESULT MarshalledByValue::DisconnectObject(DWORD) {
    return S_OK;  // a copy holds no connection to its original
}

// --- The receiving side ---------------------------------------------------------------------------

HRESULT ByValueUnmarshaller::UnmarshalInterface(IStream* pStm, REFIID riid, void** ppv) {
    if (ppv == nullptr) {
        return E_POINTER;
    }
    *ppv = nullptr;
    try {
        std::vector<std::uint8_t> bytes;
        HRESULT hr = ReadState(pStm, bytes);
        if (FAILED(hr)) {
            return hr;
        }
        wire::Reader reader(bytes.data(), bytes.size());
        std::uint64_t version = 0;
        std::uint8_t kind = 0;
        if (!reader.Unsigned(tag::kFormat, version) || version != kFormatVersion || !reader.Peek(kind)) {
            return WBEM_E_INVALID_STREAM;
        }
        IUnknown* object = nullptr;
        if (kind == (tag::kClassObject | wire::kContainer)) {
            ClassObject* classObject = nullptr;
            hr = ClassObject::ReadObject(reader, 0, &classObject);
            object = static_cast<IWbemClassObject*>(classObject);
        } else {
            Context* context = nullptr;
            hr = Context::ReadState(reader, &context);
            object = static_cast<IWbemContext*>(context);
        }
        if (SUCCEEDED(hr) && !reader.AtEnd()) {
            hr = WBEM_E_INVALID_STREAM;
        }
        if (SUCCEEDED(hr)) {
            hr = object->QueryInterface(riid, ppv);
        }
        if (object != nullptr) {
            object->Release();
        }
        return hr;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

HRESULT ByValueUnmarshaller::ReleaseMarshalData(IStream* pStm) {
    return SkipState(pStm);  // a copy by value holds nothing to free
}

}  // namespace dorwex::emulator::wmi
