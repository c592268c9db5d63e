// Class objects and contexts of the emulated WMI service marshalled by value, as they cross from the service
// to a provider host or a client in another process: CoMarshalInterface into a stream, CoUnmarshalInterface
// from it. The copy is a new object that describes itself exactly as the original does (class, path,
// qualifiers, methods, every value and CIM type, embedded objects) and lives on its own: a Put on it leaves
// the original alone. A stream cut short or corrupt is an error and leaks nothing.
#include <gtest/gtest.h>

#include <comdef.h>
#include <wbemcli.h>
#include <wrl/client.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "emulator/wmi/control.h"
#include "support/wmi_calls.h"

using Microsoft::WRL::ComPtr;

namespace {

std::wstring g_repository;

// A class with a property of every CIM type the schema uses, an embedded object and a method.
const char kAllKinds[] =
    "#pragma namespace(\"\\\\\\\\.\\\\root\\\\cimv2\")\n"
    "[description(\"every kind\"), version(3)]\n"
    "class Dorwex_AllKinds {\n"
    "  [key] string Name; boolean Flag; uint8 U8; sint8 S8; uint16 U16; sint16 S16; uint32 U32;\n"
    "  sint32 S32; uint64 U64; sint64 S64; real32 R32; real64 R64; datetime When; object Embedded;\n"
    "  [static, implemented, description(\"runs\")] uint32 Run([in] string Text, [in, max(9)] uint32 Count,\n"
    "                                                      [out] string Echo);\n"
    "};\n";

class Environment : public testing::Environment {
public:
    void SetUp() override {
        wchar_t temp[MAX_PATH] = {};
        ASSERT_GT(GetTempPathW(MAX_PATH, temp), 0u);
        g_repository = std::wstring(temp) + L"by_value_" + std::to_wstring(GetCurrentProcessId());
        ASSERT_TRUE(SetEnvironmentVariableW(L"DORWEX_WMI_REPOSITORY", g_repository.c_str()));
        Register(L"dorwex_wmi_emulator.dll");
        ComPtr<IMofCompiler> compiler;
        ASSERT_EQ(CoCreateInstance(CLSID_MofCompiler, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&compiler)), S_OK);
        std::string text = kAllKinds;
        WBEM_COMPILE_STATUS_INFO status{};
        ASSERT_EQ(compiler->CompileBuffer(static_cast<LONG>(text.size()), reinterpret_cast<BYTE*>(&text[0]), nullptr,
                                          nullptr, nullptr, nullptr, 0, 0, 0, &status),
                  S_OK);
    }
    void TearDown() override { std::filesystem::remove_all(std::filesystem::path(g_repository)); }
};
const auto* const g_environment = testing::AddGlobalTestEnvironment(new Environment);

LONG LiveObjects() {
    const auto live = reinterpret_cast<DorwexWmiLiveObjectsFunction>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"dorwex_wmi_emulator.dll"), "DorwexWmiLiveObjects")));
    return live != nullptr ? live() : -1;
}

ComPtr<IStream> Marshalled(IUnknown* object, REFIID iid) {
    ComPtr<IStream> stream;
    EXPECT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &stream), S_OK);
    EXPECT_EQ(CoMarshalInterface(stream.Get(), iid, object, MSHCTX_LOCAL, nullptr, MSHLFLAGS_NORMAL), S_OK);
    return stream;
}

std::vector<BYTE> Bytes(IStream* stream) {
    HGLOBAL memory = nullptr;
    STATSTG stat{};
    EXPECT_EQ(GetHGlobalFromStream(stream, &memory), S_OK);
    EXPECT_EQ(stream->Stat(&stat, STATFLAG_NONAME), S_OK);
    const auto* data = static_cast<const BYTE*>(GlobalLock(memory));
    std::vector<BYTE> bytes(data, data + stat.cbSize.QuadPart);
    GlobalUnlock(memory);
    return bytes;
}

// CoUnmarshalInterface on these bytes: its result, and the object when it succeeded.
template <class T>
HRESULT Unmarshal(const std::vector<BYTE>& bytes, ComPtr<T>& object) {
    ComPtr<IStream> stream;
    EXPECT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &stream), S_OK);
    EXPECT_EQ(stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr), S_OK);
    EXPECT_EQ(stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_SET, nullptr), S_OK);
    return CoUnmarshalInterface(stream.Get(), __uuidof(T), reinterpret_cast<void**>(object.ReleaseAndGetAddressOf()));
}

