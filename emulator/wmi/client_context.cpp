#include "client_context.h"

#include <atomic>

#include "emulator/common/com_object.h"

namespace dorwex::emulator::wmi {

namespace {

std::atomic<int> g_mode{-1};
std::atomic<LONG> g_impersonations{0};
std::atomic<LONG> g_reverts{0};

class ServerSecurity final : public ComObject<IServerSecurity> {
public:
    HRESULT STDMETHODCALLTYPE QueryBlanket(DWORD* authnSvc, DWORD* authzSvc, OLECHAR** serverPrincName,
                                           DWORD* authnLevel, DWORD* impLevel, void** privs,
                                           DWORD* capabilities) override {
        if (authnSvc) *authnSvc = RPC_C_AUTHN_WINNT;
        if (authzSvc) *authzSvc = RPC_C_AUTHZ_NONE;
        if (serverPrincName) *serverPrincName = nullptr;
        if (authnLevel) *authnLevel = RPC_C_AUTHN_LEVEL_PKT_PRIVACY;
        if (impLevel) *impLevel = RPC_C_IMP_LEVEL_IMPERSONATE;
        if (privs) *privs = nullptr;
        if (capabilities) *capabilities = EOAC_NONE;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE ImpersonateClient() override {
        if (!ImpersonateSelf(SecurityImpersonation)) {
            return HRESULT_FROM_WIN32(GetLastError());
        }
        m_impersonating = true;
        ++g_impersonations;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE RevertToSelf() override {
        if (m_impersonating) {
            ::RevertToSelf();
            m_impersonating = false;
            ++g_reverts;
        }
        return S_OK;
    }
    BOOL STDMETHODCALLTYPE IsImpersonating() override { return m_impersonating ? TRUE : FALSE; }

private:
    bool m_impersonating = false;
};

}  // namespace

ClientCallScope::ClientCallScope(bool registeredForImpersonation) {
    const int mode = g_mode.load();
    if (mode == 0 || (mode != 1 && !registeredForImpersonation)) {
        return;
    }
    // COM keeps the context without a reference of its own: the scope holds it until it switches back.
    m_context = new ServerSecurity();
    m_switched = SUCCEEDED(CoSwitchCallContext(m_context, &m_previous));
}

ClientCallScope::~ClientCallScope() {
    if (m_switched) {
        IUnknown* current = nullptr;
        CoSwitchCallContext(m_previous, &current);
    }
    if (m_context != nullptr) {
        m_context->Release();
    }
}

void SetClientContextMode(int mode) {
    g_mode = mode;
}

void ImpersonationCounts(LONG* impersonations, LONG* reverts) {
    if (impersonations != nullptr) {
        *impersonations = g_impersonations.load();
    }
    if (reverts != nullptr) {
        *reverts = g_reverts.load();
    }
}

}  // namespace dorwex::emulator::wmi
