// A provider object made as WMI makes one: the module's class factory from DllGetClassObject, then
// CreateInstance for the interface asked for (null when either step fails, with the test failing).
#pragma once

#include <gtest/gtest.h>
#include <objbase.h>

#include "wmi/module.h"
#include "wmi/provider_clsid.h"

template <class I>
I* CreateProviderObject() {
    IClassFactory* factory = nullptr;
    EXPECT_EQ(DllGetClassObject(CLSID_DorWEXWPDWMIProvider, IID_IClassFactory, reinterpret_cast<void**>(&factory)),
              S_OK);
    if (factory == nullptr) {
        return nullptr;
    }
    I* object = nullptr;
    EXPECT_EQ(factory->CreateInstance(nullptr, __uuidof(I), reinterpret_cast<void**>(&object)), S_OK);
    factory->Release();
    return object;
}
