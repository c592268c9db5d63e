#include "named_pipe_base.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>

#include "../common/error_text.h"
#include "../common/trace.h"
#include "../device/wpd_device.h"
#include "../monitor/device_registry.h"

namespace {

// Traces a failure with the last error's code and system text; skipped when the system has no text.
void TraceLastError(const wchar_t* pwcharFormat_in, DWORD dwordError_in) {
    std::wstring l_wstringText;
    if (GetSystemErrorText(static_cast<HRESULT>(dwordError_in), l_wstringText)) {
        Trace(pwcharFormat_in, dwordError_in, l_wstringText.c_str());
    }
}

void TraceLastError(const wchar_t* pwcharFormat_in, LONG longInstance_in, DWORD dwordError_in) {
    std::wstring l_wstringText;
    if (GetSystemErrorText(static_cast<HRESULT>(dwordError_in), l_wstringText)) {
        Trace(pwcharFormat_in, longInstance_in, dwordError_in, l_wstringText.c_str());
    }
}

// Access of the process owner: GENERIC_ALL with every standard and specific right; of Everyone: the same
// without WRITE_DAC and WRITE_OWNER. Network logons are denied all of the owner's.
constexpr DWORD kOwnerAccess = 0x101FFFFF;
constexpr DWORD kEveryoneAccess = 0x1013FFFF;
constexpr DWORD kNetworkDenied = kOwnerAccess;

struct HeapBlockFree {
    void operator()(void* pBlock_in) const { HeapFree(GetProcessHeap(), 0, pBlock_in); }
};

}  // namespace

CDorWEXWMIWPDNamedPipeBase::CDorWEXWMIWPDNamedPipeBase(IDorWEXDeviceRegistry* pDevices_in, HANDLE handleStopEvent_in)
    : m_pDevices(pDevices_in) {
    ZeroMemory(m_Instances, sizeof(m_Instances));
    for (auto& l_Instance : m_Instances) {
        l_Instance.pipe = INVALID_HANDLE_VALUE;
    }
    for (auto& l_Event : m_Events) {
        l_Event = nullptr;
    }
    m_Events[kInstances] = handleStopEvent_in;
}

CDorWEXWMIWPDNamedPipeBase::~CDorWEXWMIWPDNamedPipeBase() {
    for (DWORD l_dwordIndex = 0; l_dwordIndex < kInstances; ++l_dwordIndex) {
        if (m_Events[l_dwordIndex] != nullptr) {
            CloseHandle(m_Events[l_dwordIndex]);
        }
    }
    if (m_pACL != nullptr) {
        HeapFree(GetProcessHeap(), 0, m_pACL);
    }
}

BOOL CDorWEXWMIWPDNamedPipeBase::GetInternalProcessOwnerSID(SECURITY_DESCRIPTOR* pDescriptor_io) {
    HANDLE l_handleToken = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &l_handleToken)) {
        return FALSE;
    }
    std::unique_ptr<void, decltype(&CloseHandle)> l_Token(l_handleToken, &CloseHandle);
    DWORD l_dwordSize = 0;
    if (GetTokenInformation(l_handleToken, TokenUser, nullptr, 0, &l_dwordSize) ||
        GetLastError() != ERROR_INSUFFICIENT_BUFFER) {
        return FALSE;
    }
    std::unique_ptr<void, HeapBlockFree> l_pTokenUser(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, l_dwordSize));
    if (!l_pTokenUser ||
        !GetTokenInformation(l_handleToken, TokenUser, l_pTokenUser.get(), l_dwordSize, &l_dwordSize)) {
        return FALSE;
    }
    const PSID l_pSIDUser = static_cast<TOKEN_USER*>(l_pTokenUser.get())->User.Sid;
    if (!IsValidSid(l_pSIDUser)) {
        return FALSE;
    }
    Trace(L"CDorWEXWMIWPDNamedPipeBase::GetInternalProcessOwnerSID, succeeded.\n");
    return GetExternalProcessOwnerSID(pDescriptor_io, l_pSIDUser);
}

