// Workloads of many calls in a row, the provider through WMI beside a bare client in the same run:
//   calls RUNS DIRECTORY   W1: 200 files copied off a phone, one "CopyFileFromDevice" each, out of a folder
//                          of 10,000 (DIRECTORY\storage\w10000, made by tools/benchmark.sh); W2: 200 of them
//                          deleted, one "DeleteFileFromDevice" each. The device costs what a USB 2.0 phone
//                          does (cost_profile = usb2_phone). The bare client resolves the folder once per
//                          run and keeps the ids. Before each provider run the device reports the folder
//                          updated, so that every run starts from what the provider does not yet know.
//   startup DIRECTORY      W5, one run per process: 16 phones attached, each taking 500 ms to open; the
//                          time from connecting to WMI until a query lists all 16, and the longest the
//                          provider's Initialize held WMI's thread.
// The last line, "workloads: ..." or "startup: ...", carries the figures tools/benchmark.sh sums up.
#include "benchmark_support.h"
#include "emulator/wmi/control.h"

namespace {

using namespace benchmark;

const wchar_t kPhone[] = L"usb#vid_1234&pid_0003#benchmark-usb2";
constexpr int kFiles = 200;
constexpr int kFolder = 10000;
constexpr int kStartupDevices = 16;

std::wstring FileName(int index) {
    wchar_t name[32];
    swprintf(name, 32, L"IMG_%05d.jpg", index * (kFolder / kFiles));  // spread over the whole folder
    return name;
}

template <class Function>
Function Export(const wchar_t* module, const char* name) {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(LoadLibraryW(module), name)));
}

size_t Published(IWbemServices* services) {
    ComPtr<IEnumWbemClassObject> instances;
    if (FAILED(services->CreateInstanceEnum(_bstr_t(L"Win32ext_WPD"), WBEM_FLAG_FORWARD_ONLY, nullptr, &instances))) {
        return 0;
    }
    size_t count = 0;
    for (;;) {
        ComPtr<IWbemClassObject> instance;
        ULONG returned = 0;
        if (instances->Next(WBEM_INFINITE, 1, &instance, &returned) != WBEM_S_NO_ERROR || returned == 0) {
            return count;
        }
        ++count;
    }
}

int Startup(const std::wstring& directory) {
    CreateDirectoryW(directory.c_str(), nullptr);
    for (int i = 0; i < kStartupDevices; ++i) {
        const std::string n = std::to_string(i);
        CreateDirectoryW((directory + L"\\storage" + std::to_wstring(i)).c_str(), nullptr);
        WriteText(directory + L"\\phone" + std::to_wstring(i) + L".wpd",
                  "[device]\nid = usb#vid_1234&pid_1" + n + "#cart-" + n + "\nmanufacturer = SAMSUNG\nfriendly_name = Cart " +
                      n + "\ncategories = storage\nopen_ms = 500\nWPD_DEVICE_SERIAL_NUMBER = CART" + n +
                      "\n[storage]\nobject_id = s10001\nname = Phone\ndirectory = storage" + n + "\n");
    }
    SetEnvironmentVariableW(L"DORWEX_WPD_DEVICES", directory.c_str());
    const auto counts = Export<DorwexWmiProviderCountsFunction>(L"dorwex_wmi_emulator.dll", "DorwexWmiProviderCounts");
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    int result = 1;
    {
        const auto start = Clock::now();
        ComPtr<IWbemServices> services;
        if (counts == nullptr || !ConnectWmi(services)) {
            return 1;
        }
        size_t published = 0;
        double firstQuery = -1;
        while ((published = Published(services.Get())) < kStartupDevices && Seconds(start) < 60) {
            firstQuery = firstQuery < 0 ? Seconds(start) : firstQuery;
            Sleep(10);  // polling what a client sees, not synchronising anything
        }
        const double seconds = Seconds(start);
        DorwexWmiProviderCounts figures{};
        counts(&figures);
        wprintf(L"startup: seconds=%.3f held_ms=%ld published=%zu first_query_s=%.3f\n", seconds,
                figures.longestInitializeMs, published, firstQuery < 0 ? seconds : firstQuery);
        result = published == kStartupDevices ? 0 : 1;
    }
    CoUninitialize();
    return result;
}

