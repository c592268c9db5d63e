// The write event of a file written through a companion channel: WPD never sees such a write, so the
// device raises the event a WPD object-added notification would have raised.
#include "wpd_object.h"

#include <string>

#include "../common/com_memory.h"
#include "../common/trace.h"
#include "../monitor/device_host.h"

namespace {

// WPD_EVENT_OBJECT_ADDED as text.
constexpr wchar_t kObjectAddedEventId[] = L"{A726DA95-E207-4B02-8D44-BEF2E86CBFFC}";

}  // namespace

int CDorWEXWPDObject::SimulateWPDWriteEvent(const wchar_t* pTCHARObjectStoragePath_in, const wchar_t* pwcharFileName_in,
                                            const wchar_t* pwcharObjectInfo_in, DWORD dwordNumber_in) {
    Trace(L"CDorWEXWPDObject::SimulateWPDWriteEvent enter.");
    if (pTCHARObjectStoragePath_in == nullptr) {
        Trace(L"CDorWEXWPDObject::SimulateWPDWriteEvent, ERROR: pTCHARObjectStoragePath_in == NULL.\n");
        return 0;
    }
    // Only the Apple companion knows where a storage path lies on an Apple device, and an empty answer names
    // no place; any other device's storage path is used as it stands.
    _bstr_t l_bstr_tDeviceAbsolutePath(pTCHARObjectStoragePath_in);
    if (Identity()->m_eManufacturer == Manufacturer::APPLE) {
        if (!GetAppleDeviceAbsolutePath(pTCHARObjectStoragePath_in, l_bstr_tDeviceAbsolutePath)) {
            return 0;
        }
        if (l_bstr_tDeviceAbsolutePath.length() == 0) {
            Trace(L"CDorWEXWPDObject::SimulateWPDWriteEvent, ERROR: l_bstr_tDeviceAbsolutePath.length()==0.\n");
            return 0;
        }
    }
    const wchar_t* l_pwcharFileName = pwcharFileName_in != nullptr ? pwcharFileName_in : L"";
    const wchar_t* l_pwcharObjectInfo = pwcharObjectInfo_in != nullptr ? pwcharObjectInfo_in : L"";
    std::wstring l_wstringText = L"Object Id: ";
    l_wstringText += l_pwcharFileName;
    l_wstringText += L" Object Name: ";
    l_wstringText += l_pwcharFileName;
    l_wstringText += L" Original File Name: ";
    l_wstringText += l_pwcharFileName;
    l_wstringText += L" Parent Id: ";
    l_wstringText += pTCHARObjectStoragePath_in;
    l_wstringText += L" Event: WPD_EVENT_OBJECT_ADDED";
    l_wstringText += L"Object Persistent Unique Id: ";
    l_wstringText += l_pwcharObjectInfo;
    const std::wstring l_wstringNumber = std::to_wstring(dwordNumber_in);

    Trace(L"CDorWEXWMIWPDCore::SendEvent enter.\n");
    if (m_pHost == nullptr) {
        return 0;
    }
    // The event's process is the one that raises it; the number the companion reported (the writer's
    // process id) stands where a WPD event has the object's persistent unique id, which a write has none of.
    const std::wstring l_wstringProcessId = std::to_wstring(GetCurrentProcessId());
    const auto l_pIdentity = Identity();
    DorWEXWPDEvent l_Event;
    l_Event.pwcharEventId = kObjectAddedEventId;
    l_Event.pwcharObjectId = l_pwcharFileName;
    l_Event.pwcharObjectDeviceId = BstrText(l_pIdentity->m_bstr_tDeviceId);
    l_Event.pwcharObjectDevicePersistentUniqueId = l_wstringNumber.c_str();
    l_Event.pwcharObjectParentId = pTCHARObjectStoragePath_in;
    l_Event.pwcharObjectName = l_pwcharFileName;
    l_Event.pwcharTargetPath = BstrText(l_bstr_tDeviceAbsolutePath);
    l_Event.pwcharSourcePath = BstrText(l_pIdentity->m_bstr_tDisk1Name);
    l_Event.pwcharDeviceName = BstrText(l_pIdentity->m_bstr_tFriendlyName);
    l_Event.pwcharOriginalFileName = l_pwcharFileName;
    l_Event.pwcharEventText = l_wstringText.c_str();
    l_Event.pwcharPID = l_wstringProcessId.c_str();
    m_pHost->SendEvent(l_Event);
    return 1;
}
