#include "wpd_collection.h"

#include <cwchar>
#include <cwctype>

#include "../common/com_memory.h"
#include "../common/trace.h"
#include "../channels/blackberry_text.h"
#include "../device/wpd_device.h"
#include "wpd_core.h"

namespace {

using Manufacturer = dorwex::Manufacturer;

constexpr wchar_t kDisksNotMounted[] = L"The device has mounted but not its disks.";

std::wstring UpperCase(const wchar_t* pwcharText_in) {
    std::wstring l_wstringText(pwcharText_in);
    for (auto& l_wchar : l_wstringText) {
        l_wchar = static_cast<wchar_t>(std::towupper(l_wchar));
    }
    return l_wstringText;
}

bool NonEmpty(const wchar_t* pwcharText_in) {
    return pwcharText_in != nullptr && pwcharText_in[0] != L'\0';
}

bool NonEmpty(const _bstr_t& bstr_t_in) {
    return bstr_t_in.length() != 0;
}

// Case-blind equality of a member text with what the caller holds.
bool SameText(const _bstr_t& bstr_t_in, const wchar_t* pwcharText_in) {
    return _wcsicmp(BstrText(bstr_t_in), pwcharText_in) == 0;
}

bool SameText(const std::wstring& wstring_in, const wchar_t* pwcharText_in) {
    return _wcsicmp(wstring_in.c_str(), pwcharText_in) == 0;
}

const wchar_t* OrNull(const wchar_t* pwcharText_in) {
    return pwcharText_in != nullptr ? pwcharText_in : L"NULL";
}

using Entry = std::pair<const std::wstring, CDorWEXWPDCollection::DevicePtr>;

// The lookup strategies, each a test on one device for the identifiers the caller holds.
bool MatchesDiskId(const Entry& entry_in, const wchar_t* pwcharId_in) {
    const CDorWEXWPDObjectInWin32& l_Win32 = entry_in.second->Win32View();
    return SameText(l_Win32.GetEntry(CDorWEXWPDObjectInWin32::kNotifiedNode).wstringInstanceId, pwcharId_in) ||
           SameText(l_Win32.GetEntry(CDorWEXWPDObjectInWin32::kUSBDeviceNode).wstringInstanceId, pwcharId_in);
}

bool MatchesDiskNameAndDeviceId(const Entry& entry_in, const wchar_t* pwcharId_in) {
    const auto l_pIdentity = entry_in.second->Identity();
    if (SameText(l_pIdentity->m_bstr_tDisk1Name + l_pIdentity->m_bstr_tDeviceId, pwcharId_in)) {
        return true;
    }
    return NonEmpty(l_pIdentity->m_bstr_tDisk2Name) &&
           SameText(l_pIdentity->m_bstr_tDisk2Name + l_pIdentity->m_bstr_tDeviceId, pwcharId_in);
}

bool MatchesDevice(const Entry& entry_in, const wchar_t* pwcharId_in) {
    return SameText(entry_in.first, pwcharId_in) ||
           SameText(entry_in.second->Identity()->m_bstr_tDeviceObjectId, pwcharId_in);
}

bool MatchesSerialNumber(const Entry& entry_in, const wchar_t* pwcharId_in) {
    const _bstr_t l_bstr_tSerialNumber = entry_in.second->Identity()->m_bstr_tSerialNumber;
    return NonEmpty(l_bstr_tSerialNumber) && SameText(l_bstr_tSerialNumber, pwcharId_in);
}

bool MatchesFriendlyName(const Entry& entry_in, const wchar_t* pwcharId_in) {
    const _bstr_t l_bstr_tFriendlyName = entry_in.second->Identity()->m_bstr_tFriendlyName;
    return NonEmpty(l_bstr_tFriendlyName) && SameText(l_bstr_tFriendlyName, pwcharId_in);
}

bool MatchesDiskName(const Entry& entry_in, const wchar_t* pwcharDiskName_in) {
    const auto l_pIdentity = entry_in.second->Identity();
    return SameText(l_pIdentity->m_bstr_tDisk1Name, pwcharDiskName_in) ||
           SameText(l_pIdentity->m_bstr_tDisk2Name, pwcharDiskName_in);
}

bool MatchesBlackBerry(const Entry& entry_in, const wchar_t* pwcharId_in) {
    const dorwex::CompanionRecord* l_pRecord = entry_in.second->CompanionRecord();
    const std::wstring* l_pServer = l_pRecord ? l_pRecord->Find(L"DHCPServer") : nullptr;
    // The address is the host of the share path the caller holds, whole: 169.254.0.1 is not 169.254.0.17.
    return l_pServer != nullptr && dorwex::IdNamesShareHost(pwcharId_in, *l_pServer);
}

}  // namespace