template <class T>
ComPtr<T> Copy(T* object) {
    ComPtr<T> copy;
    EXPECT_EQ(Unmarshal(Bytes(Marshalled(object, __uuidof(T)).Get()), copy), S_OK);
    return copy;
}

std::wstring Portrait(IWbemClassObject* object);

// A value as text with its type: elements of arrays one by one, embedded objects by their portrait.
std::wstring Describe(const VARIANT& value) {
    std::wstring text = L"vt" + std::to_wstring(value.vt) + L":";
    if ((value.vt & VT_ARRAY) != 0) {
        LONG lower = 0;
        LONG upper = -1;
        SafeArrayGetLBound(value.parray, 1, &lower);
        SafeArrayGetUBound(value.parray, 1, &upper);
        text += L"[" + std::to_wstring(lower) + L"]";
        for (LONG i = lower; i <= upper; ++i) {
            _variant_t element;
            element.vt = value.vt & VT_TYPEMASK;
            if (element.vt == VT_VARIANT) {
                EXPECT_EQ(SafeArrayGetElement(value.parray, &i, &element), S_OK);
            } else {
                EXPECT_EQ(SafeArrayGetElement(value.parray, &i, &element.llVal), S_OK);
            }
            text += Describe(element) + L";";
        }
        return text;
    }
    if (value.vt == VT_UNKNOWN) {
        ComPtr<IWbemClassObject> object;
        return text + (value.punkVal != nullptr && SUCCEEDED(value.punkVal->QueryInterface(IID_PPV_ARGS(&object)))
                           ? L"{" + Portrait(object.Get()) + L"}"
                           : L"?");
    }
    _variant_t shown;
    if (value.vt == VT_NULL || value.vt == VT_EMPTY ||
        FAILED(VariantChangeType(&shown, const_cast<VARIANT*>(&value), 0, VT_BSTR))) {
        return text;
    }
    return text + std::wstring(shown.bstrVal, SysStringLen(shown.bstrVal));
}

// The texts of a GetNames array, which it frees.
std::vector<_bstr_t> Names(SAFEARRAY* names) {
    std::vector<_bstr_t> texts;
    LONG upper = -1;
    SafeArrayGetUBound(names, 1, &upper);
    for (LONG i = 0; i <= upper; ++i) {
        texts.emplace_back();
        SafeArrayGetElement(names, &i, texts.back().GetAddress());
    }
    SafeArrayDestroy(names);
    return texts;
}

std::wstring Qualifiers(IWbemQualifierSet* qualifiers) {
    std::wstring text = L"[";
    SAFEARRAY* names = nullptr;
    if (qualifiers == nullptr || FAILED(qualifiers->GetNames(0, &names))) {
        return L"[none]";
    }
    for (const auto& name : Names(names)) {
        _variant_t value;
        qualifiers->Get(name, 0, &value, nullptr);
        text += std::wstring(name) + L"=" + Describe(value) + L" ";
    }
    return text + L"]";
}

// Everything a client can read of an object: its text, class qualifiers, every property with its CIM type,
// value and qualifiers, every method with its signatures.
std::wstring Portrait(IWbemClassObject* object) {
    _bstr_t text;
    EXPECT_EQ(object->GetObjectText(0, text.GetAddress()), S_OK);
    std::wstring portrait = std::wstring(text) + L"\n";
    ComPtr<IWbemQualifierSet> qualifiers;
    object->GetQualifierSet(&qualifiers);
    portrait += Qualifiers(qualifiers.Get()) + L"\n";
    SAFEARRAY* names = nullptr;
    EXPECT_EQ(object->GetNames(nullptr, 0, nullptr, &names), S_OK);
    for (const auto& name : Names(names)) {
        _variant_t value;
        CIMTYPE type = 0;
        EXPECT_EQ(object->Get(name, 0, &value, &type, nullptr), S_OK);
        ComPtr<IWbemQualifierSet> propertyQualifiers;
        object->GetPropertyQualifierSet(name, &propertyQualifiers);
        portrait += std::wstring(name) + L" cim" + std::to_wstring(type) + L" " + Describe(value) + L" " +
                    Qualifiers(propertyQualifiers.Get()) + L"\n";
    }
    object->BeginMethodEnumeration(0);
    _bstr_t method;
    ComPtr<IWbemClassObject> in;
    ComPtr<IWbemClassObject> out;
    while (object->NextMethod(0, method.GetAddress(), &in, &out) == S_OK) {
        ComPtr<IWbemQualifierSet> methodQualifiers;
        object->GetMethodQualifierSet(method, &methodQualifiers);
        portrait += L"method " + std::wstring(method) + Qualifiers(methodQualifiers.Get()) + L" in {" +
                    (in ? Portrait(in.Get()) : L"none") + L"} out {" + (out ? Portrait(out.Get()) : L"none") + L"}\n";
        in.Reset();
        out.Reset();
    }
    object->EndMethodEnumeration();
    return portrait;
}

