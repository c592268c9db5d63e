// The device object's life: construction, InitializeWPD, the class-specific identity steps, the serial
// numbers it publishes, and Terminate.
#include "wpd_object.h"

#include "../common/com_memory.h"
#include "../common/trace.h"
#include "blackberry_share.h"
#include "wpd_object_events.h"

namespace {

constexpr wchar_t kClientName[] = L"Win32ext_WPD_Provider";
constexpr wchar_t kDisksNotMounted[] = L"The device has mounted but not its disks.";

// A device registry property that the manager reads for a device: REG_SZ text, or empty.
std::wstring ReadDeviceProperty(IPortableDeviceManager* pIPortableDeviceManager_in, const wchar_t* pwcharDeviceId_in,
                                const wchar_t* pwcharName_in) {
    DWORD l_dwordBytes = 0;
    DWORD l_dwordType = 0;
    if (FAILED(pIPortableDeviceManager_in->GetDeviceProperty(pwcharDeviceId_in, pwcharName_in, nullptr, &l_dwordBytes,
                                                            &l_dwordType)) ||
        l_dwordBytes < sizeof(wchar_t)) {
        return {};
    }
    std::wstring l_wstringValue(l_dwordBytes / sizeof(wchar_t), L'\0');
    if (FAILED(pIPortableDeviceManager_in->GetDeviceProperty(pwcharDeviceId_in, pwcharName_in,
                                                            reinterpret_cast<BYTE*>(&l_wstringValue[0]), &l_dwordBytes,
                                                            &l_dwordType)) ||
        l_dwordType != REG_SZ) {
        return {};
    }
    l_wstringValue.resize(wcsnlen(l_wstringValue.c_str(), l_wstringValue.size()));
    return l_wstringValue;
}

}  // namespace

CDorWEXWPDObject::CDorWEXWPDObject(IDorWEXDeviceHost* pHost_in) : m_pHost(pHost_in) {
    Trace(L"CDorWEXWPDObject::CDorWEXWPDObject");
}

std::shared_ptr<IDorWEXWPDDevice> CreateWPDDevice(IDorWEXDeviceHost* pHost_in) {
    return std::make_shared<CDorWEXWPDObject>(pHost_in);
}

std::shared_ptr<const DeviceIdentity> CDorWEXWPDObject::Identity() const {
    std::lock_guard<std::mutex> l_guard(m_mutexIdentity);
    return m_pIdentity;
}

void CDorWEXWPDObject::UpdateIdentity(const std::function<void(DeviceIdentity&)>& change_in) {
    // One change at a time; readers keep the snapshot they hold.
    std::lock_guard<std::mutex> l_guard(m_mutexUpdate);
    auto l_pChanged = std::make_shared<DeviceIdentity>(*Identity());
    change_in(*l_pChanged);
    std::lock_guard<std::mutex> l_guardIdentity(m_mutexIdentity);
    m_pIdentity = std::move(l_pChanged);
}

CDorWEXWPDObject::~CDorWEXWPDObject() {
    Trace(L"CDorWEXWPDObject::~CDorWEXWPDObject");
    ReleaseEvents();
}

void CDorWEXWPDObject::ReleaseEvents() {
    if (m_pEvents != nullptr) {
        m_pEvents->UnRegister(m_pIPortableDevice.Get());
        m_pEvents->Release();
        m_pEvents = nullptr;
    }
}

