#include "blackberry_named_pipe.h"

#include <windows.h>

#include "../common/trace.h"
#include "../device/wpd_device.h"
#include "../monitor/device_registry.h"
#include "apple_message.h"
#include "blackberry_text.h"

namespace {

// Overwrites a secret before its memory is given back.
void Wipe(std::wstring& wstringSecret_io) {
    if (!wstringSecret_io.empty()) {
        SecureZeroMemory(&wstringSecret_io[0], wstringSecret_io.size() * sizeof(wchar_t));
    }
    wstringSecret_io.clear();
}

bool SameTextCaseBlind(const _bstr_t& bstr_tText_in, const std::wstring& wstringOther_in) {
    return bstr_tText_in.length() != 0 && _wcsicmp(bstr_tText_in, wstringOther_in.c_str()) == 0;
}

}  // namespace

CDorWEXWMIBlackBerryNamedPipe::~CDorWEXWMIBlackBerryNamedPipe() {
    for (auto& l_Connection : m_Connections) {
        Wipe(l_Connection.password);
    }
}

int CDorWEXWMIBlackBerryNamedPipe::ProcessData(PipeInstance instance_in) {
    // The message is UTF-16 text in the request buffer; one that fills the buffer has no terminator.
    const auto* l_pwcharMessage = reinterpret_cast<const wchar_t*>(instance_in.request);
    std::wstring l_wstringMessage(l_pwcharMessage, wcsnlen(l_pwcharMessage, sizeof(instance_in.request) / sizeof(wchar_t)));
    int l_intResult = 0;
    switch (dorwex::ClassifyBlackBerryMessage(l_wstringMessage)) {
    case dorwex::BlackBerryMessageKind::kFileWrite:
        l_intResult = ProcessFileWrite(l_wstringMessage);
        break;
    case dorwex::BlackBerryMessageKind::kCredentials:
        l_intResult = ProcessData2(l_wstringMessage);
        break;
    case dorwex::BlackBerryMessageKind::kIgnored:
        break;
    }
    Wipe(l_wstringMessage);  // credentials carry a password
    return l_intResult;
}

// A file written to the device through the companion: its write event, with no local file name.
int CDorWEXWMIBlackBerryNamedPipe::ProcessFileWrite(const std::wstring& wstringMessage_in) {
    const auto l_Tokens = dorwex::BlackBerryTokens(wstringMessage_in);
    const DWORD l_dwordProcessId = static_cast<DWORD>(ProcessIdFromText(l_Tokens[0]));
    SimulateWPDWriteEvent(l_Tokens[4].empty() ? nullptr : l_Tokens[4].c_str(),
                          l_Tokens[2].empty() ? nullptr : l_Tokens[2].c_str(), nullptr, l_dwordProcessId);
    return 0;
}

int CDorWEXWMIBlackBerryNamedPipe::ProcessData2(const std::wstring& wstringMessage_in) {
    Trace(L"CDorWEXWMIBlackBerryNamedPipe::ProcessData2 enter.\n");
    auto l_Tokens = dorwex::BlackBerryTokens(wstringMessage_in);
    const std::wstring& l_wstringShare = l_Tokens[2];
    const std::wstring& l_wstringUser = l_Tokens[3];
    std::wstring& l_wstringPassword = l_Tokens[4];
    int l_intResult = 0;
    if (!FilterShare(l_wstringShare)) {
        const bool l_boolConnected = IsAlreadyConnected(l_wstringShare, l_wstringUser, l_wstringPassword);
        Trace(L"CDorWEXWMIBlackBerryNamedPipe::IsAlreadyConnected: %s\n", l_boolConnected ? L"TRUE" : L"FALSE");
        l_intResult = l_boolConnected ? 1 : ProcessCredentials(l_wstringShare, l_wstringUser, l_wstringPassword);
    }
    Wipe(l_wstringPassword);
    return l_intResult;
}

bool CDorWEXWMIBlackBerryNamedPipe::FilterShare(const std::wstring& wstringShare_in) {
    if (!dorwex::IsFilteredShare(wstringShare_in)) {
        return false;
    }
    Trace(L"CDorWEXWMIBlackBerryNamedPipe::FilterShare, filtering %s\n",
          wstringShare_in.substr(wstringShare_in.size() - 4).c_str());
    return true;
}