CDorWEXWPDCollection::CDorWEXWPDCollection(CDorWEXWMIWPDCore* pCore_in) : m_pCore(pCore_in) {
    Trace(L"CDorWEXWPDCollection::CDorWEXWPDCollection");
}

CDorWEXWPDCollection::~CDorWEXWPDCollection() {
    DeviceMap l_Devices;
    {
        std::lock_guard<std::mutex> l_guard(m_mutexDevices);
        l_Devices.swap(m_ActiveWpdDevicesMap);
    }
    for (auto& l_Entry : l_Devices) {
        l_Entry.second->Terminate();
    }
}

HRESULT CDorWEXWPDCollection::AddWPD(const wchar_t* pwcharDeviceId_in) {
    Trace(L"CDorWEXWPDCollection::AddWPD enter.\n");
    if (pwcharDeviceId_in == nullptr) {
        return S_OK;
    }
    DevicePtr l_pDevice;
    try {
        l_pDevice = CreateWPDDevice(m_pCore);
    } catch (const std::bad_alloc&) {
        return S_OK;
    }
    const std::wstring l_wstringId = UpperCase(pwcharDeviceId_in);
    Trace(L"CDorWEXWPDObject::Initialize enter %s.\n", l_wstringId.c_str());
    const HRESULT l_HRESULT = l_pDevice->InitializeWPD(l_wstringId.c_str());
    Trace(L"CDorWEXWPDCollection::AddWPD call to Initialize for %s HRESULT = 0x%08x.\n", l_wstringId.c_str(),
          l_HRESULT);
    if (FAILED(l_HRESULT)) {
        if (l_pDevice->Identity()->m_eManufacturer == Manufacturer::LOGICALDISK) {
            Trace(L"CDorWEXWPDCollection::AddWPD DeviceManufacturer is LOGICALDISK, HRESULT=%08x\n", l_HRESULT);
        }
        // Not kept, whatever its class: the object goes here, and its callback and session with it.
        return l_HRESULT;
    }

    DevicePtr l_pReplaced;
    bool l_boolSameSerialNumber = false;
    bool l_boolInserted = false;
    {
        std::lock_guard<std::mutex> l_guard(m_mutexDevices);
        // A device already present with the same serial number is the same phone seen again.
        const _bstr_t l_bstr_tSerialNumber = l_pDevice->Identity()->m_bstr_tSerialNumber;
        if (NonEmpty(l_bstr_tSerialNumber)) {
            for (auto& l_Entry : m_ActiveWpdDevicesMap) {
                if (MatchesSerialNumber(l_Entry, l_bstr_tSerialNumber)) {
                    l_boolSameSerialNumber = true;
                    const _bstr_t l_bstr_tExtra = l_Entry.second->Identity()->m_bstr_tExtraProperties;
                    if (l_bstr_tExtra.length() != 0 && wcscmp(l_bstr_tExtra, kDisksNotMounted) == 0) {
                        l_pReplaced = l_Entry.second;
                        l_Entry.second = l_pDevice;
                    }
                    break;
                }
            }
        }
        if (!l_boolSameSerialNumber) {
            auto l_Inserted = m_ActiveWpdDevicesMap.emplace(l_wstringId, l_pDevice);
            l_boolInserted = l_Inserted.second;
        }
    }
    if (l_boolSameSerialNumber) {
        Trace(L"CDorWEXWPDCollection::ProcessDiskMount");
        if (l_pReplaced) {
            if (l_pReplaced->Identity()->m_eManufacturer == Manufacturer::BLACKBERRY && m_pCore != nullptr) {
                m_pCore->RemoveBlackBerryFromMonitoring(l_pReplaced.get());
            }
            l_pReplaced->Terminate();
        }
        return S_OK;  // a new object not kept goes here, its callback and session with it
    }
    if (!l_boolInserted) {
        return S_OK;  // the same id twice: the first one stays, the second goes here
    }
    Trace(L"CDorWEXWPDCollection::AddWPD, m_ActiveWpdDevicesMap.insert.\n");
    SetDeviceTypeCounter(l_pDevice);
    return l_HRESULT;
}

