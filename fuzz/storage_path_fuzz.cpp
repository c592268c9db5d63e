// Storage path splitting on any text: no crash, and the parts come from the text.
#include "device/storage_path.h"
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::wstring text = dorwex::fuzz::Utf16Text(data, size);
    const auto split = dorwex::SplitStoragePath(text);
    dorwex::fuzz::Check(split.storage.size() <= text.size(), "the storage name comes from the path");
    dorwex::fuzz::Check(split.tooLong == (text.size() > dorwex::kStoragePathChars), "too long exactly over the limit");
    return 0;
}
