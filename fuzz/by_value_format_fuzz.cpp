// The by-value byte format on any bytes: every item is walked and read as each kind, containers to the depth
// bound; no crash, no read past the input, and a walk always ends.
#include "by_value_format.h"
#include "fuzz_input.h"

namespace {

using namespace dorwex::emulator::wire;

void Walk(Reader reader) {
    Item item;
    for (;;) {
        std::uint8_t tag = 0;
        if (!reader.Peek(tag)) {
            break;
        }
        std::uint64_t number = 0;
        std::u16string text;
        Reader inner;
        if (reader.Open(static_cast<std::uint8_t>(tag & ~kContainer), inner)) {
            dorwex::fuzz::Check(inner.Depth() <= kMaxDepth, "nesting stays within its bound");
            Walk(inner);
        } else if (!reader.Unsigned(tag, number) && !reader.Text(tag, text)) {
            dorwex::fuzz::Check(reader.Next(item), "an item seen by Peek can be taken");
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Walk(Reader(data, size));
    return 0;
}
