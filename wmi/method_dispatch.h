// Method calls on Win32ext_WPD: the outcome of one call, parameter conversion and __ExtendedStatus.
#pragma once

#include <windows.h>
#include <comdef.h>
#include <wbemcli.h>

#include <memory>
#include <string>

#include "schema.h"

class CDorWEXWPDWMI;

// What a conversion that failed leaves for the caller: where it failed and why.
struct DorWEXErrorRecord {
    std::wstring wstringOperation;
    std::wstring wstringDescription;
};

// One method call: the converted parameter slots belong to the call, so concurrent calls on one provider
// object cannot disturb each other, and the outcome the dispatcher turns into the reply.
struct DorWEXMethodCall {
    CDorWEXWPDWMI* pProvider = nullptr;
    const dorwex::schema::MethodDefinition* pMethod = nullptr;  // the method called: its parameters' names
    IWbemClassObject* pInParams = nullptr;
    IWbemContext* pContext = nullptr;
    _variant_t variant_tSlots[2];
    // Outcome.
    bool boolHasReturnValue = false;
    _variant_t variant_tReturnValue;
    std::unique_ptr<DorWEXErrorRecord> pErrorRecord;
    IWbemClassObject* pExtendedStatus = nullptr;  // owned

    ~DorWEXMethodCall();
    void SetReturnText(const wchar_t* pwcharText_in);
    // Takes the text over without copying it: a listing can be megabytes (null gives an empty text).
    void SetReturnText(_bstr_t&& bstr_tText_in);
    // Records a failure the caller sees as an __ExtendedStatus with these texts.
    void SetExtendedStatus(const wchar_t* pwcharOperation_in, const wchar_t* pwcharDescription_in);
};

// Brings a parameter value into slot intIndex_in of the call and converts it to vartypeDesired_in; on
// failure the call gets an error record with the composed message and E_FAIL is returned.
HRESULT ConvertParameter(DorWEXMethodCall& call_io, const VARIANT& variant_in, int intIndex_in,
                         VARTYPE vartypeDesired_in, const wchar_t* pwcharMethodTraceName_in);

// A new __ExtendedStatus instance with the two texts, or null.
IWbemClassObject* CreateExtendedStatus(IWbemServices* pIWbemServices_in, const wchar_t* pwcharOperation_in,
                                       const wchar_t* pwcharDescription_in);

// The handler of a method. Each reads its parameters by their place in the method's definition.
using DorWEXMethodHandler = HRESULT (*)(DorWEXMethodCall&);
DorWEXMethodHandler HandlerFor(dorwex::schema::Method id_in);

// The method handlers.
HRESULT MethodSetDebugLevel(DorWEXMethodCall& call_io);
HRESULT MethodGetProperty(DorWEXMethodCall& call_io);
HRESULT MethodCopyFileFromDevice(DorWEXMethodCall& call_io);
HRESULT MethodMoveFileFromDevice(DorWEXMethodCall& call_io);
HRESULT MethodDeleteFileFromDevice(DorWEXMethodCall& call_io);
HRESULT MethodEnumerateDevicePath(DorWEXMethodCall& call_io);
HRESULT MethodCreateFolderOnDevice(DorWEXMethodCall& call_io);
HRESULT MethodRequestWriteToken(DorWEXMethodCall& call_io);
HRESULT MethodCopyFileToDevice(DorWEXMethodCall& call_io);
HRESULT MethodEjectDevice(DorWEXMethodCall& call_io);