bool CDorWEXWMIBlackBerryNamedPipe::IsAlreadyConnected(const std::wstring& wstringShare_in,
                                                       const std::wstring& wstringUser_in,
                                                       const std::wstring& wstringPassword_in) {
    const auto l_Matches = [&](const ShareConnection& connection_in) {
        return connection_in.share == wstringShare_in && connection_in.user == wstringUser_in &&
               connection_in.password == wstringPassword_in;
    };
    ShareConnection& l_First = m_Connections[0];
    if (l_Matches(l_First)) {
        if (l_First.result == 0) {
            return true;
        }
        // Once, after exactly this many failures, one message is skipped; later ones are tried again.
        if (l_First.tries == kTryLimit) {
            Trace(L"CDorWEXWMIBlackBerryNamedPipe::IsAlreadyConnected: tried to connect to %s %i times without "
                  L"success, will not try anymore.\n",
                  l_First.share.c_str(), static_cast<int>(kTryLimit));
            ++l_First.tries;
            return true;
        }
        return false;
    }
    const ShareConnection& l_Second = m_Connections[1];
    return l_Matches(l_Second) && l_Second.result == 0;
}

int CDorWEXWMIBlackBerryNamedPipe::ProcessCredentials(const std::wstring& wstringShare_in,
                                                      const std::wstring& wstringUser_in,
                                                      const std::wstring& wstringPassword_in) {
    Trace(L"CDorWEXWMIBlackBerryNamedPipe::ProcessCredentials enter.");
    if (wstringShare_in.empty() || wstringUser_in.empty() || wstringPassword_in.empty() || m_pDevices == nullptr) {
        return 0;
    }
    const auto l_pDevice = m_pDevices->FindWPDObject(wstringShare_in.c_str(), nullptr);
    DWORD l_dwordResult = 0;
    if (!l_pDevice || !l_pDevice->ConnectBlackBerryShare(wstringShare_in.c_str(), wstringUser_in.c_str(),
                                                         wstringPassword_in.c_str(), l_dwordResult)) {
        return 0;  // not a watched BlackBerry: the credentials are dropped
    }
    const LONG l_longResult = static_cast<LONG>(l_dwordResult);
    const auto l_Record = [&](ShareConnection& connection_io) {
        connection_io.result = l_longResult;
        if (l_longResult == 0) {
            connection_io.share = wstringShare_in;
            connection_io.user = wstringUser_in;
            Wipe(connection_io.password);
            connection_io.password = wstringPassword_in;
            connection_io.tries = 0;
        } else {
            ++connection_io.tries;
        }
    };
    const auto l_pIdentity = l_pDevice->Identity();
    if (SameTextCaseBlind(l_pIdentity->m_bstr_tDisk1Name, wstringShare_in)) {
        l_Record(m_Connections[0]);
    } else if (SameTextCaseBlind(l_pIdentity->m_bstr_tDisk2Name, wstringShare_in)) {
        l_Record(m_Connections[1]);
    } else if (l_pIdentity->m_bstr_tDisk2Name.length() == 0) {
        // A share the device did not name yet: its SD card, which becomes the second storage (looked at again
        // inside the change, so that only one share ever becomes it).
        bool l_boolSecondStorage = false;
        l_pDevice->UpdateIdentity([&](DeviceIdentity& identity_io) {
            if (identity_io.m_bstr_tDisk2Name.length() != 0) {
                return;
            }
            identity_io.m_bstr_tDisk2Name = wstringShare_in.c_str();
            identity_io.m_bstr_tDisk2ObjectId = wstringShare_in.c_str();
            identity_io.m_bstr_tDisk2PersistentUniqueId = wstringShare_in.c_str();
            identity_io.m_bstr_tDisk2Description = L"SD Card in BB device";
            identity_io.m_bstr_tDiskText4 = L"SD_Card";
            l_boolSecondStorage = true;
        });
        if (!l_boolSecondStorage) {
            return 0;
        }
        l_Record(m_Connections[1]);
    }
    return 0;
}

// --- Listener and monitoring list -----------------------------------------------------------------

CDorWEXWMIBlackBerryEventsListener::~CDorWEXWMIBlackBerryEventsListener() {
    std::lock_guard<std::mutex> l_guard(m_mutexMonitoring);
    m_mapOfUNCToDiskProperties.clear();
}

HRESULT CDorWEXWMIBlackBerryEventsListener::ListenForBlackBerryEvents(HANDLE handleStopEvent_in) {
    Trace(L"CDorWEXWMIBlackBerryEventsListener::ListenForBlackBerryEvents entered...\n");
    m_handleStopEvent = handleStopEvent_in;
    const HRESULT l_HRESULT = ListenForBlackBerryEventsUsingNamedPipe();
    Trace(L"CDorWEXWMIBlackBerryEventsListener::ListenForBlackBerryEvents exiting...\n");
    return l_HRESULT;
}

