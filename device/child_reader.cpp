#include "child_reader.h"

#include <algorithm>
#include <atomic>
#include <cwchar>
#include <mutex>
#include <new>

#include "../common/com_memory.h"
#include "../common/module_state.h"

using Microsoft::WRL::ComPtr;

namespace dorwex {

namespace {

constexpr ULONG kEnumerationBatch = 64;
// A bulk operation that reports nothing for this long is given up and the children are read one by one.
constexpr DWORD kBulkSilenceMs = 30000;

bool SameKey(const PROPERTYKEY& a, const PROPERTYKEY& b) {
    return a.fmtid == b.fmtid && a.pid == b.pid;
}

// An owned kernel event.
class Event {
public:
    explicit Event(BOOL manualReset) : m_HANDLE(CreateEventW(nullptr, manualReset, FALSE, nullptr)) {}
    ~Event() {
        if (m_HANDLE != nullptr) {
            CloseHandle(m_HANDLE);
        }
    }
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;
    HANDLE Get() const { return m_HANDLE; }

private:
    HANDLE m_HANDLE;
};

// Receives a bulk operation's results on the runtime's thread and hands them to the sink, until the reader
// takes the sink back (at the end, or when it gives up waiting).
class BulkCallback final : public IPortableDevicePropertiesBulkCallback {
public:
    explicit BulkCallback(BulkSink* pSink_in) : m_pSink(pSink_in) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
        if (ppv == nullptr) {
            return E_POINTER;
        }
        if (riid == IID_IUnknown || riid == IID_IPortableDevicePropertiesBulkCallback) {
            *ppv = static_cast<IPortableDevicePropertiesBulkCallback*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(InterlockedIncrement(&m_longRefs)); }
    ULONG STDMETHODCALLTYPE Release() override {
        const LONG l_longRefs = InterlockedDecrement(&m_longRefs);
        if (l_longRefs == 0) {
            delete this;
        }
        return static_cast<ULONG>(l_longRefs);
    }

    HRESULT STDMETHODCALLTYPE OnStart(REFGUID) override { return S_OK; }

    HRESULT STDMETHODCALLTYPE OnProgress(REFGUID, IPortableDeviceValuesCollection* pResults) override {
        try {
            std::lock_guard<std::mutex> l_Guard(m_Lock);
            if (m_pSink == nullptr) {
                return E_ABORT;  // the reader gave up: nobody wants the rest
            }
            DWORD l_dwordCount = 0;
            if (pResults != nullptr && SUCCEEDED(pResults->GetCount(&l_dwordCount))) {
                for (DWORD l_dwordIndex = 0; l_dwordIndex < l_dwordCount; ++l_dwordIndex) {
                    ComPtr<IPortableDeviceValues> l_pValues;
                    if (SUCCEEDED(pResults->GetAt(l_dwordIndex, &l_pValues)) && l_pValues) {
                        m_pSink->Merge(l_pValues.Get());
                    }
                }
            }
            SetEvent(m_Progress.Get());
            return S_OK;
        } catch (...) {
            return E_OUTOFMEMORY;
        }
    }

    HRESULT STDMETHODCALLTYPE OnEnd(REFGUID, HRESULT hrStatus) override {
        m_HRESULTStatus = hrStatus;
        SetEvent(m_Ended.Get());
        return S_OK;
    }

    // Waits for the end while results keep coming; false when the device fell silent.
    bool WaitForEnd() {
        const HANDLE l_Handles[] = {m_Ended.Get(), m_Progress.Get()};
        for (;;) {
            const DWORD l_dwordWait = WaitForMultipleObjects(2, l_Handles, FALSE, kBulkSilenceMs);
            if (l_dwordWait == WAIT_OBJECT_0) {
                return true;
            }
            if (l_dwordWait != WAIT_OBJECT_0 + 1) {
                return false;
            }
        }
    }
    HRESULT Status() const { return m_HRESULTStatus; }
    // After this no result reaches the sink.
    void Detach() {
        std::lock_guard<std::mutex> l_Guard(m_Lock);
        m_pSink = nullptr;
    }

private:
    ~BulkCallback() = default;

