// The process-wide monitoring core. The module creates it with the first provider and shuts it down on
// unload; this declares what the shutdown path needs: whether companion monitoring is running and how
// to stop it.
#pragma once

#include <windows.h>

class CDorWEXWMIWPDCore {
public:
    CDorWEXWMIWPDCore();
    ~CDorWEXWMIWPDCore();
    CDorWEXWMIWPDCore(const CDorWEXWMIWPDCore&) = delete;
    CDorWEXWMIWPDCore& operator=(const CDorWEXWMIWPDCore&) = delete;

    bool HasAppleMonitoring() const { return m_longAppleMonitoring != 0; }
    bool HasBlackBerryMonitoring() const { return m_longBlackBerryMonitoring != 0; }

    // Each returns 1. The companion processors they start and stop arrive with the Apple and BlackBerry
    // channels; until then only the monitoring flags move.
    int StartAppleMonitoring();
    int StartBlackBerryMonitoring();
    int StopAppleMonitoring();
    int StopBlackBerryMonitoring();

private:
    // 1 while a companion worker exists.
    LONG m_longAppleMonitoring = 0;
    LONG m_longBlackBerryMonitoring = 0;
};
