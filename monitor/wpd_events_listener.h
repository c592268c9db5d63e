// The hidden window on the WPD processor's worker thread that receives the system's device-interface
// notifications.
#pragma once

#include <windows.h>
#include <dbt.h>

#include <atomic>

#include "../common/pnp_guids.h"


class CDorWEXWMIWPDCore;
class CDorWEXWMIThreadWPDEventsProcessor;

class CDorWEXWMIWPDEventsListener {
public:
    explicit CDorWEXWMIWPDEventsListener(CDorWEXWMIWPDCore* pOwner_in);
    ~CDorWEXWMIWPDEventsListener() = default;
    CDorWEXWMIWPDEventsListener(const CDorWEXWMIWPDEventsListener&) = delete;
    CDorWEXWMIWPDEventsListener& operator=(const CDorWEXWMIWPDEventsListener&) = delete;

    // Creates the window and pumps its messages; returns when the pump ends.
    HRESULT CreateWindowForListening(CDorWEXWMIThreadWPDEventsProcessor* pProcessor_in);
    HRESULT ListenForWPDEvents();
    int RegisterWithOSToReceiveWPDEvents();

    // Called by the processor's Stop, from the stopping thread.
    void UnregisterWithOSToReceiveEvents();
    void DestroyWindowForListening();
    void DestroyWindowClassForListening();

    // The online handler (arrivals, and disk mounts that the event callback reports), the removal handler,
    // the disk-mount record and the service's named event. Each runs on the worker thread.
    void ProcessWPDOnline(WPARAM wParam_in, const DEV_BROADCAST_HDR* pDEV_BROADCAST_HDR_in);
    void ProcessWPDOfflineEvent(const DEV_BROADCAST_DEVICEINTERFACE_W* pRecord_in);
    int ProcessWPDDiskMount(const wchar_t* pwcharName_in, const DEV_BROADCAST_DEVICEINTERFACE_W* pRecord_in);
    BOOL HandleMultiFactorAuthenticationEvents(const wchar_t* pwcharName_in, const wchar_t* pwcharState_in);

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
};
