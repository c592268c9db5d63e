// The module's diagnostic trace: one process-wide level, one line per call, written to the debugger
// output channel (DebugView and debuggers see it). Level 0, the level at every load, writes nothing.
//
// Formats follow the Windows wide-printf rules: %s takes a wide string, %S a narrow one, %ld/%lx are
// 32-bit, %I64u is 64-bit.
#pragma once

#include <windows.h>

// Where finished lines go; OutputDebugStringW unless replaced.
using TraceSinkFunction = void(WINAPI*)(LPCWSTR line);

// Formats and writes one line when the level is above 0; returns at once, formatting nothing, at level 0.
void Trace(const wchar_t* pwcharFormat_in, ...);

ULONG GetTraceLevel();
void SetTraceLevel(ULONG ulongLevel_in);

// Replaces the sink and returns the previous one; null restores OutputDebugStringW.
TraceSinkFunction SetTraceSink(TraceSinkFunction pTraceSink_in);
