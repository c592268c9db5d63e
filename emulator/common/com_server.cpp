#include "com_server.h"

#include <string>

#include "com_object.h"

namespace dorwex::emulator {

namespace {

class ClassFactory final : public ComObject<IClassFactory> {
public:
    explicit ClassFactory(HRESULT (*create)(REFIID, void**)) : m_create(create) {}
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override {
        if (ppv == nullptr) {
            return E_POINTER;
        }
        *ppv = nullptr;
        if (outer != nullptr) {
            return CLASS_E_NOAGGREGATION;
        }
        try {
            return m_create(riid, ppv);
        } catch (...) {
            return E_OUTOFMEMORY;
        }
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

private:
    HRESULT (*m_create)(REFIID, void**);
};

std::wstring ClassKey(const CLSID& clsid) {
    wchar_t text[64];
    StringFromGUID2(clsid, text, 64);
    return std::wstring(L"Software\\Classes\\CLSID\\") + text;
}

LSTATUS SetString(HKEY key, const wchar_t* name, const std::wstring& value) {
    return RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                          static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

}  // namespace

std::wstring ThisModuleDirectory() {
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCWSTR>(&ThisModuleDirectory), &module);
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(module, path, MAX_PATH);
    std::wstring directory(path);
    directory.resize(directory.find_last_of(L'\\') + 1);
    return directory;
}

HRESULT GetServedClassObject(const ServedClass* classes, size_t count, REFCLSID clsid, REFIID riid, void** ppv) {
    if (ppv == nullptr) {
        return E_POINTER;
    }
    *ppv = nullptr;
    for (size_t i = 0; i < count; ++i) {
        if (clsid == *classes[i].clsid) {
            return CreateComObject<ClassFactory>(riid, ppv, classes[i].create);
        }
    }
    return CLASS_E_CLASSNOTAVAILABLE;
}

HRESULT RegisterServedClasses(HMODULE module, const ServedClass* classes, size_t count) {
    wchar_t path[MAX_PATH];
    if (GetModuleFileNameW(module, path, MAX_PATH) == 0) {
        return HRESULT_FROM_WIN32(GetLastError());
    }
    for (size_t i = 0; i < count; ++i) {
        HKEY classKey = nullptr;
        LSTATUS status = RegCreateKeyW(HKEY_LOCAL_MACHINE, ClassKey(*classes[i].clsid).c_str(), &classKey);
        if (status != ERROR_SUCCESS) {
            return HRESULT_FROM_WIN32(status);
        }
        SetString(classKey, nullptr, classes[i].description);
        HKEY serverKey = nullptr;
        status = RegCreateKeyW(classKey, L"InprocServer32", &serverKey);
        RegCloseKey(classKey);
        if (status != ERROR_SUCCESS) {
            return HRESULT_FROM_WIN32(status);
        }
        SetString(serverKey, nullptr, path);
        SetString(serverKey, L"ThreadingModel", L"Both");
        RegCloseKey(serverKey);
    }
    return S_OK;
}

HRESULT UnregisterServedClasses(const ServedClass* classes, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, ClassKey(*classes[i].clsid).c_str());
    }
    return S_OK;
}

}  // namespace dorwex::emulator
