// WMI's own rules for running a method, before any provider sees the call: a method that is not static
// runs only on an instance path, and a method without the implemented qualifier does not run at all. The
// provider's schema marks every method static and implemented, so this program gives the emulated WMI
// service a copy of it with one method made non-static and another left unimplemented. A process of its
// own: the service reads its schema once.
#include <gtest/gtest.h>

#include <comdef.h>
#include <wbemcli.h>
#include <wrl/client.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "emulator/wmi/control.h"
#include "support/wmi_calls.h"
#include "support/wpd_emulator.h"

using Microsoft::WRL::ComPtr;

namespace {

const char kDeviceId[] = "usb#vid_04e8&pid_6860#methodrules";
const wchar_t kDevice[] = L"usb#vid_04e8&pid_6860#methodrules";

WpdEmulator* g_emulator = nullptr;

// Replaces the one occurrence of from in text; fails the run when the schema no longer has it.
void ReplaceOnce(std::string& text, const std::string& from, const std::string& to) {
    const size_t at = text.find(from);
    ASSERT_NE(at, std::string::npos) << from;
    ASSERT_EQ(text.find(from, at + 1), std::string::npos) << from;
    text.replace(at, from.size(), to);
}

// Writes the provider's schema with EnumerateDevicePath not static and RequestWriteToken not implemented,
// and points the emulated WMI service at it.
void UseAlteredSchema() {
    std::ifstream original(std::filesystem::path(ProgramDirectory() + L"\\dorwex_wpd_provider.mof"), std::ios::binary);
    ASSERT_TRUE(original.is_open());
    std::string schema((std::istreambuf_iterator<char>(original)), std::istreambuf_iterator<char>());
    ReplaceOnce(schema, "[static, implemented] string EnumerateDevicePath(", "[implemented] string EnumerateDevicePath(");
    ReplaceOnce(schema, "[static, implemented] string RequestWriteToken(", "[static] string RequestWriteToken(");
    wchar_t directory[MAX_PATH] = {};
    ASSERT_GT(GetTempPathW(MAX_PATH, directory), 0u);
    std::wstringstream name;
    name << directory << L"method_rules_" << GetCurrentProcessId() << L".mof";
    const std::wstring path = name.str();
    std::ofstream altered(std::filesystem::path(path), std::ios::binary | std::ios::trunc);
    altered << schema;
    altered.close();
    ASSERT_TRUE(altered.good());
    ASSERT_TRUE(SetEnvironmentVariableW(L"DORWEX_WMI_MOF", path.c_str()));
}

class Environment : public testing::Environment {
public:
    void SetUp() override {
        UseAlteredSchema();
        Register(L"dorwex_wpd_provider.dll");
        Register(L"dorwex_wmi_emulator.dll");
        g_emulator = new WpdEmulator();
        const EmulatedDeviceSpec phone = PhoneSpec(kDeviceId, "SAMSUNG Electronics", "RULES1");
        g_emulator->Attach(phone);
        g_emulator->WriteFile(g_emulator->StorageDirectory(phone, 0) + L"\\rules.jpg", "jpeg");
    }
    void TearDown() override {
        delete g_emulator;
        g_emulator = nullptr;
    }
};
const auto* const g_environment = testing::AddGlobalTestEnvironment(new Environment);

bool ProviderLoaded() {
    const auto loaded = reinterpret_cast<DorwexWmiProviderLoadedFunction>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"dorwex_wmi_emulator.dll"), "DorwexWmiProviderLoaded")));
    return loaded != nullptr && loaded();
}

// Lists the phone's internal storage through EnumerateDevicePath on the given path.
Outcome ListPhoneThrough(IWbemServices* services, const wchar_t* path) {
    ComPtr<IWbemClassObject> wpdClass;
    EXPECT_EQ(services->GetObject(_bstr_t(L"Win32ext_WPD"), 0, nullptr, &wpdClass, nullptr), S_OK);
    ComPtr<IWbemClassObject> signature;
    ComPtr<IWbemClassObject> in;
    EXPECT_EQ(wpdClass->GetMethod(L"EnumerateDevicePath", 0, &signature, nullptr), S_OK);
    EXPECT_EQ(signature->SpawnInstance(0, &in), S_OK);
    _variant_t storage(L"Phone");
    _variant_t device(kDevice);
    EXPECT_EQ(in->Put(L"strObjectStoragePath", 0, &storage, 0), S_OK);
    EXPECT_EQ(in->Put(L"strObjectDeviceId", 0, &device, 0), S_OK);
    Outcome outcome;
    ComPtr<IWbemClassObject> out;
    outcome.status = services->ExecMethod(_bstr_t(path), _bstr_t(L"EnumerateDevicePath"), 0, nullptr, in.Get(), &out,
                                          nullptr);
    if (out) {
        outcome.returnValue = Text(out.Get(), L"ReturnValue");
    }
    return outcome;
}

// The refusals come first: the provider must still be unloaded when they are checked.
TEST(MethodRules, RefusedBeforeTheProviderIsLoadedAndANonStaticMethodRunsOnAnInstance) {
    auto services = Connect();
    ASSERT_TRUE(services);

    // No source names the code WMI answers here: only the refusal is asserted.
    const Outcome onTheClass = ListPhoneThrough(services.Get(), L"Win32ext_WPD");
    EXPECT_TRUE(FAILED(onTheClass.status));
    EXPECT_TRUE(onTheClass.returnValue.empty());

    const Outcome notImplemented = CallMethod(L"RequestWriteToken", {{L"uint32ProcessId", _variant_t(4L)}});
    EXPECT_EQ(notImplemented.status, static_cast<HRESULT>(WBEM_E_METHOD_NOT_IMPLEMENTED));
    EXPECT_TRUE(notImplemented.returnValue.empty());

    EXPECT_FALSE(ProviderLoaded()) << "a refused method call reached the provider";

    // The same method through an instance path is the provider's to answer: the listing of the phone.
    const std::wstring instance = std::wstring(L"Win32ext_WPD.strId=\"") + kDevice + L"\"";
    const Outcome onAnInstance = ListPhoneThrough(services.Get(), instance.c_str());
    EXPECT_EQ(onAnInstance.status, S_OK);
    EXPECT_NE(onAnInstance.returnValue.find(L"rules.jpg"), std::wstring::npos) << onAnInstance.returnValue;
    EXPECT_TRUE(ProviderLoaded());

    // A static, implemented method keeps running on the class path.
    const Outcome level = CallMethod(L"SetDebugLevel", {{L"uint32DebugLevel", _variant_t(2L)}});
    EXPECT_EQ(level.status, S_OK);
}

}  // namespace
