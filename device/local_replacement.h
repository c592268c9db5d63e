// A local file written whole or not at all. The data go into a new file beside the target, under a name of
// its own; only when they are complete does that file take the target's place (a rename in the same
// folder), so a transfer that fails half-way leaves an existing target as it was and no partial file under
// the name a caller trusts. Runs in the calling thread's identity: impersonating, the caller's.
#pragma once

#include <windows.h>

#include <string>

class CDorWEXLocalReplacement {
public:
    // Creates the empty temporary file beside pwcharTarget_in; Created() says whether that worked.
    explicit CDorWEXLocalReplacement(const wchar_t* pwcharTarget_in);
    // Deletes the temporary file unless it became the target.
    ~CDorWEXLocalReplacement();
    CDorWEXLocalReplacement(const CDorWEXLocalReplacement&) = delete;
    CDorWEXLocalReplacement& operator=(const CDorWEXLocalReplacement&) = delete;

    // S_OK, or why the temporary file could not be made.
    HRESULT Created() const { return m_HRESULTCreated; }
    const wchar_t* TemporaryPath() const { return m_wstringTemporary.c_str(); }
    // The temporary file takes the target's place, replacing an existing one. Every handle on the
    // temporary file must be closed first.
    HRESULT Commit();

private:
    std::wstring m_wstringTarget;
    std::wstring m_wstringTemporary;
    HRESULT m_HRESULTCreated = E_FAIL;
    bool m_boolCommitted = false;
};
