// The BlackBerry channel: the BlackBerry companion service writes file-write reports and the credentials
// of the device's storage share into \\.\pipe\dorWEX14BlackBerryPipe. Reports raise the device's write
// event; credentials connect the share, once per set of credentials. The listener also keeps the list of
// BlackBerry devices whose shares are watched.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "companion_channels.h"
#include "named_pipe_base.h"

inline constexpr wchar_t kDorWEXBlackBerryPipeName[] = L"\\\\.\\pipe\\dorWEX14BlackBerryPipe";

class CDorWEXWMIBlackBerryNamedPipe : public CDorWEXWMIWPDNamedPipeBase {
public:
    // The last connection made with a storage's credentials. The password lives here only, in memory.
    struct ShareConnection {
        LONG result = -1;
        ULONG tries = 0;
        std::wstring share;
        std::wstring user;
        std::wstring password;
    };
    // Failed attempts after which one more message with the same credentials is skipped.
    static constexpr ULONG kTryLimit = 10;

    using CDorWEXWMIWPDNamedPipeBase::CDorWEXWMIWPDNamedPipeBase;
    ~CDorWEXWMIBlackBerryNamedPipe();

    int ProcessData(PipeInstance instance_in) override;
    // Credentials: 1 when the share is taken as already connected, else 0.
    int ProcessData2(const std::wstring& wstringMessage_in);
    bool FilterShare(const std::wstring& wstringShare_in);
    int ProcessCredentials(const std::wstring& wstringShare_in, const std::wstring& wstringUser_in,
                           const std::wstring& wstringPassword_in);

    const ShareConnection& Connection(int intIndex_in) const { return m_Connections[intIndex_in]; }

private:
    int ProcessFileWrite(const std::wstring& wstringMessage_in);
    bool IsAlreadyConnected(const std::wstring& wstringShare_in, const std::wstring& wstringUser_in,
                            const std::wstring& wstringPassword_in);

    ShareConnection m_Connections[2];  // the device's first and second storage
};

class CDorWEXWMIBlackBerryEventsListener final : public IDorWEXBlackBerryChannel {
public:
    // A watched device and its share access; neither is owned.
    struct DiskProperties {
        IDorWEXWPDDevice* pCDorWEXWPDObject;
        bool boolShareAccess;
    };

    explicit CDorWEXWMIBlackBerryEventsListener(IDorWEXDeviceRegistry* pDevices_in) : m_pDevices(pDevices_in) {}
    ~CDorWEXWMIBlackBerryEventsListener() override;

    HRESULT ListenForBlackBerryEvents(HANDLE handleStopEvent_in);
    HRESULT Listen(HANDLE handleStopEvent_in) override { return ListenForBlackBerryEvents(handleStopEvent_in); }
    HRESULT ListenForBlackBerryEventsUsingNamedPipe();

    // 1 when the device was listed with its share access, else 0.
    int AddBlackBerryToMonitoring(IDorWEXWPDDevice* pCDorWEXWPDObject_in) override;
    // 1 when the device's entry was found and removed (its share disconnected first), else 0.
    int RemoveBlackBerryFromMonitoring(IDorWEXWPDDevice* pCDorWEXWPDObject_in) override;
    size_t MonitoredCount() override;

private:
    IDorWEXDeviceRegistry* m_pDevices;
    HANDLE m_handleStopEvent = nullptr;
    std::mutex m_mutexMonitoring;
    std::map<std::wstring, std::unique_ptr<DiskProperties>> m_mapOfUNCToDiskProperties;  // share name -> device
};