int CDorWEXWPDCollection::RemoveWPD(const wchar_t* pwcharDeviceId_in) {
    Trace(L"CDorWEXWPDCollection::RemoveWPD");
    if (pwcharDeviceId_in == nullptr) {
        return 0;
    }
    DevicePtr l_pDevice;
    bool l_boolStopApple = false;
    bool l_boolStopBlackBerry = false;
    {
        std::lock_guard<std::mutex> l_guard(m_mutexDevices);
        const auto l_Found = m_ActiveWpdDevicesMap.find(UpperCase(pwcharDeviceId_in));
        if (l_Found == m_ActiveWpdDevicesMap.end()) {
            return 0;
        }
        l_pDevice = l_Found->second;
        // Out of the map at once: the same device plugged in again while this removal waits for a companion
        // to stop is added as new, not refused as already there and then lost with the old entry.
        m_ActiveWpdDevicesMap.erase(l_Found);
        if (l_pDevice->Identity()->m_eManufacturer == Manufacturer::APPLE) {
            l_boolStopApple = m_longAppleCount-- == 1;
        } else if (l_pDevice->Identity()->m_eManufacturer == Manufacturer::BLACKBERRY) {
            l_boolStopBlackBerry = m_longBlackBerryCount-- == 1;
        }
    }
    // The session ends first, then the BlackBerry's share leaves monitoring, then the companion stops.
    l_pDevice->Terminate();
    if (l_pDevice->Identity()->m_eManufacturer == Manufacturer::BLACKBERRY && m_pCore != nullptr) {
        m_pCore->RemoveBlackBerryFromMonitoring(l_pDevice.get());
    }
    if (l_boolStopApple) {
        SyncCompanionMonitoring(Manufacturer::APPLE, L"CDorWEXWPDCollection::RemoveWPD, stopping apple monitoring...");
    }
    if (l_boolStopBlackBerry) {
        SyncCompanionMonitoring(Manufacturer::BLACKBERRY,
                                L"CDorWEXWPDCollection::RemoveWPD, stopping blackberry monitoring...");
    }
    // The object itself goes when the last holder lets go of it.
    l_pDevice.reset();
    Trace(L"CDorWEXWPDCollection::AddWPD, m_ActiveWpdDevicesMap.erase.\n");
    return 0;
}

void CDorWEXWPDCollection::SetDeviceTypeCounter(const DevicePtr& pDevice_in) {
    bool l_boolStartApple = false;
    bool l_boolStartBlackBerry = false;
    {
        std::lock_guard<std::mutex> l_guard(m_mutexDevices);
        if (pDevice_in->Identity()->m_eManufacturer == Manufacturer::APPLE) {
            l_boolStartApple = ++m_longAppleCount == 1;
        } else if (pDevice_in->Identity()->m_eManufacturer == Manufacturer::BLACKBERRY) {
            l_boolStartBlackBerry = ++m_longBlackBerryCount == 1;
        }
    }
    if (l_boolStartApple) {
        SyncCompanionMonitoring(Manufacturer::APPLE,
                                L"CDorWEXWPDCollection::SetDeviceTypeCounter, starting apple monitoring...");
    }
    if (l_boolStartBlackBerry) {
        SyncCompanionMonitoring(Manufacturer::BLACKBERRY,
                                L"CDorWEXWPDCollection::SetDeviceTypeCounter, starting blackberry monitoring...");
    }
    // The BlackBerry processor keeps its list of watched shares from its start on.
    if (pDevice_in->Identity()->m_eManufacturer == Manufacturer::BLACKBERRY && m_pCore != nullptr) {
        m_pCore->AddBlackBerryToMonitoring(pDevice_in.get());
    }
}

