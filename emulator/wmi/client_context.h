// The client call context the WMI service gives a provider that is registered for impersonation: its
// IServerSecurity lets the provider impersonate the calling client (CoImpersonateClient). Tests provide or
// withhold it; the emulated client is the test's own identity, so impersonating it is ImpersonateSelf.
#pragma once

#include <windows.h>
#include <objidl.h>

namespace dorwex::emulator::wmi {

// While it lives, provider calls on this thread run in a client call context, when tests asked for one.
class ClientCallScope {
public:
    ClientCallScope();
    ~ClientCallScope();
    ClientCallScope(const ClientCallScope&) = delete;
    ClientCallScope& operator=(const ClientCallScope&) = delete;

private:
    IUnknown* m_context = nullptr;
    IUnknown* m_previous = nullptr;
    bool m_switched = false;
};

void SetClientContextProvided(bool provided);
// How often providers impersonated the client and reverted.
void ImpersonationCounts(LONG* impersonations, LONG* reverts);

}  // namespace dorwex::emulator::wmi
