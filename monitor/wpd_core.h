// The process-wide monitoring core: the WPD events processor, the device collection, the companion
// processors started on demand, and the write tokens handed to processes.
#pragma once

#include <windows.h>
#include <comdef.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

class CDorWEXWPDWMI;
class CDorWEXWPDCollection;
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
    bool HasAppleMonitoring() const { return m_longAppleMonitoring != 0; }
    bool HasBlackBerryMonitoring() const { return m_longBlackBerryMonitoring != 0; }

    // A new token for a process the security service's hook accepted, or the empty string. A process keeps
    // at most one token: asking again drops the old one. A failing hook call raises a _com_error.
    _bstr_t RequestWPDWriteToken(DWORD dwordProcessId_in);
    // The process a token was handed to, or 0.
    DWORD GetPidForWriteToken(const wchar_t* pwcharToken_in);

    CDorWEXWPDWMI* GetOwner() const { return m_pOwner; }
    void SetOwner(CDorWEXWPDWMI* pOwner_in) { m_pOwner = pOwner_in; }
    CDorWEXWPDCollection* GetCollection() const { return m_pCollection.get(); }
    CDorWEXWMIThreadWPDEventsProcessor* GetWPDEventsProcessor() const { return m_pWPDEventsProcessor.get(); }
    CDorWEXWMIThreadAppleEventsProcessor* GetAppleEventsProcessor() const { return m_pAppleEventsProcessor.get(); }
    CDorWEXWMIThreadBlackBerryEventsProcessor* GetBlackBerryEventsProcessor() const {
        return m_pBlackBerryEventsProcessor.get();
    }

private:
    void AddAttachedDevices();

    LONG m_longAppleMonitoring = 0;       // 1 while an Apple processor exists
    LONG m_longBlackBerryMonitoring = 0;  // 1 while a BlackBerry processor exists
    std::unique_ptr<CDorWEXWMIThreadWPDEventsProcessor> m_pWPDEventsProcessor;
    std::unique_ptr<CDorWEXWMIThreadAppleEventsProcessor> m_pAppleEventsProcessor;
    std::unique_ptr<CDorWEXWMIThreadBlackBerryEventsProcessor> m_pBlackBerryEventsProcessor;
    CDorWEXWPDWMI* m_pOwner;
    std::unique_ptr<CDorWEXWPDCollection> m_pCollection;
    // Starting and stopping companion processors happens on whichever thread adds or removes a device.
    std::mutex m_mutexCompanions;
    std::map<std::wstring, DWORD> m_WriteTokens;  // token -> process id
    std::mutex m_mutexWriteTokens;
};
