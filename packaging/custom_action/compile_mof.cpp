// The installer's custom actions: they compile MOFs into WMI through the MOF compiler's COM interface
// (IMofCompiler, what mofcomp uses). The package runs them deferred and without impersonation, so they run
// in the installation's script as LocalSystem:
//   CompileMof     the provider's MOF, installed in Program Files, named in CustomActionData (installation,
//                  and the rollback of a removal)
//   RemoveClasses  the uninstall MOF, carried in this DLL's resources (removal, and the rollback of an
//                  installation): it needs no file of the product, so it works whatever state a failed
//                  installation left the files in
// A failure is written to the installer log with the compiler's own status and fails the installation,
// which the installer then rolls back.
#include <windows.h>
#include <msi.h>
#include <msiquery.h>
#include <wbemcli.h>
#include <wrl/client.h>

#include <cwchar>
#include <new>
#include <string>

#include "custom_action/resources.h"

namespace {

// The property a deferred action reads: the installer sets it from the immediate action of the same name.
std::wstring ActionData(MSIHANDLE install) {
    wchar_t empty[1] = L"";
    DWORD size = 0;
    const UINT first = MsiGetPropertyW(install, L"CustomActionData", empty, &size);
    if (first != ERROR_MORE_DATA && first != ERROR_SUCCESS) {
        return std::wstring();
    }
    std::wstring value(static_cast<size_t>(size) + 1, L'\0');
    size = static_cast<DWORD>(value.size());
    if (MsiGetPropertyW(install, L"CustomActionData", &value[0], &size) != ERROR_SUCCESS) {
        return std::wstring();
    }
    value.resize(size);
    return value;
}

// One line in the installer log ("[1]" keeps brackets in paths from being read as properties). An error
// is also shown to a person running the installation with a user interface.
void Report(MSIHANDLE install, INSTALLMESSAGE kind, const std::wstring& text) {
    PMSIHANDLE record = MsiCreateRecord(1);
    if (record == 0) {
        return;
    }
    MsiRecordSetStringW(record, 0, L"[1]");
    MsiRecordSetStringW(record, 1, text.c_str());
    MsiProcessMessage(install, kind == INSTALLMESSAGE_ERROR ? INSTALLMESSAGE(INSTALLMESSAGE_ERROR | MB_OK) : kind,
                      record);
}

std::wstring Hex(HRESULT hr) {
    wchar_t text[16];
    swprintf(text, 16, L"0x%08lX", static_cast<unsigned long>(hr));
    return text;
}

const wchar_t* PhaseName(LONG phase) {
    switch (phase) {
    case 1: return L"parsing";
    case 2: return L"arguments";
    case 3: return L"storing";
    default: return L"unknown";
    }
}

// COM on this thread for as long as the action runs; a thread the installer already initialised is used
// as it is.
class ComScope {
public:
    ComScope() : m_hr(CoInitializeEx(nullptr, COINIT_MULTITHREADED)) {}
    ~ComScope() {
        if (SUCCEEDED(m_hr)) {
            CoUninitialize();
        }
    }
    ComScope(const ComScope&) = delete;
    ComScope& operator=(const ComScope&) = delete;
    bool Usable() const { return SUCCEEDED(m_hr) || m_hr == RPC_E_CHANGED_MODE; }
    HRESULT Result() const { return m_hr; }

private:
    HRESULT m_hr;
};

std::wstring Failure(const std::wstring& what, const wchar_t* call, HRESULT hr, const WBEM_COMPILE_STATUS_INFO& status) {
    std::wstring message = L"dorWEX WPD provider: " + what + L" failed: " + call + L" returned " + Hex(hr);
    if (status.lPhaseError != 0) {
        message += L", " + std::wstring(PhaseName(status.lPhaseError)) + L" error " + Hex(status.hRes);
        if (status.ObjectNum > 0) {
            message += L" in object " + std::to_wstring(status.ObjectNum) + L" (lines " +
                       std::to_wstring(status.FirstLine) + L"-" + std::to_wstring(status.LastLine) + L")";
        }
    }
    return message;
}

// Runs `compile` with WMI's MOF compiler and reports the outcome in the installer log.
template <class Compile>
UINT WithCompiler(MSIHANDLE install, Compile compile) {
    const ComScope com;
    if (!com.Usable()) {
        Report(install, INSTALLMESSAGE_ERROR, L"dorWEX WPD provider: COM could not be initialised: " + Hex(com.Result()));
        return ERROR_INSTALL_FAILURE;
    }
    Microsoft::WRL::ComPtr<IMofCompiler> compiler;
    const HRESULT hr = CoCreateInstance(CLSID_MofCompiler, nullptr, CLSCTX_INPROC_SERVER, IID_IMofCompiler,
                                        reinterpret_cast<void**>(compiler.GetAddressOf()));
    if (FAILED(hr)) {
        Report(install, INSTALLMESSAGE_ERROR, L"dorWEX WPD provider: the MOF compiler is not available: " + Hex(hr));
        return ERROR_INSTALL_FAILURE;
    }
    std::wstring message;
    const bool compiled = compile(compiler.Get(), message);
    Report(install, compiled ? INSTALLMESSAGE_INFO : INSTALLMESSAGE_ERROR, message);
    return compiled ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

// The namespace comes from the MOF's #pragma namespace; nothing is added to WMI's autorecover list, so
// removing the product leaves no entry behind.
constexpr LONG kOptions = WBEM_FLAG_DONT_ADD_TO_LIST;

UINT CompileFile(MSIHANDLE install) {
    std::wstring path = ActionData(install);
    if (path.empty()) {
        Report(install, INSTALLMESSAGE_ERROR, L"dorWEX WPD provider: no MOF was named to compile");
        return ERROR_INSTALL_FAILURE;
    }
    return WithCompiler(install, [&](IMofCompiler* compiler, std::wstring& message) {
        WBEM_COMPILE_STATUS_INFO status = {};
        const HRESULT hr = compiler->CompileFile(&path[0], nullptr, nullptr, nullptr, nullptr, kOptions, 0, 0, &status);
        message = hr == WBEM_S_NO_ERROR ? L"dorWEX WPD provider: compiled " + path
                                        : Failure(L"compiling " + path, L"CompileFile", hr, status);
        return hr == WBEM_S_NO_ERROR;
    });
}

UINT CompileUninstallMof(MSIHANDLE install) {
    HMODULE self = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCWSTR>(&CompileUninstallMof), &self);
    HRSRC found = FindResourceW(self, MAKEINTRESOURCEW(DORWEX_UNINSTALL_MOF_RESOURCE), MAKEINTRESOURCEW(10));  // RT_RCDATA
    HGLOBAL loaded = found != nullptr ? LoadResource(self, found) : nullptr;
    auto* text = loaded != nullptr ? static_cast<BYTE*>(LockResource(loaded)) : nullptr;
    const DWORD size = found != nullptr ? SizeofResource(self, found) : 0;
    if (text == nullptr || size == 0) {
        Report(install, INSTALLMESSAGE_ERROR, L"dorWEX WPD provider: the uninstall MOF is missing from the installer");
        return ERROR_INSTALL_FAILURE;
    }
    return WithCompiler(install, [&](IMofCompiler* compiler, std::wstring& message) {
        WBEM_COMPILE_STATUS_INFO status = {};
        const HRESULT hr = compiler->CompileBuffer(static_cast<LONG>(size), text, nullptr, nullptr, nullptr, nullptr,
                                                   kOptions, 0, 0, &status);
        message = hr == WBEM_S_NO_ERROR ? std::wstring(L"dorWEX WPD provider: removed the classes and registrations")
                                        : Failure(L"removing the classes and registrations", L"CompileBuffer", hr, status);
        return hr == WBEM_S_NO_ERROR;
    });
}

}  // namespace

// The entry points the package's CustomAction table names.
extern "C" UINT __stdcall CompileMof(MSIHANDLE install) {
    try {
        return CompileFile(install);
    } catch (const std::bad_alloc&) {
        return ERROR_INSTALL_FAILURE;
    }
}

extern "C" UINT __stdcall RemoveClasses(MSIHANDLE install) {
    try {
        return CompileUninstallMof(install);
    } catch (const std::bad_alloc&) {
        return ERROR_INSTALL_FAILURE;
    }
}