// Counts change under the device lock, but a start or stop runs outside it, so a removal (1 to 0) and an
// arrival (0 to 1) can reach the core in either order. Each transition therefore brings the companion to
// what the count is now, one at a time: the last one to run sees the final count.
void CDorWEXWPDCollection::SyncCompanionMonitoring(Manufacturer eManufacturer_in, const wchar_t* pwcharTrace_in) {
    if (m_pCore == nullptr) {
        return;
    }
    Trace(pwcharTrace_in);
    std::lock_guard<std::mutex> l_guard(m_mutexCompanionMonitoring);
    const bool l_boolApple = eManufacturer_in == Manufacturer::APPLE;
    const LONG l_longCount = l_boolApple ? GetAppleCount() : GetBlackBerryCount();
    const bool l_boolRunning = l_boolApple ? m_pCore->HasAppleMonitoring() : m_pCore->HasBlackBerryMonitoring();
    if (l_longCount > 0 && !l_boolRunning) {
        l_boolApple ? m_pCore->StartAppleMonitoring() : m_pCore->StartBlackBerryMonitoring();
    } else if (l_longCount == 0 && l_boolRunning) {
        l_boolApple ? m_pCore->StopAppleMonitoring() : m_pCore->StopBlackBerryMonitoring();
    }
}

CDorWEXWPDCollection::DevicePtr CDorWEXWPDCollection::FindWPDObjectById(const wchar_t* pwcharDeviceId_in) {
    if (pwcharDeviceId_in == nullptr) {
        return nullptr;
    }
    std::lock_guard<std::mutex> l_guard(m_mutexDevices);
    const auto l_Found = m_ActiveWpdDevicesMap.find(UpperCase(pwcharDeviceId_in));
    return l_Found == m_ActiveWpdDevicesMap.end() ? nullptr : l_Found->second;
}

