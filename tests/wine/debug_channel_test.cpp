// What reaches the debugger channel, read by a real debugger exactly as DebugView would see it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "debug_capture.h"

namespace {

std::vector<std::string> RunProbe(const char* scenario) {
    std::wstring commandLine = L"\"" + GetProgramDirectory() + L"trace_probe.exe\" ";
    commandLine += std::wstring(scenario, scenario + strlen(scenario));
    const DebugCaptureResult result = RunUnderDebugger(commandLine, 60000);
    EXPECT_TRUE(result.boolStarted);
    EXPECT_FALSE(result.boolTimedOut);
    EXPECT_EQ(result.dwordExitCode, 0u);
    return result.vectorStrings;
}

std::string UnloadLine(int instances, int locks, const char* answer) {
    return "dorWEXWPD DllMain, DllCanUnloadNow:g_longInstanceCountOfDorWEXWMIWPDClass=" + std::to_string(instances) +
           ",g_longInstanceCountOfDorWEXWPDWMIClassFactoryClass=" + std::to_string(locks) +
           ",g_longWPDEventsThreadIsRunning=0,CanUnloadNow=" + answer + "\r\n";
}

TEST(DebugChannel, LifecycleTracesArriveExactlyAndInOrder) {
    const std::vector<std::string> expected = {
        "dorWEX14 DllMain, DLL_PROCESS_ATTACH\r\n",
        "dorWEXWPD DllMain, DllGetClassObject\r\n",
        "CDorWEXWPDWMIClassFactory::CDorWEXWPDWMIClassFactory\r\n",
        "CDorWEXWPDWMIClassFactory::QueryInterface, IID_IClassFactory\r\n",
        "CDorWEXWPDWMIClassFactory::AddRef, 1\r\n",
        "CDorWEXWPDWMIClassFactory::LockServer\r\n",
        UnloadLine(0, 1, "FALSE"),
        "CDorWEXWPDWMIClassFactory::LockServer\r\n",
        "CDorWEXWPDWMIClassFactory::CreateInstance\r\n",
        "CDorWEXWPDWMI::CDorWEXWPDWMI\r\n",
        UnloadLine(1, 0, "FALSE"),
        "CDorWEXWPDWMI::Release, wmi UNLOAD is occurring\r\n",
        "CDorWEXWPDWMI::~CDorWEXWPDWMI\r\n",
        "CDorWEXWPDWMIClassFactory::~CDorWEXWPDWMIClassFactory\r\n",
        "CDorWEXWPDWMIClassFactory::Release, 0\r\n",
        UnloadLine(0, 0, "TRUE"),
        "dorWEX14 DllMain, DLL_PROCESS_DETACH\r\n",
    };
    EXPECT_EQ(RunProbe("lifecycle"), expected);
}

TEST(DebugChannel, LevelZeroWritesNothing) {
    EXPECT_TRUE(RunProbe("silent").empty());
}

TEST(DebugChannel, FormatsWhiteSpaceAndTruncationAsADebuggerSeesThem) {
    const std::vector<std::string> expected = {
        "wide|narrow|-5|80004005|18446744073709551615\r\n",
        "CDorWEXWPDWMI::Example, trailing blanks\r\n",
        std::string(4095, 'x'),
    };
    EXPECT_EQ(RunProbe("format"), expected);
}

}  // namespace
