#include "narrow_text.h"

#include <cstring>

char* ConvertWideToNarrow(UINT uintCodePage_in, const wchar_t* pwcharText_in, char* pcharBuffer_out,
                          int intBufferSize_in) {
    if (pwcharText_in == nullptr || pcharBuffer_out == nullptr) {
        return nullptr;
    }
    if (intBufferSize_in > 0) {
        std::memset(pcharBuffer_out, 0, static_cast<size_t>(intBufferSize_in));
    }
    if (WideCharToMultiByte(uintCodePage_in, 0, pwcharText_in, -1, pcharBuffer_out, intBufferSize_in, nullptr,
                            nullptr) == 0) {
        return nullptr;
    }
    return pcharBuffer_out;
}
