#include "provider_host.h"

#include <objbase.h>
#include <wbemprov.h>

#include <string>
#include <thread>
#include <vector>

#include "dorwex_wmi_service.h"
#include "emulator/common/com_server.h"

namespace dorwex::emulator::wmi {

namespace {

bool InMultithreadedApartment() {
    APTTYPE type;
    APTTYPEQUALIFIER qualifier;
    return SUCCEEDED(CoGetApartmentType(&type, &qualifier)) && type == APTTYPE_MTA;
}

// Runs work on a thread of the multithreaded apartment, where the service loads and frees provider DLLs
// (COM keeps its list of loaded DLLs per apartment): here when this thread is one, else on a new one.
template <class Work>
void RunInMultithreadedApartment(const Work& work) {
    if (InMultithreadedApartment()) {
        work();
        return;
    }
    std::thread worker([&work] {
        const HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        work();
        if (SUCCEEDED(hr)) {
            CoUninitialize();
        }
    });
    worker.join();
}

// Starts the host program next to this DLL and takes the host object it hands back through a pipe (its
// marshalled reference, size first). The service starts its host itself rather than through COM activation
// because Wine's activation service keeps a killed server's class registration and hands it out again,
// where Windows drops it with the process and starts a new server.
HRESULT StartHostProcess(IDorwexProviderHost** host_out, HANDLE* process_out) {
    SECURITY_ATTRIBUTES inherit = {sizeof(inherit), nullptr, TRUE};
    HANDLE reader = nullptr;
    HANDLE writer = nullptr;
    if (!CreatePipe(&reader, &writer, &inherit, 0)) {
        return HRESULT_FROM_WIN32(GetLastError());
    }
    SetHandleInformation(reader, HANDLE_FLAG_INHERIT, 0);
    // The host ends with the service whose process id it is given.
    std::wstring command = L"\"" + ThisModuleDirectory() + L"dorwex_provider_host.exe\" " +
                           std::to_wstring(GetCurrentProcessId()) + L" " +
                           std::to_wstring(reinterpret_cast<ULONG_PTR>(writer));
    // Only the pipe's end is handed to the host.
    SIZE_T size = 0;
    InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    std::vector<BYTE> attributes(size);
    auto* list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(attributes.data());
    STARTUPINFOEXW startup = {};
    startup.StartupInfo.cb = sizeof(startup);
    if (InitializeProcThreadAttributeList(list, 1, 0, &size) &&
        UpdateProcThreadAttribute(list, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, &writer, sizeof(writer), nullptr,
                                  nullptr)) {
        startup.lpAttributeList = list;
    }
    PROCESS_INFORMATION started = {};
    const BOOL created = CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE,
                                        startup.lpAttributeList != nullptr ? EXTENDED_STARTUPINFO_PRESENT : 0,
                                        nullptr, nullptr, &startup.StartupInfo, &started);
    const DWORD createError = GetLastError();
    if (startup.lpAttributeList != nullptr) {
        DeleteProcThreadAttributeList(list);
    }
    CloseHandle(writer);  // the read below ends when the host has written, or has died
    if (!created) {
        CloseHandle(reader);
        return HRESULT_FROM_WIN32(createError);
    }
    CloseHandle(started.hThread);
    std::vector<BYTE> reference;
    DWORD length = 0;
    DWORD read = 0;
    bool complete = ReadFile(reader, &length, sizeof(length), &read, nullptr) && read == sizeof(length) &&
                    length > 0 && length < 64 * 1024;
    if (complete) {
        reference.resize(length);
        for (DWORD at = 0; complete && at < length; at += read) {
            complete = ReadFile(reader, reference.data() + at, length - at, &read, nullptr) && read > 0;
        }
    }
    CloseHandle(reader);
    HRESULT hr = complete ? S_OK : CO_E_SERVER_EXEC_FAILURE;
    IStream* stream = nullptr;
    if (SUCCEEDED(hr)) {
        hr = CreateStreamOnHGlobal(nullptr, TRUE, &stream);
    }
    if (SUCCEEDED(hr)) {
        hr = stream->Write(reference.data(), length, nullptr);
    }
    if (SUCCEEDED(hr)) {
        hr = stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_SET, nullptr);
    }
    if (SUCCEEDED(hr)) {
        hr = CoUnmarshalInterface(stream, IID_IDorwexProviderHost, reinterpret_cast<void**>(host_out));
    }
    if (stream != nullptr) {
        stream->Release();
    }
    if (FAILED(hr)) {
        TerminateProcess(started.hProcess, 1);
        CloseHandle(started.hProcess);
        return hr;
    }
    *process_out = started.hProcess;
    return S_OK;
}

