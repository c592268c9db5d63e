// The emulated devices: what the description files say, the objects their storage directories hold,
// the event subscriptions of open sessions, and the faults tests asked for.
#pragma once

#include <windows.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "device/portable_device_api.h"
#include "device_description.h"

namespace dorwex::emulator {

enum class ObjectKind { DeviceRoot, Storage, Folder, File };

// One object of a device as the portable-device API shows it.
struct ObjectInfo {
    ObjectKind kind = ObjectKind::File;
    std::wstring id;
    std::wstring parentId;
    std::wstring name;
    std::wstring path;  // the backing file or directory (empty for the device root)
    std::wstring persistentUniqueId;
    ULONGLONG size = 0;
    int storage = -1;  // index of the storage the object lives on
};

class EmulatedDevice {
public:
    EmulatedDevice(DeviceDescription description, std::wstring baseDirectory);

    const std::wstring& Id() const { return m_id; }
    // The directory of the description files the device was read from.
    const std::wstring& BaseDirectory() const { return m_baseDirectory; }
    const DeviceDescription& Description() const { return m_description; }
    const std::wstring& Manufacturer() const { return m_manufacturer; }
    const std::wstring& FriendlyName() const { return m_friendlyName; }
    const std::wstring& DeviceDescriptionText() const { return m_descriptionText; }
    bool Removed() const { return m_removed; }
    void SetRemoved(bool removed) { m_removed = removed; }

    // Counts the call and returns the failure a test asked for, or S_OK.
    HRESULT Fault(const char* call);
    ULONG CallCount(const std::string& call);
    // Counts a call that is refused before it reaches the device; no fault applies to it.
    void CountCall(const char* call);
    // A fault set while the device runs: the next count calls (every call for -1; none for 0) fail with
    // result. It takes the place of what the description says for that call.
    void SetFault(const std::string& call, HRESULT result, std::int64_t count);
    // Streams over object data report their end after this many bytes of each read (0: at the real end),
    // as a transfer that a device cuts short.
    void SetStreamEnd(ULONGLONG bytes);
    ULONGLONG StreamEnd();

    // One request that reaches the device itself (over USB on a real one): counted, and answered only
    // after the device's latency. Calls the runtime answers on its own (Content, Properties, an
    // enumerator's Next over ids it already has) are not requests.
    void Request();
    // What a request carries beyond its fixed latency, spent by the thread that made it: each object an
    // enumeration returns or a property read covers (GetObjectHandles, GetObjectPropList), each byte of
    // object data (GetObject, SendObject). Not a request of its own.
    void Carry(std::uint64_t objects, std::uint64_t bytes);
    // Requests so far; reset starts the count again from 0.
    ULONG Requests(bool reset);
    bool OffersBulkProperties() const { return m_description.bulkProperties; }

    // Objects. Ids are stable for the life of the process.
    // withRelations false leaves the parent id and the persistent unique id of files and folders out, which
    // listings do not ask for.
    HRESULT Lookup(const std::wstring& objectId, ObjectInfo& object_out, bool withRelations = true);
    // Sets the parent id and the persistent unique id of a file or folder from its storage and path alone,
    // so also for an object that is gone.
    void Relate(ObjectInfo& object);
    std::vector<std::wstring> Children(const std::wstring& parentId);
    // Properties of an object in PROPVARIANT form, appended to values (all of them when keys is null).
    HRESULT ReadProperties(const std::wstring& objectId, IPortableDeviceKeyCollection* keys,
                           IPortableDeviceValues* values);
    // The id a path (inside the given storage) has or gets.
    std::wstring IdForPath(int storage, const std::wstring& path);
    void Forget(const std::wstring& objectId);
    // Another client renames or moves the object at one path of a storage to another (relative paths), or
    // deletes it when to is empty. As on an MTP device, the object keeps its id (its handle survives a
    // rename and MoveObject), so does everything inside a moved folder, and a deleted object's id is never
    // given out again. No event is raised: the change reaches this client's subscribers late or never.
    HRESULT ChangeByOtherClient(int storage, const std::wstring& from, const std::wstring& to);

    // Event subscriptions. Events go out on pool threads, as the real stack delivers them. Advising also
    // makes this process hear the object events of the other processes' stacks (event_relay.h).
    std::wstring Advise(IPortableDeviceEventCallback* callback, const void* session);
    bool Unadvise(const std::wstring& cookie);
    void UnadviseSession(const void* session);
    size_t SubscriptionCount();
    // Raises to this process's subscribers only. A device in minimal-driver mode sends only the event id,
    // its own id and the object's persistent unique id.
    void RaiseEvent(REFGUID event, const ObjectInfo* object);

    // Sessions and the client information the last Open carried.
    void SessionOpened(const std::wstring& clientSummary);
    void SessionClosed();
    long OpenSessions();
    std::wstring LastClient();

    std::wstring DevicePropertyText(const std::string& name);
    std::uint32_t ShortRead() const { return m_description.shortRead; }
    bool StrictCreation() const { return m_description.strictCreation; }
    // The directory that backs a storage.
    std::wstring StoragePath(int storage) const;

private:
    static void Spend(std::uint64_t microseconds);

    DeviceDescription m_description;
    std::wstring m_baseDirectory;
    std::wstring m_id, m_manufacturer, m_friendlyName, m_descriptionText;
    volatile bool m_removed = false;

    std::mutex m_lock;
    std::map<std::string, ULONG> m_calls;
    ULONG m_requests = 0;
    std::map<std::string, std::int64_t> m_faultsUsed;
    std::map<std::string, std::pair<HRESULT, std::int64_t>> m_setFaults;  // call -> (result, calls left)
    ULONGLONG m_streamEnd = 0;
    std::map<std::wstring, std::pair<int, std::wstring>> m_objects;  // id -> (storage, path)
    std::map<std::wstring, std::wstring> m_ids;                      // lower-case path key -> id
    unsigned m_nextObject = 1;
    struct Subscription {
        IPortableDeviceEventCallback* callback;
        const void* session;
    };
    std::map<std::wstring, Subscription> m_subscriptions;
    unsigned m_nextCookie = 1;
    long m_openSessions = 0;
    std::wstring m_lastClient;
};

}  // namespace dorwex::emulator
