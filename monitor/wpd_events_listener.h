// The hidden window on the WPD processor's worker thread that receives the system's device-interface
// notifications.
#pragma once

#include <windows.h>
#include <dbt.h>

#include <objbase.h>

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>

#include "../common/pnp_guids.h"

// Tells the hidden window that disk mounts wait in its listener's queue. A message of the window's own
// class (WM_APP range, which no system message uses); it carries nothing: any process can post it to the
// window, and all it can cause is a look at the queue.
constexpr UINT kDiskMountsQueuedMessage = WM_APP + 1;

class CDorWEXWMIWPDCore;
class CDorWEXWMIThreadWPDEventsProcessor;

class CDorWEXWMIWPDEventsListener {
public:
    explicit CDorWEXWMIWPDEventsListener(CDorWEXWMIWPDCore* pOwner_in);
    ~CDorWEXWMIWPDEventsListener() = default;  // frees the records still queued
    CDorWEXWMIWPDEventsListener(const CDorWEXWMIWPDEventsListener&) = delete;
    CDorWEXWMIWPDEventsListener& operator=(const CDorWEXWMIWPDEventsListener&) = delete;

    // Creates the window and pumps its messages; returns when the pump ends.
    HRESULT CreateWindowForListening(CDorWEXWMIThreadWPDEventsProcessor* pProcessor_in);
    HRESULT ListenForWPDEvents();
    int RegisterWithOSToReceiveWPDEvents();

    // Called by the processor's Stop, from the stopping thread. The window and its class go on the worker's
    // own thread, when its pump has ended.
    void UnregisterWithOSToReceiveEvents();
    void DestroyWindowForListening();

    // The online handler (arrivals, and disk mounts that the event callback reports), the removal handler,
    // the disk-mount record and the service's named event. Each runs on the worker thread.
    void ProcessWPDOnline(WPARAM wParam_in, const DEV_BROADCAST_HDR* pDEV_BROADCAST_HDR_in);
    void ProcessWPDOfflineEvent(const DEV_BROADCAST_DEVICEINTERFACE_W* pRecord_in);
    int ProcessWPDDiskMount(const wchar_t* pwcharName_in, const DEV_BROADCAST_DEVICEINTERFACE_W* pRecord_in);
    BOOL HandleMultiFactorAuthenticationEvents(const wchar_t* pwcharName_in, const wchar_t* pwcharState_in);

    // Hands a disk mount of the interface name to the window's thread: queues a record of it and posts
    // kDiskMountsQueuedMessage. Any thread. Nothing is queued once the window is gone.
    void QueueDiskMount(const wchar_t* pwcharName_in);
    // On the window's thread: each queued record, oldest first, as a disk mount; then freed.
    void ProcessQueuedDiskMounts();
    // On the window's thread when it is destroyed: frees what is still queued and takes nothing more.
    void DropQueuedDiskMounts();

    HWND GetWindow() const { return m_HWND; }
    CDorWEXWMIWPDCore* GetOwner() const { return m_pOwner; }

    static LRESULT CALLBACK dorWEXWMIWPDWindowProcCallback(HWND hwnd_in, UINT uintMessage_in, WPARAM wParam_in,
                                                           LPARAM lParam_in);

private:
    HDEVNOTIFY m_HDEVNOTIFYWPD = nullptr;
    HDEVNOTIFY m_HDEVNOTIFYWCEUSBS = nullptr;  // only ever unregistered
    std::atomic<HWND> m_HWND{nullptr};  // read by a stopping thread
    CDorWEXWMIWPDCore* m_pOwner;
    DEV_BROADCAST_DEVICEINTERFACE_W m_DEV_BROADCAST_DEVICEINTERFACEFilter{};
    CDorWEXWMIThreadWPDEventsProcessor* m_pProcessor = nullptr;

    struct TaskMemFree {
        void operator()(void* pBlock_in) const { CoTaskMemFree(pBlock_in); }
    };
    using DiskMountRecord = std::unique_ptr<DEV_BROADCAST_DEVICEINTERFACE_W, TaskMemFree>;
    std::mutex m_mutexDiskMounts;  // guards the queue and the window-gone flag
    std::deque<DiskMountRecord> m_DiskMounts;
    bool m_boolWindowGone = false;
};
