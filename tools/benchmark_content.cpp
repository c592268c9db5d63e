// The content methods through WMI beside a bare client and the platform, in one run:
//   - copies of a file to and from an emulated device: the provider ("CopyFileToDevice",
//     "CopyFileFromDevice"), a bare client making the same portable-device calls (the same streams, the
//     optimal buffer size), and CopyFileW of the same file;
//   - listings of folders of 1,000, 10,000 and 100,000 entries at a device latency of 0 and 1 ms: the
//     provider ("EnumerateDevicePath"), a bare client (one enumeration and one bulk property read), and a
//     FindFirstFileW walk of the folder behind it;
//   - resolving a path three folders deep in folders of 10,000 entries ("GetProperty" ObjectId).
// Every case runs several times; each line gives the minimum and the median time, the device requests of
// one run and, for the provider, the peak growth of this process's working set during the call (the
// provider, the emulated WMI service and the emulated device all live in this process).
//
//   benchmark_content [megabytes] [runs] [largest listing] [prepared directory]   (defaults 256, 5, 100000)
// With a prepared directory (tools/benchmark.sh makes one on the host side, where making 100,000 files takes
// a second; under Wine each new name costs a case-insensitive search of its directory), its "storage"
// folder already holds the listing folders and the deep path.
// It runs in the Wine prefix where the provider and both emulators are registered (tools/benchmark.sh); the
// last line, "content: ...", carries the figures tools/benchmark.sh puts into its summary.
#include "benchmark_support.h"

namespace {

using namespace benchmark;

const wchar_t kFast[] = L"usb#vid_1234&pid_0001#benchmark";        // latency 0
const wchar_t kSlow[] = L"usb#vid_1234&pid_0002#benchmark-1ms";    // latency 1 ms, same storage

void MakeEntries(const std::wstring& folder, size_t count, const std::wstring& last = L"") {
    CreateDirectoryW(folder.c_str(), nullptr);
    for (size_t i = 0; i < count; ++i) {
        WriteText(folder + L"\\entry-" + std::to_wstring(i) + L".txt", "");
    }
    if (!last.empty()) {
        CreateDirectoryW((folder + L"\\" + last).c_str(), nullptr);
    }
}

size_t Walk(const std::wstring& folder) {
    WIN32_FIND_DATAW found{};
    size_t count = 0;
    HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            count += found.cFileName[0] != L'.' ? 1 : 0;
        } while (FindNextFileW(search, &found));
        FindClose(search);
    }
    return count;
}

// The emulated devices, both on DIRECTORY\storage: one answering at once, one taking 1 ms per request.
void DescribeDevices(const std::wstring& directory) {
    const std::string common = "manufacturer = SAMSUNG\ncategories = storage\n[storage]\nobject_id = s10001\nname = Phone\n"
                               "directory = storage\n";
    WriteText(directory + L"\\fast.wpd", "[device]\nid = usb#vid_1234&pid_0001#benchmark\nfriendly_name = Fast\n"
                                         "WPD_DEVICE_SERIAL_NUMBER = FAST\n" + common);
    WriteText(directory + L"\\slow.wpd", "[device]\nid = usb#vid_1234&pid_0002#benchmark-1ms\nfriendly_name = Slow\n"
                                         "latency_us = 1000\nWPD_DEVICE_SERIAL_NUMBER = SLOW\n" + common);
    SetEnvironmentVariableW(L"DORWEX_WPD_DEVICES", directory.c_str());
}