    LONG m_longRefs = 1;
    std::mutex m_Lock;
    BulkSink* m_pSink;
    Event m_Ended{TRUE};
    Event m_Progress{FALSE};
    std::atomic<HRESULT> m_HRESULTStatus{E_PENDING};
    ModuleCallbackCount m_Counted;
};

// Hands each key and value of a bulk result to take_in, with what find_in gives for the object id it
// reports; nothing when there is no id or find_in gives null (an object not asked for).
template <class Find, class Take>
void VisitResult(IPortableDeviceValues* pValues_in, Find find_in, Take take_in) {
    CoTaskString l_Id;
    if (FAILED(pValues_in->GetStringValue(WPD_OBJECT_ID, &l_Id)) || l_Id.Get() == nullptr) {
        return;
    }
    const auto l_pObject = find_in(l_Id.Get());
    if (l_pObject == nullptr) {
        return;
    }
    DWORD l_dwordCount = 0;
    pValues_in->GetCount(&l_dwordCount);
    for (DWORD l_dwordIndex = 0; l_dwordIndex < l_dwordCount; ++l_dwordIndex) {
        PROPERTYKEY l_Key{};
        PropVariant l_Value;
        if (SUCCEEDED(pValues_in->GetAt(l_dwordIndex, &l_Key, &l_Value))) {
            take_in(*l_pObject, l_Key, l_Value.Get());
        }
    }
}

// Each result's names and kind into the children of a folder.
class ChildListSink final : public BulkSink {
public:
    explicit ChildListSink(ChildList& list_in) : m_List(list_in) {}

    void Merge(IPortableDeviceValues* pValues_in) override {
        // A child the enumeration did not give is not listed.
        const auto l_Find = [this](const wchar_t* pwcharId_in) { return m_List.Find(pwcharId_in); };
        VisitResult(pValues_in, l_Find, [this](ChildList::Entry& entry_io, const PROPERTYKEY& key_in,
                                               const PROPVARIANT& value_in) {
            // A key the device lacks comes as VT_ERROR: reported, without a value.
            const bool l_boolOriginal = SameKey(key_in, WPD_OBJECT_ORIGINAL_FILE_NAME);
            if (l_boolOriginal || SameKey(key_in, WPD_OBJECT_NAME)) {
                if (value_in.vt == VT_LPWSTR) {
                    m_List.SetName(entry_io, value_in.pwszVal != nullptr ? value_in.pwszVal : L"", l_boolOriginal);
                }
                entry_io.flags |= l_boolOriginal ? ChildList::kOriginalKey : ChildList::kNameKey;
            } else if (SameKey(key_in, WPD_OBJECT_CONTENT_TYPE)) {
                if (value_in.vt == VT_CLSID && value_in.puuid != nullptr) {
                    m_List.SetContentType(entry_io, *value_in.puuid);
                }
                entry_io.flags |= ChildList::kContentTypeKey;
            }
        });
    }

private:
    ChildList& m_List;
};

// Each result's facts into the object of its id. An object counts as described once every key asked for
// was reported, with a value or as an error.
class FactsSink final : public BulkSink {
public:
    FactsSink(const std::vector<std::wstring>& ids_in, bool boolSize_in)
        : m_Ids(ids_in), m_Objects(ids_in.size()), m_uint8All(boolSize_in ? 31 : 15) {}

