// Where the emulated service keeps its provider. A service that serves the clients of its own process loads
// the provider into that process. The service in a process of its own starts a provider host, as WMI starts
// its provider host process, and loads the provider there; it calls the provider through COM, and when the
// host dies the next request starts another.
#pragma once

#include <windows.h>
#include <oleauto.h>
#include <wbemcli.h>

#include <functional>
#include <mutex>
#include <string>

struct IDorwexProviderHost;

namespace dorwex::emulator::wmi {

// The module an interface pointer's methods are in, as a full path; empty when unknown.
std::wstring ModuleOf(IUnknown* object);
// Whether a module is mapped in this process.
bool ModuleMapped(const std::wstring& path);

class ProviderHosting {
public:
    static ProviderHosting& Get();

    // From now on providers go into a host process of their own; hostEnded runs (on a thread pool thread)
    // when a host the service started has ended.
    void UseSeparateHost(std::function<void()> hostEnded);
    bool Separate();

    // A new provider object of the class (as its IWbemProviderInit), the module it came from, and the
    // generation of the host it lives in.
    HRESULT Create(const CLSID& clsid, IUnknown** provider_out, std::wstring* module_out, DWORD* generation_out);
    // What the service calls the provider's instance and method role through.
    HRESULT Calls(IUnknown* provider, bool impersonate, IWbemServices** calls_out);
    // Whether the host of that generation still runs (always, for a provider in this process).
    bool Running(DWORD generation);
    bool ModuleMapped(const std::wstring& path);
    // Lets COM free the DLLs of the provider's process that allow it (CoFreeUnusedLibrariesEx).
    void FreeUnusedLibraries(DWORD delay);
    // Runs a control function in the host; starts one first when start is true (E_UNEXPECTED without one).
    HRESULT Control(BSTR name, LONG first, LONG second, BSTR text, LONG* result_out, BSTR* text_out, bool start);
    // The host's process id; 0 when none runs.
    DWORD HostProcessId();

private:
    ProviderHosting() = default;
    // The running host (a reference for the caller), started when missing and start is true.
    HRESULT Host(bool start, IDorwexProviderHost** host_out, DWORD* generation_out);
    void DropHostLocked();
    // Whether the process of the host held (m_host not null) has not ended.
    bool HostRunningLocked();
    // A control of the running host, if one runs.
    HRESULT HostControl(const wchar_t* name, LONG first, const std::wstring& text, LONG* result_out);

    std::mutex m_lock;
    bool m_separate = false;
    std::function<void()> m_hostEnded;
    IDorwexProviderHost* m_host = nullptr;
    HANDLE m_process = nullptr;
    HANDLE m_wait = nullptr;
    DWORD m_generation = 0;
};

}  // namespace dorwex::emulator::wmi
