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

class CDorWEXWPDObject;
class CDorWEXWPDWMI;
class CDorWEXWPDCollection;
class CDorWEXWMIThreadBase;
class CDorWEXWMIThreadWPDEventsProcessor;
class CDorWEXWMIThreadAppleEventsProcessor;
class CDorWEXWMIThreadBlackBerryEventsProcessor;

class CDorWEXWMIWPDCore {
public:
    // Creates the device collection; pOwner_in is the provider the core publishes through.
    explicit CDorWEXWMIWPDCore(CDorWEXWPDWMI* pOwner_in = nullptr);
    ~CDorWEXWMIWPDCore();
    CDorWEXWMIWPDCore(const CDorWEXWMIWPDCore&) = delete;
    CDorWEXWMIWPDCore& operator=(const CDorWEXWMIWPDCore&) = delete;

    // Starts the WPD events processor and adds the devices already attached; returns 1.
    int Initialize();

    // Each returns 1. Start is called when the first device of the kind arrives, Stop when the last leaves.
    int StartAppleMonitoring();
    int StartBlackBerryMonitoring();
    int StopAppleMonitoring();
    int StopBlackBerryMonitoring();
    // The list of watched BlackBerry shares, kept by the BlackBerry processor's listener; 0 without one.
    int AddBlackBerryToMonitoring(CDorWEXWPDObject* pDevice_in);
    int RemoveBlackBerryFromMonitoring(CDorWEXWPDObject* pDevice_in);
    // Frees the stopped companion processors whose threads have ended since their stop gave up waiting
    // (each start and stop does the same) and returns how many are still kept.
    size_t ReapRetiredProcessors();
    bool HasAppleMonitoring() const { return m_longAppleMonitoring != 0; }
    bool HasBlackBerryMonitoring() const { return m_longBlackBerryMonitoring != 0; }

    // A new token for a process the security service's hook accepted, or the empty string. A process keeps
    // at most one token: asking again drops the old one. A failing hook call raises a _com_error.
    _bstr_t RequestWPDWriteToken(DWORD dwordProcessId_in);
    // The process a token was handed to, or 0.
    DWORD GetPidForWriteToken(const wchar_t* pwcharToken_in);

    // Forwards an event to the provider the core currently publishes through; 0 when there is none.
    HRESULT SendEvent(const wchar_t* pwcharEventId_in, const wchar_t* pwcharObjectId_in,
                      const wchar_t* pwcharObjectDeviceId_in, const wchar_t* pwcharObjectDevicePersistentUniqueId_in,
                      const wchar_t* pwcharObjectParentId_in, const wchar_t* pwcharObjectName_in,
                      const wchar_t* pwcharTargetPath_in, const wchar_t* pwcharSourcePath_in,
                      const wchar_t* pwcharDeviceName_in, const wchar_t* pwcharOriginalFileName_in,
                      const _bstr_t& bstr_tEventText_in, const wchar_t* pwcharPID_in);

    // Disk mounts the listener recorded (its worker thread is the only writer): interface name -> a copy
    // of the notification record, allocated with the COM task allocator.
    std::map<std::wstring, DEV_BROADCAST_DEVICEINTERFACE_W*>& GetDiskMountMap() { return m_DiskMountMap; }
    std::mutex& GetDiskMountLock() { return m_mutexDiskMounts; }

    CDorWEXWPDWMI* GetOwner() const { return m_pOwner; }
    // Provider objects re-attach to the running core; the newest one is the one it publishes through. When
    // that one goes, the newest of those still alive takes over.
    void AttachProvider(CDorWEXWPDWMI* pProvider_in);
    void DetachProvider(CDorWEXWPDWMI* pProvider_in);
    CDorWEXWPDCollection* GetCollection() const { return m_pCollection.get(); }
    CDorWEXWMIThreadWPDEventsProcessor* GetWPDEventsProcessor() const { return m_pWPDEventsProcessor.get(); }
    CDorWEXWMIThreadAppleEventsProcessor* GetAppleEventsProcessor() const { return m_pAppleEventsProcessor.get(); }
    CDorWEXWMIThreadBlackBerryEventsProcessor* GetBlackBerryEventsProcessor() const {
        return m_pBlackBerryEventsProcessor.get();
    }

private:
    void AddAttachedDevices();
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
    std::atomic<CDorWEXWPDWMI*> m_pOwner;
    std::mutex m_mutexProviders;
    std::vector<CDorWEXWPDWMI*> m_Providers;  // attached provider objects, oldest first
    std::unique_ptr<CDorWEXWPDCollection> m_pCollection;
    // Starting and stopping companion processors happens on whichever thread adds or removes a device.
    std::mutex m_mutexCompanions;
    // Stopped processors whose threads had not ended when their stop gave up waiting (m_mutexCompanions).
    std::vector<std::unique_ptr<CDorWEXWMIThreadBase>> m_RetiredProcessors;
    std::map<std::wstring, DWORD> m_WriteTokens;  // token -> process id
    std::mutex m_mutexWriteTokens;
};