CDorWEXWPDCollection::DevicePtr CDorWEXWPDCollection::FindWPDObject(const wchar_t* pwcharDeviceOrDiskId_in,
                                                                    const wchar_t* pwcharObjectStoragePath_in,
                                                                    bool* pboolAmbiguous_out) {
    Trace(L"CDorWEXWPDCollection::FindWPDObject for <%s> and <%s>\n", OrNull(pwcharDeviceOrDiskId_in),
          OrNull(pwcharObjectStoragePath_in));
    if (pboolAmbiguous_out != nullptr) {
        *pboolAmbiguous_out = false;
    }
    std::lock_guard<std::mutex> l_guard(m_mutexDevices);

    if (m_ActiveWpdDevicesMap.size() == 1 && !NonEmpty(pwcharDeviceOrDiskId_in)) {
        Trace(L"CDorWEXWPDCollection::FindWPDObject/FindWPDObjectCheckSingleDevice(1): DeviceOrDiskId=%s\n",
              pwcharDeviceOrDiskId_in);
        return m_ActiveWpdDevicesMap.begin()->second;
    }

    // One strategy over every device: the device it finds, or none when it finds none or more than one (two
    // phones of one model share a friendly name and storage names; taking the first would act on the other).
    int l_intStrategy = 0;
    const auto Apply = [&](int intStrategy_in, const auto& matches_in) -> const Entry* {
        const Entry* l_pFound = nullptr;
        for (const auto& l_Entry : m_ActiveWpdDevicesMap) {
            if (!matches_in(l_Entry)) {
                continue;
            }
            if (l_pFound != nullptr) {
                l_intStrategy = intStrategy_in;
                return nullptr;
            }
            l_pFound = &l_Entry;
        }
        return l_pFound;
    };

    // Strategies 2 to 6 look for the caller's id, each over every device in key order.
    struct IdStrategy {
        bool (*pMatches)(const Entry&, const wchar_t*);
        const wchar_t* pwcharTrace;
        bool boolTracesPath;
    };
    static const IdStrategy kIdStrategies[] = {
        {MatchesDiskId, L"CDorWEXWPDCollection::FindWPDObject/FindWPDObjectBasedOnDiskId(2): DeviceOrDiskId=%s\n",
         false},
        {MatchesDiskNameAndDeviceId,
         L"CDorWEXWPDCollection::FindWPDObject/FindWPDObjectBasedOnDiskNameAndDeviceId(3): DeviceOrDiskId=%s\n", false},
        {MatchesDevice, L"CDorWEXWPDCollection::FindWPDObject/FindWPDObjectBasedOnDevice(4): DeviceOrDiskId=%s\n",
         false},
        {MatchesSerialNumber,
         L"CDorWEXWPDCollection::FindWPDObject/FindWPDObjectBasedOnSerialNumber(5): DeviceOrDiskId=%s\n", false},
        // Traces the path although the match was on the id.
        {MatchesFriendlyName,
         L"CDorWEXWPDCollection::FindWPDObject/FindWPDObjectBasedOnFriendlyName(6): ObjectStoragePath=%s\n", true},
    };
    if (NonEmpty(pwcharDeviceOrDiskId_in)) {
        int l_intNumber = 2;
        for (const auto& l_Strategy : kIdStrategies) {
            const Entry* l_pFound =
                Apply(l_intNumber++, [&](const Entry& entry_in) { return l_Strategy.pMatches(entry_in, pwcharDeviceOrDiskId_in); });
            if (l_pFound != nullptr) {
                Trace(l_Strategy.pwcharTrace,
                      l_Strategy.boolTracesPath ? pwcharObjectStoragePath_in : pwcharDeviceOrDiskId_in);
                return l_pFound->second;
            }
            if (l_intStrategy != 0) {
                break;
            }
        }
    }

    // The storage name only says which device when the caller named none: a request that names a device
    // that is not there must not land on another one with a storage of that name.
    if (l_intStrategy == 0 && !NonEmpty(pwcharDeviceOrDiskId_in) && NonEmpty(pwcharObjectStoragePath_in)) {
        // The disk name is the path's first component.
        std::wstring l_wstringDiskName(pwcharObjectStoragePath_in, wcsnlen(pwcharObjectStoragePath_in, MAX_PATH));
        l_wstringDiskName = l_wstringDiskName.substr(0, l_wstringDiskName.find(L'\\'));
        if (!l_wstringDiskName.empty()) {
            if (const Entry* l_pFound = Apply(7, [&](const Entry& entry_in) {
                    return MatchesDiskName(entry_in, l_wstringDiskName.c_str());
                })) {
                Trace(L"CDorWEXWPDCollection::FindWPDObject/FindWPDObjectBasedOnDiskName(7): "
                      L"ObjectStoragePath=%s\n",
                      pwcharObjectStoragePath_in);
                return l_pFound->second;
            }
        }
    }

    if (l_intStrategy == 0 && pwcharDeviceOrDiskId_in != nullptr) {
        if (const Entry* l_pFound = Apply(8, [&](const Entry& entry_in) {
                return MatchesBlackBerry(entry_in, pwcharDeviceOrDiskId_in);
            })) {
            Trace(L"CDorWEXWPDCollection::FindWPDObject/FindWPDObjectBlackBerryDevice(8): ObjectStoragePath=%s\n",
                  pwcharObjectStoragePath_in);
            return l_pFound->second;
        }
    }

    if (l_intStrategy != 0) {
        Trace(L"CDorWEXWPDCollection::FindWPDObject: ERROR: More than one device matches(%d): DeviceOrDiskId=%s, "
              L"ObjectStoragePath=%s\n",
              l_intStrategy, OrNull(pwcharDeviceOrDiskId_in), OrNull(pwcharObjectStoragePath_in));
        if (pboolAmbiguous_out != nullptr) {
            *pboolAmbiguous_out = true;
        }
        return nullptr;
    }
    Trace(L"CDorWEXWPDCollection::FindWPDObject: ERROR: Device not found(9): DeviceOrDiskId=%s, "
          L"ObjectStoragePath=%s\n",
          pwcharDeviceOrDiskId_in, OrNull(pwcharObjectStoragePath_in));
    return nullptr;
}

std::vector<std::pair<std::wstring, CDorWEXWPDCollection::DevicePtr>> CDorWEXWPDCollection::Snapshot() {
    std::lock_guard<std::mutex> l_guard(m_mutexDevices);
    return {m_ActiveWpdDevicesMap.begin(), m_ActiveWpdDevicesMap.end()};
}

size_t CDorWEXWPDCollection::Count() {
    std::lock_guard<std::mutex> l_guard(m_mutexDevices);
    return m_ActiveWpdDevicesMap.size();
}

LONG CDorWEXWPDCollection::GetAppleCount() {
    std::lock_guard<std::mutex> l_guard(m_mutexDevices);
    return m_longAppleCount;
}

LONG CDorWEXWPDCollection::GetBlackBerryCount() {
    std::lock_guard<std::mutex> l_guard(m_mutexDevices);
    return m_longBlackBerryCount;
}