BOOL CDorWEXWMIWPDNamedPipeBase::GetExternalProcessOwnerSID(SECURITY_DESCRIPTOR* pDescriptor_io,
                                                            PSID pSIDInternal_in) {
    SID_IDENTIFIER_AUTHORITY l_WorldAuthority = SECURITY_WORLD_SID_AUTHORITY;
    PSID l_pSIDEveryone = nullptr;
    if (!AllocateAndInitializeSid(&l_WorldAuthority, 1, SECURITY_WORLD_RID, 0, 0, 0, 0, 0, 0, 0,
                                  &l_pSIDEveryone)) {
        TraceLastError(L"CDorWEXWMIWPDNamedPipeBase::GetExternalProcessOwnerSID, AllocateAndInitializeSid failed "
                       L"%x: %s.\n",
                       GetLastError());
        return FALSE;
    }
    Trace(L"CDorWEXWMIWPDNamedPipeBase::GetExternalProcessOwnerSID, succeeded.\n");
    const BOOL l_BOOL = CreateSecurityDescriptor(pDescriptor_io, pSIDInternal_in, l_pSIDEveryone);
    FreeSid(l_pSIDEveryone);
    return l_BOOL;
}

BOOL CDorWEXWMIWPDNamedPipeBase::CreateSecurityDescriptor(SECURITY_DESCRIPTOR* pDescriptor_io, PSID pSIDInternal_in,
                                                          PSID pSIDExternal_in) {
    if (!InitializeSecurityDescriptor(pDescriptor_io, SECURITY_DESCRIPTOR_REVISION)) {
        TraceLastError(L"CDorWEXWMIWPDNamedPipeBase::CreateSecurityDescriptor, InitializeSecurityDescriptor failed "
                       L"%x: %s.\n",
                       GetLastError());
        return FALSE;
    }
    // The NETWORK group (S-1-5-2): every logon that came over the network, whatever its account.
    BYTE l_SIDNetwork[SECURITY_MAX_SID_SIZE];
    DWORD l_dwordSIDNetworkSize = sizeof(l_SIDNetwork);
    if (!CreateWellKnownSid(WinNetworkSid, nullptr, l_SIDNetwork, &l_dwordSIDNetworkSize)) {
        TraceLastError(L"CDorWEXWMIWPDNamedPipeBase::CreateSecurityDescriptor, CreateWellKnownSid failed %x: %s.\n",
                       GetLastError());
        return FALSE;
    }
    // The ACL header, three ACE headers and their SIDs, aligned to 4.
    const DWORD l_dwordACLSize =
        (sizeof(ACL) + 3 * (sizeof(ACE_HEADER) + sizeof(DWORD)) + GetLengthSid(l_SIDNetwork) +
         GetLengthSid(pSIDInternal_in) + GetLengthSid(pSIDExternal_in) + 3) & ~static_cast<DWORD>(3);
    if (m_pACL != nullptr) {
        HeapFree(GetProcessHeap(), 0, m_pACL);
    }
    m_pACL = static_cast<PACL>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, l_dwordACLSize));
    if (m_pACL == nullptr) {
        return FALSE;
    }
    if (!InitializeAcl(m_pACL, l_dwordACLSize, ACL_REVISION)) {
        TraceLastError(L"CDorWEXWMIWPDNamedPipeBase::CreateSecurityDescriptor, InitializeAcl failed %x: %s.\n",
                       GetLastError());
        return FALSE;
    }
    // The system reads the entries in order and stops at the first that denies a wanted right: the denial
    // comes first, or the grant to Everyone would let a network logon in. Every entry is attempted even
    // when one before it fails.
    const BOOL l_BOOLNetwork = AddAccessDeniedAce(m_pACL, ACL_REVISION, kNetworkDenied, l_SIDNetwork);
    if (!l_BOOLNetwork) {
        TraceLastError(L"CDorWEXWMIWPDNamedPipeBase::CreateSecurityDescriptor, Network AddAccessDeniedAce failed "
                       L"%x: %s.\n",
                       GetLastError());
    }
    const BOOL l_BOOLInternal = AddAccessAllowedAce(m_pACL, ACL_REVISION, kOwnerAccess, pSIDInternal_in);
    if (!l_BOOLInternal) {
        TraceLastError(L"CDorWEXWMIWPDNamedPipeBase::CreateSecurityDescriptor, Internal AddAccessAllowedAce failed "
                       L"%x: %s.\n",
                       GetLastError());
    }
    const BOOL l_BOOLExternal = AddAccessAllowedAce(m_pACL, ACL_REVISION, kEveryoneAccess, pSIDExternal_in);
    if (!l_BOOLExternal) {
        TraceLastError(L"CDorWEXWMIWPDNamedPipeBase::CreateSecurityDescriptor, External AddAccessAllowedAce failed "
                       L"%x: %s.\n",
                       GetLastError());
    }
    if (!l_BOOLNetwork || !l_BOOLInternal || !l_BOOLExternal ||
        !SetSecurityDescriptorDacl(pDescriptor_io, TRUE, m_pACL, FALSE)) {
        return FALSE;
    }
    Trace(L"CDorWEXWMIWPDNamedPipeBase::CreateSecurityDescriptor, succeeded.\n");
    return TRUE;
}