void CALLBACK HostProcessEnded(void* context, BOOLEAN) {
    auto* hosting = static_cast<std::function<void()>*>(context);
    (*hosting)();
}

}  // namespace

std::wstring ModuleOf(IUnknown* object) {
    HMODULE module = nullptr;
    const void* vtable = *reinterpret_cast<void* const*>(object);
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            static_cast<LPCWSTR>(vtable), &module)) {
        return std::wstring();
    }
    wchar_t path[MAX_PATH] = {};
    const DWORD length = GetModuleFileNameW(module, path, MAX_PATH);
    return length > 0 && length < MAX_PATH ? std::wstring(path, length) : std::wstring();
}

bool ModuleMapped(const std::wstring& path) {
    return !path.empty() && GetModuleHandleW(path.c_str()) != nullptr;
}

ProviderHosting& ProviderHosting::Get() {
    static ProviderHosting* hosting = new ProviderHosting();  // lives as long as the process
    return *hosting;
}

void ProviderHosting::UseSeparateHost(std::function<void()> hostEnded) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_separate = true;
    m_hostEnded = std::move(hostEnded);
}

bool ProviderHosting::Separate() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_separate;
}

bool ProviderHosting::HostRunningLocked() {
    return WaitForSingleObject(m_process, 0) == WAIT_TIMEOUT;
}

void ProviderHosting::DropHostLocked() {
    if (m_wait != nullptr) {
        UnregisterWaitEx(m_wait, nullptr);  // a callback running now only tells the namespace
        m_wait = nullptr;
    }
    if (m_process != nullptr) {
        CloseHandle(m_process);
        m_process = nullptr;
    }
    if (m_host != nullptr) {
        m_host->Release();
        m_host = nullptr;
    }
}

HRESULT ProviderHosting::Host(bool start, IDorwexProviderHost** host_out, DWORD* generation_out) {
    *host_out = nullptr;
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_host != nullptr && !HostRunningLocked()) {
        DropHostLocked();  // the host died: the next one is a new generation
    }
    if (m_host == nullptr) {
        if (!start) {
            return E_UNEXPECTED;
        }
        IDorwexProviderHost* host = nullptr;
        HANDLE process = nullptr;
        const HRESULT hr = StartHostProcess(&host, &process);
        if (FAILED(hr)) {
            return hr;
        }
        m_host = host;
        m_process = process;
        ++m_generation;
        RegisterWaitForSingleObject(&m_wait, m_process, HostProcessEnded, &m_hostEnded, INFINITE,
                                    WT_EXECUTEONLYONCE);
    }
    m_host->AddRef();
    *host_out = m_host;
    if (generation_out != nullptr) {
        *generation_out = m_generation;
    }
    return S_OK;
}