ComPtr<IWbemClassObject> ClassNamed(const wchar_t* name) {
    ComPtr<IWbemClassObject> object;
    EXPECT_EQ(Connect()->GetObject(_bstr_t(name), 0, nullptr, &object, nullptr), S_OK) << name;
    return object;
}

ComPtr<IWbemClassObject> Spawned(IWbemClassObject* definition, const Parameters& values) {
    ComPtr<IWbemClassObject> instance;
    EXPECT_EQ(definition->SpawnInstance(0, &instance), S_OK);
    for (const auto& value : values) {
        EXPECT_EQ(instance->Put(value.first, 0, const_cast<VARIANT*>(static_cast<const VARIANT*>(&value.second)), 0), S_OK)
            << value.first;
    }
    return instance;
}

_variant_t ObjectValue(IWbemClassObject* object) {
    return _variant_t(static_cast<IUnknown*>(object));
}

_variant_t StringArray(std::vector<const wchar_t*> texts) {
    SAFEARRAY* array = SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(texts.size()));
    for (LONG i = 0; i < static_cast<LONG>(texts.size()); ++i) {
        SafeArrayPutElement(array, &i, _bstr_t(texts[static_cast<size_t>(i)]).GetBSTR());
    }
    _variant_t value;
    value.vt = VT_ARRAY | VT_BSTR;
    value.parray = array;
    return value;
}

ComPtr<IWbemClassObject> InstanceOfEveryKind() {
    const auto kinds = ClassNamed(L"Dorwex_AllKinds");
    const auto inner = Spawned(kinds.Get(), {{L"Name", L"inner \"quoted\""}, {L"U32", 7L}});
    return Spawned(kinds.Get(), {{L"Name", L"outer"},
                                 {L"Flag", true},
                                 {L"U8", static_cast<BYTE>(200)},
                                 {L"S8", -100L},
                                 {L"U16", 65000L},
                                 {L"S16", -32000L},
                                 {L"U32", 4000000000LL},
                                 {L"S32", -2000000000L},
                                 {L"U64", L"18446744073709551615"},
                                 {L"S64", L"-9223372036854775808"},
                                 {L"R32", 1.5f},
                                 {L"R64", -2.25e300},
                                 {L"When", L"20260125012345.000000+000"},
                                 {L"Embedded", ObjectValue(inner.Get())}});
}

struct ObjectCase {
    const char* what;
    std::function<ComPtr<IWbemClassObject>()> make;
    const wchar_t* expected;  // a part of the portrait, so that an empty copy cannot pass
    const wchar_t* changed;   // a property the test Puts on the copy
    _variant_t value;         // and its new value
};

