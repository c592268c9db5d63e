// The client call context the WMI service gives a provider that is registered for impersonation
// (__Win32Provider.ImpersonationLevel = 1): its IServerSecurity lets the provider impersonate the calling
// client (CoImpersonateClient). Tests may withhold it (a call without a client to impersonate) or force it;
// the emulated client is the test's own identity, so impersonating it is ImpersonateSelf.
#pragma once

#include <windows.h>
#include <objidl.h>

namespace dorwex::emulator::wmi {

// While it lives, provider calls on this thread run in a client call context: when the provider is
// registered for impersonation, unless tests said otherwise.
class ClientCallScope {
public:
    explicit ClientCallScope(bool registeredForImpersonation);
    ~ClientCallScope();
    ClientCallScope(const ClientCallScope&) = delete;
    ClientCallScope& operator=(const ClientCallScope&) = delete;

private:
    IUnknown* m_context = nullptr;
    IUnknown* m_previous = nullptr;
    bool m_switched = false;
};

// 1: always a client context, 0: never, any other value: as the provider's registration says.
void SetClientContextMode(int mode);
// How often providers impersonated the client and reverted.
void ImpersonationCounts(LONG* impersonations, LONG* reverts);

}  // namespace dorwex::emulator::wmi
