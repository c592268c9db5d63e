#include "pnp_topology.h"

#include "../wmi/trace.h"

HRESULT CDorWEXWPDObjectInWin32::ProcessDeviceNotification(const wchar_t* pwcharName_in, int /*intMode_in*/) {
    if (pwcharName_in == nullptr) {
        return E_FAIL;
    }
    Trace(L"CDorWEXWPDObjectInWin32::ProcessDeviceNotification entered for %s\n", pwcharName_in);
    m_wstringName = pwcharName_in;
    for (auto& l_NodeEntry : m_NodeEntries) {
        l_NodeEntry = NodeEntry{};
    }
    return S_OK;
}