TEST(ByValue, ACopyDescribesItselfAsTheOriginalAndChangesAlone) {
    const ObjectCase cases[] = {
        {"class", [] { return ClassNamed(L"Dorwex_AllKinds"); }, L"method Run", L"U32", 42L},
        {"instance of every kind with an embedded object", InstanceOfEveryKind, L"inner \\\"quoted\\\"", L"Name", L"changed"},
        {"method in-parameters",
         [] {
             ComPtr<IWbemClassObject> in;
             EXPECT_EQ(ClassNamed(L"Dorwex_AllKinds")->GetMethod(L"Run", 0, &in, nullptr), S_OK);
             return Spawned(in.Get(), {{L"Text", L"hello"}, {L"Count", 3L}});
         },
         L"max=vt3:9", L"Text", L"changed"},
        {"extended status",
         [] {
             return Spawned(ClassNamed(L"__ExtendedStatus").Get(),
                            {{L"Description", L"Device busy"}, {L"StatusCode", 0x80041001L}, {L"Operation", L"Get"}});
         },
         L"Device busy", L"Description", L"changed"},
        {"instance with a text array",
         [] {
             return Spawned(ClassNamed(L"__EventProviderRegistration").Get(),
                            {{L"EventQueryList", StringArray({L"select * from A", L"", L"select * from B"})}});
         },
         L"select * from B", L"EventQueryList", StringArray({L"other"})},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        const auto original = test.make();
        ASSERT_TRUE(original);
        const std::wstring before = Portrait(original.Get());
        EXPECT_NE(before.find(test.expected), std::wstring::npos) << before;

        const auto copy = Copy(original.Get());
        ASSERT_TRUE(copy);
        EXPECT_NE(copy.Get(), original.Get());
        EXPECT_EQ(Portrait(copy.Get()), before);
        _variant_t path;
        EXPECT_EQ(copy->Get(L"__PATH", 0, &path, nullptr, nullptr), S_OK);
        _variant_t originalPath;
        original->Get(L"__PATH", 0, &originalPath, nullptr, nullptr);
        EXPECT_EQ(Describe(path), Describe(originalPath));

        EXPECT_EQ(copy->Put(test.changed, 0, const_cast<VARIANT*>(static_cast<const VARIANT*>(&test.value)), 0), S_OK);
        EXPECT_EQ(Portrait(original.Get()), before);
        EXPECT_NE(Portrait(copy.Get()), before);
    }
}

TEST(ByValue, AnEmbeddedObjectArrivesAsACopyOfItsOwn) {
    const auto outer = InstanceOfEveryKind();
    const auto copy = Copy(outer.Get());
    _variant_t embedded;
    ASSERT_EQ(copy->Get(L"Embedded", 0, &embedded, nullptr, nullptr), S_OK);
    ASSERT_EQ(embedded.vt, VT_UNKNOWN);
    ComPtr<IWbemClassObject> inner;
    ASSERT_EQ(embedded.punkVal->QueryInterface(IID_PPV_ARGS(&inner)), S_OK);
    _variant_t name(L"changed");
    EXPECT_EQ(inner->Put(L"Name", 0, &name, 0), S_OK);
    _variant_t originalEmbedded;
    ASSERT_EQ(outer->Get(L"Embedded", 0, &originalEmbedded, nullptr, nullptr), S_OK);
    EXPECT_EQ(Text(ComPtr<IWbemClassObject>(static_cast<IWbemClassObject*>(originalEmbedded.punkVal)).Get(), L"Name"),
              L"inner \"quoted\"");
}

