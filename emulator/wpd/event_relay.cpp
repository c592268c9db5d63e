// The events journal of a devices directory and the registry of the processes that listen to it.
//
// A stack that adds or removes an object appends a record (object_event_record.h) to the file
// ".dorwex-events" of the devices directory, under a named mutex, when another process listens there, and
// sets each listener's named event. A listener's thread reads the journal from where it stopped and raises
// each record made by another process. The file keeps every record, so a burst is never lost however slowly
// a listener reads, and the sender never waits for a listener: only for another sender's append. A listener
// that died leaves a slot whose event cannot be opened any more; the next sender frees it.
#include "event_relay.h"

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "emulator_state.h"
#include "object_event_record.h"
#include "text.h"

namespace dorwex::emulator {

namespace {

constexpr size_t kListenerSlots = 64;
// The listening processes of one directory, in a named section every process of the prefix maps.
struct ListenerTable {
    DWORD processes[kListenerSlots];
};

struct HandleCloser {
    void operator()(HANDLE handle) const {
        if (handle != nullptr && handle != INVALID_HANDLE_VALUE) {
            CloseHandle(handle);
        }
    }
};
using UniqueHandle = std::unique_ptr<void, HandleCloser>;

UniqueHandle FileHandle(HANDLE handle) {
    return UniqueHandle(handle == INVALID_HANDLE_VALUE ? nullptr : handle);
}

// Holds a named mutex; one abandoned by a process that died while holding it is taken over, as the state it
// guards (whole records, slots) stays usable.
class MutexHold {
public:
    explicit MutexHold(HANDLE mutex) : m_mutex(mutex) {
        const DWORD waited = mutex != nullptr ? WaitForSingleObject(mutex, INFINITE) : WAIT_FAILED;
        m_held = waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED;
    }
    ~MutexHold() {
        if (m_held) {
            ReleaseMutex(m_mutex);
        }
    }
    MutexHold(const MutexHold&) = delete;
    MutexHold& operator=(const MutexHold&) = delete;
    bool Held() const { return m_held; }

private:
    HANDLE m_mutex;
    bool m_held = false;
};

// Names of kernel objects cannot hold a path: the directory is named by a hash of it.
std::wstring DirectoryKey(const std::wstring& directory) {
    std::uint64_t hash = 14695981039346656037ull;
    for (const wchar_t unit : UpperCase(directory)) {
        hash = (hash ^ static_cast<std::uint16_t>(unit)) * 1099511628211ull;
    }
    wchar_t text[17];
    swprintf(text, 17, L"%016llX", static_cast<unsigned long long>(hash));
    return text;
}

class Relay {
public:
    explicit Relay(const std::wstring& directory)
        : m_directory(directory),
          m_journal(directory + L"\\.dorwex-events"),
          m_prefix(L"Local\\dorwex-wpd-relay-" + DirectoryKey(directory)) {
        m_mutex.reset(CreateMutexW(nullptr, FALSE, (m_prefix + L"-lock").c_str()));
        m_section.reset(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(ListenerTable),
                                           (m_prefix + L"-listeners").c_str()));
        if (m_mutex && m_section) {
            m_table = static_cast<ListenerTable*>(
                MapViewOfFile(m_section.get(), FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, sizeof(ListenerTable)));
        }
    }

