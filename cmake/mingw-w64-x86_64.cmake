# Cross-compiles for 64-bit Windows with Debian's mingw-w64 (posix threads variant, for std::thread).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(DORWEX_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${DORWEX_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${DORWEX_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${DORWEX_MINGW_PREFIX}-windres)
set(CMAKE_OBJDUMP ${DORWEX_MINGW_PREFIX}-objdump)

set(CMAKE_FIND_ROOT_PATH /usr/${DORWEX_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# Everything links the C++ runtime and winpthread statically: the DLL must need no mingw DLL beside it.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
