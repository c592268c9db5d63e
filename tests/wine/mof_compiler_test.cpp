// The emulated WMI service's MOF compiler (IMofCompiler, CLSID_MofCompiler) against what Microsoft
// documents for it and for mofcomp: the status of a failure (phase, error, object and lines), nothing
// stored when the text cannot be read, what was stored before a failing statement kept, the FAIL and
// NOFAIL deletions, the default namespace, a syntax check that stores nothing, and the argument rules.
// The installer's use of it runs in wine.msi. The repository is a folder of this run, not the prefix's.
#include <gtest/gtest.h>

#include <comdef.h>
#include <wbemcli.h>
#include <wrl/client.h>

#include <filesystem>
#include <string>

#include "support/wmi_calls.h"

using Microsoft::WRL::ComPtr;

namespace {

std::wstring g_repository;

class Environment : public testing::Environment {
public:
    void SetUp() override {
        wchar_t temp[MAX_PATH] = {};
        ASSERT_GT(GetTempPathW(MAX_PATH, temp), 0u);
        g_repository = std::wstring(temp) + L"mof_compiler_" + std::to_wstring(GetCurrentProcessId());
        std::filesystem::remove_all(std::filesystem::path(g_repository));
        ASSERT_TRUE(SetEnvironmentVariableW(L"DORWEX_WMI_REPOSITORY", g_repository.c_str()));
        Register(L"dorwex_wmi_emulator.dll");
    }
    void TearDown() override { std::filesystem::remove_all(std::filesystem::path(g_repository)); }
};
const auto* const g_environment = testing::AddGlobalTestEnvironment(new Environment);

struct Result {
    HRESULT hr;
    WBEM_COMPILE_STATUS_INFO status;
};

ComPtr<IMofCompiler> Compiler() {
    ComPtr<IMofCompiler> compiler;
    EXPECT_EQ(CoCreateInstance(CLSID_MofCompiler, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&compiler)), S_OK);
    return compiler;
}

Result CompileText(const std::string& text, const wchar_t* ns = nullptr, LONG options = 0) {
    Result result{E_FAIL, {}};
    std::string buffer = text;
    result.hr = Compiler()->CompileBuffer(static_cast<LONG>(buffer.size()), reinterpret_cast<BYTE*>(&buffer[0]),
                                          const_cast<LPWSTR>(ns), nullptr, nullptr, nullptr, options, 0, 0,
                                          &result.status);
    return result;
}

const char kNamespace[] = "#pragma namespace(\"\\\\\\\\.\\\\root\\\\cimv2\")\n";

// Whether the namespace knows the class (an unknown one is WBEM_E_INVALID_CLASS).
bool HasClass(const wchar_t* name) {
    ComPtr<IEnumWbemClassObject> instances;
    const HRESULT hr = Connect()->CreateInstanceEnum(_bstr_t(name), WBEM_FLAG_FORWARD_ONLY, nullptr, &instances);
    EXPECT_TRUE(hr == S_OK || hr == static_cast<HRESULT>(WBEM_E_INVALID_CLASS)) << std::hex << hr;
    return hr == S_OK;
}

size_t RepositoryEntries() {
    size_t count = 0;
    if (std::filesystem::exists(std::filesystem::path(g_repository))) {
        for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(g_repository))) {
            count += entry.path().extension() == ".mof" ? 1 : 0;
        }
    }
    return count;
}

