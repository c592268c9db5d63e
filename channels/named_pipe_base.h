// The server of a companion pipe: a security descriptor that lets the companion service (any local user)
// write and refuses network logons, four overlapped message-mode instances on one name that refuse clients
// on other computers, and a single-threaded loop that accepts clients, reads their messages and hands each
// one to ProcessData. The loop ends when the owning processor's stop event (events[4]) is signalled.
#pragma once

#include <windows.h>

#include <string>

class IDorWEXDeviceRegistry;

class CDorWEXWMIWPDNamedPipeBase {
public:
    static constexpr DWORD kInstances = 4;
    static constexpr DWORD kBufferSize = 8192;

    // How each instance is created. PIPE_REJECT_REMOTE_CLIENTS makes the pipe itself refuse clients on other
    // computers, whatever the descriptor says.
    static constexpr DWORD kOpenMode = PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED;
    static constexpr DWORD kPipeMode =
        PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS;

    enum PipeState : DWORD { CONNECTING_STATE = 0, READING_STATE = 1, WRITING_STATE = 2 };

    struct PipeInstance {
        OVERLAPPED overlapped;
        HANDLE pipe;
        BYTE request[kBufferSize];  // a message of UTF-16 text; not terminated when it fills the buffer
        DWORD bytesRead;
        BYTE reply[kBufferSize];
        DWORD bytesToWrite;
        DWORD state;
        BOOL pendingIO;
    };

    CDorWEXWMIWPDNamedPipeBase(IDorWEXDeviceRegistry* pDevices_in, HANDLE handleStopEvent_in);
    ~CDorWEXWMIWPDNamedPipeBase();
    CDorWEXWMIWPDNamedPipeBase(const CDorWEXWMIWPDNamedPipeBase&) = delete;
    CDorWEXWMIWPDNamedPipeBase& operator=(const CDorWEXWMIWPDNamedPipeBase&) = delete;

    // Receives a copy of the instance whose request holds the message just read.
    virtual int ProcessData(PipeInstance instance_in) = 0;

    // The security descriptor chain: the process owner's SID, then Everyone's, then the descriptor, whose
    // DACL denies network logons everything before it grants the owner and Everyone.
    BOOL GetInternalProcessOwnerSID(SECURITY_DESCRIPTOR* pDescriptor_io);
    BOOL GetExternalProcessOwnerSID(SECURITY_DESCRIPTOR* pDescriptor_io, PSID pSIDInternal_in);
    BOOL CreateSecurityDescriptor(SECURITY_DESCRIPTOR* pDescriptor_io, PSID pSIDInternal_in, PSID pSIDExternal_in);

    BOOL SetupNamedPipe(SECURITY_DESCRIPTOR* pDescriptor_in, const wchar_t* pwcharPipeName_in);
    BOOL ConnectToNewClient(HANDLE handlePipe_in, OVERLAPPED* pOverlapped_in);
    int ProcessPipe();
    void DisconnectAndReconnect(DWORD dwordInstance_in);
    void ClosePipe();

    // A process id as the companions send it: the text in the thread's ANSI code page, read by the C
    // runtime's atol (0 when it is not a number; full-width digits, for one, become digits).
    static LONG ProcessIdFromText(const std::wstring& wstringText_in);

    // Raises a write event for the device the collection finds by key and path, if any.
    void SimulateWPDWriteEvent(const wchar_t* pwcharDeviceKey_in, const wchar_t* pwcharPath_in,
                               const wchar_t* pwcharLocalFileName_in, DWORD dwordProcessId_in);

    // The listener's whole run: descriptor, set-up, loop, close. Returns E_FAIL (after tracing
    // pwcharSetupFailure_in, when given) when the pipe cannot be set up.
    HRESULT Serve(const wchar_t* pwcharPipeName_in, const wchar_t* pwcharSetupFailure_in);

protected:
    IDorWEXDeviceRegistry* m_pDevices;

private:
    PipeInstance m_Instances[kInstances];
    PACL m_pACL = nullptr;  // process heap
    HANDLE m_Events[kInstances + 1];
};
