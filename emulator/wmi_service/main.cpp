// dorwex_wmi_service and dorwex_provider_host: the emulated WMI service and its provider host as processes
// of their own. COM starts the service (LocalServer32 of the service's class) when the first client
// connects; it serves every client of the prefix from then on, with one namespace, until a client asks it
// to end. The service starts the provider host when it first needs the provider; the host holds the
// provider and the portable-device stack until the service lets go of it or ends.
#include <windows.h>
#include <objbase.h>

#include <string>

int WINAPI wWinMain(HINSTANCE, HINSTANCE, LPWSTR, int) {
    if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED))) {
        return 1;
    }
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring directory(path);
    directory.resize(directory.find_last_of(L'\\') + 1);
    int exitCode = 2;
    if (HMODULE service = LoadLibraryW((directory + L"dorwex_wmi_emulator.dll").c_str())) {
        using ServeFunction = HRESULT(WINAPI*)();
        if (auto serve = reinterpret_cast<ServeFunction>(
                reinterpret_cast<void*>(GetProcAddress(service, DORWEX_SERVE_ENTRY)))) {
            exitCode = SUCCEEDED(serve()) ? 0 : 3;
        }
    }
    CoUninitialize();
    return exitCode;
}