    void Merge(IPortableDeviceValues* pValues_in) override {
        const auto l_Find = [this](const wchar_t* pwcharId_in) -> Object* {
            const auto l_it = std::find(m_Ids.begin(), m_Ids.end(), std::wstring_view(pwcharId_in));
            return l_it == m_Ids.end() ? nullptr : &m_Objects[static_cast<size_t>(l_it - m_Ids.begin())];
        };
        VisitResult(pValues_in, l_Find, [](Object& object_io, const PROPERTYKEY& key_in, const PROPVARIANT& value_in) {
            const wchar_t* const l_pwcharText =
                value_in.vt == VT_LPWSTR && value_in.pwszVal != nullptr ? value_in.pwszVal : nullptr;
            if (SameKey(key_in, WPD_OBJECT_ORIGINAL_FILE_NAME)) {
                object_io.original = l_pwcharText != nullptr ? l_pwcharText : L"";
                object_io.seen |= 1;
            } else if (SameKey(key_in, WPD_OBJECT_NAME)) {
                object_io.name = l_pwcharText != nullptr ? l_pwcharText : L"";
                object_io.seen |= 2;
            } else if (SameKey(key_in, WPD_OBJECT_CONTENT_TYPE)) {
                object_io.facts.folder = value_in.vt == VT_CLSID && value_in.puuid != nullptr &&
                                        *value_in.puuid == WPD_CONTENT_TYPE_FOLDER;
                object_io.seen |= 4;
            } else if (SameKey(key_in, WPD_OBJECT_PARENT_ID)) {
                object_io.result = l_pwcharText != nullptr ? S_OK
                                  : value_in.vt == VT_ERROR && FAILED(value_in.scode) ? value_in.scode
                                                                                               : E_UNEXPECTED;
                object_io.facts.parent = l_pwcharText != nullptr ? l_pwcharText : L"";
                object_io.seen |= 8;
            } else if (SameKey(key_in, WPD_OBJECT_SIZE)) {
                object_io.facts.sized = value_in.vt == VT_UI8;
                object_io.facts.size = object_io.facts.sized ? value_in.uhVal.QuadPart : 0;
                object_io.seen |= 16;
            }
        });
    }

