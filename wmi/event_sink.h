// What the monitoring core publishes through: a provider object of this module. WMI releases and reloads
// provider objects whenever it likes, so the core keeps plain pointers and takes a reference only for the
// time one event is on its way.
#pragma once

#include <windows.h>
#include <unknwn.h>

#include "../common/wpd_event.h"

class IDorWEXEventSink : public IUnknown {
public:
    // A reference for a caller that found the object through a plain pointer: false once the count has
    // reached 0, when the object is already being destroyed.
    virtual bool TryAddRef() = 0;
    // Whether WMI gave this object a sink for events (ProvideEvents): only such an object can deliver them.
    virtual bool ProvidesEvents() const = 0;
    // Raises a Win32ext_WPDEvent with the twelve texts, each of which may be null.
    virtual HRESULT SendEvent(const DorWEXWPDEvent& event_in) = 0;

protected:
    ~IDorWEXEventSink() = default;
};
