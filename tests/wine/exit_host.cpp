// exit_host MODE
// A provider host with a short life: loads the provider DLL, initialises one provider object with the
// (emulated) root\cimv2 namespace, so that the monitoring core starts, raises the trace level with
// "SetDebugLevel" through ExecMethodAsync, puts a Win32ext_WPD instance with a wrong token and then with
// the non-WPD token in a context object, deletes an unknown device and releases everything.
//   exit    then returns from main with the module still loaded: the process ends through process detach
//   unload  then asks DllCanUnloadNow, frees the module, checks that it is gone and returns from main
//   free    then frees the module without asking, while the core's threads still run: the module must stay
//           loaded (they hold it), and the process must still end when main returns
//   hold    serves the companion pipes until standard input ends (see HoldCompanionPipes)
// Each step is printed; an unexpected answer ends the program with 1 before the end is reached.
#include <windows.h>
#include <objbase.h>
#include <wbemcli.h>
#include <wbemprov.h>

#include <comdef.h>
#include <wrl/client.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "channels/apple_named_pipe.h"
#include "channels/blackberry_named_pipe.h"
#include "wmi/provider_clsid.h"

using Microsoft::WRL::ComPtr;

namespace {

using DllGetClassObjectFunction = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
using DllCanUnloadNowFunction = HRESULT(STDAPICALLTYPE*)();

// The COM identity both sinks share: reference counted, answering IUnknown and its one interface.
template <class Interface>
class Sink : public Interface {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
        if (ppv == nullptr) {
            return E_POINTER;
        }
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, __uuidof(Interface))) {
            *ppv = static_cast<Interface*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++m_count; }
    ULONG STDMETHODCALLTYPE Release() override {
        const ULONG count = --m_count;
        if (count == 0) {
            delete this;
        }
        return count;
    }

protected:
    virtual ~Sink() = default;

private:
    std::atomic<ULONG> m_count{1};
};

class InitSink final : public Sink<IWbemProviderInitSink> {
public:
    HRESULT STDMETHODCALLTYPE SetStatus(LONG lStatus, LONG) override {
        status = lStatus;
        return WBEM_S_NO_ERROR;
    }
    std::atomic<LONG> status{-1};
};

class ObjectSink final : public Sink<IWbemObjectSink> {
public:
    HRESULT STDMETHODCALLTYPE Indicate(LONG, IWbemClassObject**) override { return WBEM_S_NO_ERROR; }
    HRESULT STDMETHODCALLTYPE SetStatus(LONG lFlags, HRESULT hResult, BSTR, IWbemClassObject*) override {
        if (lFlags == WBEM_STATUS_COMPLETE) {
            status = hResult;
            complete = true;
        }
        return WBEM_S_NO_ERROR;
    }
    std::atomic<HRESULT> status{E_UNEXPECTED};
    std::atomic<bool> complete{false};
};

bool Check(const char* step, HRESULT result, HRESULT expected) {
    std::printf("%-52s 0x%08lX\n", step, static_cast<unsigned long>(result));
    std::fflush(stdout);
    if (result != expected) {
        std::printf("unexpected: wanted 0x%08lX\n", static_cast<unsigned long>(expected));
        return false;
    }
    return true;
}

std::wstring ProgramDirectory() {
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring directory(path);
    return directory.substr(0, directory.find_last_of(L'\\') + 1);
}

