// What the benchmarks share: measuring a run (time, device requests, working-set growth), alternating the
// cases compared, calls through WMI, and a bare client that makes the portable-device calls directly.
#pragma once

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

namespace benchmark {

using Microsoft::WRL::ComPtr;

using Clock = std::chrono::steady_clock;

inline DorwexEmulatorRequestsFunction g_requests = nullptr;

inline double Seconds(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

inline void WriteText(const std::wstring& path, const std::string& text) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written = 0;
    WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    CloseHandle(file);
}

inline SIZE_T WorkingSet() {
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
inline Run Measure(const wchar_t* device, const std::function<void()>& work) {
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
inline std::vector<Figures> Alternate(int runs, const std::vector<Case>& cases) {
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

inline void Print(const wchar_t* what, const Figures& f, bool memory) {
    wprintf(L"  %-34ls min %8.3f s  median %8.3f s  requests %7lu", what, f.min, f.median, f.requests);
    if (memory) {
        wprintf(L"  peak +%.1f MiB", f.peakMiB);
    }
    wprintf(L"\n");
}

// --- The provider through WMI ---------------------------------------------------------------------

using Parameters = std::vector<std::pair<const wchar_t*, _variant_t>>;

// The method's in-parameters object, made before a measurement starts.
inline ComPtr<IWbemClassObject> InParameters(IWbemServices* services, const wchar_t* method, const Parameters& parameters) {
    ComPtr<IWbemClassObject> wpdClass, inSignature, in;
    services->GetObject(_bstr_t(L"Win32ext_WPD"), 0, nullptr, &wpdClass, nullptr);
    wpdClass->GetMethod(method, 0, &inSignature, nullptr);
    inSignature->SpawnInstance(0, &in);
    for (const auto& parameter : parameters) {
        in->Put(parameter.first, 0, const_cast<_variant_t*>(&parameter.second), 0);
    }
    return in;
}

inline std::wstring ReturnValue(IWbemClassObject* out) {
    _variant_t value;
    out->Get(L"ReturnValue", 0, &value, nullptr, nullptr);
    return value.vt == VT_BSTR && value.bstrVal != nullptr ? value.bstrVal : L"";
}

inline std::wstring Call(IWbemServices* services, const wchar_t* method, const Parameters& parameters, DWORD clientPid = 0) {
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

    // The ids of the folder's children by name, from one listing: what a careful client keeps.
    std::unordered_map<std::wstring, std::wstring> Ids(const std::wstring& folderId) {
        std::unordered_map<std::wstring, std::wstring> ids;
        const std::wstring listing = List(folderId);
        for (size_t at = 0; at < listing.size();) {
            const size_t name = listing.find(L'@', at);
            const size_t id = listing.find(L'@', name + 1);
            ids[listing.substr(at, name - at)] = listing.substr(name + 1, id - name - 1);
            at = listing.find(L'~', id) + 1;
        }
        return ids;
    }

    void Delete(const std::wstring& objectId) {
        ComPtr<IPortableDevicePropVariantCollection> objects;
        CoCreateInstance(CLSID_PortableDevicePropVariantCollection, nullptr, CLSCTX_INPROC_SERVER,
                         IID_PPV_ARGS(&objects));
        PROPVARIANT id;
        PropVariantInit(&id);
        id.vt = VT_LPWSTR;
        id.pwszVal = const_cast<LPWSTR>(objectId.c_str());
        objects->Add(&id);
        m_content->Delete(PORTABLE_DEVICE_DELETE_NO_RECURSION, objects.Get(), nullptr);
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

inline bool ConnectWmi(ComPtr<IWbemServices>& services) {
    ComPtr<IWbemLocator> locator;
    if (FAILED(CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&locator))) ||
        FAILED(locator->ConnectServer(_bstr_t(L"root\\cimv2"), nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                      &services))) {
        wprintf(L"cannot connect to WMI\n");
        return false;
    }
    return true;
}

}  // namespace benchmark
