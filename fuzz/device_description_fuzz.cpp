// The emulated device description parser on any bytes: no crash; a description it accepts has an id.
#include "device_description.h"
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto parsed = dorwex::emulator::ParseDeviceDescription(
        std::string_view(reinterpret_cast<const char*>(data), size));
    dorwex::fuzz::Check(!parsed.device.id.empty() || !parsed.errors.empty(), "a description without id is an error");
    return 0;
}
