// IMofCompiler of the emulated WMI service (CLSID_MofCompiler): compiles text MOFs into the namespace the
// service holds, as mofcomp and installers do, and reports a failure in WBEM_COMPILE_STATUS_INFO.
#include "mof_compiler.h"

#include <string>

#include "namespace.h"
#include "repository.h"

namespace dorwex::emulator::wmi {

namespace {

// The documented option flags; WBEM_FLAG_AUTORECOVER combines with none of the namespace, class or
// instance arguments, nor with WBEM_FLAG_DONT_ADD_TO_LIST.
constexpr LONG kKnownOptions = WBEM_FLAG_CHECK_ONLY | WBEM_FLAG_AUTORECOVER | WBEM_FLAG_WMI_CHECK |
                               WBEM_FLAG_CONSOLE_PRINT | WBEM_FLAG_DONT_ADD_TO_LIST;

HRESULT Finish(const CompileStatus& status, WBEM_COMPILE_STATUS_INFO* info) {
    if (info != nullptr) {
        info->lPhaseError = status.phase;
        info->hRes = status.hr;
        info->ObjectNum = status.objectNumber;
        info->FirstLine = status.firstLine;
        info->LastLine = status.lastLine;
        info->dwOutFlags = 0;
    }
    return status.phase == 0 ? WBEM_S_NO_ERROR : WBEM_S_FALSE;
}

CompileStatus ArgumentError(HRESULT hr) {
    CompileStatus status;
    status.phase = 2;
    status.hr = hr;
    return status;
}

CompileStatus CheckArguments(const wchar_t* ns, LONG options, LONG classFlags, LONG instanceFlags) {
    if ((options & ~kKnownOptions) != 0 ||
        ((options & WBEM_FLAG_AUTORECOVER) != 0 &&
         ((options & WBEM_FLAG_DONT_ADD_TO_LIST) != 0 || ns != nullptr || classFlags != 0 || instanceFlags != 0))) {
        return ArgumentError(WBEM_E_INVALID_PARAMETER);
    }
    // Creating only, updating only and the update modes are not emulated: a caller that needs them is told.
    if (classFlags != 0 || instanceFlags != 0) {
        return ArgumentError(WBEM_E_NOT_SUPPORTED);
    }
    return {};
}

// A MOF file's text: ANSI or UTF-8 as written, UTF-16 (with its byte-order mark) converted to UTF-8.
bool ReadMof(const wchar_t* path, std::string& text, HRESULT& error) {
    if (!ReadText(path, text)) {
        error = HRESULT_FROM_WIN32(GetLastError());
        return false;
    }
    if (text.size() >= 2 && static_cast<unsigned char>(text[0]) == 0xFF && static_cast<unsigned char>(text[1]) == 0xFE) {
        const auto* wide = reinterpret_cast<const wchar_t*>(text.data() + 2);
        const int chars = static_cast<int>((text.size() - 2) / sizeof(wchar_t));
        const int bytes = WideCharToMultiByte(CP_UTF8, 0, wide, chars, nullptr, 0, nullptr, nullptr);
        std::string utf8(static_cast<size_t>(bytes), '\0');
        WideCharToMultiByte(CP_UTF8, 0, wide, chars, utf8.empty() ? nullptr : &utf8[0], bytes, nullptr, nullptr);
        text.swap(utf8);
    }
    return true;
}

}  // namespace

HRESULT STDMETHODCALLTYPE MofCompiler::CompileFile(LPWSTR FileName, LPWSTR ServerAndNamespace, LPWSTR, LPWSTR, LPWSTR,
                                                   LONG lOptionFlags, LONG lClassFlags, LONG lInstanceFlags,
                                                   WBEM_COMPILE_STATUS_INFO* pInfo) {
    if (FileName == nullptr) {
        return Finish(ArgumentError(WBEM_E_INVALID_PARAMETER), pInfo);
    }
    const CompileStatus arguments = CheckArguments(ServerAndNamespace, lOptionFlags, lClassFlags, lInstanceFlags);
    if (arguments.phase != 0) {
        return Finish(arguments, pInfo);
    }
    std::string text;
    HRESULT error = WBEM_S_NO_ERROR;
    if (!ReadMof(FileName, text, error)) {
        return Finish(ArgumentError(error), pInfo);
    }
    return Finish(Namespace::Get().Compile(text, ServerAndNamespace != nullptr ? ServerAndNamespace : L"",
                                           (lOptionFlags & WBEM_FLAG_CHECK_ONLY) != 0),
                  pInfo);
}

HRESULT STDMETHODCALLTYPE MofCompiler::CompileBuffer(LONG BuffSize, BYTE* pBuffer, LPWSTR ServerAndNamespace, LPWSTR,
                                                     LPWSTR, LPWSTR, LONG lOptionFlags, LONG lClassFlags,
                                                     LONG lInstanceFlags, WBEM_COMPILE_STATUS_INFO* pInfo) {
    if (pBuffer == nullptr || BuffSize <= 0) {
        return Finish(ArgumentError(WBEM_E_INVALID_PARAMETER), pInfo);
    }
    const CompileStatus arguments = CheckArguments(ServerAndNamespace, lOptionFlags, lClassFlags, lInstanceFlags);
    if (arguments.phase != 0) {
        return Finish(arguments, pInfo);
    }
    const std::string text(reinterpret_cast<const char*>(pBuffer), static_cast<size_t>(BuffSize));
    return Finish(Namespace::Get().Compile(text, ServerAndNamespace != nullptr ? ServerAndNamespace : L"",
                                           (lOptionFlags & WBEM_FLAG_CHECK_ONLY) != 0),
                  pInfo);
}

// Binary MOFs are not emulated.
HRESULT STDMETHODCALLTYPE MofCompiler::CreateBMOF(LPWSTR, LPWSTR, LPWSTR, LONG, LONG, LONG, WBEM_COMPILE_STATUS_INFO*) {
    return WBEM_E_NOT_SUPPORTED;
}

}  // namespace dorwex::emulator::wmi
