// The twelve texts of one Win32ext_WPDEvent, as a device raises it and the provider delivers it. Each may be
// null, which the event carries as the empty text. The texts belong to the caller for the time of the call.
#pragma once

struct DorWEXWPDEvent {
    const wchar_t* pwcharEventId = nullptr;
    const wchar_t* pwcharObjectId = nullptr;
    const wchar_t* pwcharObjectDeviceId = nullptr;
    const wchar_t* pwcharObjectDevicePersistentUniqueId = nullptr;
    const wchar_t* pwcharObjectParentId = nullptr;
    const wchar_t* pwcharObjectName = nullptr;
    const wchar_t* pwcharTargetPath = nullptr;
    const wchar_t* pwcharSourcePath = nullptr;
    const wchar_t* pwcharDeviceName = nullptr;
    const wchar_t* pwcharOriginalFileName = nullptr;
    const wchar_t* pwcharEventText = nullptr;
    const wchar_t* pwcharPID = nullptr;
};
