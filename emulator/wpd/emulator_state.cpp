#include "emulator_state.h"

#include <algorithm>

#include "text.h"

namespace dorwex::emulator {

EmulatorState::EmulatorState() : m_eventsIdle(CreateEventW(nullptr, TRUE, TRUE, nullptr)) {}

EmulatorState& EmulatorState::Get() {
    static EmulatorState* state = new EmulatorState();  // lives until the process ends
    return *state;
}

std::vector<std::shared_ptr<EmulatedDevice>> EmulatorState::Scan() {
    std::vector<std::shared_ptr<EmulatedDevice>> present;
    wchar_t directory[MAX_PATH] = {};
    const DWORD length = GetEnvironmentVariableW(L"DORWEX_WPD_DEVICES", directory, MAX_PATH);
    std::lock_guard<std::mutex> guard(m_lock);
    m_errors.clear();
    std::map<std::wstring, bool> seen;
    if (length > 0 && length < MAX_PATH) {
        WIN32_FIND_DATAW found{};
        HANDLE search = FindFirstFileW((std::wstring(directory) + L"\\*.wpd").c_str(), &found);
        std::vector<std::wstring> files;
        if (search != INVALID_HANDLE_VALUE) {
            do {
                files.push_back(found.cFileName);
            } while (FindNextFileW(search, &found));
            FindClose(search);
        }
        std::sort(files.begin(), files.end());
        for (const auto& file : files) {
            const std::wstring path = std::wstring(directory) + L"\\" + file;
            HANDLE handle = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                        OPEN_EXISTING, 0, nullptr);
            if (handle == INVALID_HANDLE_VALUE) {
                continue;  // being written
            }
            std::string text;
            char buffer[4096];
            DWORD read = 0;
            while (ReadFile(handle, buffer, sizeof(buffer), &read, nullptr) && read > 0) {
                text.append(buffer, read);
            }
            CloseHandle(handle);
            ParseResult parsed = ParseDeviceDescription(text);
            if (!parsed.errors.empty()) {
                for (const auto& error : parsed.errors) {
                    m_errors.push_back(file + L": " + Widen(error));
                }
                continue;
            }
            const std::wstring key = UpperCase(Widen(parsed.device.id));
            seen[key] = true;
            auto& device = m_devices[key];
            if (!device || device->Removed()) {
                device = std::make_shared<EmulatedDevice>(std::move(parsed.device), directory);
            }
            present.push_back(device);
        }
    }
    for (auto& entry : m_devices) {
        if (seen.find(entry.first) == seen.end()) {
            entry.second->SetRemoved(true);
        }
    }
    return present;
}

std::shared_ptr<EmulatedDevice> EmulatorState::Find(const std::wstring& id) {
    {
        std::lock_guard<std::mutex> guard(m_lock);
        const auto it = m_devices.find(UpperCase(id));
        if (it != m_devices.end()) {
            return it->second;
        }
    }
    Scan();
    std::lock_guard<std::mutex> guard(m_lock);
    const auto it = m_devices.find(UpperCase(id));
    return it == m_devices.end() ? nullptr : it->second;
}

void EmulatorState::Reset() {
    std::lock_guard<std::mutex> guard(m_lock);
    m_devices.clear();
    m_errors.clear();
}

std::vector<std::wstring> EmulatorState::Errors() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_errors;
}

void EmulatorState::EventQueued() {
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_pendingEvents++ == 0) {
        ResetEvent(m_eventsIdle);
    }
}

void EmulatorState::EventDelivered() {
    std::lock_guard<std::mutex> guard(m_lock);
    if (--m_pendingEvents == 0) {
        SetEvent(m_eventsIdle);
    }
}

bool EmulatorState::WaitForEvents(DWORD milliseconds) {
    return WaitForSingleObject(m_eventsIdle, milliseconds) == WAIT_OBJECT_0;
}

void EmulatorState::SetCallbackHold(DWORD milliseconds) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_callbackHold = milliseconds;
}

void EmulatorState::HoldCallback() {
    DWORD hold;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        hold = m_callbackHold;
    }
    if (hold != 0) {
        Sleep(hold);
    }
}

void EmulatorState::OpeningStarted() {
    std::lock_guard<std::mutex> guard(m_lock);
    m_mostOpening = std::max(m_mostOpening, ++m_opening);
}

void EmulatorState::OpeningEnded() {
    std::lock_guard<std::mutex> guard(m_lock);
    --m_opening;
}

long EmulatorState::MostOpeningAtOnce(bool reset) {
    std::lock_guard<std::mutex> guard(m_lock);
    const long most = m_mostOpening;
    if (reset) {
        m_mostOpening = m_opening;
    }
    return most;
}

}  // namespace dorwex::emulator
