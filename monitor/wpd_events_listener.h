// The hidden window on the WPD processor's worker thread that receives the system's device-interface
// notifications.
#pragma once

#include <windows.h>
#include <dbt.h>

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

    HWND GetWindow() const { return m_HWND; }
    CDorWEXWMIWPDCore* GetOwner() const { return m_pOwner; }

    static LRESULT CALLBACK dorWEXWMIWPDWindowProcCallback(HWND hwnd_in, UINT uintMessage_in, WPARAM wParam_in,
                                                           LPARAM lParam_in);

private:
    HDEVNOTIFY m_HDEVNOTIFYWPD = nullptr;
    HDEVNOTIFY m_HDEVNOTIFYWCEUSBS = nullptr;  // only ever unregistered
    HWND m_HWND = nullptr;
    CDorWEXWMIWPDCore* m_pOwner;
    DEV_BROADCAST_DEVICEINTERFACE_W m_DEV_BROADCAST_DEVICEINTERFACEFilter{};
    CDorWEXWMIThreadWPDEventsProcessor* m_pProcessor = nullptr;
};
