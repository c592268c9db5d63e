// The process-wide monitoring core: the WPD events processor, the device collection, the companion
// processors started on demand, and the write tokens handed to processes.
#pragma once

#include <windows.h>
#include <comdef.h>
#include <dbt.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "device_host.h"
#include "monitor.h"
#include "write_tokens.h"

class IDorWEXEventSink;
class IDorWEXWPDDevice;
class CDorWEXWPDCollection;
class CDorWEXWMIThreadBase;
class CDorWEXWMIThreadWPDEventsProcessor;
class CDorWEXWMIThreadAppleEventsProcessor;
class CDorWEXWMIThreadBlackBerryEventsProcessor;

class CDorWEXWMIWPDCore final : public IDorWEXMonitor, public IDorWEXDeviceHost, public IDorWEXWriteTokens {
public:
    // Creates the device collection; pOwner_in is the provider the core publishes through.
    explicit CDorWEXWMIWPDCore(IDorWEXEventSink* pOwner_in = nullptr);
    ~CDorWEXWMIWPDCore() override;
    CDorWEXWMIWPDCore(const CDorWEXWMIWPDCore&) = delete;
    CDorWEXWMIWPDCore& operator=(const CDorWEXWMIWPDCore&) = delete;

    // IDorWEXMonitor
    int Initialize() override;
    void Shutdown() override;
    void AttachProvider(IDorWEXEventSink* pProvider_in) override;
    void DetachProvider(IDorWEXEventSink* pProvider_in) override;
    IDorWEXDeviceRegistry* Devices() override;
    IDorWEXDeviceRegistry* DevicesWhenStarted() override;
    IDorWEXWriteTokens& WriteTokens() override { return *this; }
    IDorWEXDeviceHost& DeviceHost() override { return *this; }

    // IDorWEXDeviceHost
    HRESULT SendEvent(const DorWEXWPDEvent& event_in) override;
    void PostDiskMount(const wchar_t* pwcharPnPDeviceId_in) override;

    // IDorWEXWriteTokens
    _bstr_t RequestWPDWriteToken(DWORD dwordProcessId_in) override;
    DWORD GetPidForWriteToken(const wchar_t* pwcharToken_in) override;

    // Each returns 1. Start is called when the first device of the kind arrives, Stop when the last leaves.
    int StartAppleMonitoring();
    int StartBlackBerryMonitoring();
    int StopAppleMonitoring();
    int StopBlackBerryMonitoring();
    // The list of watched BlackBerry shares, kept by the BlackBerry processor's listener; 0 without one.
    int AddBlackBerryToMonitoring(IDorWEXWPDDevice* pDevice_in);
    int RemoveBlackBerryFromMonitoring(IDorWEXWPDDevice* pDevice_in);
    // Frees the stopped companion processors whose threads have ended since their stop gave up waiting
    // (each start and stop does the same) and returns how many are still kept.
    size_t ReapRetiredProcessors();
    bool HasAppleMonitoring() const { return m_longAppleMonitoring != 0; }
    bool HasBlackBerryMonitoring() const { return m_longBlackBerryMonitoring != 0; }

    // Disk mounts the listener recorded (its worker thread is the only writer): interface name -> a copy
    // of the notification record, allocated with the COM task allocator.
    std::map<std::wstring, DEV_BROADCAST_DEVICEINTERFACE_W*>& GetDiskMountMap() { return m_DiskMountMap; }
    std::mutex& GetDiskMountLock() { return m_mutexDiskMounts; }

    CDorWEXWPDCollection* GetCollection() const { return m_pCollection.get(); }
    CDorWEXWMIThreadWPDEventsProcessor* GetWPDEventsProcessor() const { return m_pWPDEventsProcessor.get(); }
    CDorWEXWMIThreadAppleEventsProcessor* GetAppleEventsProcessor() const { return m_pAppleEventsProcessor.get(); }
    CDorWEXWMIThreadBlackBerryEventsProcessor* GetBlackBerryEventsProcessor() const {
        return m_pBlackBerryEventsProcessor.get();
    }

private:
    void AddAttachedDevices();
    void OpenStartupDevices();
    static DWORD WINAPI StartupThread(LPVOID pCore_in);
    static DWORD WINAPI OpenerThread(LPVOID pCore_in);
    template <class Processor>
    void StopCompanion(std::unique_ptr<Processor>& pProcessor_io);
    void RetireProcessor(std::unique_ptr<CDorWEXWMIThreadBase> pProcessor_in);

    LONG m_longAppleMonitoring = 0;       // 1 while an Apple processor exists
    LONG m_longBlackBerryMonitoring = 0;  // 1 while a BlackBerry processor exists
    std::map<std::wstring, DEV_BROADCAST_DEVICEINTERFACE_W*> m_DiskMountMap;
    std::mutex m_mutexDiskMounts;
    std::unique_ptr<CDorWEXWMIThreadWPDEventsProcessor> m_pWPDEventsProcessor;
    std::unique_ptr<CDorWEXWMIThreadAppleEventsProcessor> m_pAppleEventsProcessor;
    std::unique_ptr<CDorWEXWMIThreadBlackBerryEventsProcessor> m_pBlackBerryEventsProcessor;
    std::atomic<IDorWEXEventSink*> m_pOwner;
    std::mutex m_mutexProviders;
    std::vector<IDorWEXEventSink*> m_Providers;  // attached provider objects, oldest first
    std::unique_ptr<CDorWEXWPDCollection> m_pCollection;
    // Starting and stopping companion processors happens on whichever thread adds or removes a device.
    std::mutex m_mutexCompanions;
    // Stopped processors whose threads had not ended when their stop gave up waiting (m_mutexCompanions).
    std::vector<std::unique_ptr<CDorWEXWMIThreadBase>> m_RetiredProcessors;
    std::map<std::wstring, DWORD> m_WriteTokens;  // token -> process id
    // The thread that adds the devices attached at the start, and the event it sets when it is done (set
    // from the beginning when there is nothing to add). It opens them with up to kMostOpeningAtOnce
    // threads at once, itself included, and waits for those it started; m_longStopStartup ends each
    // between two devices. The ids listed at the start, and the next one to open.
    static constexpr size_t kMostOpeningAtOnce = 16;
    std::vector<std::wstring> m_StartupIds;
    std::atomic<size_t> m_sizeNextStartupId{0};
    HANDLE m_HANDLEStartupThread = nullptr;
    HANDLE m_HANDLEStarted = nullptr;
    volatile LONG m_longStopStartup = 0;
    std::mutex m_mutexWriteTokens;
};