// A context value of every kind the emulator holds, arrays of each, and an embedded object.
TEST(ByValue, AContextArrivesWithEveryValueAndChangesAlone) {
    ComPtr<IWbemContext> context;
    ASSERT_EQ(CoCreateInstance(CLSID_WbemContext, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&context)), S_OK);
    std::vector<std::pair<std::wstring, _variant_t>> values = {
        {L"empty", _variant_t()},          {L"null", _variant_t()}, {L"text", _variant_t()},
        {L"bool", true},                   {L"i1", static_cast<char>(-5)},       {L"ui1", static_cast<BYTE>(250)},
        {L"i2", static_cast<short>(-300)}, {L"ui2", static_cast<unsigned short>(60000)},
        {L"i4", -70000L},                  {L"ui4", 4000000000UL},              {L"i8", -5000000000LL},
        {L"ui8", 10000000000000000000ULL}, {L"r4", 0.25f},                      {L"r8", 1e-300},
        {L"date", _variant_t(45000.5, VT_DATE)}, {L"object", ObjectValue(InstanceOfEveryKind().Get())},
        {L"texts", StringArray({L"x", L"y"})}};
    values[1].second.vt = VT_NULL;
    values[2].second = _variant_t(_bstr_t(SysAllocStringLen(L"a\0b", 3), false));
    for (VARTYPE type : {VT_I1, VT_UI1, VT_I2, VT_UI2, VT_I4, VT_UI4, VT_I8, VT_UI8, VT_R4, VT_R8, VT_BOOL, VT_DATE,
                         VT_UNKNOWN, VT_VARIANT}) {
        _variant_t array;
        array.vt = VT_ARRAY | type;
        array.parray = SafeArrayCreateVector(type, 3, 2);  // a lower bound other than 0 travels too
        for (LONG i = 3; i < 5; ++i) {
            _variant_t element(static_cast<LONG>(i * 10 + type % 7));
            if (type == VT_UNKNOWN) {
                element = ObjectValue(ClassNamed(L"__ExtendedStatus").Get());
            } else if (type != VT_VARIANT) {
                ASSERT_EQ(VariantChangeType(&element, &element, 0, type), S_OK);
            }
            ASSERT_EQ(SafeArrayPutElement(array.parray, &i, type == VT_VARIANT ? static_cast<void*>(&element)
                                                         : type == VT_UNKNOWN ? static_cast<void*>(element.punkVal)
                                                                              : static_cast<void*>(&element.llVal)),
                      S_OK);
        }
        values.emplace_back(L"array" + std::to_wstring(type), array);
    }
    for (auto& value : values) {
        ASSERT_EQ(context->SetValue(value.first.c_str(), 0, &value.second), S_OK) << value.first;
    }
    const auto copy = Copy(context.Get());
    ASSERT_TRUE(copy);
    EXPECT_NE(copy.Get(), context.Get());
    SAFEARRAY* names = nullptr;
    ASSERT_EQ(copy->GetNames(0, &names), S_OK);
    const auto arrivedNames = Names(names);
    ASSERT_EQ(arrivedNames.size(), values.size());
    for (size_t i = 0; i < values.size(); ++i) {
        EXPECT_EQ(std::wstring(arrivedNames[i]), values[i].first) << "in the order they were set";
    }
    for (const auto& value : values) {
        _variant_t arrived;
        ASSERT_EQ(copy->GetValue(value.first.c_str(), 0, &arrived), S_OK) << value.first;
        EXPECT_EQ(Describe(arrived), Describe(value.second)) << value.first;
    }
    _variant_t changed(L"changed");
    ASSERT_EQ(copy->SetValue(L"text", 0, &changed), S_OK);
    _variant_t kept;
    ASSERT_EQ(context->GetValue(L"text", 0, &kept), S_OK);
    EXPECT_EQ(SysStringLen(kept.bstrVal), 3u);
}

// What cannot travel fails the marshalling instead of hanging or writing half an object: an instance that holds
// itself (nesting without end), an object the service did not make, a value by reference.
TEST(ByValue, WhatCannotTravelIsRefused) {
    const auto kinds = ClassNamed(L"Dorwex_AllKinds");
    ComPtr<IStream> foreign;
    ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &foreign), S_OK);
    const auto holder = Spawned(kinds.Get(), {{L"Name", L"holder"}});
    const struct {
        const char* what;
        _variant_t value;
    } cases[] = {
        {"itself", ObjectValue(holder.Get())},
        {"a stream", _variant_t(static_cast<IUnknown*>(foreign.Get()))},
    };
    for (const auto& test : cases) {
        ASSERT_EQ(holder->Put(L"Embedded", 0, const_cast<VARIANT*>(static_cast<const VARIANT*>(&test.value)), 0), S_OK);
        ComPtr<IStream> stream;
        ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &stream), S_OK);
        EXPECT_TRUE(FAILED(CoMarshalInterface(stream.Get(), IID_IWbemClassObject, holder.Get(), MSHCTX_LOCAL, nullptr,
                                              MSHLFLAGS_NORMAL)))
            << test.what;
        ASSERT_EQ(holder->Delete(L"Embedded"), static_cast<HRESULT>(WBEM_S_RESET_TO_DEFAULT));  // ends the cycle
    }
    ComPtr<IWbemContext> context;
    ASSERT_EQ(CoCreateInstance(CLSID_WbemContext, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&context)), S_OK);
    LONG number = 5;
    VARIANT byReference;
    byReference.vt = VT_I4 | VT_BYREF;
    byReference.plVal = &number;
    ASSERT_EQ(context->SetValue(L"by reference", 0, &byReference), S_OK);
    ComPtr<IStream> stream;
    ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &stream), S_OK);
    EXPECT_TRUE(FAILED(
        CoMarshalInterface(stream.Get(), IID_IWbemContext, context.Get(), MSHCTX_LOCAL, nullptr, MSHLFLAGS_NORMAL)));
}