    void Publish(const std::vector<std::uint8_t>& record) {
        if (m_table == nullptr || record.empty()) {
            return;
        }
        const DWORD self = GetCurrentProcessId();
        MutexHold hold(m_mutex.get());
        std::vector<size_t> others;
        for (size_t i = 0; hold.Held() && i < kListenerSlots; ++i) {
            if (m_table->processes[i] != 0 && m_table->processes[i] != self) {
                others.push_back(i);
            }
        }
        if (others.empty()) {
            return;  // nobody else listens: no record needed
        }
        const UniqueHandle journal = FileHandle(CreateFileW(m_journal.c_str(), GENERIC_WRITE,
                                                            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                                            nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
        LARGE_INTEGER end{};
        DWORD written = 0;
        if (!journal || !SetFilePointerEx(journal.get(), end, nullptr, FILE_END) ||
            !WriteFile(journal.get(), record.data(), static_cast<DWORD>(record.size()), &written, nullptr)) {
            return;
        }
        for (const size_t slot : others) {
            const UniqueHandle wake(OpenEventW(EVENT_MODIFY_STATE, FALSE, WakeName(m_table->processes[slot]).c_str()));
            if (wake) {
                SetEvent(wake.get());
            } else {
                m_table->processes[slot] = 0;  // the listener ended, and its event with it
            }
        }
    }

    void Listen() {
        std::call_once(m_listening, [this] { StartListening(); });
    }

private:
    std::wstring WakeName(DWORD process) const { return m_prefix + L"-" + std::to_wstring(process); }

    void StartListening() {
        const DWORD self = GetCurrentProcessId();
        if (m_table == nullptr) {
            return;
        }
        m_wake.reset(CreateEventW(nullptr, FALSE, FALSE, WakeName(self).c_str()));
        if (!m_wake) {
            return;
        }
        {
            MutexHold hold(m_mutex.get());
            if (!hold.Held()) {
                return;
            }
            size_t slot = kListenerSlots;
            for (size_t i = 0; i < kListenerSlots && slot == kListenerSlots; ++i) {
                if (m_table->processes[i] == 0 || m_table->processes[i] == self ||
                    !UniqueHandle(OpenEventW(SYNCHRONIZE, FALSE, WakeName(m_table->processes[i]).c_str()))) {
                    slot = i;
                }
            }
            if (slot == kListenerSlots) {
                return;  // as many processes as the table holds listen already
            }
            m_table->processes[slot] = self;
            // What is in the journal now happened before this process advised.
            const UniqueHandle journal = OpenJournal();
            LARGE_INTEGER size{};
            if (journal && GetFileSizeEx(journal.get(), &size)) {
                m_offset = static_cast<ULONGLONG>(size.QuadPart);
            }
        }
        // The thread runs in this module until the process ends: the module stays loaded.
        HMODULE module = nullptr;
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                           reinterpret_cast<LPCWSTR>(&Relay::Run), &module);
        const UniqueHandle thread(CreateThread(nullptr, 0, &Relay::Run, this, 0, nullptr));
    }

    UniqueHandle OpenJournal() const {
        return FileHandle(CreateFileW(m_journal.c_str(), GENERIC_READ,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                      FILE_ATTRIBUTE_NORMAL, nullptr));
    }

    static DWORD WINAPI Run(void* context) {
        auto* relay = static_cast<Relay*>(context);
        for (;;) {
            WaitForSingleObject(relay->m_wake.get(), INFINITE);
            try {
                relay->Drain();
            } catch (...) {
                // Out of memory: the records read stay for the next wake.
            }
        }
    }

    // Reads what the journal gained since the last read and raises each whole record of another process.
    void Drain() {
        const UniqueHandle journal = OpenJournal();
        LARGE_INTEGER size{};
        if (!journal || !GetFileSizeEx(journal.get(), &size)) {
            return;
        }
        if (static_cast<ULONGLONG>(size.QuadPart) < m_offset) {
            m_offset = 0;  // the directory, and its journal, were made anew
            m_pending.clear();
        }
        LARGE_INTEGER position{};
        position.QuadPart = static_cast<LONGLONG>(m_offset);
        if (!SetFilePointerEx(journal.get(), position, nullptr, FILE_BEGIN)) {
            return;
        }
        std::uint8_t buffer[64 * 1024];
        DWORD read = 0;
        while (ReadFile(journal.get(), buffer, sizeof(buffer), &read, nullptr) && read > 0) {
            m_offset += read;
            m_pending.insert(m_pending.end(), buffer, buffer + read);
            size_t used = 0;
            for (;;) {
                ObjectEventRecord record;
                size_t consumed = 0;
                const RecordRead result =
                    DecodeObjectEvent(m_pending.data() + used, m_pending.size() - used, record, consumed);
                if (result == RecordRead::Complete) {
                    used += consumed;
                    Raise(record);
                    continue;
                }
                if (result == RecordRead::Corrupt) {
                    used = m_pending.size();  // not a record: nothing after it can be read in step
                }
                break;
            }
            m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<std::ptrdiff_t>(used));
        }
    }

