// Throughput of the content methods through the WMI method path, beside what the platform does directly:
//   copy of a file to and from an emulated device against CopyFileW of the same file, and
//   listing of a device folder against a FindFirstFileW walk of the folder behind it, at two sizes.
//   benchmark_content [megabytes] [entries]      (defaults 256 and 10000)
// It runs in the Wine prefix where the provider and both emulators are registered (tools/benchmark.sh).
#include <comdef.h>
#include <wbemcli.h>
#include <wrl/client.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

using Microsoft::WRL::ComPtr;

namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::wstring g_directory;
const wchar_t kDevice[] = L"usb#vid_1234&pid_0001#benchmark";

void WriteText(const std::wstring& path, const std::string& text) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written = 0;
    WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    CloseHandle(file);
}

// Calls a method and returns "ReturnValue" (or the failure code as text).
std::wstring Call(IWbemServices* services, const wchar_t* method,
                  const std::vector<std::pair<const wchar_t*, _variant_t>>& parameters, DWORD clientPid = 0) {
    ComPtr<IWbemClassObject> wpdClass;
    ComPtr<IWbemClassObject> inSignature;
    ComPtr<IWbemClassObject> in;
    services->GetObject(_bstr_t(L"Win32ext_WPD"), 0, nullptr, &wpdClass, nullptr);
    wpdClass->GetMethod(method, 0, &inSignature, nullptr);
    inSignature->SpawnInstance(0, &in);
    for (const auto& parameter : parameters) {
        in->Put(parameter.first, 0, const_cast<_variant_t*>(&parameter.second), 0);
    }
    ComPtr<IWbemContext> context;
    if (clientPid != 0) {
        CoCreateInstance(CLSID_WbemContext, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&context));
        _variant_t pid(static_cast<long>(clientPid), VT_I4);
        pid.vt = VT_UI4;
        context->SetValue(L"dorWEXWPDClientPID", 0, &pid);
    }
    ComPtr<IWbemClassObject> out;
    const HRESULT hr = services->ExecMethod(_bstr_t(L"Win32ext_WPD"), _bstr_t(method), 0, context.Get(), in.Get(),
                                            &out, nullptr);
    if (FAILED(hr) || !out) {
        return L"failed " + std::to_wstring(static_cast<unsigned long>(hr));
    }
    _variant_t value;
    out->Get(L"ReturnValue", 0, &value, nullptr, nullptr);
    return value.vt == VT_BSTR && value.bstrVal != nullptr ? value.bstrVal : L"";
}

size_t CountEntries(const std::wstring& listing) {
    size_t count = 0;
    for (wchar_t c : listing) {
        count += c == L'~' ? 1 : 0;
    }
    return count;
}