TEST(MofCompiler, StoresClassesAndInstancesAndDeletesThemAgain) {
    const size_t entries = RepositoryEntries();
    const Result stored = CompileText(std::string(kNamespace) +
                                      "class Dorwex_Base { [key] string Name; uint32 Size; };\n"
                                      "class Dorwex_Derived : Dorwex_Base { };\n"
                                      "instance of Dorwex_Base as $b { Name = \"one\"; Size = 7; };\n"
                                      "instance of Dorwex_Derived { Name = \"two\"; };\n");
    ASSERT_EQ(stored.hr, WBEM_S_NO_ERROR);
    EXPECT_EQ(stored.status.lPhaseError, 0);
    EXPECT_EQ(RepositoryEntries(), entries + 1) << "a compile that stored something is kept for later processes";
    const auto instances = Query(Connect().Get(), L"SELECT * FROM Dorwex_Base");
    ASSERT_EQ(instances.size(), 2u) << "a class's instances include those of classes derived from it";
    EXPECT_EQ(Text(instances[0].Get(), L"__RELPATH"), L"Dorwex_Base.Name=\"one\"");
    _variant_t size;
    ASSERT_EQ(instances[0]->Get(L"Size", 0, &size, nullptr, nullptr), S_OK);
    EXPECT_EQ(size.vt, VT_I4);
    EXPECT_EQ(size.lVal, 7);

    ASSERT_EQ(CompileText(std::string(kNamespace) + "#pragma deleteinstance(\"Dorwex_Base.Name=\\\"ONE\\\"\", FAIL)\n").hr,
              WBEM_S_NO_ERROR)
        << "string keys compare without regard to case";
    EXPECT_EQ(Query(Connect().Get(), L"SELECT * FROM Dorwex_Base").size(), 1u);
    ASSERT_EQ(CompileText(std::string(kNamespace) + "#pragma deleteclass(\"Dorwex_Base\", FAIL)\n").hr, WBEM_S_NO_ERROR);
    EXPECT_FALSE(HasClass(L"Dorwex_Base"));
    EXPECT_FALSE(HasClass(L"Dorwex_Derived")) << "a class goes with the classes derived from it";
}

