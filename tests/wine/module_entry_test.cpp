// Process attach and detach, as the module's entry point runs them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "monitor/wpd_core.h"
#include "support/test_trace_sink.h"
#include "wmi/module.h"
#include "wmi/os_version_code.h"
#include "common/trace.h"

namespace {

// Records, with each trace line, whether the shutting-down flag was up when the line was written.
std::vector<std::wstring> g_vectorFlaggedLines;

void WINAPI RecordLineWithFlag(LPCWSTR line) {
    g_vectorFlaggedLines.push_back((g_longShuttingDown != 0 ? L"[down] " : L"[up] ") + std::wstring(line));
}

TEST(ModuleEntry, AttachRecordsPathDirectoryAndVersionCode) {
    TraceCapture capture(1);
    ASSERT_TRUE(ModuleProcessAttach(GetModuleHandleW(nullptr)));
    EXPECT_EQ(capture.Lines(), std::vector<std::wstring>{L"dorWEX14 DllMain, DLL_PROCESS_ATTACH\r\n"});

    wchar_t expectedPath[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, expectedPath, MAX_PATH);
    EXPECT_STREQ(g_wcharModulePath, expectedPath);
    const std::wstring path(g_wcharModulePath);
    EXPECT_EQ(std::wstring(g_wcharModuleDirectory), path.substr(0, path.find_last_of(L'\\') + 1));

    OSVERSIONINFOW info{};
    info.dwOSVersionInfoSize = sizeof info;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    const BOOL result = GetVersionExW(&info);
#pragma GCC diagnostic pop
    EXPECT_EQ(g_longOSVersionCode, dorwex::ComputeOSVersionCode(result, info.dwMajorVersion, info.dwMinorVersion));
    EXPECT_NE(g_longOSVersionCode, 0) << "Wine reports a version the table knows";
}

TEST(ModuleEntry, DetachWithoutCoreOnlyTraces) {
    ASSERT_EQ(g_pCDorWEXWMIWPDCore, nullptr);
    InterlockedExchange(&g_longShuttingDown, 0);
    TraceCapture capture(1);
    ASSERT_TRUE(ModuleProcessDetach());
    EXPECT_EQ(capture.Lines(), std::vector<std::wstring>{L"dorWEX14 DllMain, DLL_PROCESS_DETACH\r\n"});
    EXPECT_EQ(g_longShuttingDown, 0);
}

TEST(ModuleEntry, DetachRaisesTheFlagThenStopsAppleThenBlackBerryThenDestroysTheCore) {
    auto* core = new CDorWEXWMIWPDCore();
    core->StartAppleMonitoring();
    core->StartBlackBerryMonitoring();
    g_pCDorWEXWMIWPDCore = core;
    InterlockedExchange(&g_longShuttingDown, 0);

    g_vectorFlaggedLines.clear();
    SetTraceLevel(1);
    const TraceSinkFunction previous = SetTraceSink(&RecordLineWithFlag);
    const BOOL result = ModuleProcessDetach();
    SetTraceSink(previous);
    SetTraceLevel(0);

    ASSERT_TRUE(result);
    // The module's and the core's own steps; the companion threads trace their ends in between.
    std::vector<std::wstring> steps;
    for (const auto& line : g_vectorFlaggedLines) {
        if (line.find(L"] dorWEX14 DllMain") != std::wstring::npos ||
            line.find(L"] CDorWEXWMIWPDCore::") != std::wstring::npos) {
            steps.push_back(line);
        }
    }
    const std::vector<std::wstring> expected = {
        L"[up] dorWEX14 DllMain, DLL_PROCESS_DETACH\r\n",
        L"[up] CDorWEXWMIWPDCore::Shutdown\r\n",
        L"[down] CDorWEXWMIWPDCore::StopAppleMonitoring\r\n",
        L"[down] CDorWEXWMIWPDCore::StopBlackBerryMonitoring\r\n",
    };
    EXPECT_EQ(steps, expected);
    EXPECT_EQ(g_longShuttingDown, 1);
    EXPECT_EQ(g_pCDorWEXWMIWPDCore, nullptr);
    InterlockedExchange(&g_longShuttingDown, 0);
}

TEST(ModuleEntry, DetachSkipsCompanionsThatAreNotRunning) {
    auto* core = new CDorWEXWMIWPDCore();
    core->StartBlackBerryMonitoring();
    g_pCDorWEXWMIWPDCore = core;

    TraceCapture capture(1);
    ModuleProcessDetach();
    EXPECT_EQ(capture.StartingWith(L"CDorWEXWMIWPDCore::"),
              (std::vector<std::wstring>{L"CDorWEXWMIWPDCore::Shutdown", L"CDorWEXWMIWPDCore::StopBlackBerryMonitoring"}));
    EXPECT_EQ(capture.Count(L"CDorWEXWMIThreadBase::ManageThread, STOP"), 1u) << "only the running processor stops";
    InterlockedExchange(&g_longShuttingDown, 0);
}

}  // namespace
