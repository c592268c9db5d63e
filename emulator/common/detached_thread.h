// A thread of the stand-ins that runs one piece of work and that nobody joins.
#pragma once

#include <windows.h>

#include <functional>
#include <memory>
#include <new>

namespace dorwex::emulator {

// Runs work on a new thread; false when no thread could be had (work has not run). The thread is created
// running. std::thread (winpthreads) creates its threads suspended, sets their priority and then resumes
// them; in the lifetime tests under load about one such thread in a few hundred never ran its first
// instruction, and the service waited for an Initialize that was never called.
inline bool StartDetachedThread(std::function<void()> work) {
    std::unique_ptr<std::function<void()>> owned(new (std::nothrow) std::function<void()>(std::move(work)));
    if (!owned) {
        return false;
    }
    const auto entry = [](LPVOID parameter) -> DWORD {
        const std::unique_ptr<std::function<void()>> run(static_cast<std::function<void()>*>(parameter));
        (*run)();
        return 0;
    };
    const HANDLE thread = CreateThread(nullptr, 0, entry, owned.get(), 0, nullptr);
    if (thread == nullptr) {
        return false;
    }
    owned.release();  // the thread's from here on
    CloseHandle(thread);
    return true;
}

}  // namespace dorwex::emulator
