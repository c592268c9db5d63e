// Method parameters as the dispatcher converts them before a handler reads them.
#include <gtest/gtest.h>

#include <set>

#include "wmi/method_dispatch.h"

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

}  // namespace
