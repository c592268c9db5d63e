#include "child_reader.h"

#include <algorithm>
#include <atomic>
#include <cwchar>
#include <mutex>
#include <new>

#include "../common/com_memory.h"

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

// Receives a bulk operation's results on the runtime's thread and merges them into the list, until the
// reader takes the list back (at the end, or when it gives up waiting).
class BulkCallback final : public IPortableDevicePropertiesBulkCallback {
public:
    explicit BulkCallback(ChildList* pList_in) : m_pList(pList_in) {}

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
            if (m_pList == nullptr) {
                return E_ABORT;  // the reader gave up: nobody wants the rest
            }
            DWORD l_dwordCount = 0;
            if (pResults != nullptr && SUCCEEDED(pResults->GetCount(&l_dwordCount))) {
                for (DWORD l_dwordIndex = 0; l_dwordIndex < l_dwordCount; ++l_dwordIndex) {
                    ComPtr<IPortableDeviceValues> l_pValues;
                    if (SUCCEEDED(pResults->GetAt(l_dwordIndex, &l_pValues)) && l_pValues) {
                        Merge(l_pValues.Get());
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
    // After this no result reaches the list.
    void Detach() {
        std::lock_guard<std::mutex> l_Guard(m_Lock);
        m_pList = nullptr;
    }

private:
    ~BulkCallback() = default;

    void Merge(IPortableDeviceValues* pValues_in) {
        CoTaskString l_Id;
        if (FAILED(pValues_in->GetStringValue(WPD_OBJECT_ID, &l_Id)) || l_Id.Get() == nullptr) {
            return;
        }
        ChildList::Entry* l_pEntry = m_pList->Find(l_Id.Get());
        if (l_pEntry == nullptr) {
            return;  // not a child the enumeration gave: not listed
        }
        DWORD l_dwordCount = 0;
        pValues_in->GetCount(&l_dwordCount);
        for (DWORD l_dwordIndex = 0; l_dwordIndex < l_dwordCount; ++l_dwordIndex) {
            PROPERTYKEY l_Key{};
            PropVariant l_Value;
            if (FAILED(pValues_in->GetAt(l_dwordIndex, &l_Key, &l_Value))) {
                continue;
            }
            const PROPVARIANT& l_PROPVARIANT = l_Value.Get();
            // A key the device lacks comes as VT_ERROR: reported, without a value.
            const bool l_boolOriginal = SameKey(l_Key, WPD_OBJECT_ORIGINAL_FILE_NAME);
            if (l_boolOriginal || SameKey(l_Key, WPD_OBJECT_NAME)) {
                if (l_PROPVARIANT.vt == VT_LPWSTR) {
                    m_pList->SetName(*l_pEntry, l_PROPVARIANT.pwszVal != nullptr ? l_PROPVARIANT.pwszVal : L"",
                                     l_boolOriginal);
                }
                l_pEntry->flags |= l_boolOriginal ? ChildList::kOriginalKey : ChildList::kNameKey;
            } else if (SameKey(l_Key, WPD_OBJECT_CONTENT_TYPE)) {
                if (l_PROPVARIANT.vt == VT_CLSID && l_PROPVARIANT.puuid != nullptr) {
                    m_pList->SetContentType(*l_pEntry, *l_PROPVARIANT.puuid);
                }
                l_pEntry->flags |= ChildList::kContentTypeKey;
            }
        }
    }

    LONG m_longRefs = 1;
    std::mutex m_Lock;
    ChildList* m_pList;
    Event m_Ended{TRUE};
    Event m_Progress{FALSE};
    std::atomic<HRESULT> m_HRESULTStatus{E_PENDING};
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

HRESULT ChildReader::Check(const wchar_t* pwcharId_in, std::wstring& name_out, bool& folder_out,
                           std::wstring& parent_out) {
    if (!m_pCheckKeys) {
        ComPtr<IPortableDeviceKeyCollection> l_pKeys;
        HRESULT l_HRESULT = CoCreateInstance(CLSID_PortableDeviceKeyCollection, nullptr, CLSCTX_INPROC_SERVER,
                                             IID_PPV_ARGS(&l_pKeys));
        for (const PROPERTYKEY& l_Key : {WPD_OBJECT_ORIGINAL_FILE_NAME, WPD_OBJECT_NAME, WPD_OBJECT_CONTENT_TYPE,
                                         WPD_OBJECT_PARENT_ID}) {
            l_HRESULT = SUCCEEDED(l_HRESULT) ? l_pKeys->Add(l_Key) : l_HRESULT;
        }
        if (FAILED(l_HRESULT)) {
            return l_HRESULT;
        }
        m_pCheckKeys = l_pKeys;
    }
    ComPtr<IPortableDeviceValues> l_pValues;
    const HRESULT l_HRESULT = m_pProperties->GetValues(pwcharId_in, m_pCheckKeys.Get(), &l_pValues);
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
    name_out = std::move(l_One.name);
    folder_out = l_One.folder;
    parent_out = l_Parent.Get();
    return S_OK;
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
    ComPtr<IPortableDevicePropertiesBulk> l_pBulk;
    if (list_io.Size() == 0 || FAILED(m_pProperties.As(&l_pBulk))) {
        return;  // nothing to read, or a driver without bulk operations
    }
    list_io.Index();
    BulkCallback* l_pCallback = new (std::nothrow) BulkCallback(&list_io);
    if (l_pCallback == nullptr) {
        return;
    }
    // The reference new gave is taken over as it is: ComPtr::Attach adds one more in mingw-w64 (not in the
    // Windows SDK), which left every callback and its event alive.
    ComPtr<BulkCallback> l_Callback;
    *l_Callback.ReleaseAndGetAddressOf() = l_pCallback;
    GUID l_GUIDContext = GUID_NULL;
    if (SUCCEEDED(l_pBulk->QueueGetValuesByObjectFormat(WPD_OBJECT_FORMAT_ALL, pwcharParentId_in, 1, m_pKeys.Get(),
                                                        l_pCallback, &l_GUIDContext))) {
        if (FAILED(l_pBulk->Start(l_GUIDContext))) {
            l_pBulk->Cancel(l_GUIDContext);
        } else if (!l_pCallback->WaitForEnd()) {
            l_pBulk->Cancel(l_GUIDContext);
        }
    }
    // Whatever arrived counts; children the operation did not report are read one by one.
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
