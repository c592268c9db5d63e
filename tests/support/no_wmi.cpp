// Keeps the provider code of a test program from reaching a WMI service registered in the prefix: the
// administrative locator of this process refuses every connection, so instance publication fails (and is
// traced) instead of loading a second copy of the provider into the test program.
#include <objbase.h>
#include <wbemcli.h>

#include <gtest/gtest.h>

namespace {

// {CB8555CC-9128-11D1-AD9B-00C04FD8FDFF}
constexpr CLSID kCLSID_WbemAdministrativeLocator = {
    0xcb8555cc, 0x9128, 0x11d1, {0xad, 0x9b, 0x00, 0xc0, 0x4f, 0xd8, 0xfd, 0xff}};

class RefusingFactory : public IClassFactory {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
        if (riid == IID_IUnknown || riid == IID_IClassFactory) {
            *ppv = this;
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown*, REFIID, void** ppv) override {
        *ppv = nullptr;
        return CLASS_E_CLASSNOTAVAILABLE;
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }
};

RefusingFactory g_factory;

class NoWmi : public testing::Environment {
public:
    void SetUp() override {
        ASSERT_EQ(CoRegisterClassObject(kCLSID_WbemAdministrativeLocator, &g_factory, CLSCTX_INPROC_SERVER,
                                        REGCLS_MULTIPLEUSE, &m_cookie),
                  S_OK);
    }
    void TearDown() override { CoRevokeClassObject(m_cookie); }

private:
    DWORD m_cookie = 0;
};

const auto* const g_noWmi = testing::AddGlobalTestEnvironment(new NoWmi);

// The locator as the provider code creates it is refused.
TEST(NoWmi, AdministrativeLocatorIsRefusedInThisProcess) {
    IWbemLocator* locator = nullptr;
    EXPECT_EQ(CoCreateInstance(kCLSID_WbemAdministrativeLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                               reinterpret_cast<void**>(&locator)),
              CLASS_E_CLASSNOTAVAILABLE);
}

}  // namespace