    // The object's facts when the bulk read described it whole.
    bool Described(size_t index_in, HRESULT& result_out, ObjectFacts& facts_out) {
        Object& l_Object = m_Objects[index_in];
        if ((l_Object.seen & m_uint8All) != m_uint8All) {
            return false;
        }
        // The original file name wins when it is not empty, as for a child.
        l_Object.facts.name = !l_Object.original.empty() ? l_Object.original : l_Object.name;
        result_out = l_Object.result;
        facts_out = std::move(l_Object.facts);
        return true;
    }

private:
    struct Object {
        ObjectFacts facts;
        std::wstring original;
        std::wstring name;
        HRESULT result = E_UNEXPECTED;
        std::uint8_t seen = 0;
    };
    const std::vector<std::wstring>& m_Ids;
    std::vector<Object> m_Objects;
    const std::uint8_t m_uint8All;
};

}  // namespace

// --- ChildList ------------------------------------------------------------------------------------

void ChildList::AddId(const wchar_t* id) {
    Entry l_Entry;
    l_Entry.id = static_cast<std::uint32_t>(m_text.size());
    m_text.insert(m_text.end(), id, id + wcslen(id) + 1);
    m_entries.push_back(l_Entry);
}

std::wstring_view ChildList::Name(size_t index) const {
    const Entry& l_Entry = m_entries[index];
    if ((l_Entry.flags & (kOriginal | kNamed)) == 0) {
        return std::wstring_view();
    }
    return std::wstring_view(&m_text[l_Entry.name], l_Entry.nameLength);
}

void ChildList::Index() {
    m_sorted.resize(m_entries.size());
    for (std::uint32_t l_index = 0; l_index < m_sorted.size(); ++l_index) {
        m_sorted[l_index] = l_index;
    }
    std::sort(m_sorted.begin(), m_sorted.end(), [this](std::uint32_t a, std::uint32_t b) {
        return wcscmp(&m_text[m_entries[a].id], &m_text[m_entries[b].id]) < 0;
    });
}

ChildList::Entry* ChildList::Find(const wchar_t* id) {
    const auto l_it = std::lower_bound(m_sorted.begin(), m_sorted.end(), id, [this](std::uint32_t a, const wchar_t* b) {
        return wcscmp(&m_text[m_entries[a].id], b) < 0;
    });
    if (l_it == m_sorted.end() || wcscmp(&m_text[m_entries[*l_it].id], id) != 0) {
        return nullptr;
    }
    return &m_entries[*l_it];
}

// The original file name wins when it is not empty; otherwise the object name counts, as a single read's
// rule has it.
void ChildList::SetName(Entry& entry, const wchar_t* name, bool original) {
    if (original && name[0] == L'\0') {
        return;  // an empty original file name is no name
    }
    if (!original && (entry.flags & kOriginal) != 0) {
        return;
    }
    entry.name = static_cast<std::uint32_t>(m_text.size());
    entry.nameLength = static_cast<std::uint32_t>(wcslen(name));
    m_text.insert(m_text.end(), name, name + entry.nameLength + 1);
    entry.flags |= original ? kOriginal : kNamed;
}

void ChildList::SetContentType(Entry& entry, const GUID& contentType) {
    entry.flags &= static_cast<std::uint8_t>(~(kFolder | kStorage));
    if (contentType == WPD_CONTENT_TYPE_FOLDER) {
        entry.flags |= kFolder;
    } else if (contentType == WPD_CONTENT_TYPE_FUNCTIONAL_OBJECT) {
        entry.flags |= kStorage;
    }
}

// --- ChildReader ----------------------------------------------------------------------------------

ChildReader::ChildReader(IPortableDevice* pIPortableDevice_in) {
    if (pIPortableDevice_in == nullptr || FAILED(pIPortableDevice_in->Content(&m_pContent)) ||
        FAILED(m_pContent->Properties(&m_pProperties)) ||
        FAILED(CoCreateInstance(CLSID_PortableDeviceKeyCollection, nullptr, CLSCTX_INPROC_SERVER,
                                IID_PPV_ARGS(&m_pKeys)))) {
        m_pContent.Reset();
        return;
    }
    m_pKeys->Add(WPD_OBJECT_ORIGINAL_FILE_NAME);
    m_pKeys->Add(WPD_OBJECT_NAME);
    m_pKeys->Add(WPD_OBJECT_CONTENT_TYPE);
}

IPortableDeviceKeyCollection* ChildReader::CheckKeys(bool boolSize_in) {
    ComPtr<IPortableDeviceKeyCollection>& l_pKeys = boolSize_in ? m_pSizedKeys : m_pCheckKeys;
    if (!l_pKeys) {
        ComPtr<IPortableDeviceKeyCollection> l_pNew;
        HRESULT l_HRESULT = CoCreateInstance(CLSID_PortableDeviceKeyCollection, nullptr, CLSCTX_INPROC_SERVER,
                                             IID_PPV_ARGS(&l_pNew));
        for (const PROPERTYKEY& l_Key : {WPD_OBJECT_ORIGINAL_FILE_NAME, WPD_OBJECT_NAME, WPD_OBJECT_CONTENT_TYPE,
                                         WPD_OBJECT_PARENT_ID}) {
            l_HRESULT = SUCCEEDED(l_HRESULT) ? l_pNew->Add(l_Key) : l_HRESULT;
        }
        if (SUCCEEDED(l_HRESULT) && boolSize_in) {
            l_HRESULT = l_pNew->Add(WPD_OBJECT_SIZE);
        }
        if (FAILED(l_HRESULT)) {
            return nullptr;
        }
        l_pKeys = l_pNew;
    }
    return l_pKeys.Get();
}

HRESULT ChildReader::Check(const wchar_t* pwcharId_in, bool boolSize_in, ObjectFacts& facts_out) {
    facts_out = ObjectFacts();
    IPortableDeviceKeyCollection* const l_pKeys = CheckKeys(boolSize_in);
    if (l_pKeys == nullptr) {
        return E_OUTOFMEMORY;
    }
    ComPtr<IPortableDeviceValues> l_pValues;
    const HRESULT l_HRESULT = m_pProperties->GetValues(pwcharId_in, l_pKeys, &l_pValues);
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    OneChild l_One;
    Describe(l_pValues.Get(), l_One);
    CoTaskString l_Parent;
    const HRESULT l_HRESULTParent = l_pValues->GetStringValue(WPD_OBJECT_PARENT_ID, &l_Parent);
    if (FAILED(l_HRESULTParent) || l_Parent.Get() == nullptr) {
        return FAILED(l_HRESULTParent) ? l_HRESULTParent : E_UNEXPECTED;  // an object that cannot be placed
    }
    facts_out.name = std::move(l_One.name);
    facts_out.folder = l_One.folder;
    facts_out.parent = l_Parent.Get();
    facts_out.sized = boolSize_in && SUCCEEDED(l_pValues->GetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, &facts_out.size));
    return S_OK;
}

