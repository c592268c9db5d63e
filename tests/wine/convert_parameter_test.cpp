// Method parameters as the dispatcher converts them before a handler reads them.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "support/provider_object.h"
#include "support/test_trace_sink.h"
#include "wmi/method_dispatch.h"
#include "wmi/provider.h"
#include "common/trace.h"

namespace {

struct TextCase {
    _variant_t value;
    const wchar_t* text;
};

TEST(ConvertParameter, NumbersTextsAndReferencesBecomeText) {
    _variant_t referenced(5L, VT_I4);
    VARIANT byReference;
    VariantInit(&byReference);
    byReference.vt = VT_BYREF | VT_VARIANT;
    byReference.pvarVal = &referenced;
    const TextCase cases[] = {
        {_variant_t(static_cast<short>(7), VT_I2), L"7"},
        {_variant_t(-5L, VT_I4), L"-5"},
        {_variant_t(1.5f), L"1.5"},
        {_variant_t(0.25), L"0.25"},
        {_variant_t(L"as is"), L"as is"},
        {_variant_t(byReference), L"5"},
    };
    for (const auto& c : cases) {
        DorWEXMethodCall call;
        ASSERT_EQ(ConvertParameter(call, c.value, 1, VT_BSTR, L"CDorWEXWPDWMI::MethodTest"), S_OK);
        ASSERT_EQ(call.variant_tSlots[1].vt, VT_BSTR);
        EXPECT_STREQ(call.variant_tSlots[1].bstrVal, c.text);
        EXPECT_EQ(call.variant_tSlots[0].vt, VT_EMPTY) << "only the slot of the index is written";
        EXPECT_FALSE(call.pErrorRecord);
    }
}

// Process ids are asked for as type 23 (VT_UINT), the number the failure message names.
TEST(ConvertParameter, TextToNumberAndItsFailure) {
    DorWEXMethodCall call;
    ASSERT_EQ(ConvertParameter(call, _variant_t(L"1234"), 0, VT_UINT, L"CDorWEXWPDWMI::MethodRequestWriteToken"),
              S_OK);
    EXPECT_EQ(call.variant_tSlots[0].vt, VT_UINT);
    EXPECT_EQ(call.variant_tSlots[0].uintVal, 1234u);

    EXPECT_EQ(ConvertParameter(call, _variant_t(L"twelve"), 0, VT_UINT, L"CDorWEXWPDWMI::MethodRequestWriteToken"),
              E_FAIL);
    ASSERT_TRUE(call.pErrorRecord);
    EXPECT_EQ(call.pErrorRecord->wstringOperation, L"CDorWEXWPDWMI::MethodRequestWriteToken");
    EXPECT_EQ(call.pErrorRecord->wstringDescription,
              L"CDorWEXWPDWMI::MethodRequestWriteToken: Could not convert parameter 0 to proper data type: 23");

    DorWEXMethodCall boolean;
    ASSERT_EQ(ConvertParameter(boolean, _variant_t(VARIANT_TRUE, VT_BOOL), 0, VT_BOOL, L"M"), S_OK);
    EXPECT_EQ(boolean.variant_tSlots[0].boolVal, VARIANT_TRUE);
}

TEST(ConvertParameter, UnknownTypesAreNamedInTheMessage) {
    DorWEXMethodCall call;
    EXPECT_EQ(ConvertParameter(call, _variant_t(45000.0, VT_DATE), 1, VT_BSTR, L"CDorWEXWPDWMI::MethodGetProperty2"),
              E_FAIL);
    ASSERT_TRUE(call.pErrorRecord);
    EXPECT_EQ(call.pErrorRecord->wstringDescription,
              L"CDorWEXWPDWMI::MethodGetProperty2: Unknown variable (variant) type passed in:7.  Desired variable "
              L"type:8.  Parameter index:1");

    // An object reached through a reference is not taken.
    _variant_t object;
    object.vt = VT_DISPATCH;
    object.pdispVal = nullptr;
    VARIANT byReference;
    VariantInit(&byReference);
    byReference.vt = VT_BYREF | VT_VARIANT;
    byReference.pvarVal = &object;
    DorWEXMethodCall referenced;
    EXPECT_EQ(ConvertParameter(referenced, byReference, 0, VT_BSTR, L"M"), E_FAIL);
    EXPECT_EQ(referenced.pErrorRecord->wstringDescription,
              L"M: Unknown variable (variant) type passed in:9.  Desired variable type:8.  Parameter index:0");
}


// Dispatch goes from the schema's method table to the handlers: each method has a handler of its own, and a
// name the table does not hold finds nothing.
TEST(MethodDispatch, EveryMethodOfTheSchemaHasItsOwnHandler) {
    std::set<DorWEXMethodHandler> handlers;
    for (const auto& method : dorwex::schema::kWPDMethods) {
        EXPECT_EQ(dorwex::schema::FindMethod(method.name), &method);
        const DorWEXMethodHandler handler = HandlerFor(method.id);
        EXPECT_NE(handler, nullptr) << method.name;
        handlers.insert(handler);
    }
    EXPECT_EQ(handlers.size(), dorwex::schema::kWPDMethodCount);
    EXPECT_EQ(dorwex::schema::FindMethod(L"setdebuglevel"), nullptr) << "method names are matched exactly";
    EXPECT_EQ(dorwex::schema::FindMethod(nullptr), nullptr);
}

// The in-parameters of one call as the handler reads them: one property, or none at all.
class InParameters : public IWbemClassObject {
public:
    InParameters(const wchar_t* name, const _variant_t& value, bool present)
        : m_name(name), m_value(value), m_present(present) {}
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
        *ppv = (riid == IID_IUnknown || riid == IID_IWbemClassObject) ? this : nullptr;
        return *ppv != nullptr ? S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE Get(LPCWSTR name, LONG, VARIANT* value, CIMTYPE*, LONG*) override {
        if (!m_present || name == nullptr || m_name != name) {
            return WBEM_E_NOT_FOUND;
        }
        return VariantCopy(value, &m_value);
    }
    HRESULT STDMETHODCALLTYPE GetQualifierSet(IWbemQualifierSet**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Put(LPCWSTR, LONG, VARIANT*, CIMTYPE) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Delete(LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetNames(LPCWSTR, LONG, VARIANT*, SAFEARRAY**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE BeginEnumeration(LONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Next(LONG, BSTR*, VARIANT*, CIMTYPE*, LONG*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE EndEnumeration() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetPropertyQualifierSet(LPCWSTR, IWbemQualifierSet**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Clone(IWbemClassObject**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetObjectText(LONG, BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SpawnDerivedClass(LONG, IWbemClassObject**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SpawnInstance(LONG, IWbemClassObject**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE CompareTo(LONG, IWbemClassObject*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetPropertyOrigin(LPCWSTR, BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE InheritsFrom(LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetMethod(LPCWSTR, LONG, IWbemClassObject**, IWbemClassObject**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE PutMethod(LPCWSTR, LONG, IWbemClassObject*, IWbemClassObject*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE DeleteMethod(LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE BeginMethodEnumeration(LONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE NextMethod(LONG, BSTR*, IWbemClassObject**, IWbemClassObject**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE EndMethodEnumeration() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetMethodQualifierSet(LPCWSTR, IWbemQualifierSet**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetMethodOrigin(LPCWSTR, BSTR*) override { return E_NOTIMPL; }

private:
    std::wstring m_name;
    _variant_t m_value;
    bool m_present;
};

// "SetDebugLevel" decides the level from the parameter's text: a number is that level, "0" or no text is 0, a
// text that is not a number is 1; a missing or null parameter leaves the level as it is. The new level is
// traced with the line the new level allows, and "ReturnValue" is the empty text every time.
TEST(MethodSetDebugLevel, TheParameterDecidesTheLevelAndTheLevelIsTraced) {
    _variant_t null;
    null.vt = VT_NULL;
    const struct {
        const char* what;
        _variant_t value;
        bool present;
        ULONG before;
        ULONG after;
    } cases[] = {
        {"a number", _variant_t(5L, VT_I4), true, 1, 5},
        {"a number as text", _variant_t(L"3"), true, 1, 3},
        {"text led by a number", _variant_t(L"7x"), true, 1, 7},
        {"text that is not a number", _variant_t(L"abc"), true, 0, 1},
        {"text of a zero that is not \"0\"", _variant_t(L"00"), true, 3, 1},
        {"the text 0", _variant_t(L"0"), true, 4, 0},
        {"the number 0", _variant_t(0L, VT_I4), true, 4, 0},
        {"no text", _variant_t(L""), true, 2, 0},
        {"null", null, true, 3, 3},
        {"no parameter", _variant_t(), false, 2, 2},
    };
    const auto* method = dorwex::schema::FindMethod(L"SetDebugLevel");
    ASSERT_NE(method, nullptr);
    for (const auto& c : cases) {
        TraceCapture trace(c.before);
        InParameters in(L"uint32DebugLevel", c.value, c.present);
        DorWEXMethodCall call;
        call.pMethod = method;
        call.pInParams = &in;
        EXPECT_EQ(MethodSetDebugLevel(call), S_OK) << c.what;
        EXPECT_EQ(GetTraceLevel(), c.after) << c.what;
        ASSERT_TRUE(call.boolHasReturnValue) << c.what;
        EXPECT_EQ(call.variant_tReturnValue.vt, VT_BSTR) << c.what;
        EXPECT_STREQ(call.variant_tReturnValue.bstrVal, L"") << c.what;
        EXPECT_FALSE(call.pErrorRecord) << c.what;
        // The line is written at the new level: a level of 0 writes nothing.
        std::vector<std::wstring> expected;
        if (c.present && c.value.vt != VT_NULL && c.after != 0) {
            expected.push_back(L"CDorWEXWPDWMI::MethodSetDebugLevel, set to " + std::to_wstring(c.after) + L"\r\n");
        }
        EXPECT_EQ(trace.Lines(), expected) << c.what;
    }
}

// A parameter the conversion cannot turn into text (a date, or an empty value, which is not null) fails the
// call with the conversion's message and leaves the level alone.
TEST(MethodSetDebugLevel, AParameterThatIsNoTextFailsAndChangesNothing) {
    const auto* method = dorwex::schema::FindMethod(L"SetDebugLevel");
    ASSERT_NE(method, nullptr);
    const struct {
        _variant_t value;
        const wchar_t* description;
    } cases[] = {
        {_variant_t(45000.0, VT_DATE),
         L"CDorWEXWPDWMI::MethodSetDebugLevel: Unknown variable (variant) type passed in:7.  Desired variable "
         L"type:8.  Parameter index:0"},
        {_variant_t(),
         L"CDorWEXWPDWMI::MethodSetDebugLevel: Unknown variable (variant) type passed in:0.  Desired variable "
         L"type:8.  Parameter index:0"},
    };
    for (const auto& c : cases) {
        TraceCapture trace(2);
        InParameters in(L"uint32DebugLevel", c.value, true);
        DorWEXMethodCall call;
        call.pMethod = method;
        call.pInParams = &in;
        EXPECT_EQ(MethodSetDebugLevel(call), E_FAIL) << c.value.vt;
        EXPECT_EQ(GetTraceLevel(), 2u);
        ASSERT_TRUE(call.pErrorRecord) << c.value.vt;
        EXPECT_EQ(call.pErrorRecord->wstringDescription, c.description);
        EXPECT_TRUE(trace.Lines().empty());
    }
}

// A refusal made when no __ExtendedStatus can be built (here a provider object that WMI gave no namespace)
// is kept as an error record with the refusal's texts, so the call still ends in E_FAIL with its reason
// instead of in the handler's success.
TEST(MethodHandlers, ARefusalWithoutAStatusObjectStillFailsTheCall) {
    const auto* method = dorwex::schema::FindMethod(L"RequestWriteToken");
    ASSERT_NE(method, nullptr);
    IWbemServices* services = CreateProviderObject<IWbemServices>();
    ASSERT_NE(services, nullptr);
    InParameters in(L"uint32ProcessId", _variant_t(5L, VT_I4), true);
    DorWEXMethodCall call;
    call.pProvider = static_cast<CDorWEXWPDWMI*>(services);
    call.pMethod = method;
    call.pInParams = &in;
    EXPECT_EQ(MethodRequestWriteToken(call), S_OK) << "no context: the process id cannot be the caller's";
    EXPECT_EQ(call.pExtendedStatus, nullptr);
    ASSERT_TRUE(call.pErrorRecord);
    EXPECT_EQ(call.pErrorRecord->wstringOperation, L"CDorWEXWPDWMI::MethodRequestWriteToken");
    EXPECT_EQ(call.pErrorRecord->wstringDescription, L"Invalid PID specified when requesting a write token.");
    services->Release();
}

}  // namespace
