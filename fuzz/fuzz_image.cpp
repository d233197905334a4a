// Any bytes that parse as a registry document the runtime can write: its
// image must show a reader what the document shows, node for node. The same
// image, then damaged at places the bytes choose, must never make a read
// leave the mapping: it is refused, or reads find the damage.
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/sax/HandlerBase.hpp>
#include <xercesc/util/PlatformUtils.hpp>

#include <string>

#include "../tests/imageSupport.h"
#include "fuzzSupport.h"
#include "unix/regSaved.h"

namespace {

using namespace xercesc;

// Flips bits of the image's records where the input's bytes point.
void Damage(std::string& image, const uint8_t* data, size_t size) {
    const size_t records = image.size() - RegistryImage::kHeaderSize;
    if (records == 0) return;
    uint64_t position = 1469598103934665603ull;
    for (size_t i = 0; i < size; i += 7) {
        position = (position ^ data[i]) * 1099511628211ull;
        image[RegistryImage::kHeaderSize + position % records] ^= static_cast<char>(data[i] | 1);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    XMLPlatformUtils::Initialize();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    XercesDOMParser parser;
    // Documents that name an external subset would reach for files.
    parser.setLoadExternalDTD(false);
    HandlerBase throwing;
    parser.setErrorHandler(&throwing);
    MemBufInputSource source(data, size, "fuzz", false);
    try {
        parser.parse(source);
    } catch (...) {
        return 0;
    }
    const DOMDocument* document = parser.getDocument();
    CWritten written;
    const bool built = document && BuildImage(document, written);
    SavedSubtrees::Attach(nullptr);
    if (!built) return 0;
    imagetest::CImageFile file;
    file.Add(written);
    const std::unique_ptr<CRegistryImage> image = file.Map();
    FUZZ_CHECK(image != nullptr, "the image of a written document is refused");
    const std::string problem = imagetest::Disagreement(document, *image);
    FUZZ_CHECK(problem.empty(), "image and document disagree: %s", problem.c_str());

    Damage(file.Bytes(), data, size);
    if (const std::unique_ptr<CRegistryImage> damaged = file.Map()) imagetest::Disagreement(document, *damaged);
    return 0;
}
