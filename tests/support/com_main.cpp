// main() of test programs that use COM: the calling thread joins the multithreaded apartment, as WMI's
// threads do.
#include <objbase.h>

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    const int result = RUN_ALL_TESTS();
    CoUninitialize();
    return result;
}