HRESULT CDorWEXWMIBlackBerryEventsListener::ListenForBlackBerryEventsUsingNamedPipe() {
    Trace(L"CDorWEXWMIBlackBerryEventsListener::ListenForBlackBerryEventsUsingNamedPipe entered...\n");
    HRESULT l_HRESULT = E_FAIL;
    if (m_handleStopEvent != nullptr) {
        // About 33 KB: on the heap rather than the worker's stack.
        auto l_pPipe = std::make_unique<CDorWEXWMIBlackBerryNamedPipe>(m_pDevices, m_handleStopEvent);
        l_HRESULT = l_pPipe->Serve(kDorWEXBlackBerryPipeName, nullptr);
    }
    Trace(L"CDorWEXWMIBlackBerryEventsListener::ListenForBlackBerryEventsUsingNamedPipe exiting...\n");
    return l_HRESULT;
}

int CDorWEXWMIBlackBerryEventsListener::AddBlackBerryToMonitoring(IDorWEXWPDDevice* pCDorWEXWPDObject_in) {
    Trace(L"CDorWEXWMIBlackBerryEventsListener::AddBlackBerryToMonitoring entered...\n");
    if (pCDorWEXWPDObject_in == nullptr) {
        Trace(L"CDorWEXWMIBlackBerryEventsListener::AddBlackBerryToMonitoring, ERROR: pCDorWEXWPDObject_in == NULL\n");
        return 0;
    }
    const _bstr_t l_bstr_tDisk1Name = pCDorWEXWPDObject_in->Identity()->m_bstr_tDisk1Name;
    if (l_bstr_tDisk1Name.length() == 0) {
        Trace(L"CDorWEXWMIBlackBerryEventsListener::AddBlackBerryToMonitoring, ERROR: "
              L"pCDorWEXWPDObject_in->m_bstr_tDisk1Name.length() == 0\n");
        return 0;
    }
    const std::wstring l_wstringKey(static_cast<const wchar_t*>(l_bstr_tDisk1Name));
    std::lock_guard<std::mutex> l_guard(m_mutexMonitoring);
    if (m_mapOfUNCToDiskProperties.count(l_wstringKey) != 0) {
        Trace(L"CDorWEXWMIBlackBerryEventsListener::AddBlackBerryToMonitoring, %s already in "
              L"m_mapOfUNCToDiskProperties, skipping add operation\n",
              l_wstringKey.c_str());
        return 0;
    }
    auto l_pDiskProperties = std::make_unique<DiskProperties>(
        DiskProperties{pCDorWEXWPDObject_in, pCDorWEXWPDObject_in->HasBlackBerryShare()});
    const bool l_boolShareAccess = l_pDiskProperties->boolShareAccess;
    m_mapOfUNCToDiskProperties.emplace(l_wstringKey, std::move(l_pDiskProperties));
    if (!l_boolShareAccess) {
        Trace(L"CDorWEXWMIBlackBerryEventsListener::AddBlackBerryToMonitoring, ERROR: "
              L"l_pDiskProperties->pCDorWEXBlackBerry == NULL\n");
        return 0;
    }
    return 1;
}

int CDorWEXWMIBlackBerryEventsListener::RemoveBlackBerryFromMonitoring(IDorWEXWPDDevice* pCDorWEXWPDObject_in) {
    Trace(L"CDorWEXWMIBlackBerryEventsListener::RemoveBlackBerryFromMonitoring entered...\n");
    if (pCDorWEXWPDObject_in == nullptr) {
        return 0;
    }
    const _bstr_t l_bstr_tDisk1Name = pCDorWEXWPDObject_in->Identity()->m_bstr_tDisk1Name;
    if (l_bstr_tDisk1Name.length() == 0) {
        return 0;
    }
    const std::wstring l_wstringKey(static_cast<const wchar_t*>(l_bstr_tDisk1Name));
    std::lock_guard<std::mutex> l_guard(m_mutexMonitoring);
    const auto l_Found = m_mapOfUNCToDiskProperties.find(l_wstringKey);
    if (l_Found == m_mapOfUNCToDiskProperties.end()) {
        return 0;
    }
    if (l_Found->second->boolShareAccess) {
        l_Found->second->pCDorWEXWPDObject->DisconnectBlackBerryShare();
    }
    m_mapOfUNCToDiskProperties.erase(l_Found);
    Trace(L"CDorWEXWMIBlackBerryEventsListener::RemoveBlackBerryFromMonitoring removed %s\n", l_wstringKey.c_str());
    return 1;
}

size_t CDorWEXWMIBlackBerryEventsListener::MonitoredCount() {
    std::lock_guard<std::mutex> l_guard(m_mutexMonitoring);
    return m_mapOfUNCToDiskProperties.size();
}

std::unique_ptr<IDorWEXBlackBerryChannel> CreateBlackBerryChannel(IDorWEXDeviceRegistry* pDevices_in) {
    return std::make_unique<CDorWEXWMIBlackBerryEventsListener>(pDevices_in);
}
