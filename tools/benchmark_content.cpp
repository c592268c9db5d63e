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
#include <comdef.h>
#include <psapi.h>
#include <shlwapi.h>
#include <wbemcli.h>
#include <wrl/client.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "device/portable_device_api.h"
#include "emulator/wpd/control.h"

using Microsoft::WRL::ComPtr;

namespace {

using Clock = std::chrono::steady_clock;

const wchar_t kFast[] = L"usb#vid_1234&pid_0001#benchmark";        // latency 0
const wchar_t kSlow[] = L"usb#vid_1234&pid_0002#benchmark-1ms";    // latency 1 ms, same storage

DorwexEmulatorRequestsFunction g_requests = nullptr;

double Seconds(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void WriteText(const std::wstring& path, const std::string& text) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written = 0;
    WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    CloseHandle(file);
}

SIZE_T WorkingSet() {
    PROCESS_MEMORY_COUNTERS counters{};
    counters.cb = sizeof(counters);
    GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof(counters));
    return counters.WorkingSetSize;
}

// One measured run: its time, the device requests it made and the peak working-set growth during it.
struct Run {
    double seconds = 0;
    ULONG requests = 0;
    double peakMiB = 0;
};

// Runs the work, sampling the working set on a second thread while it runs (a measurement, not a wait).
Run Measure(const wchar_t* device, const std::function<void()>& work) {
    std::atomic<bool> done{false};
    const SIZE_T before = WorkingSet();
    std::atomic<SIZE_T> peak{before};
    std::thread sampler([&] {
        while (!done) {
            const SIZE_T now = WorkingSet();
            if (now > peak) {
                peak = now;
            }
            Sleep(1);
        }
    });
    g_requests(device, TRUE);
    const auto start = Clock::now();
    work();
    Run run;
    run.seconds = Seconds(start);
    run.requests = g_requests(device, TRUE);
    done = true;
    sampler.join();
    const SIZE_T after = WorkingSet();
    run.peakMiB = static_cast<double>(std::max(peak.load(), after) - before) / (1 << 20);
    return run;
}

struct Figures {
    double min = 0, median = 0;
    ULONG requests = 0;
    double peakMiB = 0;
};

// One case of a comparison: the device whose requests it counts, what to do before each run (not timed)
// and the work.
struct Case {
    const wchar_t* device;
    std::function<void()> before;
    std::function<void()> work;
};

// Runs the cases in turn, one run of each per round, so that all of them see the machine alike (a build
// or a page-cache write-back beside the benchmark slows them together, not one of them).
std::vector<Figures> Alternate(int runs, const std::vector<Case>& cases) {
    std::vector<std::vector<double>> times(cases.size());
    std::vector<Figures> figures(cases.size());
    for (int i = 0; i < runs; ++i) {
        for (size_t c = 0; c < cases.size(); ++c) {
            if (cases[c].before) {
                cases[c].before();
            }
            const Run run = Measure(cases[c].device, cases[c].work);
            times[c].push_back(run.seconds);
            figures[c].requests = run.requests;
            figures[c].peakMiB = std::max(figures[c].peakMiB, run.peakMiB);
        }
    }
    for (size_t c = 0; c < cases.size(); ++c) {
        std::sort(times[c].begin(), times[c].end());
        figures[c].min = times[c].front();
        figures[c].median = times[c][times[c].size() / 2];
    }
    return figures;
}

void Print(const wchar_t* what, const Figures& f, bool memory) {
    wprintf(L"  %-34ls min %8.3f s  median %8.3f s  requests %7lu", what, f.min, f.median, f.requests);
    if (memory) {
        wprintf(L"  peak +%.1f MiB", f.peakMiB);
    }
    wprintf(L"\n");
}

// --- The provider through WMI ---------------------------------------------------------------------

using Parameters = std::vector<std::pair<const wchar_t*, _variant_t>>;

// The method's in-parameters object, made before a measurement starts.
ComPtr<IWbemClassObject> InParameters(IWbemServices* services, const wchar_t* method, const Parameters& parameters) {
    ComPtr<IWbemClassObject> wpdClass, inSignature, in;
    services->GetObject(_bstr_t(L"Win32ext_WPD"), 0, nullptr, &wpdClass, nullptr);
    wpdClass->GetMethod(method, 0, &inSignature, nullptr);
    inSignature->SpawnInstance(0, &in);
    for (const auto& parameter : parameters) {
        in->Put(parameter.first, 0, const_cast<_variant_t*>(&parameter.second), 0);
    }
    return in;
}

std::wstring ReturnValue(IWbemClassObject* out) {
    _variant_t value;
    out->Get(L"ReturnValue", 0, &value, nullptr, nullptr);
    return value.vt == VT_BSTR && value.bstrVal != nullptr ? value.bstrVal : L"";
}