// Everything up to the release of the last object; false on an unexpected answer.
bool UseProvider(HMODULE module) {
    const auto getClassObject = reinterpret_cast<DllGetClassObjectFunction>(
        reinterpret_cast<void*>(GetProcAddress(module, "DllGetClassObject")));
    if (getClassObject == nullptr) {
        return false;
    }
    ComPtr<IClassFactory> factory;
    if (!Check("DllGetClassObject", getClassObject(CLSID_DorWEXWPDWMIProvider, IID_IClassFactory, &factory), S_OK)) {
        return false;
    }
    ComPtr<IWbemProviderInit> init;
    if (!Check("CreateInstance(IWbemProviderInit)",
               factory->CreateInstance(nullptr, IID_IWbemProviderInit, reinterpret_cast<void**>(init.GetAddressOf())),
               S_OK)) {
        return false;
    }
    factory.Reset();

    ComPtr<IWbemLocator> locator;
    if (!Check("CoCreateInstance(CLSID_WbemLocator)",
               CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&locator)), S_OK)) {
        return false;
    }
    ComPtr<IWbemServices> space;
    if (!Check("ConnectServer(root\\cimv2)",
               locator->ConnectServer(_bstr_t(L"ROOT\\CIMV2"), nullptr, nullptr, nullptr, 0, nullptr, nullptr, &space),
               S_OK)) {
        return false;
    }
    auto* initSink = new InitSink();
    const HRESULT initialized =
        init->Initialize(nullptr, 0, const_cast<LPWSTR>(L"root\\cimv2"), nullptr, space.Get(), nullptr, initSink);
    const LONG initStatus = initSink->status;
    initSink->Release();
    if (!Check("IWbemProviderInit::Initialize", initialized, WBEM_S_NO_ERROR) ||
        !Check("  its status", initStatus, WBEM_S_INITIALIZED)) {
        return false;
    }
    ComPtr<IWbemServices> provider;
    if (!Check("QueryInterface(IWbemServices)", init.As(&provider), S_OK)) {
        return false;
    }
    init.Reset();

    ComPtr<IWbemClassObject> wpdClass;
    ComPtr<IWbemClassObject> inSignature;
    ComPtr<IWbemClassObject> in;
    if (!Check("GetObject(Win32ext_WPD)", space->GetObject(_bstr_t(L"Win32ext_WPD"), 0, nullptr, &wpdClass, nullptr),
               S_OK) ||
        !Check("GetMethod(SetDebugLevel)", wpdClass->GetMethod(L"SetDebugLevel", 0, &inSignature, nullptr), S_OK) ||
        !Check("SpawnInstance(in parameters)", inSignature->SpawnInstance(0, &in), S_OK)) {
        return false;
    }
    _variant_t level(1L, VT_I4);
    in->Put(L"uint32DebugLevel", 0, &level, 0);
    auto* methodSink = new ObjectSink();
    const HRESULT called = provider->ExecMethodAsync(_bstr_t(L"Win32ext_WPD"), _bstr_t(L"SetDebugLevel"), 0, nullptr,
                                                     in.Get(), methodSink);
    const bool complete = methodSink->complete;
    const HRESULT methodStatus = methodSink->status;
    methodSink->Release();
    if (!Check("ExecMethodAsync(SetDebugLevel 1)", called, WBEM_S_NO_ERROR) || !complete ||
        !Check("  its status", methodStatus, WBEM_S_NO_ERROR)) {
        return false;
    }

    // A client's enumeration waits until the devices attached at the start are open, so the host ends
    // with the core's start behind it. Under Wine a host whose start-up thread was still inside its first
    // COM calls when main returned crashed the Wine process about once in sixty (SIGSEGV after "returning
    // from main"); Windows ends such a thread with the process.
    auto* enumSink = new ObjectSink();
    const HRESULT enumerated = provider->CreateInstanceEnumAsync(_bstr_t(L"Win32ext_WPD"), 0, nullptr, enumSink);
    const bool enumComplete = enumSink->complete;
    enumSink->Release();
    if (!Check("CreateInstanceEnumAsync(Win32ext_WPD)", enumerated, WBEM_S_NO_ERROR) || !enumComplete) {
        return false;
    }

    {
        ComPtr<IWbemClassObject> instance;
        if (!Check("SpawnInstance(Win32ext_WPD)", wpdClass->SpawnInstance(0, &instance), S_OK)) {
            return false;
        }
        _variant_t id(L"usb#vid_04e8&pid_6860#exit_host");
        instance->Put(L"strId", 0, &id, 0);
        ComPtr<IWbemContext> context;
        if (!Check("CoCreateInstance(CLSID_WbemContext)",
                   CoCreateInstance(CLSID_WbemContext, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&context)), S_OK)) {
            return false;
        }
        _variant_t wrong(L"73lun!QBX#ZPT");
        context->SetValue(L"dorWEXWPDProp", 0, &wrong);
        if (!Check("PutInstance, a wrong token", provider->PutInstance(instance.Get(), 0, context.Get(), nullptr),
                   E_ACCESSDENIED)) {
            return false;
        }
        _variant_t nonWpd(L"73lun!QBX#NONZPT^");
        context->SetValue(L"dorWEXWPDProp", 0, &nonWpd);
        if (!Check("PutInstance, the non-WPD token", provider->PutInstance(instance.Get(), 0, context.Get(), nullptr),
                   S_OK)) {
            return false;
        }
        if (!Check("DeleteInstance of an unknown device",
                   provider->DeleteInstance(_bstr_t(L"Win32ext_WPD.strId=\"usb#nobody\""), 0, nullptr, nullptr),
                   E_FAIL)) {
            return false;
        }
    }
    return true;
}