void ChildReader::CheckAll(const std::vector<std::wstring>& ids_in, bool boolSize_in, std::vector<HRESULT>& results_out,
                           std::vector<ObjectFacts>& facts_out) {
    results_out.assign(ids_in.size(), E_PENDING);
    facts_out.assign(ids_in.size(), ObjectFacts());
    IPortableDeviceKeyCollection* const l_pKeys = CheckKeys(boolSize_in);
    ComPtr<IPortableDevicePropVariantCollection> l_pIds;
    // One object costs one request either way: a plain read needs no thread of the runtime's.
    if (ids_in.size() > 1 && l_pKeys != nullptr &&
        SUCCEEDED(CoCreateInstance(CLSID_PortableDevicePropVariantCollection, nullptr, CLSCTX_INPROC_SERVER,
                                   IID_PPV_ARGS(&l_pIds)))) {
        HRESULT l_HRESULT = S_OK;
        for (const std::wstring& l_wstringId : ids_in) {
            PROPVARIANT l_Id;
            PropVariantInit(&l_Id);
            l_Id.vt = VT_LPWSTR;
            l_Id.pwszVal = const_cast<wchar_t*>(l_wstringId.c_str());  // Add copies it
            l_HRESULT = SUCCEEDED(l_HRESULT) ? l_pIds->Add(&l_Id) : l_HRESULT;
        }
        FactsSink l_Sink(ids_in, boolSize_in);
        if (SUCCEEDED(l_HRESULT)) {
            RunBulk(l_Sink, [&](IPortableDevicePropertiesBulk* pBulk_in, IPortableDevicePropertiesBulkCallback* pCallback_in,
                                GUID* pContext_out) {
                return pBulk_in->QueueGetValuesByObjectList(l_pIds.Get(), l_pKeys, pCallback_in, pContext_out);
            });
        }
        for (size_t l_index = 0; l_index < ids_in.size(); ++l_index) {
            l_Sink.Described(l_index, results_out[l_index], facts_out[l_index]);
        }
    }
    for (size_t l_index = 0; l_index < ids_in.size(); ++l_index) {
        if (results_out[l_index] == E_PENDING) {
            results_out[l_index] = Check(ids_in[l_index].c_str(), boolSize_in, facts_out[l_index]);
        }
    }
}

HRESULT ChildReader::Enumerate(const wchar_t* pwcharParentId_in, ChildList& list_out, HRESULT& next_out) {
    ComPtr<IEnumPortableDeviceObjectIDs> l_pEnum;
    HRESULT l_HRESULT = m_pContent->EnumObjects(0, pwcharParentId_in, nullptr, &l_pEnum);
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    LPWSTR l_pwcharIds[kEnumerationBatch];
    for (;;) {
        ULONG l_ulongFetched = 0;
        l_HRESULT = l_pEnum->Next(kEnumerationBatch, l_pwcharIds, &l_ulongFetched);
        for (ULONG l_ulongIndex = 0; l_ulongIndex < l_ulongFetched; ++l_ulongIndex) {
            if (SUCCEEDED(l_HRESULT)) {
                list_out.AddId(l_pwcharIds[l_ulongIndex]);
            }
            CoTaskMemFree(l_pwcharIds[l_ulongIndex]);
        }
        if (l_HRESULT != S_OK) {
            next_out = SUCCEEDED(l_HRESULT) ? S_OK : l_HRESULT;
            return S_OK;
        }
    }
}