void CDorWEXWPDObject::SetClientInformation() {
    HRESULT l_HRESULT = CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER,
                                         IID_PPV_ARGS(&m_pIPortableDeviceValuesClientInfo));
    if (FAILED(l_HRESULT)) {
        Trace(L"! Failed to CoCreateInstance CLSID_PortableDeviceValues, l_HRESULT = 0x%lx\n", l_HRESULT);
        return;
    }
    IPortableDeviceValues* l_pValues = m_pIPortableDeviceValuesClientInfo.Get();
    l_HRESULT = l_pValues->SetStringValue(WPD_CLIENT_NAME, kClientName);
    if (FAILED(l_HRESULT)) {
        Trace(L"! Failed to set WPD_CLIENT_NAME, l_HRESULT = 0x%lx\n", l_HRESULT);
    }
    const struct {
        const PROPERTYKEY* pKey;
        ULONG ulongValue;
        const wchar_t* pwcharFailure;
    } l_Numbers[] = {
        {&WPD_CLIENT_MAJOR_VERSION, 1, L"! Failed to set WPD_CLIENT_MAJOR_VERSION, l_HRESULT = 0x%lx\n"},
        {&WPD_CLIENT_MINOR_VERSION, 0, L"! Failed to set WPD_CLIENT_MINOR_VERSION, l_HRESULT = 0x%lx\n"},
        {&WPD_CLIENT_REVISION, 2, L"! Failed to set WPD_CLIENT_REVISION, l_HRESULT = 0x%lx\n"},
        {&WPD_CLIENT_SECURITY_QUALITY_OF_SERVICE, SECURITY_IMPERSONATION,
         L"! Failed to set WPD_CLIENT_SECURITY_QUALITY_OF_SERVICE, l_HRESULT = 0x%lx\n"},
    };
    for (const auto& l_Number : l_Numbers) {
        l_HRESULT = l_pValues->SetUnsignedIntegerValue(*l_Number.pKey, l_Number.ulongValue);
        if (FAILED(l_HRESULT)) {
            Trace(l_Number.pwcharFailure, l_HRESULT);
        }
    }
}

HRESULT CDorWEXWPDObject::InitializeWPD(const wchar_t* pwcharDeviceId_in) {
    Trace(L"CDorWEXWPDObject::InitializeWPD enter.\n");
    if (pwcharDeviceId_in == nullptr) {
        return S_OK;
    }
    Trace(L"CDorWEXWPDObject::InitializeWPD called for %s.\n", pwcharDeviceId_in);
    UpdateIdentity([](DeviceIdentity& identity_io) { identity_io.m_eManufacturer = Manufacturer::UNKNOWN; });

    HRESULT l_HRESULT = CoCreateInstance(CLSID_PortableDeviceManager, nullptr, CLSCTX_INPROC_SERVER,
                                         IID_PPV_ARGS(&m_pIPortableDeviceManager));
    Trace(L"CDorWEXWPDObject::CreatePortableDeviceManager, %x\n", l_HRESULT);
    if (FAILED(l_HRESULT)) {
        Trace(L"CDorWEXWPDObject::InitializeWPD, %x\n", l_HRESULT);
        return l_HRESULT;
    }
    UpdateIdentity([pwcharDeviceId_in](DeviceIdentity& identity_io) { identity_io.m_bstr_tDeviceId = pwcharDeviceId_in; });
    SetClientInformation();

    // The free-threaded variant: the session is used from WMI's threads and the worker threads alike.
    l_HRESULT = CoCreateInstance(CLSID_PortableDeviceFTM, nullptr, CLSCTX_INPROC_SERVER,
                                 IID_PPV_ARGS(&m_pIPortableDevice));
    Trace(L"CDorWEXWPDObject::CreatePortableDevice 1, %x\n", l_HRESULT);
    if (m_pIPortableDevice && m_pIPortableDeviceValuesClientInfo) {
        l_HRESULT = m_pIPortableDevice->Open(pwcharDeviceId_in, m_pIPortableDeviceValuesClientInfo.Get());
        if (l_HRESULT == E_ACCESSDENIED) {
            l_HRESULT = OpenForReadingOnly(pwcharDeviceId_in, l_HRESULT);
        }
    }

    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = GetManufacturer();
        if (SUCCEEDED(l_HRESULT)) {
            GetFriendlyName();
            GetDescription();
            GetAdditionalProperties();
        }
    }
    if (SUCCEEDED(l_HRESULT)) {
        m_pEvents = new CDorWEXWPDObjectEvents(m_pHost, this);
        m_pEvents->Register(m_pIPortableDevice.Get());
        l_HRESULT = GetFunctionalCategories();
        m_Win32.ProcessDeviceNotification(pwcharDeviceId_in, 1);
        FinalizeSerialNumbersToUse();
    }

    switch (Identity()->m_eManufacturer) {
    case Manufacturer::ANDROID:
        UpdateIdentity([](DeviceIdentity& identity_io) {
            if (identity_io.m_bstr_tDisk1Name.length() == 0 && identity_io.m_bstr_tDisk2Name.length() == 0) {
                identity_io.m_bstr_tExtraProperties = kDisksNotMounted;
            }
        });
        l_HRESULT = S_OK;
        break;
    case Manufacturer::APPLE:
        l_HRESULT = ReadAppleIdentity();
        break;
    case Manufacturer::WINDOWS:
        UpdateIdentity([](DeviceIdentity& identity_io) {
            if (identity_io.m_bstr_tDisk1Name.length() == 0 && identity_io.m_bstr_tDisk2Name.length() == 0) {
                identity_io.m_bstr_tDisk1Name = L"Phone";
            }
        });
        l_HRESULT = S_OK;
        break;
    case Manufacturer::UNKNOWN:
        l_HRESULT = ReadBlackBerryIdentity();
        break;
    case Manufacturer::LOGICALDISK:
        Trace(L"CDorWEXWPDObject::InitializeWPD DeviceManufacturer is LOGICALDISK, HRESULT=%08x\n", l_HRESULT);
        break;
    default:
        Trace(L"CDorWEXWPDObject::InitializeWPD DeviceManufacturer is UNKNOWN\n");
        break;
    }
    Trace(L"CDorWEXWPDObject::InitializeWPD, %x\n", l_HRESULT);
    return l_HRESULT;
}

