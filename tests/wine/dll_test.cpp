// The built DLL as a host sees it: loaded from disk, reached only through its exports.
#include <gtest/gtest.h>
#include <windows.h>
#include <objbase.h>
#include <winver.h>
#include <wbemcli.h>
#include <olectl.h>

#include <string>

#include "debug_capture.h"
#include "wmi/provider_clsid.h"

namespace {

using DllGetClassObjectFunction = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
using DllCanUnloadNowFunction = HRESULT(STDAPICALLTYPE*)();

template <class Function>
Function Export(HMODULE module, const char* name) {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

class ProviderDll : public ::testing::Test {
protected:
    void SetUp() override {
        module_ = LoadLibraryW((GetProgramDirectory() + L"dorwex_wpd_provider.dll").c_str());
        ASSERT_NE(module_, nullptr) << "error " << GetLastError();
        getClassObject_ = Export<DllGetClassObjectFunction>(module_, "DllGetClassObject");
        canUnloadNow_ = Export<DllCanUnloadNowFunction>(module_, "DllCanUnloadNow");
        ASSERT_NE(getClassObject_, nullptr);
        ASSERT_NE(canUnloadNow_, nullptr);
    }
    void TearDown() override {
        if (module_ != nullptr) {
            FreeLibrary(module_);
        }
    }

    HMODULE module_ = nullptr;
    DllGetClassObjectFunction getClassObject_ = nullptr;
    DllCanUnloadNowFunction canUnloadNow_ = nullptr;
};

TEST_F(ProviderDll, ExportsTheFourCOMEntryPointsAndNothingElseByName) {
    for (const char* name : {"DllCanUnloadNow", "DllGetClassObject", "DllRegisterServer", "DllUnregisterServer"}) {
        EXPECT_NE(GetProcAddress(module_, name), nullptr) << name;
    }
    EXPECT_EQ(GetProcAddress(module_, "DllMain"), nullptr);
    EXPECT_EQ(GetProcAddress(module_, "Trace"), nullptr);
}

// What Explorer's Details tab and installers read from the file.
TEST_F(ProviderDll, CarriesItsVersionInformation) {
    const std::wstring path = GetProgramDirectory() + L"dorwex_wpd_provider.dll";
    DWORD handle = 0;
    const DWORD size = GetFileVersionInfoSizeW(path.c_str(), &handle);
    ASSERT_GT(size, 0u);
    std::string block(size, '\0');
    ASSERT_TRUE(GetFileVersionInfoW(path.c_str(), 0, size, &block[0]));
    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT length = 0;
    ASSERT_TRUE(VerQueryValueW(&block[0], L"\\", reinterpret_cast<void**>(&fixed), &length));
    EXPECT_EQ(fixed->dwSignature, 0xFEEF04BDu);
    EXPECT_EQ(fixed->dwFileType, static_cast<DWORD>(VFT_DLL));
    EXPECT_EQ(HIWORD(fixed->dwFileVersionMS), 1u);
    const auto text = [&](const wchar_t* name) {
        wchar_t* value = nullptr;
        UINT chars = 0;
        const std::wstring key = std::wstring(L"\\StringFileInfo\\040904B0\\") + name;
        return VerQueryValueW(&block[0], key.c_str(), reinterpret_cast<void**>(&value), &chars) && value != nullptr
                   ? std::wstring(value)
                   : std::wstring(L"<none>");
    };
    EXPECT_EQ(text(L"OriginalFilename"), L"dorwex_wpd_provider.dll");
    EXPECT_EQ(text(L"FileVersion"), L"1.0.2.0");
    EXPECT_NE(text(L"FileDescription").find(L"Win32ext_WPD"), std::wstring::npos);
}

TEST_F(ProviderDll, ServesOnlyItsOwnClass) {
    void* object = nullptr;
    EXPECT_EQ(getClassObject_(CLSID_WbemLocator, IID_IClassFactory, &object), E_FAIL);
    EXPECT_EQ(getClassObject_(CLSID_DorWEXWPDWMIProvider, IID_IWbemServices, &object), E_NOINTERFACE);
    EXPECT_EQ(object, nullptr);
}

TEST_F(ProviderDll, UnloadsOnlyWhenNoProviderObjectOrLockRemains) {
    IClassFactory* factory = nullptr;
    ASSERT_EQ(getClassObject_(CLSID_DorWEXWPDWMIProvider, IID_IClassFactory, reinterpret_cast<void**>(&factory)),
              S_OK);
    EXPECT_EQ(canUnloadNow_(), S_OK);

    IUnknown* first = nullptr;
    IUnknown* second = nullptr;
    ASSERT_EQ(factory->CreateInstance(nullptr, IID_IUnknown, reinterpret_cast<void**>(&first)), S_OK);
    ASSERT_EQ(factory->CreateInstance(nullptr, IID_IUnknown, reinterpret_cast<void**>(&second)), S_OK);
    EXPECT_NE(first, second);
    EXPECT_EQ(canUnloadNow_(), S_FALSE);
    first->Release();
    EXPECT_EQ(canUnloadNow_(), S_FALSE);
    second->Release();
    EXPECT_EQ(canUnloadNow_(), S_OK);

    EXPECT_EQ(factory->LockServer(TRUE), S_OK);
    EXPECT_EQ(canUnloadNow_(), S_FALSE);
    EXPECT_EQ(factory->LockServer(FALSE), S_OK);
    EXPECT_EQ(canUnloadNow_(), S_OK);
    EXPECT_EQ(factory->Release(), 0u);
}

TEST_F(ProviderDll, IsSilentAtTheLevelItLoadsWith) {
    // A fresh load traces nothing: the level is 0 until a caller raises it.
    const DebugCaptureResult result =
        RunUnderDebugger(L"\"" + GetProgramDirectory() + L"trace_probe.exe\" silent", 60000);
    ASSERT_TRUE(result.boolStarted);
    EXPECT_EQ(result.dwordExitCode, 0u);
    EXPECT_TRUE(result.vectorStrings.empty()) << result.vectorStrings.front();
}

// Registration answers SELFREG_E_CLASS when a key cannot be written or removed, so that regsvr32 and
// installers report it. A volatile class key refuses a lasting subkey (ERROR_CHILD_MUST_BE_VOLATILE); a
// class key that another program gave a subkey of its own cannot be deleted by RegDeleteKeyW.
TEST_F(ProviderDll, RegistrationSaysWhenAKeyCannotBeWrittenOrRemoved) {
    using Entry = HRESULT(STDAPICALLTYPE*)();
    const auto registerServer = Export<Entry>(module_, "DllRegisterServer");
    const auto unregisterServer = Export<Entry>(module_, "DllUnregisterServer");
    ASSERT_NE(registerServer, nullptr);
    ASSERT_NE(unregisterServer, nullptr);
    wchar_t clsid[64] = {};
    StringFromGUID2(CLSID_DorWEXWPDWMIProvider, clsid, 64);
    const std::wstring key = std::wstring(L"Software\\Classes\\CLSID\\") + clsid;
    const auto present = [&](const std::wstring& subKey) {
        HKEY opened = nullptr;
        const bool found = RegOpenKeyExW(HKEY_LOCAL_MACHINE, subKey.c_str(), 0, KEY_READ, &opened) == ERROR_SUCCESS;
        if (found) {
            RegCloseKey(opened);
        }
        return found;
    };
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, key.c_str());

    EXPECT_EQ(unregisterServer(), S_OK) << "nothing registered: nothing to remove";
    EXPECT_EQ(registerServer(), S_OK);
    EXPECT_TRUE(present(key + L"\\InprocServer32"));
    EXPECT_EQ(unregisterServer(), S_OK);
    EXPECT_FALSE(present(key));

    HKEY created = nullptr;
    ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS,
                              nullptr, &created, nullptr),
              ERROR_SUCCESS);
    RegCloseKey(created);
    EXPECT_EQ(registerServer(), SELFREG_E_CLASS) << "InprocServer32 could not be written";
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, key.c_str());

    ASSERT_EQ(registerServer(), S_OK);
    ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, (key + L"\\Foreign").c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                              nullptr, &created, nullptr),
              ERROR_SUCCESS);
    RegCloseKey(created);
    EXPECT_EQ(unregisterServer(), SELFREG_E_CLASS) << "the class key could not be removed";
    EXPECT_TRUE(present(key + L"\\Foreign")) << "another program's key was removed";
    EXPECT_FALSE(present(key + L"\\InprocServer32"));
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, key.c_str());
    EXPECT_EQ(registerServer(), S_OK);
}

}  // namespace