void ChildReader::ReadInBulk(const wchar_t* pwcharParentId_in, ChildList& list_io) {
    if (list_io.Size() == 0) {
        return;
    }
    list_io.Index();
    ChildListSink l_Sink(list_io);
    RunBulk(l_Sink, [&](IPortableDevicePropertiesBulk* pBulk_in, IPortableDevicePropertiesBulkCallback* pCallback_in,
                        GUID* pContext_out) {
        return pBulk_in->QueueGetValuesByObjectFormat(WPD_OBJECT_FORMAT_ALL, pwcharParentId_in, 1, m_pKeys.Get(),
                                                      pCallback_in, pContext_out);
    });
    // Whatever arrived counts; children the operation did not report are read one by one.
}

void ChildReader::RunBulk(BulkSink& sink_io, const Queue& queue_in) {
    ComPtr<IPortableDevicePropertiesBulk> l_pBulk;
    if (FAILED(m_pProperties.As(&l_pBulk))) {
        return;  // a driver without bulk operations
    }
    BulkCallback* l_pCallback = new (std::nothrow) BulkCallback(&sink_io);
    if (l_pCallback == nullptr) {
        return;
    }
    // The reference new gave is taken over as it is: ComPtr::Attach adds one more in mingw-w64 (not in the
    // Windows SDK), which left every callback and its event alive.
    ComPtr<BulkCallback> l_Callback;
    *l_Callback.ReleaseAndGetAddressOf() = l_pCallback;
    GUID l_GUIDContext = GUID_NULL;
    if (SUCCEEDED(queue_in(l_pBulk.Get(), l_pCallback, &l_GUIDContext))) {
        if (FAILED(l_pBulk->Start(l_GUIDContext))) {
            l_pBulk->Cancel(l_GUIDContext);
        } else if (!l_pCallback->WaitForEnd()) {
            l_pBulk->Cancel(l_GUIDContext);
        }
    }
    l_pCallback->Detach();
}

HRESULT ChildReader::Read(const wchar_t* pwcharId_in, OneChild& child_out) {
    child_out = OneChild();
    ComPtr<IPortableDeviceValues> l_pValues;
    const HRESULT l_HRESULT = m_pProperties->GetValues(pwcharId_in, m_pKeys.Get(), &l_pValues);
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    Describe(l_pValues.Get(), child_out);
    return S_OK;
}

void ChildReader::Describe(IPortableDeviceValues* pValues_in, OneChild& child_out) {
    IPortableDeviceValues* const l_pValues = pValues_in;
    CoTaskString l_Name;
    if ((SUCCEEDED(l_pValues->GetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, &l_Name)) && l_Name.Get() != nullptr &&
         l_Name.Get()[0] != L'\0') ||
        SUCCEEDED(l_pValues->GetStringValue(WPD_OBJECT_NAME, &l_Name))) {
        child_out.name = l_Name.Get() != nullptr ? l_Name.Get() : L"";
    }
    GUID l_GUIDContentType{};
    if (SUCCEEDED(l_pValues->GetGuidValue(WPD_OBJECT_CONTENT_TYPE, &l_GUIDContentType))) {
        child_out.folder = l_GUIDContentType == WPD_CONTENT_TYPE_FOLDER;
        child_out.storage = l_GUIDContentType == WPD_CONTENT_TYPE_FUNCTIONAL_OBJECT;
    }
}

}  // namespace dorwex
