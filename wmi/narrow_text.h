// Narrowing a wide text for the narrow-string trace functions.
#pragma once

#include <windows.h>

// WideCharToMultiByte of a whole zero-terminated text into `pcharBuffer_out` (emptied first). Returns
// the buffer, or null when either pointer is null or the conversion fails.
char* ConvertWideToNarrow(UINT uintCodePage_in, const wchar_t* pwcharText_in, char* pcharBuffer_out,
                          int intBufferSize_in);
