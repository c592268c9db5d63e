// dorwex_wmi_service: the emulated WMI service as a process of its own. COM starts it (LocalServer32 of the
// service's class) when the first client connects; it serves every client of the prefix from then on, with
// one namespace and one provider, until a client asks it to end or the prefix's server stops.
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
                reinterpret_cast<void*>(GetProcAddress(service, "DorwexWmiServeLocalClients")))) {
            exitCode = SUCCEEDED(serve()) ? 0 : 3;
        }
    }
    CoUninitialize();
    return exitCode;
}