std::wstring Call(IWbemServices* services, const wchar_t* method, const Parameters& parameters, DWORD clientPid = 0) {
    const ComPtr<IWbemClassObject> in = InParameters(services, method, parameters);
    ComPtr<IWbemClassObject> out;
    ComPtr<IWbemContext> context;
    if (clientPid != 0) {
        CoCreateInstance(CLSID_WbemContext, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&context));
        _variant_t pid(static_cast<long>(clientPid), VT_I4);
        pid.vt = VT_UI4;
        context->SetValue(L"dorWEXWPDClientPID", 0, &pid);
    }
    const HRESULT hr = services->ExecMethod(_bstr_t(L"Win32ext_WPD"), _bstr_t(method), 0, context.Get(), in.Get(),
                                            &out, nullptr);
    if (FAILED(hr) || !out) {
        return L"failed " + std::to_wstring(static_cast<unsigned long>(hr));
    }
    return ReturnValue(out.Get());
}

// --- The bare client: the same portable-device calls, made directly ---------------------------------

// A bulk read's callback: the count of references, the end; what it keeps of the results is the subclass's.
class BulkSinkBase : public IPortableDevicePropertiesBulkCallback {
public:
    BulkSinkBase() : ended(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
    virtual ~BulkSinkBase() { CloseHandle(ended); }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
        if (riid == IID_IUnknown || riid == IID_IPortableDevicePropertiesBulkCallback) {
            *ppv = this;
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --refs; }
    HRESULT STDMETHODCALLTYPE OnStart(REFGUID) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE OnEnd(REFGUID, HRESULT) override {
        SetEvent(ended);
        return S_OK;
    }
    // Waits for the end and for the runtime to let go of the callback, which it does just after OnEnd.
    void WaitForEnd() {
        WaitForSingleObject(ended, INFINITE);
        while (refs > 1) {
            SwitchToThread();
        }
    }
    std::atomic<ULONG> refs{1};
    HANDLE ended;
};

// Keeps each object's names and kind.
class BulkSink final : public BulkSinkBase {
public:
    struct Record {
        std::wstring original, name;
        bool folder = false;
    };
    HRESULT STDMETHODCALLTYPE OnProgress(REFGUID, IPortableDeviceValuesCollection* results) override {
        DWORD count = 0;
        results->GetCount(&count);
        std::lock_guard<std::mutex> guard(lock);
        for (DWORD i = 0; i < count; ++i) {
            ComPtr<IPortableDeviceValues> values;
            results->GetAt(i, &values);
            LPWSTR id = nullptr, text = nullptr;
            if (FAILED(values->GetStringValue(WPD_OBJECT_ID, &id))) {
                continue;
            }
            Record& record = records[id];
            CoTaskMemFree(id);
            if (SUCCEEDED(values->GetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, &text))) {
                record.original = text;
                CoTaskMemFree(text);
            }
            if (SUCCEEDED(values->GetStringValue(WPD_OBJECT_NAME, &text))) {
                record.name = text;
                CoTaskMemFree(text);
            }
            GUID type{};
            if (SUCCEEDED(values->GetGuidValue(WPD_OBJECT_CONTENT_TYPE, &type))) {
                record.folder = type == WPD_CONTENT_TYPE_FOLDER;
            }
        }
        return S_OK;
    }
    std::mutex lock;
    std::unordered_map<std::wstring, Record> records;
};

// Keeps nothing of the results.
class CountingSink final : public BulkSinkBase {
public:
    HRESULT STDMETHODCALLTYPE OnProgress(REFGUID, IPortableDeviceValuesCollection*) override { return S_OK; }
};

