// Text conversions the emulator's parts share: UTF-8 of description files to and from UTF-16, case.
#pragma once

#include <string>

namespace dorwex::emulator {

std::wstring Widen(const std::string& text);
std::string Narrow(const std::wstring& text);
std::wstring UpperCase(std::wstring text);
std::wstring LowerCase(std::wstring text);

}  // namespace dorwex::emulator
