// Feeds arbitrary bytes to the app-service frame decoder, as a peer could.
// A body it accepts must encode back to exactly the same bytes: the format
// has one spelling per frame, so anything else is a decoding fault.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "Platform/AppService/AppServiceFrame.h"

using Quorvendale::Platform::AppServiceFrame;
using Quorvendale::Platform::MalformedFrame;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    try {
        if (input.size() >= AppServiceFrame::lengthSize) {
            AppServiceFrame::bodyLength(input.substr(0, AppServiceFrame::lengthSize));
        }
        const AppServiceFrame frame = AppServiceFrame::decode(input);
        const std::string encoded = frame.encode().value().joined();
        if (std::string_view(encoded).substr(AppServiceFrame::lengthSize) != input) std::abort();
    } catch (const MalformedFrame&) {
    }
    return 0;
}