BOOL CDorWEXWMIWPDNamedPipeBase::SetupNamedPipe(SECURITY_DESCRIPTOR* pDescriptor_in, const wchar_t* pwcharPipeName_in) {
    for (DWORD l_dwordIndex = 0; l_dwordIndex < kInstances; ++l_dwordIndex) {
        if (m_Events[l_dwordIndex] != nullptr) {
            CloseHandle(m_Events[l_dwordIndex]);
            m_Events[l_dwordIndex] = nullptr;
        }
    }
    ZeroMemory(m_Instances, sizeof(m_Instances));
    for (auto& l_Instance : m_Instances) {
        l_Instance.pipe = INVALID_HANDLE_VALUE;
    }
    SECURITY_ATTRIBUTES l_SecurityAttributes = {sizeof(SECURITY_ATTRIBUTES), pDescriptor_in, FALSE};
    for (DWORD l_dwordIndex = 0; l_dwordIndex < kInstances; ++l_dwordIndex) {
        PipeInstance& l_Instance = m_Instances[l_dwordIndex];
        m_Events[l_dwordIndex] = CreateEventW(nullptr, TRUE, TRUE, nullptr);
        if (m_Events[l_dwordIndex] == nullptr) {
            TraceLastError(L"CDorWEXWMIWPDNamedPipeBase::CreateEvent, Instance=%ld, CreateNamedPipe failed %x: %s.\n",
                           static_cast<LONG>(l_dwordIndex), GetLastError());
            Trace(L"CDorWEXWMIWPDNamedPipeBase::SetupNamedPipe, ERROR: for %s failed.\n", pwcharPipeName_in);
            return FALSE;
        }
        l_Instance.overlapped.hEvent = m_Events[l_dwordIndex];
        l_Instance.pipe = CreateNamedPipeW(pwcharPipeName_in, kOpenMode, kPipeMode, kInstances, kBufferSize,
                                           kBufferSize, 0, &l_SecurityAttributes);
        if (l_Instance.pipe == INVALID_HANDLE_VALUE) {
            TraceLastError(L"CDorWEXWMIWPDNamedPipeBase::SetupNamedPipe, Instance=%ld, CreateNamedPipe failed %x: %s.\n",
                           static_cast<LONG>(l_dwordIndex), GetLastError());
            CloseHandle(m_Events[l_dwordIndex]);
            m_Events[l_dwordIndex] = nullptr;
            l_Instance.overlapped.hEvent = nullptr;
            Trace(L"CDorWEXWMIWPDNamedPipeBase::SetupNamedPipe, ERROR: for %s failed.\n", pwcharPipeName_in);
            return FALSE;
        }
        l_Instance.pendingIO = ConnectToNewClient(l_Instance.pipe, &l_Instance.overlapped);
        l_Instance.state = l_Instance.pendingIO ? CONNECTING_STATE : READING_STATE;
    }
    Trace(L"CDorWEXWMIWPDNamedPipeBase::SetupNamedPipe, for %s succeeded.\n", pwcharPipeName_in);
    return TRUE;
}

BOOL CDorWEXWMIWPDNamedPipeBase::ConnectToNewClient(HANDLE handlePipe_in, OVERLAPPED* pOverlapped_in) {
    Trace(L"CDorWEXWMIWPDNamedPipeBase::ConnectToNewClient: entered...");
    pOverlapped_in->Offset = 0;
    if (ConnectNamedPipe(handlePipe_in, pOverlapped_in)) {
        TraceLastError(L"CDorWEXWMIWPDNamedPipeBase::ConnectToNewClient, ConnectNamedPipe(2) failed %x: %s.\n",
                       GetLastError());
        return FALSE;
    }
    const DWORD l_dwordError = GetLastError();
    switch (l_dwordError) {
    case ERROR_IO_PENDING:
        return TRUE;
    case ERROR_PIPE_CONNECTED:
        // The client came between creation and connect: serve it at once.
        if (!SetEvent(pOverlapped_in->hEvent)) {
            TraceLastError(L"CDorWEXWMIWPDNamedPipeBase::ConnectToNewClient, ConnectNamedPipe(1) failed %x: %s.\n",
                           GetLastError());
        }
        return FALSE;
    default:
        TraceLastError(L"CDorWEXWMIWPDNamedPipeBase::ConnectToNewClient, ConnectNamedPipe(1) failed %x: %s.\n",
                       l_dwordError);
        return FALSE;
    }
}