double WalkSeconds(const std::wstring& folder, size_t& count_out) {
    const auto start = Clock::now();
    WIN32_FIND_DATAW found{};
    count_out = 0;
    HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            count_out += found.cFileName[0] != L'.' ? 1 : 0;
        } while (FindNextFileW(search, &found));
        FindClose(search);
    }
    return Seconds(start);
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    const ULONGLONG megabytes = argc > 1 ? wcstoull(argv[1], nullptr, 10) : 256;
    const size_t entries = argc > 2 ? wcstoul(argv[2], nullptr, 10) : 10000;
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    g_directory = std::wstring(temp) + L"dorwex-benchmark-" + std::to_wstring(GetCurrentProcessId());
    CreateDirectoryW(g_directory.c_str(), nullptr);
    const std::wstring storage = g_directory + L"\\storage";
    CreateDirectoryW(storage.c_str(), nullptr);
    WriteText(g_directory + L"\\benchmark.wpd",
              "[device]\nid = usb#vid_1234&pid_0001#benchmark\nmanufacturer = SAMSUNG\nfriendly_name = Benchmark\n"
              "categories = storage\nWPD_DEVICE_SERIAL_NUMBER = BENCH\n[storage]\nobject_id = s10001\nname = Phone\n"
              "directory = storage\n");
    SetEnvironmentVariableW(L"DORWEX_WPD_DEVICES", g_directory.c_str());

    // The source file: pseudo-random bytes, so that nothing on the way can shortcut zeros.
    const std::wstring source = g_directory + L"\\source.bin";
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

    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    {
        ComPtr<IWbemLocator> locator;
        ComPtr<IWbemServices> services;
        if (FAILED(CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&locator))) ||
            FAILED(locator->ConnectServer(_bstr_t(L"root\\cimv2"), nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                          &services))) {
            wprintf(L"cannot connect to WMI\n");
            return 1;
        }
        const DWORD self = GetCurrentProcessId();
        const std::wstring token = Call(services.Get(), L"RequestWriteToken",
                                        {{L"uint32ProcessId", _variant_t(static_cast<long>(self), VT_I4)}}, self);

        // Each copy runs three times and the best time counts, so that the page cache treats all alike.
        const std::wstring plainCopy = g_directory + L"\\plain.bin";
        const std::wstring back = g_directory + L"\\back.bin";
        double plain = 1e9, toDevice = 1e9, fromDevice = 1e9;
        std::wstring to, from;
        for (int round = 0; round < 3; ++round) {
            auto start = Clock::now();
            CopyFileW(source.c_str(), plainCopy.c_str(), FALSE);
            plain = std::min(plain, Seconds(start));
            DeleteFileW(plainCopy.c_str());

            start = Clock::now();
            to = Call(services.Get(), L"CopyFileToDevice",
                      {{L"strObjectStoragePath", _variant_t(L"Phone")},
                       {L"strFileToCopy", _variant_t(source.c_str())},
                       {L"strWriteToken", _variant_t(token.c_str())},
                       {L"strObjectDeviceId", _variant_t(kDevice)}},
                      self);
            toDevice = std::min(toDevice, Seconds(start));
            wprintf(L"  round %d: to the device %ls in %.3f s\n", round + 1, to.c_str(), Seconds(start));

            start = Clock::now();
            from = Call(services.Get(), L"CopyFileFromDevice",
                        {{L"strObjectStoragePath", _variant_t(L"Phone\\source.bin")},
                         {L"strLocalFileName", _variant_t(back.c_str())},
                         {L"strObjectDeviceId", _variant_t(kDevice)}});
            fromDevice = std::min(fromDevice, Seconds(start));
            DeleteFileW(back.c_str());
            DeleteFileW((storage + L"\\source.bin").c_str());  // the next round uploads it again
        }
        const double mb = static_cast<double>(megabytes);
        wprintf(L"copy of %llu MiB: CopyFileW %.2f s (%.0f MiB/s)\n", megabytes, plain, mb / plain);
        wprintf(L"  to the device   (%ls) %.2f s (%.0f MiB/s), %.2fx the plain copy\n", to.c_str(), toDevice,
                mb / toDevice, plain / toDevice);
        wprintf(L"  from the device (%ls) %.2f s (%.0f MiB/s), %.2fx the plain copy\n", from.c_str(), fromDevice,
                mb / fromDevice, plain / fromDevice);

        // Listings at a quarter of the size and at the full size show how the cost grows.
        for (size_t size : {entries / 4, entries}) {
            auto start = Clock::now();
            const std::wstring folder = storage + L"\\list" + std::to_wstring(size);
            CreateDirectoryW(folder.c_str(), nullptr);
            for (size_t i = 0; i < size; ++i) {
                WriteText(folder + L"\\entry-" + std::to_wstring(i) + L".txt", "");
            }
            start = Clock::now();
            const std::wstring listing = Call(services.Get(), L"EnumerateDevicePath",
                                              {{L"strObjectStoragePath", _variant_t((L"Phone\\list" + std::to_wstring(size)).c_str())},
                                               {L"strObjectDeviceId", _variant_t(kDevice)}});
            const double listed = Seconds(start);
            size_t walked = 0;
            const double walk = WalkSeconds(folder, walked);
            wprintf(L"listing of %zu entries: EnumerateDevicePath %.3f s (%zu entries, %.1f us each), "
                    L"FindFirstFileW walk %.3f s (%zu entries)\n",
                    size, listed, CountEntries(listing), 1e6 * listed / static_cast<double>(size), walk, walked);
        }
    }
    CoUninitialize();
    return 0;
}
