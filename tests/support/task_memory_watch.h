// Watches the COM task allocator (CoTaskMemAlloc / CoTaskMemFree) through a malloc spy: which blocks the
// watching thread allocated while it recorded, which of them are still allocated, and whether a given block
// was freed by any thread since the watch began. The spy is registered once for the process and never
// revoked: COM keeps calling a revoked spy until every block allocated under it is freed, and a second
// registration would be refused until then.
#pragma once

#include <windows.h>
#include <objbase.h>
#include <objidl.h>

#include <mutex>
#include <set>

#include "stack_com.h"

class TaskMemoryWatch {
public:
    TaskMemoryWatch() {
        Spy& spy = Spy::Instance();
        std::lock_guard<std::mutex> guard(spy.mutex);
        spy.watching = true;
        spy.recording = false;
        spy.thread = GetCurrentThreadId();
        spy.recordedCount = 0;
        spy.allocated.clear();
        spy.freed.clear();
    }
    ~TaskMemoryWatch() {
        Spy& spy = Spy::Instance();
        std::lock_guard<std::mutex> guard(spy.mutex);
        spy.watching = false;
        spy.recording = false;
    }
    TaskMemoryWatch(const TaskMemoryWatch&) = delete;
    TaskMemoryWatch& operator=(const TaskMemoryWatch&) = delete;

    // True when the spy is in place (CoRegisterMallocSpy succeeded once).
    bool Active() const { return Spy::Instance().registered; }
    // Record the blocks this thread allocates from now on (until Record(false)).
    void Record(bool on) {
        Spy& spy = Spy::Instance();
        std::lock_guard<std::mutex> guard(spy.mutex);
        spy.recording = on;
    }
    // Blocks recorded and not freed yet.
    size_t Outstanding() const {
        Spy& spy = Spy::Instance();
        std::lock_guard<std::mutex> guard(spy.mutex);
        return spy.allocated.size();
    }
    size_t Recorded() const {
        Spy& spy = Spy::Instance();
        std::lock_guard<std::mutex> guard(spy.mutex);
        return spy.recordedCount;
    }
    bool Freed(const void* block) const {
        Spy& spy = Spy::Instance();
        std::lock_guard<std::mutex> guard(spy.mutex);
        return spy.freed.count(block) != 0;
    }

private:
    class Spy : public StackCom<IMallocSpy> {
    public:
        // Lives as long as the process, past static destruction: COM calls it for every later free.
        static Spy& Instance() {
            static Spy* spy = [] {
                auto* made = new Spy;
                made->registered = SUCCEEDED(CoRegisterMallocSpy(made));
                return made;
            }();
            return *spy;
        }

        SIZE_T STDMETHODCALLTYPE PreAlloc(SIZE_T cbRequest) override { return cbRequest; }
        void* STDMETHODCALLTYPE PostAlloc(void* pActual) override {
            Allocated(pActual);
            return pActual;
        }
        void* STDMETHODCALLTYPE PreFree(void* pRequest, BOOL) override {
            Released(pRequest);
            return pRequest;
        }
        void STDMETHODCALLTYPE PostFree(BOOL) override {}
        SIZE_T STDMETHODCALLTYPE PreRealloc(void* pRequest, SIZE_T cbRequest, void** ppNewRequest, BOOL) override {
            Released(pRequest);
            *ppNewRequest = pRequest;
            return cbRequest;
        }
        void* STDMETHODCALLTYPE PostRealloc(void* pActual, BOOL) override {
            Allocated(pActual);
            return pActual;
        }
        void* STDMETHODCALLTYPE PreGetSize(void* pRequest, BOOL) override { return pRequest; }
        SIZE_T STDMETHODCALLTYPE PostGetSize(SIZE_T cbActual, BOOL) override { return cbActual; }
        void* STDMETHODCALLTYPE PreDidAlloc(void* pRequest, BOOL) override { return pRequest; }
        int STDMETHODCALLTYPE PostDidAlloc(void*, BOOL, int fActual) override { return fActual; }
        void STDMETHODCALLTYPE PreHeapMinimize() override {}
        void STDMETHODCALLTYPE PostHeapMinimize() override {}

        std::mutex mutex;
        bool registered = false;
        bool watching = false;
        bool recording = false;
        DWORD thread = 0;
        size_t recordedCount = 0;
        std::set<const void*> allocated;
        std::set<const void*> freed;

    private:
        void Allocated(void* block) {
            if (block == nullptr) {
                return;
            }
            std::lock_guard<std::mutex> guard(mutex);
            if (watching && recording && GetCurrentThreadId() == thread) {
                allocated.insert(block);
                ++recordedCount;
            }
        }
        void Released(void* block) {
            if (block == nullptr) {
                return;
            }
            std::lock_guard<std::mutex> guard(mutex);
            if (watching) {
                allocated.erase(block);
                freed.insert(block);
            }
        }
    };
};