void CDorWEXWMIWPDNamedPipeBase::DisconnectAndReconnect(DWORD dwordInstance_in) {
    Trace(L"CDorWEXWMIWPDNamedPipeBase::DisconnectAndReconnect: entered...");
    PipeInstance& l_Instance = m_Instances[dwordInstance_in];
    if (!DisconnectNamedPipe(l_Instance.pipe)) {
        TraceLastError(L"CDorWEXWMIWPDNamedPipeBase::DisconnectAndReconnect, Instance=%ld, DisconnectNamedPipe failed "
                       L"%x: %s.\n",
                       static_cast<LONG>(dwordInstance_in), GetLastError());
    }
    l_Instance.pendingIO = ConnectToNewClient(l_Instance.pipe, &l_Instance.overlapped);
    l_Instance.state = l_Instance.pendingIO ? CONNECTING_STATE : READING_STATE;
}

int CDorWEXWMIWPDNamedPipeBase::ProcessPipe() {
    Trace(L"CDorWEXWMIWPDNamedPipeBase::ProcessPipe: entered...");
    // A wait names the lowest signalled handle: with the stop event last, clients writing without pause
    // would keep it from ever being seen. The wait takes it first, so a stop wins over any instance at no
    // extra call per message.
    HANDLE l_Waits[kInstances + 1];
    l_Waits[0] = m_Events[kInstances];
    std::copy(m_Events, m_Events + kInstances, l_Waits + 1);
    for (;;) {
        const DWORD l_dwordWait = WaitForMultipleObjects(kInstances + 1, l_Waits, FALSE, INFINITE);
        DWORD l_dwordIndex = l_dwordWait - WAIT_OBJECT_0;  // a result out of range is traced as it came
        if (l_dwordIndex == 0) {
            l_dwordIndex = kInstances;
        } else if (l_dwordIndex <= kInstances) {
            --l_dwordIndex;
        }
        if (l_dwordIndex > kInstances) {
            Trace(L"CDorWEXWMIWPDNamedPipeBase::ProcessPipe, ERROR: Instance=%ld IS OUT OF RANGE, thread is exiting",
                  static_cast<LONG>(l_dwordIndex));
            return 0;
        }
        if (l_dwordIndex == kInstances) {
            Trace(L"CDorWEXWMIWPDNamedPipeBase::ProcessPipe, request to stop received...");
            return 0;
        }
        PipeInstance& l_Instance = m_Instances[l_dwordIndex];
        if (l_Instance.pendingIO) {
            DWORD l_dwordBytes = 0;
            const BOOL l_BOOLDone = GetOverlappedResult(l_Instance.pipe, &l_Instance.overlapped, &l_dwordBytes, FALSE);
            switch (l_Instance.state) {
            case CONNECTING_STATE:
                if (!l_BOOLDone) {
                    TraceLastError(L"CDorWEXWMIWPDNamedPipeBase::ProcessPipe, Instance=%ld, ERROR: %x: %s, thread is "
                                   L"exiting\n",
                                   static_cast<LONG>(l_dwordIndex), GetLastError());
                    return 0;
                }
                l_Instance.state = READING_STATE;
                break;
            case READING_STATE:
                if (!l_BOOLDone || l_dwordBytes == 0) {
                    DisconnectAndReconnect(l_dwordIndex);
                    continue;
                }
                ProcessData(l_Instance);
                l_Instance.bytesRead = l_dwordBytes;
                break;
            case WRITING_STATE:
                if (!l_BOOLDone || l_dwordBytes != l_Instance.bytesToWrite) {
                    DisconnectAndReconnect(l_dwordIndex);
                    continue;
                }
                l_Instance.state = READING_STATE;
                break;
            default:
                Trace(L"CDorWEXWMIWPDNamedPipeBase::ProcessPipe, ERROR: Invalid pipe state(1), thread is exiting\n");
                return 0;
            }
        }
        switch (l_Instance.state) {
        case READING_STATE:
            ZeroMemory(l_Instance.request, sizeof(l_Instance.request));
            // A read that completes at once (the client wrote before the read was posted) has signalled its
            // event like a pending one: its result is collected on the next wait. Only a read that failed
            // for another reason than being pending ends the connection.
            if (ReadFile(l_Instance.pipe, l_Instance.request, kBufferSize, nullptr, &l_Instance.overlapped) ||
                GetLastError() == ERROR_IO_PENDING) {
                l_Instance.pendingIO = TRUE;
            } else {
                DisconnectAndReconnect(l_dwordIndex);
            }
            break;
        case WRITING_STATE: {
            Trace(L"CDorWEXWMIWPDNamedPipeBase::ProcessPipe: WriteFile...");
            DWORD l_dwordWritten = 0;
            const BOOL l_BOOLWritten = WriteFile(l_Instance.pipe, l_Instance.request, l_Instance.bytesToWrite,
                                                 &l_dwordWritten, &l_Instance.overlapped);
            if (l_BOOLWritten && l_dwordWritten == l_Instance.bytesToWrite) {
                l_Instance.state = READING_STATE;
                l_Instance.pendingIO = FALSE;
            } else if (!l_BOOLWritten && GetLastError() == ERROR_IO_PENDING) {
                l_Instance.pendingIO = TRUE;
            } else {
                DisconnectAndReconnect(l_dwordIndex);
            }
            break;
        }
        default:
            Trace(L"CDorWEXWMIWPDNamedPipeBase::ProcessPipe, ERROR: Invalid pipe state(2), thread is exiting\n");
            return 0;
        }
    }
}

