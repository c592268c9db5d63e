// Nothing thrown inside the module crosses a COM entry point: an allocation that fails inside a call comes
// back as E_OUTOFMEMORY. Allocations of this test program fail on request, on the calling thread only.
#include <gtest/gtest.h>
#include <objbase.h>
#include <wbemcli.h>
#include <wbemprov.h>

#include <cstdlib>
#include <new>

#include "support/provider_object.h"

namespace {
thread_local bool t_boolFailAllocations = false;
}  // namespace

void* operator new(std::size_t size) {
    if (t_boolFailAllocations) {
        throw std::bad_alloc();
    }
    if (void* block = std::malloc(size == 0 ? 1 : size)) {
        return block;
    }
    throw std::bad_alloc();
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}

namespace {

// Allocations on this thread fail while it lives.
class FailingAllocations {
public:
    FailingAllocations() { t_boolFailAllocations = true; }
    ~FailingAllocations() { t_boolFailAllocations = false; }
};

TEST(ComBoundary, NewQueryAnswersOutOfMemoryInsteadOfThrowing) {
    IWbemEventProviderQuerySink* queries = CreateProviderObject<IWbemEventProviderQuerySink>();
    ASSERT_NE(queries, nullptr);
    HRESULT result = S_OK;
    bool thrown = false;
    {
        FailingAllocations failing;
        try {
            result = queries->NewQuery(3, const_cast<LPWSTR>(L"WQL"),
                                       const_cast<LPWSTR>(L"select * from Win32ext_WPDEvent where strEventId = "
                                                          L"'a text long enough to need the heap'"));
        } catch (...) {
            thrown = true;
        }
    }
    EXPECT_FALSE(thrown) << "an exception crossed the interface";
    EXPECT_EQ(result, E_OUTOFMEMORY);
    EXPECT_EQ(queries->NewQuery(3, const_cast<LPWSTR>(L"WQL"), const_cast<LPWSTR>(L"select * from Win32ext_WPDEvent")),
              S_OK)
        << "and the provider goes on";
    EXPECT_EQ(queries->Release(), 0u);
}

}  // namespace