// Write access denied (a policy that keeps portable devices read-only sets the device's ACL so): Open asks
// again for reading only, as its documentation tells a client that writes to do. Listing, properties, copies
// off the device and events then work; changes of content are refused before the device is asked.
HRESULT CDorWEXWPDObject::OpenForReadingOnly(const wchar_t* pwcharDeviceId_in, HRESULT hrDenied_in) {
    Trace(L"CDorWEXWPDObject::InitializeWPD, Open 0x%08x, opening again for reading only.\n", hrDenied_in);
    HRESULT l_HRESULT =
        m_pIPortableDeviceValuesClientInfo->SetUnsignedIntegerValue(WPD_CLIENT_DESIRED_ACCESS, GENERIC_READ);
    if (FAILED(l_HRESULT)) {
        Trace(L"! Failed to set WPD_CLIENT_DESIRED_ACCESS, l_HRESULT = 0x%lx\n", l_HRESULT);
        return hrDenied_in;  // asked again with the default, the device would refuse again
    }
    l_HRESULT = m_pIPortableDevice->Open(pwcharDeviceId_in, m_pIPortableDeviceValuesClientInfo.Get());
    Trace(L"CDorWEXWPDObject::InitializeWPD, Open for reading only, %x\n", l_HRESULT);
    m_boolReadOnly = SUCCEEDED(l_HRESULT);
    return l_HRESULT;
}

void CDorWEXWPDObject::FinalizeSerialNumbersToUse() {
    // A serial number the Plug and Play view knows wins over what WPD reported; an empty one never does.
    UpdateIdentity([this](DeviceIdentity& identity_io) {
        const auto l_Replace = [](const std::wstring& wstringFromView_in, _bstr_t& bstr_tSerialNumber_io,
                                  const wchar_t* pwcharBefore_in, const wchar_t* pwcharAfter_in) {
            if (wstringFromView_in.empty()) {
                return;
            }
            Trace(pwcharBefore_in, static_cast<const wchar_t*>(bstr_tSerialNumber_io));
            bstr_tSerialNumber_io = wstringFromView_in.c_str();
            Trace(pwcharAfter_in, static_cast<const wchar_t*>(bstr_tSerialNumber_io));
        };
        l_Replace(m_Win32.GetDeviceSerialNumber(), identity_io.m_bstr_tWPDSerialNumber,
                  L"CDorWEXWPDObject::FinalizeSerialNumbersToUse:WPD SerialNumber before:%s\n",
                  L"CDorWEXWPDObject::FinalizeSerialNumbersToUse:WPD SerialNumber after:%s\n");
        l_Replace(m_Win32.GetUSBSerialNumber(), identity_io.m_bstr_tUSBSerialNumber,
                  L"CDorWEXWPDObject::FinalizeSerialNumbersToUse:USB SerialNumber before:%s\n",
                  L"CDorWEXWPDObject::FinalizeSerialNumbersToUse:USB SerialNumber after:%s\n");
    });
}