void CDorWEXWMIWPDNamedPipeBase::ClosePipe() {
    Trace(L"CDorWEXWMIWPDNamedPipeBase::ClosePipe: entered...");
    for (auto& l_Instance : m_Instances) {
        if (l_Instance.pipe != INVALID_HANDLE_VALUE) {
            FlushFileBuffers(l_Instance.pipe);
            DisconnectNamedPipe(l_Instance.pipe);
            CloseHandle(l_Instance.pipe);
            l_Instance.pipe = INVALID_HANDLE_VALUE;
        }
    }
    Trace(L"CDorWEXWMIWPDNamedPipeBase::ClosePipe: exit.");
}

LONG CDorWEXWMIWPDNamedPipeBase::ProcessIdFromText(const std::wstring& wstringText_in) {
    const int l_intBytes =
        WideCharToMultiByte(CP_THREAD_ACP, 0, wstringText_in.c_str(), -1, nullptr, 0, nullptr, nullptr);
    if (l_intBytes <= 0) {
        return 0;
    }
    std::string l_stringAnsi(static_cast<size_t>(l_intBytes), '\0');
    if (WideCharToMultiByte(CP_THREAD_ACP, 0, wstringText_in.c_str(), -1, &l_stringAnsi[0], l_intBytes, nullptr,
                            nullptr) <= 0) {
        return 0;
    }
    return atol(l_stringAnsi.c_str());
}

void CDorWEXWMIWPDNamedPipeBase::SimulateWPDWriteEvent(const wchar_t* pwcharDeviceKey_in, const wchar_t* pwcharPath_in,
                                                       const wchar_t* pwcharLocalFileName_in,
                                                       DWORD dwordProcessId_in) {
    Trace(L"CDorWEXWMIWPDNamedPipeBase::SimulateWPDWriteEvent enter.");
    if (m_pDevices == nullptr) {
        return;
    }
    const auto l_pDevice = m_pDevices->FindWPDObject(pwcharDeviceKey_in, pwcharPath_in);
    if (l_pDevice) {
        l_pDevice->SimulateWPDWriteEvent(pwcharPath_in, pwcharLocalFileName_in, pwcharLocalFileName_in,
                                         dwordProcessId_in);
    }
}

HRESULT CDorWEXWMIWPDNamedPipeBase::Serve(const wchar_t* pwcharPipeName_in, const wchar_t* pwcharSetupFailure_in) {
    SECURITY_DESCRIPTOR l_SecurityDescriptor = {};
    if (!GetInternalProcessOwnerSID(&l_SecurityDescriptor)) {
        // No pipe without its descriptor: the loop runs on no instance events, its first wait fails and it
        // ends; the worker ends with success and its monitor starts it again.
        Trace(L"CDorWEXWMIWPDNamedPipeBase::Initialize, ERROR: GetNamedPipeSecurityDescriptor failed.\n");
    } else if (!SetupNamedPipe(&l_SecurityDescriptor, pwcharPipeName_in)) {
        if (pwcharSetupFailure_in != nullptr) {
            Trace(pwcharSetupFailure_in);
        }
        ClosePipe();
        return E_FAIL;
    }
    ProcessPipe();
    ClosePipe();
    return S_OK;
}
