// What the monitoring core publishes through: a provider object of this module. WMI releases and reloads
// provider objects whenever it likes, so the core keeps plain pointers and takes a reference only for the
// time one event is on its way.
#pragma once

#include <windows.h>
#include <comdef.h>
#include <unknwn.h>

class IDorWEXEventSink : public IUnknown {
public:
    // A reference for a caller that found the object through a plain pointer: false once the count has
    // reached 0, when the object is already being destroyed.
    virtual bool TryAddRef() = 0;
    // Whether WMI gave this object a sink for events (ProvideEvents): only such an object can deliver them.
    virtual bool ProvidesEvents() const = 0;
    // Raises a Win32ext_WPDEvent with the twelve texts, each of which may be null.
    virtual HRESULT SendEvent(const wchar_t* pwcharEventId_in, const wchar_t* pwcharObjectId_in,
                              const wchar_t* pwcharObjectDeviceId_in,
                              const wchar_t* pwcharObjectDevicePersistentUniqueId_in,
                              const wchar_t* pwcharObjectParentId_in, const wchar_t* pwcharObjectName_in,
                              const wchar_t* pwcharTargetPath_in, const wchar_t* pwcharSourcePath_in,
                              const wchar_t* pwcharDeviceName_in, const wchar_t* pwcharOriginalFileName_in,
                              const _bstr_t& bstr_tEventText_in, const wchar_t* pwcharPID_in) = 0;

protected:
    ~IDorWEXEventSink() = default;
};