// The same stream read by another process: this program again, which finds the stream's file in its
// environment, unmarshals it and writes the portrait of what it got next to it.
TEST(ByValue, AnotherProcessReceivesTheSameObject) {
    wchar_t file[MAX_PATH] = {};
    if (GetEnvironmentVariableW(L"DORWEX_BY_VALUE_STREAM", file, MAX_PATH) != 0) {
        std::ifstream in(std::filesystem::path(file), std::ios::binary);
        const std::vector<BYTE> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        ComPtr<IWbemClassObject> copy;
        ASSERT_EQ(Unmarshal(bytes, copy), S_OK);
        const std::wstring portrait = Portrait(copy.Get());
        std::ofstream(std::filesystem::path(std::wstring(file) + L".out"), std::ios::binary)
            .write(reinterpret_cast<const char*>(portrait.data()), static_cast<std::streamsize>(portrait.size() * 2));
        return;
    }
    const auto original = InstanceOfEveryKind();
    const auto bytes = Bytes(Marshalled(original.Get(), IID_IWbemClassObject).Get());
    const std::wstring stream = g_repository + L".stream";
    std::ofstream(std::filesystem::path(stream), std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    wchar_t program[MAX_PATH] = {};
    ASSERT_GT(GetModuleFileNameW(nullptr, program, MAX_PATH), 0u);
    std::wstring command = L"\"" + std::wstring(program) + L"\" --gtest_filter=ByValue.AnotherProcessReceivesTheSameObject";
    ASSERT_TRUE(SetEnvironmentVariableW(L"DORWEX_BY_VALUE_STREAM", stream.c_str()));
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process{};
    const BOOL started =
        CreateProcessW(program, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process);
    SetEnvironmentVariableW(L"DORWEX_BY_VALUE_STREAM", nullptr);
    ASSERT_TRUE(started);
    EXPECT_EQ(WaitForSingleObject(process.hProcess, 120000), WAIT_OBJECT_0);
    DWORD exitCode = 1;
    GetExitCodeProcess(process.hProcess, &exitCode);
    EXPECT_NE(GetProcessId(process.hProcess), GetCurrentProcessId());
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    EXPECT_EQ(exitCode, 0u);
    std::ifstream in(std::filesystem::path(stream + L".out"), std::ios::binary);
    const std::string received{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    in.close();
    const std::wstring before = Portrait(original.Get());
    EXPECT_EQ(std::wstring(reinterpret_cast<const wchar_t*>(received.data()), received.size() / 2), before);
    std::filesystem::remove(std::filesystem::path(stream));
    std::filesystem::remove(std::filesystem::path(stream + L".out"));
}

// The state follows COM's own header; its first four bytes give its length. Cut the state at every length
// (the length adjusted, so the reader meets items that run past it) or the stream short (the length kept):
// each is an error, and nothing made for it is left alive.
TEST(ByValue, ATruncatedStreamIsAnErrorAndLeaksNothing) {
    const auto bytes = Bytes(Marshalled(InstanceOfEveryKind().Get(), IID_IWbemClassObject).Get());
    size_t header = 0;
    for (size_t at = 0; at + 4 <= bytes.size(); ++at) {
        DWORD size = 0;
        memcpy(&size, &bytes[at], 4);
        if (at + 4 + size == bytes.size() && size > 0) {
            header = at;
            break;
        }
    }
    ASSERT_GT(header, 0u);
    ComPtr<IWbemClassObject> whole;
    ASSERT_EQ(Unmarshal(bytes, whole), S_OK);
    whole.Reset();
    const LONG live = LiveObjects();
    ASSERT_GT(live, 0);
    const DWORD size = static_cast<DWORD>(bytes.size() - header - 4);
    for (DWORD cut = 0; cut < size; ++cut) {
        std::vector<BYTE> truncated(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(header + 4 + cut));
        ComPtr<IWbemClassObject> copy;
        EXPECT_TRUE(FAILED(Unmarshal(truncated, copy))) << "stream cut after " << cut << " bytes";
        memcpy(&truncated[header], &cut, 4);
        EXPECT_TRUE(FAILED(Unmarshal(truncated, copy))) << "state of " << cut << " bytes";
        EXPECT_FALSE(copy);
    }
    EXPECT_EQ(LiveObjects(), live);
}

}  // namespace