// A device whose class is still unknown (WPD could not open it, or it named no maker) goes through the
// BlackBerry identity step: its property record, a BlackBerry's fixed texts and the share storage the
// record's address names. Only a device whose record holds something is a BlackBerry; only a failure of
// the Plug and Play view ends the step early.
HRESULT CDorWEXWPDObject::ReadBlackBerryIdentity() {
    HRESULT l_HRESULT = m_Win32.ProcessDeviceNotification(Identity()->m_bstr_tDeviceId, 0);
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    auto l_pRecord = std::make_unique<dorwex::CompanionRecord>();
    for (const wchar_t* l_pwcharName : {L"BBPIN", L"IMEI", L"DHCPServer"}) {
        const std::wstring l_wstringValue =
            ReadDeviceProperty(m_pIPortableDeviceManager.Get(), Identity()->m_bstr_tDeviceId, l_pwcharName);
        if (!l_wstringValue.empty()) {
            l_pRecord->Set(l_pwcharName, l_wstringValue);
        }
    }
    const bool l_boolBlackBerry = !l_pRecord->Empty();
    m_pCompanionRecord = std::move(l_pRecord);
    const std::wstring* l_pPIN = m_pCompanionRecord->Find(L"BBPIN");
    const std::wstring* l_pIMEI = m_pCompanionRecord->Find(L"IMEI");
    const std::wstring* l_pDHCPServer = m_pCompanionRecord->Find(L"DHCPServer");
    // The share reports no persistent unique id of its own: the device node Plug and Play keeps for the
    // device stands for it.
    const std::wstring l_wstringNodeId = m_Win32.GetEntry(CDorWEXWPDObjectInWin32::kLookedUpNode).wstringInstanceId;
    UpdateIdentity([&](DeviceIdentity& identity_io) {
        if (l_boolBlackBerry) {
            identity_io.m_eManufacturer = Manufacturer::BLACKBERRY;
        }
        // Without an IMEI the serial numbers stay what the device reported.
        if (l_pIMEI != nullptr) {
            identity_io.m_bstr_tSerialNumber = l_pIMEI->c_str();
            identity_io.m_bstr_tWPDSerialNumber = l_pIMEI->c_str();
        }
        identity_io.m_bstr_tFriendlyName = l_pPIN != nullptr ? (L"BLACKBERRY_" + *l_pPIN).c_str() : L"BLACKBERRY";
        identity_io.m_bstr_tManufacturer = L"Research In Motion";
        identity_io.m_bstr_tDescription = L"BlackBerry Device";
        identity_io.m_bFunctionalCategoryStorage = true;
        identity_io.m_bstr_tDisk1Name = (L"\\\\" + (l_pDHCPServer != nullptr ? *l_pDHCPServer : std::wstring()) +
                                         L"\\media")
                                            .c_str();
        identity_io.m_bstr_tDisk1ObjectId = L"s1001";
        identity_io.m_bstr_tDisk1Description = L"Flash Memory";
        if (!l_wstringNodeId.empty()) {
            identity_io.m_bstr_tDisk1PersistentUniqueId = l_wstringNodeId.c_str();
        }
    });
    if (l_boolBlackBerry) {
        // The share access, connected when the companion sends the share's credentials.
        m_pCDorWEXBlackBerry = std::make_unique<CDorWEXBlackBerry>();
        m_pCDorWEXBlackBerry->m_wstringShareName = BstrText(Identity()->m_bstr_tDisk1Name);
        m_pCDorWEXBlackBerry->m_mapProperties = m_pCompanionRecord->Values();
    }
    return S_OK;
}

void CDorWEXWPDObject::Terminate() {
    Trace(L"CDorWEXWPDObject::Terminate");
    ReleaseEvents();
    m_PathIds.Clear();
    if (m_pIPortableDevice) {
        m_pIPortableDevice->Close();
    }
}
