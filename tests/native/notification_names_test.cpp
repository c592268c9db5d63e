#include "monitor/notification_names.h"

#include <gtest/gtest.h>

TEST(MultiFactorEventName, BackslashesBecomeTildesAndAllIsUpperCase) {
    EXPECT_EQ(dorwex::MultiFactorEventName(L"ONLINE", L"\\\\?\\usb#vid_1"), L"DORWEXEVENTONLINE~~?~USB#VID_1");
    EXPECT_EQ(dorwex::MultiFactorEventName(L"OFFLINE", L"\\\\?\\usb#vid_04e8&pid_6860#{6ac27878-a6fa}"),
              L"DORWEXEVENTOFFLINE~~?~USB#VID_04E8&PID_6860#{6AC27878-A6FA}");
    EXPECT_EQ(dorwex::MultiFactorEventName(L"ONLINE", L""), L"DORWEXEVENTONLINE");
}