// One listing of DIRECTORY\storage\listSIZE in a process of its own, so that memory an earlier case freed
// cannot hide its growth: "provider" through WMI, measured until ExecMethod has returned its result object
// (the client's copy of the text is the client's), or "device": the same two requests made directly,
// keeping nothing (what the emulated device and the portable-device runtime take for them). Both first
// connect to WMI and open the device alike. Prints one line, "memory: WHO=+X text=Y" (MiB).
int MemoryOfOneListing(const std::wstring& who, size_t size, const std::wstring& directory) {
    g_requests = reinterpret_cast<DorwexEmulatorRequestsFunction>(
        reinterpret_cast<void*>(GetProcAddress(LoadLibraryW(L"dorwex_wpd_emulator.dll"), "DorwexEmulatorRequests")));
    DescribeDevices(directory);
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    int result = 1;
    {
        ComPtr<IWbemServices> services;
        if (g_requests == nullptr || !ConnectWmi(services)) {
            return 1;
        }
        const std::wstring name = L"list" + std::to_wstring(size);
        const std::wstring path = L"Phone\\" + name;
        BareClient bare(kFast);
        const std::wstring folderId = bare.Child(L"s10001", name);
        const ComPtr<IWbemClassObject> in =
            InParameters(services.Get(), L"EnumerateDevicePath",
                         {{L"strObjectStoragePath", _variant_t(path.c_str())}, {L"strObjectDeviceId", _variant_t(kFast)}});
        ComPtr<IWbemClassObject> out;
        size_t listed = 0;
        Run run;
        if (who == L"provider") {
            run = Measure(kFast, [&] {
                services->ExecMethod(_bstr_t(L"Win32ext_WPD"), _bstr_t(L"EnumerateDevicePath"), 0, nullptr, in.Get(),
                                     &out, nullptr);
            });
            const std::wstring text = out ? ReturnValue(out.Get()) : L"";
            listed = static_cast<size_t>(std::count(text.begin(), text.end(), L'~'));
            wprintf(L"memory: provider=+%.1f text=%.1f\n", run.peakMiB,
                    static_cast<double>(text.size() * sizeof(wchar_t)) / (1 << 20));
        } else {
            run = Measure(kFast, [&] { listed = bare.Touch(folderId); });
            wprintf(L"memory: device=+%.1f\n", run.peakMiB);
        }
        result = listed == size ? 0 : 1;
        if (result != 0) {
            wprintf(L"memory: %zu of %zu entries listed\n", listed, size);
        }
    }
    CoUninitialize();
    return result;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc == 5 && std::wstring(argv[1]) == L"memory") {
        return MemoryOfOneListing(argv[2], wcstoul(argv[3], nullptr, 10), argv[4]);
    }
    const ULONGLONG megabytes = argc > 1 ? wcstoull(argv[1], nullptr, 10) : 256;
    const int runs = std::max(5, argc > 2 ? _wtoi(argv[2]) : 5);
    const size_t largest = argc > 3 ? wcstoul(argv[3], nullptr, 10) : 100000;
    g_requests = reinterpret_cast<DorwexEmulatorRequestsFunction>(
        reinterpret_cast<void*>(GetProcAddress(LoadLibraryW(L"dorwex_wpd_emulator.dll"), "DorwexEmulatorRequests")));
    if (g_requests == nullptr) {
        wprintf(L"the emulated portable-device stack does not count requests\n");
        return 1;
    }
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    const bool prepared = argc > 4;
    const std::wstring directory =
        prepared ? std::wstring(argv[4]) : std::wstring(temp) + L"dorwex-benchmark-" + std::to_wstring(GetCurrentProcessId());
    CreateDirectoryW(directory.c_str(), nullptr);
    const std::wstring storage = directory + L"\\storage";
    CreateDirectoryW(storage.c_str(), nullptr);
    DescribeDevices(directory);

    // The content: a file of pseudo-random bytes (nothing on the way can shortcut zeros), the listing
    // folders and the deep path.
    const std::wstring source = directory + L"\\source.bin";
    {
        HANDLE file = CreateFileW(source.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
        std::vector<unsigned> block(1 << 18);
        unsigned seed = 12345;
        for (ULONGLONG written = 0; written < megabytes << 20; written += block.size() * sizeof(unsigned)) {
            for (auto& word : block) {
                word = seed = seed * 1664525u + 1013904223u;
            }
            DWORD count = 0;
            WriteFile(file, block.data(), static_cast<DWORD>(block.size() * sizeof(unsigned)), &count, nullptr);
        }
        CloseHandle(file);
    }
    std::vector<size_t> sizes;
    for (size_t size : {size_t{1000}, size_t{10000}, size_t{100000}}) {
        if (size <= largest) {
            sizes.push_back(size);
            if (!prepared) {
                MakeEntries(storage + L"\\list" + std::to_wstring(size), size);
            }
        }
    }
    if (!prepared) {
        MakeEntries(storage + L"\\deep1", 9999, L"deep2");
        MakeEntries(storage + L"\\deep1\\deep2", 9999, L"deep3");
        MakeEntries(storage + L"\\deep1\\deep2\\deep3", 9999);
        WriteText(storage + L"\\deep1\\deep2\\deep3\\target.txt", "target");
    }

    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    double copyTo = 0, copyFrom = 0, listVsBare = 0, requestsPerEntry = 0;
    {
        ComPtr<IWbemServices> services;
        if (!ConnectWmi(services)) {
            return 1;
        }
        const DWORD self = GetCurrentProcessId();
        const std::wstring token = Call(services.Get(), L"RequestWriteToken",
                                        {{L"uint32ProcessId", _variant_t(static_cast<long>(self), VT_I4)}}, self);
        BareClient fast(kFast);
        BareClient slow(kSlow);

        // Copies: every run starts from the same state (no copy on the device, no local copy).
        const std::wstring plain = directory + L"\\plain.bin";
        const std::wstring back = directory + L"\\back.bin";
        const std::wstring onDevice = storage + L"\\source.bin";
        const auto clean = [&] {
            DeleteFileW(plain.c_str());
            DeleteFileW(back.c_str());
            DeleteFileW(onDevice.c_str());
        };
        wprintf(L"copy of %llu MiB, %d runs each:\n", megabytes, runs);
        std::wstring to, from;
        const auto present = [&] {
            DeleteFileW(back.c_str());
            if (GetFileAttributesW(onDevice.c_str()) == INVALID_FILE_ATTRIBUTES) {
                CopyFileW(source.c_str(), onDevice.c_str(), FALSE);
            }
        };
        const std::vector<Figures> copiesTo = Alternate(
            runs, {{kFast, clean, [&] { CopyFileW(source.c_str(), plain.c_str(), FALSE); }},
                   {kFast, clean,
                    [&] {
                        to = Call(services.Get(), L"CopyFileToDevice",
                                  {{L"strObjectStoragePath", _variant_t(L"Phone")},
                                   {L"strFileToCopy", _variant_t(source.c_str())},
                                   {L"strWriteToken", _variant_t(token.c_str())},
                                   {L"strObjectDeviceId", _variant_t(kFast)}},
                                  self);
                    }},
                   {kFast, clean, [&] { fast.CopyTo(L"s10001", source, L"source.bin"); }}});
        const std::vector<Figures> copiesFrom = Alternate(
            runs, {{kFast, present,
                    [&] {
                        from = Call(services.Get(), L"CopyFileFromDevice",
                                    {{L"strObjectStoragePath", _variant_t(L"Phone\\source.bin")},
                                     {L"strLocalFileName", _variant_t(back.c_str())},
                                     {L"strObjectDeviceId", _variant_t(kFast)}});
                    }},
                   {kFast, present, [&] { fast.CopyFrom(fast.Child(L"s10001", L"source.bin"), back); }}});
        const Figures& platform = copiesTo[0];
        const Figures& providerTo = copiesTo[1];
        const Figures& bareTo = copiesTo[2];
        const Figures& providerFrom = copiesFrom[0];
        const Figures& bareFrom = copiesFrom[1];
        clean();
        Print(L"CopyFileW", platform, false);
        Print((L"provider to the device (" + to + L")").c_str(), providerTo, true);
        Print(L"bare client to the device", bareTo, false);
        Print((L"provider from the device (" + from + L")").c_str(), providerFrom, true);
        Print(L"bare client from the device", bareFrom, false);
        copyTo = bareTo.median / providerTo.median;
        copyFrom = bareFrom.median / providerFrom.median;
        wprintf(L"  copy_to %.2fx and copy_from %.2fx the bare client (medians); CopyFileW/provider %.2fx and %.2fx\n",
                copyTo, copyFrom, platform.median / providerTo.median, platform.median / providerFrom.median);

        // Listings.
        for (const wchar_t* device : {kFast, kSlow}) {
            BareClient& bare = device == kFast ? fast : slow;
            const wchar_t* latency = device == kFast ? L"0" : L"1 ms";
            for (size_t size : sizes) {
                const std::wstring name = L"list" + std::to_wstring(size);
                const std::wstring path = L"Phone\\" + name;
                const std::wstring folderId = bare.Child(L"s10001", name);  // also warms the device's id table
                std::wstring listing, bareListing;
                size_t walked = 0;
                wprintf(L"listing of %zu entries, latency %ls, %d runs each:\n", size, latency, runs);
                const std::vector<Figures> listings = Alternate(
                    runs, {{device, nullptr,
                            [&] {
                                listing = Call(services.Get(), L"EnumerateDevicePath",
                                               {{L"strObjectStoragePath", _variant_t(path.c_str())},
                                                {L"strObjectDeviceId", _variant_t(device)}});
                            }},
                           {device, nullptr, [&] { bareListing = bare.List(folderId); }},
                           {device, nullptr, [&] { walked = Walk(storage + L"\\" + name); }}});
                const Figures& provider = listings[0];
                const Figures& bareFigures = listings[1];
                const Figures& walk = listings[2];
                Print(L"provider EnumerateDevicePath", provider, true);
                Print(L"bare client (enumeration + bulk)", bareFigures, false);
                Print(L"FindFirstFileW walk", walk, false);
                const size_t entries = static_cast<size_t>(std::count(listing.begin(), listing.end(), L'~'));
                wprintf(L"  %zu entries listed (bare %zu, walk %zu), same text as the bare client: %ls; "
                        L"%.4f requests per entry; result text %.1f MiB\n",
                        entries, static_cast<size_t>(std::count(bareListing.begin(), bareListing.end(), L'~')),
                        walked, listing == bareListing ? L"yes" : L"NO",
                        static_cast<double>(provider.requests) / static_cast<double>(size),
                        static_cast<double>(listing.size() * sizeof(wchar_t)) / (1 << 20));
                if (device == kSlow && size == 10000) {
                    listVsBare = provider.median / bareFigures.median;
                    requestsPerEntry = static_cast<double>(provider.requests) / static_cast<double>(size);
                }
            }
        }

        // A path three folders deep, each folder of 10,000 entries.
        for (const wchar_t* device : {kFast, kSlow}) {
            std::wstring objectId;
            wprintf(L"resolving Phone\\deep1\\deep2\\deep3\\target.txt (folders of 10,000 entries), latency %ls:\n",
                    device == kFast ? L"0" : L"1 ms");
            const auto lookUp = [&] {
                objectId = Call(services.Get(), L"GetProperty",
                                {{L"strObjectStoragePath", _variant_t(L"Phone\\deep1\\deep2\\deep3\\target.txt")},
                                 {L"strPropertyName", _variant_t(L"ObjectId")},
                                 {L"strObjectDeviceId", _variant_t(device)}});
            };
            const Figures resolve = Alternate(runs, {{device, nullptr, lookUp}})[0];
            Print((L"provider GetProperty ObjectId (" + objectId + L")").c_str(), resolve, true);
            wprintf(L"  %.1f requests per path component (4 names below the storage)\n",
                    static_cast<double>(resolve.requests) / 4.0);
        }
    }
    CoUninitialize();
    wprintf(L"content: copy_to=%.2f copy_from=%.2f list_vs_bare=%.2f list_requests_per_entry=%.4f\n", copyTo,
            copyFrom, listVsBare, requestsPerEntry);
    return 0;
}