HRESULT ProviderHosting::Create(const CLSID& clsid, IUnknown** provider_out, std::wstring* module_out,
                                DWORD* generation_out) {
    *provider_out = nullptr;
    module_out->clear();
    *generation_out = 0;
    if (!Separate()) {
        IWbemProviderInit* init = nullptr;
        RunInMultithreadedApartment([&] {
            IClassFactory* factory = nullptr;
            if (FAILED(CoGetClassObject(clsid, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory,
                                        reinterpret_cast<void**>(&factory)))) {
                return;
            }
            if (FAILED(factory->CreateInstance(nullptr, IID_IWbemProviderInit, reinterpret_cast<void**>(&init)))) {
                init = nullptr;
            }
            factory->Release();
        });
        if (init == nullptr) {
            return WBEM_E_PROVIDER_LOAD_FAILURE;
        }
        *module_out = ModuleOf(init);
        *provider_out = init;  // IWbemProviderInit derives from IUnknown
        return S_OK;
    }
    IDorwexProviderHost* host = nullptr;
    HRESULT hr = Host(true, &host, generation_out);
    if (FAILED(hr)) {
        return WBEM_E_PROVIDER_LOAD_FAILURE;
    }
    BSTR module = nullptr;
    GUID requested = clsid;
    hr = host->CreateProvider(&requested, provider_out, &module);
    host->Release();
    if (module != nullptr) {
        *module_out = module;
        SysFreeString(module);
    }
    return SUCCEEDED(hr) && *provider_out != nullptr ? S_OK : static_cast<HRESULT>(WBEM_E_PROVIDER_LOAD_FAILURE);
}

HRESULT ProviderHosting::Calls(IUnknown* provider, bool impersonate, IWbemServices** calls_out) {
    *calls_out = nullptr;
    if (!Separate()) {
        return provider->QueryInterface(IID_IWbemServices, reinterpret_cast<void**>(calls_out));
    }
    IDorwexProviderHost* host = nullptr;
    HRESULT hr = Host(false, &host, nullptr);
    if (SUCCEEDED(hr)) {
        hr = host->Calls(provider, impersonate ? 1 : 0, calls_out);
        host->Release();
    }
    return hr;
}

bool ProviderHosting::Running(DWORD generation) {
    std::lock_guard<std::mutex> guard(m_lock);
    return !m_separate ||
           (m_host != nullptr && generation == m_generation && HostRunningLocked());
}

bool ProviderHosting::ModuleMapped(const std::wstring& path) {
    if (!Separate()) {
        return wmi::ModuleMapped(path);
    }
    LONG mapped = 0;
    return SUCCEEDED(HostControl(L"ModuleMapped", 0, path, &mapped)) && mapped != 0;
}

void ProviderHosting::FreeUnusedLibraries(DWORD delay) {
    if (!Separate()) {
        RunInMultithreadedApartment([delay] { CoFreeUnusedLibrariesEx(delay, 0); });
        return;
    }
    LONG result = 0;
    HostControl(L"FreeUnusedLibraries", static_cast<LONG>(delay), std::wstring(), &result);
}

HRESULT ProviderHosting::HostControl(const wchar_t* name, LONG first, const std::wstring& text, LONG* result_out) {
    BSTR nameText = SysAllocString(name);
    BSTR argument = text.empty() ? nullptr : SysAllocString(text.c_str());
    BSTR out = nullptr;
    const HRESULT hr = nameText == nullptr ? E_OUTOFMEMORY
                                           : Control(nameText, first, 0, argument, result_out, &out, false);
    SysFreeString(nameText);
    SysFreeString(argument);
    SysFreeString(out);
    return hr;
}

HRESULT ProviderHosting::Control(BSTR name, LONG first, LONG second, BSTR text, LONG* result_out, BSTR* text_out,
                                 bool start) {
    IDorwexProviderHost* host = nullptr;
    HRESULT hr = Host(start, &host, nullptr);
    if (FAILED(hr)) {
        return hr;
    }
    hr = host->Control(name, first, second, text, result_out, text_out);
    host->Release();
    return hr;
}

DWORD ProviderHosting::HostProcessId() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_host != nullptr && HostRunningLocked() ? GetProcessId(m_process) : 0;
}

}  // namespace dorwex::emulator::wmi