    // The record's object as this process's stack names it, raised to its subscribers.
    void Raise(const ObjectEventRecord& record) {
        const bool folder = record.kind == static_cast<std::uint32_t>(ObjectKind::Folder);
        if (record.sender == GetCurrentProcessId() ||
            (!folder && record.kind != static_cast<std::uint32_t>(ObjectKind::File)) || record.path.empty()) {
            return;
        }
        const auto device = EmulatorState::Get().Find(std::wstring(record.device.begin(), record.device.end()));
        if (!device || device->Removed() || UpperCase(device->BaseDirectory()) != UpperCase(m_directory) ||
            record.storage < 0 || static_cast<size_t>(record.storage) >= device->Description().storages.size() ||
            device->SubscriptionCount() == 0) {
            return;
        }
        const std::wstring relative(record.path.begin(), record.path.end());
        ObjectInfo object;
        object.kind = folder ? ObjectKind::Folder : ObjectKind::File;
        object.storage = record.storage;
        object.path = device->StoragePath(record.storage) + L"\\" + relative;
        object.id = device->IdForPath(record.storage, object.path);
        object.name = relative.substr(relative.find_last_of(L'\\') + 1);  // npos + 1: the whole path
        device->Relate(object);
        GUID event{};
        std::memcpy(&event, record.event.data(), sizeof(event));
        device->RaiseEvent(event, &object);
        if (event == WPD_EVENT_OBJECT_REMOVED) {
            device->Forget(object.id);  // as the stack that removed it forgets it
        }
    }

    const std::wstring m_directory, m_journal, m_prefix;
    UniqueHandle m_mutex, m_section;
    ListenerTable* m_table = nullptr;  // mapped for the life of the process
    std::once_flag m_listening;
    UniqueHandle m_wake;
    // The relay thread's alone once it runs.
    ULONGLONG m_offset = 0;
    std::vector<std::uint8_t> m_pending;
};

// One relay per devices directory, alive until the process ends (a listener's thread uses it).
Relay& RelayFor(const std::wstring& directory) {
    static std::mutex* lock = new std::mutex();
    static auto* relays = new std::map<std::wstring, Relay*>();
    std::lock_guard<std::mutex> guard(*lock);
    Relay*& relay = (*relays)[UpperCase(directory)];
    if (relay == nullptr) {
        relay = new Relay(directory);
    }
    return *relay;
}

}  // namespace

void RaiseObjectEvent(EmulatedDevice& device, REFGUID event, const ObjectInfo& object) {
    device.RaiseEvent(event, &object);
    if (object.storage < 0 || (object.kind != ObjectKind::File && object.kind != ObjectKind::Folder)) {
        return;
    }
    const std::wstring root = device.StoragePath(object.storage);
    if (object.path.size() <= root.size() + 1 || object.path[root.size()] != L'\\' ||
        LowerCase(object.path.substr(0, root.size())) != LowerCase(root)) {
        return;
    }
    const std::wstring relative = object.path.substr(root.size() + 1);
    ObjectEventRecord record;
    record.sender = GetCurrentProcessId();
    std::memcpy(record.event.data(), &event, sizeof(GUID));
    record.storage = object.storage;
    record.kind = static_cast<std::uint32_t>(object.kind);
    record.device.assign(device.Id().begin(), device.Id().end());
    record.path.assign(relative.begin(), relative.end());
    RelayFor(device.BaseDirectory()).Publish(EncodeObjectEvent(record));
}

void ListenToOtherProcesses(const std::wstring& directory) {
    RelayFor(directory).Listen();
}

}  // namespace dorwex::emulator
