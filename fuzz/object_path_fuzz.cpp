// The WMI object path parser on any text: no crash and no read past the text.
#include "fuzz_input.h"
#include "wmi/object_path.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    dorwex::ParseObjectPath(dorwex::fuzz::Utf16Text(data, size));
    return 0;
}
