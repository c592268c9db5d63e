#include "wpd_core.h"

#include "../wmi/trace.h"

CDorWEXWMIWPDCore::CDorWEXWMIWPDCore() {
    Trace(L"CDorWEXWMIWPDCore::CDorWEXWMIWPDCore");
}

CDorWEXWMIWPDCore::~CDorWEXWMIWPDCore() = default;

int CDorWEXWMIWPDCore::StartAppleMonitoring() {
    Trace(L"CDorWEXWMIWPDCore::StartAppleMonitoring");
    m_longAppleMonitoring = 1;
    return 1;
}

int CDorWEXWMIWPDCore::StartBlackBerryMonitoring() {
    Trace(L"CDorWEXWMIWPDCore::StartBlackBerryMonitoring");
    m_longBlackBerryMonitoring = 1;
    return 1;
}

int CDorWEXWMIWPDCore::StopAppleMonitoring() {
    Trace(L"CDorWEXWMIWPDCore::StopAppleMonitoring");
    m_longAppleMonitoring = 0;
    return 1;
}

int CDorWEXWMIWPDCore::StopBlackBerryMonitoring() {
    Trace(L"CDorWEXWMIWPDCore::StopBlackBerryMonitoring");
    m_longBlackBerryMonitoring = 0;
    return 1;
}
