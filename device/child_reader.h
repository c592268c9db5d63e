// The children of a device folder as the path lookup and the listing see them: each child's id in the order
// the device enumerates them, with its name (original file name, else object name) and whether it is a
// folder or a storage.
//
// A real device answers each request over USB, so the number of requests decides the speed: the ids come
// from one enumeration, and the three properties of all children from one bulk operation
// (IPortableDevicePropertiesBulk, by format over the folder at depth 1) when the driver offers it. Bulk
// results may come in any order and in parts; they are merged by object id. A child the bulk operation did
// not report, or a driver without bulk operations, is read one object at a time (GetValues), only as far as
// the caller walks.
#pragma once

#include <windows.h>
#include <wrl/client.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "portable_device_api.h"

namespace dorwex {

// One child as the caller sees it; the views stay valid until the next child is visited.
struct ChildObject {
    std::wstring_view id;
    std::wstring_view name;  // empty when the device gives neither name
    bool folder = false;
    bool storage = false;
    bool known = false;  // described by the bulk read: visiting it cost no request of its own
};

// What a check of one object reads: its name (as for a child), whether it is a folder, its parent's id and,
// when asked for, its size.
struct ObjectFacts {
    std::wstring name;
    std::wstring parent;
    bool folder = false;
    bool sized = false;
    ULONGLONG size = 0;
};

// Takes a bulk read's result sets, on the runtime's thread.
class BulkSink {
public:
    virtual void Merge(IPortableDeviceValues* pValues_in) = 0;

protected:
    ~BulkSink() = default;
};

// The children of one folder, compactly: a folder may hold 100,000 objects. Ids and names live in one text
// pool; an entry is a few offsets and flags.
class ChildList {
public:
    // What is known of an entry: a name and which kind, and which of the three keys the device reported.
    enum : std::uint8_t {
        kOriginal = 1,
        kNamed = 2,
        kFolder = 4,
        kStorage = 8,
        kOriginalKey = 16,
        kNameKey = 32,
        kContentTypeKey = 64,
        kRead = kOriginalKey | kNameKey | kContentTypeKey
    };
    struct Entry {
        std::uint32_t id = 0;
        std::uint32_t name = 0;
        std::uint32_t nameLength = 0;
        std::uint8_t flags = 0;
    };

    void AddId(const wchar_t* id);
    size_t Size() const { return m_entries.size(); }
    const Entry& At(size_t index) const { return m_entries[index]; }
    std::wstring_view Id(size_t index) const { return &m_text[m_entries[index].id]; }
    std::wstring_view Name(size_t index) const;

    // Bulk results: after Index(), Find gives the entry of an id (or null) and the setters record what the
    // device reported for it.
    void Index();
    Entry* Find(const wchar_t* id);
    void SetName(Entry& entry, const wchar_t* name, bool original);
    void SetContentType(Entry& entry, const GUID& contentType);

private:
    std::vector<wchar_t> m_text;
    std::vector<Entry> m_entries;
    std::vector<std::uint32_t> m_sorted;  // entry indices by id
};

class ChildReader {
public:
    explicit ChildReader(IPortableDevice* pIPortableDevice_in);
    bool Ready() const { return m_pContent != nullptr; }
    IPortableDeviceContent* Content() const { return m_pContent.Get(); }
    IPortableDeviceProperties* Properties() const { return m_pProperties.Get(); }

    // One object's facts: one request. Fails when the device gives the object no parent.
    HRESULT Check(const wchar_t* pwcharId_in, bool boolSize_in, ObjectFacts& facts_out);
    // The facts of several objects (a path's chain of ids) in one request, a bulk read over their ids, when
    // the driver offers bulk reads. An object the bulk read did not describe whole, or each object without
    // bulk reads, costs a request of its own. results_out holds each object's outcome, as Check's.
    void CheckAll(const std::vector<std::wstring>& ids_in, bool boolSize_in, std::vector<HRESULT>& results_out,
                  std::vector<ObjectFacts>& facts_out);

    // Calls visit for each child, in the device's order, until it returns false. A failure means the device
    // did not list or describe every child visited: a child looked for may be there all the same.
    template <class Visit>
    HRESULT ForEachChild(const wchar_t* pwcharParentId_in, Visit visit_in) {
        ChildList l_List;
        HRESULT l_HRESULTNext = S_OK;
        const HRESULT l_HRESULT = Enumerate(pwcharParentId_in, l_List, l_HRESULTNext);
        if (FAILED(l_HRESULT)) {
            return l_HRESULT;
        }
        ReadInBulk(pwcharParentId_in, l_List);
        OneChild l_One;
        HRESULT l_HRESULTRead = S_OK;  // a child the device would not describe: its name is unknown, not absent
        for (size_t l_index = 0; l_index < l_List.Size(); ++l_index) {
            ChildObject l_Child;
            l_Child.id = l_List.Id(l_index);
            const ChildList::Entry& l_Entry = l_List.At(l_index);
            if ((l_Entry.flags & ChildList::kRead) == ChildList::kRead) {
                l_Child.name = l_List.Name(l_index);
                l_Child.folder = (l_Entry.flags & ChildList::kFolder) != 0;
                l_Child.storage = (l_Entry.flags & ChildList::kStorage) != 0;
                l_Child.known = true;
            } else {
                const HRESULT l_HRESULTOne = Read(l_Child.id.data(), l_One);
                if (FAILED(l_HRESULTOne) && SUCCEEDED(l_HRESULTRead)) {
                    l_HRESULTRead = l_HRESULTOne;
                }
                l_Child.name = l_One.name;
                l_Child.folder = l_One.folder;
                l_Child.storage = l_One.storage;
            }
            if (!visit_in(l_Child)) {
                break;
            }
        }
        return FAILED(l_HRESULTNext) ? l_HRESULTNext : l_HRESULTRead;
    }

private:
    struct OneChild {
        std::wstring name;
        bool folder = false;
        bool storage = false;
    };
    // The ids in the device's order; a Next that fails ends them there, and its result is kept for the caller.
    HRESULT Enumerate(const wchar_t* pwcharParentId_in, ChildList& list_out, HRESULT& next_out);
    void ReadInBulk(const wchar_t* pwcharParentId_in, ChildList& list_io);
    // Runs the bulk read queue_in queues to its end, each result set to sink_io, or gives it up when the
    // device falls silent; nothing without bulk reads. Whatever arrived counts: the callers read what is
    // missing one object at a time.
    using Queue = std::function<HRESULT(IPortableDevicePropertiesBulk*, IPortableDevicePropertiesBulkCallback*, GUID*)>;
    void RunBulk(BulkSink& sink_io, const Queue& queue_in);
    IPortableDeviceKeyCollection* CheckKeys(bool boolSize_in);
    HRESULT Read(const wchar_t* pwcharId_in, OneChild& child_out);
    static void Describe(IPortableDeviceValues* pValues_in, OneChild& child_out);

    Microsoft::WRL::ComPtr<IPortableDeviceContent> m_pContent;
    Microsoft::WRL::ComPtr<IPortableDeviceProperties> m_pProperties;
    Microsoft::WRL::ComPtr<IPortableDeviceKeyCollection> m_pKeys;
    Microsoft::WRL::ComPtr<IPortableDeviceKeyCollection> m_pCheckKeys;  // m_pKeys and the parent id
    Microsoft::WRL::ComPtr<IPortableDeviceKeyCollection> m_pSizedKeys;  // and the size
};

}  // namespace dorwex