class BareClient {
public:
    explicit BareClient(const wchar_t* deviceId) {
        ComPtr<IPortableDeviceValues> client;
        CoCreateInstance(CLSID_PortableDeviceFTM, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&m_device));
        CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&client));
        m_device->Open(deviceId, client.Get());
        m_device->Content(&m_content);
        m_content->Properties(&m_properties);
        m_properties.As(&m_bulk);
        CoCreateInstance(CLSID_PortableDeviceKeyCollection, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&m_keys));
        m_keys->Add(WPD_OBJECT_ORIGINAL_FILE_NAME);
        m_keys->Add(WPD_OBJECT_NAME);
        m_keys->Add(WPD_OBJECT_CONTENT_TYPE);
    }
    ~BareClient() { m_device->Close(); }

    // The folder's entries as "name@id@DIR~" / "name@id@FILE~", in the device's order.
    std::wstring List(const std::wstring& folderId) {
        std::vector<std::wstring> ids;
        EnumerateChildren(folderId, [&](LPCWSTR id) { ids.emplace_back(id); });
        BulkSink sink;
        ReadChildrenInBulk(folderId, sink);
        std::wstring text;
        for (const auto& id : ids) {
            const auto& record = sink.records[id];
            const std::wstring& name = record.original.empty() ? record.name : record.original;
            if (!name.empty()) {
                text += name + L"@" + id + (record.folder ? L"@DIR~" : L"@FILE~");
            }
        }
        return text;
    }

    // The same two requests as a listing (the enumeration and the bulk read), keeping nothing: what the
    // device and the portable-device runtime take for them.
    size_t Touch(const std::wstring& folderId) {
        size_t ids = 0;
        EnumerateChildren(folderId, [&](LPCWSTR) { ++ids; });
        CountingSink sink;
        ReadChildrenInBulk(folderId, sink);
        return ids;
    }

    // The id of a child by name, from the listing.
    std::wstring Child(const std::wstring& folderId, const std::wstring& name) {
        const std::wstring listing = List(folderId);
        const size_t at = listing.find(name + L"@");
        if (at == std::wstring::npos || (at != 0 && listing[at - 1] != L'~')) {
            return L"";
        }
        const size_t start = at + name.size() + 1;
        return listing.substr(start, listing.find(L'@', start) - start);
    }

    void CopyTo(const std::wstring& folderId, const std::wstring& local, const std::wstring& name) {
        ComPtr<IStream> file;
        SHCreateStreamOnFileW(local.c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, &file);
        STATSTG stat{};
        file->Stat(&stat, STATFLAG_NONAME);
        ComPtr<IPortableDeviceValues> values;
        CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&values));
        values->SetStringValue(WPD_OBJECT_PARENT_ID, folderId.c_str());
        values->SetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, stat.cbSize.QuadPart);
        values->SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, name.c_str());
        values->SetStringValue(WPD_OBJECT_NAME, name.c_str());
        values->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_GENERIC_FILE);
        values->SetGuidValue(WPD_OBJECT_FORMAT, WPD_OBJECT_FORMAT_UNSPECIFIED);
        ComPtr<IStream> device;
        DWORD optimal = 0;
        m_content->CreateObjectWithPropertiesAndData(values.Get(), &device, &optimal, nullptr);
        Pump(file.Get(), device.Get(), optimal);
        device->Commit(STGC_DEFAULT);
    }

    void CopyFrom(const std::wstring& objectId, const std::wstring& local) {
        ComPtr<IPortableDeviceResources> resources;
        m_content->Transfer(&resources);
        ComPtr<IStream> device, file;
        DWORD optimal = 0;
        resources->GetStream(objectId.c_str(), WPD_RESOURCE_DEFAULT, STGM_READ, &optimal, &device);
        SHCreateStreamOnFileW(local.c_str(), STGM_CREATE | STGM_WRITE, &file);
        Pump(device.Get(), file.Get(), optimal);
    }

private:
    // Hands each child id of the folder to take, in the device's order.
    template <class Take>
    void EnumerateChildren(const std::wstring& folderId, Take take) {
        ComPtr<IEnumPortableDeviceObjectIDs> enumerator;
        m_content->EnumObjects(0, folderId.c_str(), nullptr, &enumerator);
        LPWSTR batch[64];
        ULONG fetched = 0;
        HRESULT hr = S_OK;
        do {
            hr = enumerator->Next(64, batch, &fetched);
            for (ULONG i = 0; i < fetched; ++i) {
                take(batch[i]);
                CoTaskMemFree(batch[i]);
            }
        } while (hr == S_OK);
    }

    // One bulk read of the names and kinds of the folder's children, into sink.
    void ReadChildrenInBulk(const std::wstring& folderId, BulkSinkBase& sink) {
        GUID context{};
        m_bulk->QueueGetValuesByObjectFormat(WPD_OBJECT_FORMAT_ALL, folderId.c_str(), 1, m_keys.Get(), &sink, &context);
        m_bulk->Start(context);
        sink.WaitForEnd();
    }

    static void Pump(IStream* from, IStream* to, DWORD size) {
        std::vector<BYTE> buffer(size);
        for (;;) {
            ULONG read = 0, written = 0;
            if (FAILED(from->Read(buffer.data(), size, &read)) || read == 0) {
                return;
            }
            to->Write(buffer.data(), read, &written);
        }
    }

    ComPtr<IPortableDevice> m_device;
    ComPtr<IPortableDeviceContent> m_content;
    ComPtr<IPortableDeviceProperties> m_properties;
    ComPtr<IPortableDevicePropertiesBulk> m_bulk;
    ComPtr<IPortableDeviceKeyCollection> m_keys;
};

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

bool ConnectWmi(ComPtr<IWbemServices>& services) {
    ComPtr<IWbemLocator> locator;
    if (FAILED(CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&locator))) ||
        FAILED(locator->ConnectServer(_bstr_t(L"root\\cimv2"), nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                      &services))) {
        wprintf(L"cannot connect to WMI\n");
        return false;
    }
    return true;
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
