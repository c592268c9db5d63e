// The WPD events processor: its worker owns the hidden window that receives device notifications; its
// monitor thread handles what the window procedure hands over through the application event.
#pragma once

#include <windows.h>

#include <atomic>
#include <mutex>

#include "thread_base.h"

class CDorWEXWMIWPDEventsListener;

// Process-wide state shared by the listener's window procedure and the monitor thread.
extern HANDLE g_HANDLEApplicationEvent;              // the WPD processor's application event
extern volatile LONG g_longWindowClosing;            // set once the hidden window got WM_CLOSE or WM_DESTROY

// The listener hands a notification to the monitor thread: queues the name (at most 511 characters) with
// the online flag (1 arrival, 0 removal) and signals the application event. Notifications wait in order;
// one that comes while the monitor handles another is handled after it.
void SetPendingDevice(const wchar_t* pwcharName_in, LONG longOnline_in);

class CDorWEXWMIThreadWPDEventsProcessor : public CDorWEXWMIThreadBase {
public:
    // Creates the application event (manual-reset, not signalled), also published process-wide.
    explicit CDorWEXWMIThreadWPDEventsProcessor(CDorWEXWMIWPDCore* pCore_in);
    ~CDorWEXWMIThreadWPDEventsProcessor() override;

    int Stop() override;
    int ProcessApplicationEvent() override;

    static DWORD WINAPI WorkerThreadWPDEventsProcessor(LPVOID pCDorWEXWMIThreadBase_in);

    // Publishes an arrived device as a Win32ext_WPD instance, or deletes the instance of a removed one,
    // through WMI (which hands both back to the provider). Each returns the last HRESULT.
    HRESULT OnlineEvent(const wchar_t* pwcharName_in);
    HRESULT OfflineEvent(const wchar_t* pwcharName_in);

    CDorWEXWMIWPDEventsListener* GetListener() const { return m_pListener; }

    // Guards the listener pointer, which a restarted worker replaces. Held only for short calls.
    std::unique_lock<std::mutex> LockListener() { return std::unique_lock<std::mutex>(m_mutexListener); }
    // Set from the start of a Stop to its end: a worker makes no window (or gives up the one it made).
    bool IsStopping() const { return m_boolStopping.load(); }

private:
    void ReplaceListener(CDorWEXWMIWPDEventsListener* pListener_in);

    CDorWEXWMIWPDEventsListener* m_pListener = nullptr;
    std::mutex m_mutexListener;
    std::atomic<bool> m_boolStopping{false};
};
