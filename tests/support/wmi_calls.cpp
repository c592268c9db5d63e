#include "support/wmi_calls.h"

#include <gtest/gtest.h>

using Microsoft::WRL::ComPtr;

std::wstring ProgramDirectory() {
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring directory(path);
    return directory.substr(0, directory.find_last_of(L'\\'));
}

// Registers a COM server of the build in the prefix, as regsvr32 does.
void Register(const wchar_t* dll) {
    HMODULE module = LoadLibraryW((ProgramDirectory() + L"\\" + dll).c_str());
    ASSERT_NE(module, nullptr) << "cannot load " << std::string(dll, dll + wcslen(dll));
    auto* registerServer = reinterpret_cast<HRESULT(WINAPI*)()>(
        reinterpret_cast<void*>(GetProcAddress(module, "DllRegisterServer")));
    ASSERT_NE(registerServer, nullptr);
    ASSERT_EQ(registerServer(), S_OK);
}

ComPtr<IWbemServices> Connect() {
    ComPtr<IWbemLocator> locator;
    EXPECT_EQ(CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&locator)), S_OK);
    ComPtr<IWbemServices> services;
    if (locator) {
        EXPECT_EQ(locator->ConnectServer(_bstr_t(L"ROOT\\CIMV2"), nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                         &services),
                  S_OK);
    }
    return services;
}

std::vector<ComPtr<IWbemClassObject>> Query(IWbemServices* services, const std::wstring& wql) {
    std::vector<ComPtr<IWbemClassObject>> objects;
    ComPtr<IEnumWbemClassObject> enumerator;
    EXPECT_EQ(services->ExecQuery(_bstr_t(L"WQL"), _bstr_t(wql.c_str()), WBEM_FLAG_FORWARD_ONLY, nullptr, &enumerator),
              S_OK);
    IWbemClassObject* object = nullptr;
    ULONG returned = 0;
    while (enumerator && enumerator->Next(WBEM_INFINITE, 1, &object, &returned) == S_OK && returned == 1) {
        objects.emplace_back(object);
        object->Release();
    }
    return objects;
}

std::wstring Text(IWbemClassObject* object, const wchar_t* name) {
    _variant_t value;
    if (FAILED(object->Get(name, 0, &value, nullptr, nullptr)) || value.vt != VT_BSTR || value.bstrVal == nullptr) {
        return L"<none>";
    }
    return value.bstrVal;
}

Outcome CallMethod(const wchar_t* method, const Parameters& parameters, LONG clientPid) {
    Outcome outcome;
    auto services = Connect();
    ComPtr<IWbemClassObject> wpdClass;
    services->GetObject(_bstr_t(L"Win32ext_WPD"), 0, nullptr, &wpdClass, nullptr);
    ComPtr<IWbemClassObject> inSignature;
    ComPtr<IWbemClassObject> in;
    wpdClass->GetMethod(method, 0, &inSignature, nullptr);
    if (inSignature) {
        inSignature->SpawnInstance(0, &in);
        for (const auto& parameter : parameters) {
            const HRESULT put = in->Put(parameter.first, 0, const_cast<_variant_t*>(&parameter.second), 0);
            EXPECT_TRUE(put == S_OK || put == static_cast<HRESULT>(WBEM_E_NOT_FOUND));
        }
    }
    ComPtr<IWbemContext> context;
    if (clientPid >= 0) {
        CoCreateInstance(CLSID_WbemContext, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&context));
        _variant_t pid(static_cast<long>(clientPid), VT_I4);
        pid.vt = VT_UI4;
        context->SetValue(L"dorWEXWPDClientPID", 0, &pid);
    }
    ComPtr<IWbemClassObject> out;
    outcome.status = services->ExecMethod(_bstr_t(L"Win32ext_WPD"), _bstr_t(method), 0, context.Get(), in.Get(), &out,
                                          nullptr);
    if (out) {
        outcome.returnValue = Text(out.Get(), L"ReturnValue");
    }
    ComPtr<IErrorInfo> error;
    ComPtr<IWbemClassObject> status;
    if (FAILED(outcome.status) && GetErrorInfo(0, &error) == S_OK && SUCCEEDED(error.As(&status))) {
        outcome.description = Text(status.Get(), L"Description");
    }
    return outcome;
}

ComPtr<IWbemClassObject> NextEvent(IEnumWbemClassObject* events, long milliseconds) {
    IWbemClassObject* event = nullptr;
    ULONG returned = 0;
    ComPtr<IWbemClassObject> received;
    if (events != nullptr && events->Next(milliseconds, 1, &event, &returned) == S_OK && returned == 1) {
        received.Attach(event);
    }
    return received;
}