int Calls(int runs, const std::wstring& directory) {
    g_requests = Export<DorwexEmulatorRequestsFunction>(L"dorwex_wpd_emulator.dll", "DorwexEmulatorRequests");
    const auto raise = Export<DorwexEmulatorRaiseEventFunction>(L"dorwex_wpd_emulator.dll", "DorwexEmulatorRaiseEvent");
    const auto wait = Export<DorwexEmulatorWaitForEventsFunction>(L"dorwex_wpd_emulator.dll", "DorwexEmulatorWaitForEvents");
    WriteText(directory + L"\\usb2.wpd",
              "[device]\nid = usb#vid_1234&pid_0003#benchmark-usb2\nmanufacturer = SAMSUNG\nfriendly_name = USB2\n"
              "categories = storage\ncost_profile = usb2_phone\nWPD_DEVICE_SERIAL_NUMBER = USB2\n"
              "[storage]\nobject_id = s10001\nname = Phone\ndirectory = storage\n");
    SetEnvironmentVariableW(L"DORWEX_WPD_DEVICES", directory.c_str());
    const std::wstring folder = directory + L"\\storage\\w10000";
    const std::wstring local = directory + L"\\w1.bin";
    std::string content;
    {
        HANDLE file = CreateFileW((folder + L"\\" + FileName(0)).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                  OPEN_EXISTING, 0, nullptr);
        content.resize(GetFileSize(file, nullptr));
        DWORD read = 0;
        ReadFile(file, content.data(), static_cast<DWORD>(content.size()), &read, nullptr);
        CloseHandle(file);
    }
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    double w1 = 0, w2 = 0, w1Requests = 0, w2Requests = 0;
    {
        ComPtr<IWbemServices> services;
        if (g_requests == nullptr || raise == nullptr || wait == nullptr || !ConnectWmi(services)) {
            return 1;
        }
        BareClient bare(kPhone);
        // The provider is told the folder changed: what it remembered of it goes, as after a real change.
        const auto forget = [&] {
            raise(kPhone, &WPD_EVENT_OBJECT_UPDATED, bare.Child(L"s10001", L"w10000").c_str());
            wait(30000);
        };
        const auto restore = [&] {
            for (int i = 0; i < kFiles; ++i) {
                const std::wstring path = folder + L"\\" + FileName(i);
                if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) {
                    WriteText(path, content);
                }
            }
            forget();
        };
        std::wstring failure;
        const auto check = [&](const std::wstring& answer) {
            if (answer != L"1" && failure.empty()) {
                failure = answer;
            }
        };
        const auto providerCall = [&](const wchar_t* method, bool copy) {
            for (int i = 0; i < kFiles; ++i) {
                const std::wstring path = L"Phone\\w10000\\" + FileName(i);
                Parameters parameters = {{L"strObjectStoragePath", _variant_t(path.c_str())},
                                         {L"strObjectDeviceId", _variant_t(kPhone)}};
                if (copy) {
                    parameters.push_back({L"strLocalFileName", _variant_t(local.c_str())});
                }
                check(Call(services.Get(), method, parameters));
            }
        };
        const auto bareWork = [&](bool copy) {
            const auto ids = bare.Ids(bare.Child(L"s10001", L"w10000"));  // the folder, resolved once
            for (int i = 0; i < kFiles; ++i) {
                const auto id = ids.find(FileName(i));
                if (id == ids.end()) {
                    failure = L"bare: no " + FileName(i);
                } else if (copy) {
                    bare.CopyFrom(id->second, local);
                } else {
                    bare.Delete(id->second);
                }
            }
        };
        const auto report = [&](const wchar_t* what, const std::vector<Figures>& figures, double& ratio,
                                double& perFile) {
            wprintf(L"%ls, %d files of %d, %zu bytes each, USB 2.0 costs, %d runs each:\n", what, kFiles, kFolder,
                    content.size(), runs);
            Print(L"provider, one call per file", figures[0], true);
            Print(L"bare client, folder resolved once", figures[1], false);
            ratio = figures[0].median / figures[1].median;
            perFile = static_cast<double>(figures[0].requests) / kFiles;
            wprintf(L"  %.2fx the bare client's time (medians); requests per file: provider %.2f, bare %.2f\n", ratio,
                    perFile, static_cast<double>(figures[1].requests) / kFiles);
        };
        restore();
        report(L"W1 copies", Alternate(runs, {{kPhone, forget, [&] { providerCall(L"CopyFileFromDevice", true); }},
                                               {kPhone, nullptr, [&] { bareWork(true); }}}),
               w1, w1Requests);
        report(L"W2 deletes", Alternate(runs, {{kPhone, restore, [&] { providerCall(L"DeleteFileFromDevice", false); }},
                                                {kPhone, restore, [&] { bareWork(false); }}}),
               w2, w2Requests);
        restore();
        if (!failure.empty()) {
            wprintf(L"a call failed: %ls\n", failure.c_str());
            return 1;
        }
    }
    CoUninitialize();
    wprintf(L"workloads: w1=%.2f w2=%.2f w1_requests_per_file=%.2f w2_requests_per_file=%.2f\n", w1, w2, w1Requests,
            w2Requests);
    return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc == 4 && std::wstring(argv[1]) == L"calls") {
        return Calls(std::max(5, _wtoi(argv[2])), argv[3]);
    }
    if (argc == 3 && std::wstring(argv[1]) == L"startup") {
        return Startup(argv[2]);
    }
    wprintf(L"usage: benchmark_workloads calls RUNS DIRECTORY | startup DIRECTORY\n");
    return 2;
}