// Serves every instance the companion pipes allow, as a second provider host of the machine would, until
// standard input ends: a provider started meanwhile cannot make its pipes, and its companion workers end
// and are started again and again.
int HoldCompanionPipes() {
    struct CloseHandleDeleter {
        void operator()(HANDLE handle) const { CloseHandle(handle); }
    };
    std::vector<std::unique_ptr<void, CloseHandleDeleter>> pipes;
    for (const wchar_t* name : {kDorWEXApplePipeName, kDorWEXBlackBerryPipeName}) {
        for (int instance = 0; instance < 4; ++instance) {
            const HANDLE pipe = CreateNamedPipeW(name, PIPE_ACCESS_DUPLEX,
                                                 PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT, 4, 4096, 4096,
                                                 0, nullptr);
            if (pipe == INVALID_HANDLE_VALUE) {
                std::printf("CreateNamedPipe failed: %lu\n", GetLastError());
                return 1;
            }
            pipes.emplace_back(pipe);
        }
    }
    std::printf("holding\n");
    std::fflush(stdout);
    char buffer[64];
    DWORD read = 0;
    while (ReadFile(GetStdHandle(STD_INPUT_HANDLE), buffer, sizeof buffer, &read, nullptr) && read > 0) {
    }
    return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc > 1 && wcscmp(argv[1], L"hold") == 0) {
        return HoldCompanionPipes();
    }
    const bool unload = argc > 1 && wcscmp(argv[1], L"unload") == 0;
    const bool freeOnly = argc > 1 && wcscmp(argv[1], L"free") == 0;
    if (argc < 2 || (!unload && !freeOnly && wcscmp(argv[1], L"exit") != 0)) {
        std::printf("usage: exit_host exit|unload|free|hold\n");
        return 2;
    }
    if (!Check("CoInitializeEx", CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK)) {
        return 1;
    }
    HMODULE module = LoadLibraryW((ProgramDirectory() + L"dorwex_wpd_provider.dll").c_str());
    if (module == nullptr) {
        std::printf("LoadLibrary failed: %lu\n", GetLastError());
        return 1;
    }
    if (!UseProvider(module)) {
        return 1;
    }
    int exitCode = 0;
    // The core's WPD worker has made its hidden window: the state in which the end has to come promptly.
    const DWORD start = GetTickCount();
    HWND window = nullptr;
    while ((window = FindWindowW(L"dorWEXWMIWPDHiddenWindowClass", L"dorWEX14")) == nullptr &&
           GetTickCount() - start < 10000) {
        Sleep(5);
    }
    std::printf("hidden window %s\n", window != nullptr ? "found" : "NOT found");
    if (unload) {
        const auto canUnloadNow = reinterpret_cast<DllCanUnloadNowFunction>(
            reinterpret_cast<void*>(GetProcAddress(module, "DllCanUnloadNow")));
        if (canUnloadNow == nullptr) {
            return 1;
        }
        // A refusal is reported, and the module is freed all the same: the end must come promptly either way.
        const bool canUnload = Check("DllCanUnloadNow", canUnloadNow(), S_OK);
        if (!Check("FreeLibrary", FreeLibrary(module) ? S_OK : HRESULT_FROM_WIN32(GetLastError()), S_OK) ||
            !canUnload) {
            exitCode = 1;
        }
        // Gone from the process, not merely released: no thread of the module held it any more.
        const bool gone = GetModuleHandleW(L"dorwex_wpd_provider.dll") == nullptr;
        std::printf("module %s\n", gone ? "unloaded" : "STILL LOADED");
        if (!gone) {
            exitCode = 1;
        }
    }
    if (freeOnly) {
        if (!Check("FreeLibrary", FreeLibrary(module) ? S_OK : HRESULT_FROM_WIN32(GetLastError()), S_OK)) {
            exitCode = 1;
        }
        const bool loaded = GetModuleHandleW(L"dorwex_wpd_provider.dll") != nullptr;
        std::printf("module %s\n", loaded ? "still loaded, held by its threads" : "UNLOADED under running threads");
        if (!loaded) {
            exitCode = 1;
        }
    }
    std::printf("returning from main\n");
    std::fflush(stdout);
    return exitCode;
}
