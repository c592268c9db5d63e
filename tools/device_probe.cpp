// Starts the monitoring core the way the provider's first initialisation does and prints the devices it
// took on, with the identity each got. Run against the emulated portable-device stack it shows what the
// provider makes of the devices described in DORWEX_WPD_DEVICES.
//   device_probe [trace-level]
#include <objbase.h>

#include <cstdio>
#include <cwchar>
#include <memory>

#include "device/wpd_object.h"
#include "monitor/wpd_collection.h"
#include "monitor/wpd_core.h"
#include "wmi/provider.h"
#include "common/trace.h"

namespace {

const wchar_t* ClassName(dorwex::Manufacturer manufacturer) {
    switch (manufacturer) {
    case dorwex::Manufacturer::LOGICALDISK:
        return L"LOGICALDISK";
    case dorwex::Manufacturer::ANDROID:
        return L"ANDROID";
    case dorwex::Manufacturer::WINDOWS:
        return L"WINDOWS";
    case dorwex::Manufacturer::BLACKBERRY:
        return L"BLACKBERRY";
    case dorwex::Manufacturer::APPLE:
        return L"APPLE";
    default:
        return L"UNKNOWN";
    }
}

const wchar_t* Text(const _bstr_t& text) {
    return text.length() == 0 ? L"" : static_cast<const wchar_t*>(text);
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc > 1) {
        SetTraceLevel(wcstoul(argv[1], nullptr, 10));
    }
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    auto* provider = new CDorWEXWPDWMI();
    provider->AddRef();  // as the class factory hands it out
    int exitCode = 0;
    {
        CDorWEXWMIWPDCore core(provider);
        core.Initialize();
        const auto devices = core.GetCollection()->Snapshot();
        wprintf(L"%zu portable device(s) taken on:\n", devices.size());
        for (const auto& entry : devices) {
            const IDorWEXWPDDevice& device = *entry.second;
            wprintf(L"\n  %ls\n", entry.first.c_str());
            wprintf(L"    class %ls, maker \"%ls\", name \"%ls\", serial \"%ls\"\n", ClassName(device.Identity()->m_eManufacturer),
                    Text(device.Identity()->m_bstr_tManufacturer), Text(device.Identity()->m_bstr_tFriendlyName),
                    Text(device.Identity()->m_bstr_tSerialNumber));
            wprintf(L"    disk 1 \"%ls\" (%ls), disk 2 \"%ls\" (%ls)\n", Text(device.Identity()->m_bstr_tDisk1Name),
                    Text(device.Identity()->m_bstr_tDisk1ObjectId), Text(device.Identity()->m_bstr_tDisk2Name),
                    Text(device.Identity()->m_bstr_tDisk2ObjectId));
        }
        wprintf(L"\nApple monitoring %ls, BlackBerry monitoring %ls\n", core.HasAppleMonitoring() ? L"on" : L"off",
                core.HasBlackBerryMonitoring() ? L"on" : L"off");
        const auto found = core.GetCollection()->FindWPDObject(nullptr, L"card\\notes.txt");
        wprintf(L"the path card\\notes.txt belongs to: %ls\n", found ? Text(found->Identity()->m_bstr_tFriendlyName) : L"(none)");
        if (devices.empty()) {
            exitCode = 1;
        }
    }
    provider->Release();
    CoUninitialize();
    return exitCode;
}
