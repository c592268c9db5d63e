// Replaces one entry of this test program's import address table for as long as the object lives, the
// way Windows tools hook an import: the product code linked into the program calls the replacement, the
// system and other modules keep the real function. Used where a system call cannot be made to fail
// otherwise (a thread that cannot be created).
#pragma once

#include <windows.h>

class ImportPatch {
public:
    // Patches every import of this module that resolves to GetProcAddress(module, function).
    ImportPatch(const char* module, const char* function, void* replacement) {
        m_original = reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA(module), function));
        auto* base = reinterpret_cast<BYTE*>(GetModuleHandleW(nullptr));
        const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
        const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
        const IMAGE_DATA_DIRECTORY& imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
        if (m_original == nullptr || imports.VirtualAddress == 0) {
            return;
        }
        for (auto* descriptor = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress);
             descriptor->Name != 0 && m_count < kMostEntries; ++descriptor) {
            for (auto* thunk = reinterpret_cast<IMAGE_THUNK_DATA*>(base + descriptor->FirstThunk);
                 thunk->u1.Function != 0 && m_count < kMostEntries; ++thunk) {
                if (reinterpret_cast<void*>(thunk->u1.Function) == m_original) {
                    Write(&thunk->u1.Function, replacement);
                    m_entries[m_count++] = &thunk->u1.Function;
                }
            }
        }
    }
    ~ImportPatch() {
        for (int i = 0; i < m_count; ++i) {
            Write(m_entries[i], m_original);
        }
    }
    ImportPatch(const ImportPatch&) = delete;
    ImportPatch& operator=(const ImportPatch&) = delete;

    bool Patched() const { return m_count > 0; }
    void* Original() const { return m_original; }

private:
    static constexpr int kMostEntries = 8;
    static void Write(ULONGLONG* entry, void* value) {
        DWORD protection = 0;
        VirtualProtect(entry, sizeof(*entry), PAGE_READWRITE, &protection);
        *entry = reinterpret_cast<ULONGLONG>(value);
        VirtualProtect(entry, sizeof(*entry), protection, &protection);
    }

    void* m_original = nullptr;
    ULONGLONG* m_entries[kMostEntries] = {};
    int m_count = 0;
};
