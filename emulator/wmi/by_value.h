// Class objects and contexts cross apartments and processes by value, as Windows' WMI hands them over
// (IWbemClassObject and IWbemContext are [local] interfaces: no proxy exists for them). The object's
// IMarshal writes its whole state into the stream; the unmarshaller, a class of this DLL that COM creates in
// the receiving process, reads it back into a new, independent object.
#pragma once

#include <windows.h>
#include <objidl.h>
#include <wbemcli.h>

#include <cstdint>
#include <string>

#include "emulator/common/com_object.h"
#include "unmarshaller.h"
#include "emulator/wmi/by_value_format.h"

namespace dorwex::emulator::wmi {

// {6F3C2A8E-5B1D-4C7A-9E2F-1A8B3C4D5E60}
constexpr CLSID kCLSID_ByValueUnmarshaller = {
    0x6f3c2a8e, 0x5b1d, 0x4c7a, {0x9e, 0x2f, 0x1a, 0x8b, 0x3c, 0x4d, 0x5e, 0x60}};

// Tags of the stream's items.
namespace tag {
constexpr std::uint8_t kFormat = 1;       // the format's version, first in every stream
constexpr std::uint8_t kClassObject = 2;  // container: flags, definition, values
constexpr std::uint8_t kContext = 3;      // container: entries
constexpr std::uint8_t kDefinition = 4;
constexpr std::uint8_t kName = 5;
constexpr std::uint8_t kList = 6;
constexpr std::uint8_t kEntry = 7;  // container: a property, a method, a qualifier or a context value
constexpr std::uint8_t kType = 8;
constexpr std::uint8_t kFlags = 9;
constexpr std::uint8_t kText = 10;
constexpr std::uint8_t kNumber = 11;
constexpr std::uint8_t kValue = 12;  // container: a VARIANT
constexpr std::uint8_t kNone = 13;   // a null pointer
}  // namespace tag

// Embedded objects deeper than this are refused on both sides (an object that holds itself would never end).
constexpr int kMaxObjectDepth = 8;

std::u16string WireText(const std::wstring& text);
std::wstring FromWireText(const std::u16string& text);

// A VARIANT the emulator holds: empty, null, text, boolean, integers, reals, dates, one-dimensional arrays
// of those, and emulated class objects (embedded objects arrive as VT_UNKNOWN). Anything else is
// DISP_E_BADVARTYPE; an object the emulator did not make is WBEM_E_INVALID_OBJECT.
HRESULT WriteVariant(wire::Writer& writer, const VARIANT& value, int objectDepth);
// WBEM_E_INVALID_STREAM when the stream holds no such value.
HRESULT ReadVariant(wire::Reader& reader, VARIANT& value, int objectDepth);

// IMarshal of an object that travels by value; the object supplies its state.
class MarshalledByValue : public IMarshal {
public:
    HRESULT STDMETHODCALLTYPE GetUnmarshalClass(REFIID riid, void* pv, DWORD dwDestContext, void* pvDestContext,
                                                DWORD mshlflags, CLSID* pCid) override;
    HRESULT STDMETHODCALLTYPE GetMarshalSizeMax(REFIID riid, void* pv, DWORD dwDestContext, void* pvDestContext,
                                                DWORD mshlflags, DWORD* pSize) override;
    HRESULT STDMETHODCALLTYPE MarshalInterface(IStream* pStm, REFIID riid, void* pv, DWORD dwDestContext,
                                               void* pvDestContext, DWORD mshlflags) override;
    HRESULT STDMETHODCALLTYPE UnmarshalInterface(IStream* pStm, REFIID riid, void** ppv) override;
    HRESULT STDMETHODCALLTYPE ReleaseMarshalData(IStream* pStm) override;
    HRESULT STDMETHODCALLTYPE DisconnectObject(DWORD dwReserved) override;

protected:
    virtual ~MarshalledByValue() = default;
    // The object's state as one item (tag::kClassObject or tag::kContext).
    virtual HRESULT WriteState(wire::Writer& writer) const = 0;

private:
    HRESULT Encode(wire::Writer& writer) const;
};

// What COM creates from kCLSID_ByValueUnmarshaller in the receiving process.
class ByValueUnmarshaller final : public Unmarshaller {
public:
    HRESULT STDMETHODCALLTYPE UnmarshalInterface(IStream* pStm, REFIID riid, void** ppv) override;
    HRESULT STDMETHODCALLTYPE ReleaseMarshalData(IStream* pStm) override;
};

}  // namespace dorwex::emulator::wmi