// What a failure reports, and what it leaves stored: nothing when the text cannot be read (parsing comes
// first), the statements before the failing one when storing fails.
TEST(MofCompiler, AFailureReportsItsPhaseAndObjectAndKeepsWhatWasStoredBefore) {
    struct Case {
        const char* name;
        std::string text;
        const wchar_t* ns;
        LONG phase;
        unsigned long error;  // an HRESULT
        LONG object;
        LONG firstLine;
        LONG lastLine;
        const wchar_t* storedClass;  // stored despite the failure, or null
        const wchar_t* absentClass;  // never stored
    };
    const Case cases[] = {
        {"syntax error after a good class", std::string(kNamespace) + "class Dorwex_P1 { [key] string k; };\nclass Dorwex_P2 {\n",
         nullptr, 1, WBEM_E_INVALID_SYNTAX, 2, 4, 4, nullptr, L"Dorwex_P1"},
        {"unknown superclass after a good class",
         std::string(kNamespace) + "class Dorwex_S1 { [key] string k; };\nclass Dorwex_S2 : Dorwex_None\n{\n};\n", nullptr, 3,
         WBEM_E_INVALID_SUPERCLASS, 2, 3, 5, L"Dorwex_S1", L"Dorwex_S2"},
        {"instance of an unknown class", std::string(kNamespace) + "instance of Dorwex_Nothing { k = \"x\"; };\n", nullptr, 3,
         WBEM_E_INVALID_CLASS, 1, 2, 2, nullptr, nullptr},
        {"instance without its key", std::string(kNamespace) + "class Dorwex_K { [key] string k; string v; };\n"
                                                               "instance of Dorwex_K { v = \"x\"; };\n",
         nullptr, 3, WBEM_E_ILLEGAL_NULL, 2, 3, 3, L"Dorwex_K", nullptr},
        {"property the class lacks", std::string(kNamespace) + "class Dorwex_L { [key] string k; };\n"
                                                               "instance of Dorwex_L { k = \"x\"; nope = 1; };\n",
         nullptr, 3, WBEM_E_NOT_FOUND, 2, 3, 3, L"Dorwex_L", nullptr},
        {"deleting a missing class with FAIL", std::string(kNamespace) + "#pragma deleteclass(\"Dorwex_Gone\", FAIL)\n",
         nullptr, 3, WBEM_E_NOT_FOUND, 1, 2, 2, nullptr, nullptr},
        {"deleting a missing instance with FAIL",
         std::string(kNamespace) + "#pragma deleteinstance(\"Dorwex_L.k=\\\"none\\\"\", FAIL)\n", nullptr, 3,
         WBEM_E_NOT_FOUND, 1, 2, 2, nullptr, nullptr},
        // Without #pragma namespace the default is root\default, which this service does not hold.
        {"no namespace named", "class Dorwex_N { [key] string k; };\n", nullptr, 3, WBEM_E_INVALID_NAMESPACE, 1, 1, 1,
         nullptr, L"Dorwex_N"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const size_t entries = RepositoryEntries();
        const Result result = CompileText(c.text, c.ns);
        EXPECT_EQ(result.hr, WBEM_S_FALSE);
        EXPECT_EQ(result.status.lPhaseError, c.phase);
        EXPECT_EQ(static_cast<unsigned long>(result.status.hRes), c.error) << std::hex << result.status.hRes;
        EXPECT_EQ(result.status.ObjectNum, c.object);
        EXPECT_EQ(result.status.FirstLine, c.firstLine);
        EXPECT_EQ(result.status.LastLine, c.lastLine);
        if (c.storedClass != nullptr) {
            EXPECT_TRUE(HasClass(c.storedClass));
        }
        if (c.absentClass != nullptr) {
            EXPECT_FALSE(HasClass(c.absentClass));
        }
        EXPECT_EQ(RepositoryEntries(), entries + (c.storedClass != nullptr ? 1 : 0))
            << "only a compile that stored something is kept";
    }
}

TEST(MofCompiler, NofailDeletionsCheckOnlyAndTheNamespaceArgument) {
    EXPECT_EQ(CompileText(std::string(kNamespace) + "#pragma deleteclass(\"Dorwex_Gone\", NOFAIL)\n"
                                                    "#pragma deleteinstance(\"Dorwex_Gone.k=1\", nofail)\n")
                  .hr,
              WBEM_S_NO_ERROR);
    const size_t entries = RepositoryEntries();
    EXPECT_EQ(CompileText(std::string(kNamespace) + "class Dorwex_Check { [key] string k; };\n", nullptr,
                          WBEM_FLAG_CHECK_ONLY)
                  .hr,
              WBEM_S_NO_ERROR);
    EXPECT_FALSE(HasClass(L"Dorwex_Check")) << "a syntax check stores nothing";
    EXPECT_EQ(RepositoryEntries(), entries);
    EXPECT_EQ(CompileText("class Dorwex_Ns { [key] string k; };\n", L"root\\cimv2").hr, WBEM_S_NO_ERROR)
        << "the namespace argument applies to a MOF without #pragma namespace";
    EXPECT_TRUE(HasClass(L"Dorwex_Ns"));
}

TEST(MofCompiler, ArgumentsAndFiles) {
    struct Case {
        const char* name;
        LONG options;
        LONG classFlags;
        unsigned long error;  // an HRESULT
    };
    const Case cases[] = {
        {"autorecover with dont-add-to-list", WBEM_FLAG_AUTORECOVER | WBEM_FLAG_DONT_ADD_TO_LIST, 0, WBEM_E_INVALID_PARAMETER},
        {"autorecover with class flags", WBEM_FLAG_AUTORECOVER, WBEM_FLAG_UPDATE_ONLY, WBEM_E_INVALID_PARAMETER},
        {"an unknown option", 0x4000, 0, WBEM_E_INVALID_PARAMETER},
        {"class flags, not emulated", 0, WBEM_FLAG_CREATE_ONLY, WBEM_E_NOT_SUPPORTED},
    };
    std::string text = std::string(kNamespace) + "class Dorwex_Args { [key] string k; };\n";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        WBEM_COMPILE_STATUS_INFO status = {};
        EXPECT_EQ(Compiler()->CompileBuffer(static_cast<LONG>(text.size()), reinterpret_cast<BYTE*>(&text[0]), nullptr,
                                            nullptr, nullptr, nullptr, c.options, c.classFlags, 0, &status),
                  WBEM_S_FALSE);
        EXPECT_EQ(status.lPhaseError, 2);
        EXPECT_EQ(static_cast<unsigned long>(status.hRes), c.error);
        EXPECT_FALSE(HasClass(L"Dorwex_Args"));
    }
    WBEM_COMPILE_STATUS_INFO status = {};
    EXPECT_EQ(Compiler()->CompileFile(const_cast<LPWSTR>(L"C:\\no\\such.mof"), nullptr, nullptr, nullptr, nullptr, 0, 0, 0,
                                      &status),
              WBEM_S_FALSE);
    EXPECT_EQ(status.lPhaseError, 2);
    EXPECT_EQ(status.hRes, HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND));
}

}  // namespace
