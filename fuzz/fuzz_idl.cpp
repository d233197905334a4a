// Any bytes, parsed as a definition by veltcom-idl's parser: it accepts or
// refuses them with a place inside the text, and what it accepts generates
// a header and compares with itself without a difference. Every import
// names the input itself, so imports nest until one imports itself.
#include <string>

#include "fuzzSupport.h"
#include "idl.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const idl::Resolver resolve = [](const std::string& name, const std::string&) { return name; };
    const idl::Reader read = [&](const std::string&, std::string& out) {
        out = text;
        return true;
    };
    idl::Error error;
    const auto defs = idl::Parse("main.idl", text, resolve, read, error);
    if (!defs) {
        FUZZ_CHECK(!error.message.empty(), "a refusal without a message");
        long lines = 1;
        for (char c : text) lines += c == '\n';
        FUZZ_CHECK(error.place.line >= 1 && error.place.line <= lines && error.place.column >= 1,
                   "a refusal placed at %d:%d outside the text", error.place.line,
                   error.place.column);
        return 0;
    }
    FUZZ_CHECK(!idl::GenerateHeader(*defs, "main").empty(), "an empty header");
    std::vector<std::string> breaking, compatible;
    idl::Compare(*defs, *defs, breaking, compatible);
    FUZZ_CHECK(breaking.empty() && compatible.empty(), "a definition differs from itself: %s",
               (breaking.empty() ? compatible : breaking)[0].c_str());
    return 0;
}
