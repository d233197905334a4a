// Any bytes that parse as a registry document the runtime can write: its
// image must show a reader what the document shows, node for node, and so
// must the image a save appends to it after a change. The same
// image, then damaged at places the bytes choose, must never make a read
// leave the mapping: it is refused, or reads find the damage.
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/sax/HandlerBase.hpp>
#include <xercesc/util/PlatformUtils.hpp>

#include <string>

#include "fuzzSupport.h"
#include "imageSupport.h"
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
    DOMDocument* document = parser.getDocument();
    CWritten written;
    if (!document || !BuildImage(document, written)) {
        SavedSubtrees::Attach(nullptr);
        return 0;
    }
    imagetest::CImageFile file;
    file.Add(written);
    std::unique_ptr<CRegistryImage> image = file.Map();
    FUZZ_CHECK(image != nullptr, "the image of a written document is refused");
    std::string problem = imagetest::Disagreement(document, *image);
    FUZZ_CHECK(problem.empty(), "image and document disagree: %s", problem.c_str());

    // A save after a change appends what changed and names every unchanged
    // subtree where it stands: its image must show the changed document too.
    DOMNode* key = document->getDocumentElement();
    while (key->getLastChild()) key = key->getLastChild();
    while (key->getNodeType() != DOMNode::ELEMENT_NODE) key = key->getParentNode();
    SetValue(document, key, u"", u"string", u"changed");
    FUZZ_CHECK(WriteDocument(document, file.Base(), written), "a changed document is not written");
    SavedSubtrees::Attach(nullptr);
    file.Add(written);
    image = file.Map();
    FUZZ_CHECK(image != nullptr, "the image of a changed document is refused");
    problem = imagetest::Disagreement(document, *image);
    FUZZ_CHECK(problem.empty(), "image and changed document disagree: %s", problem.c_str());

    Damage(file.Bytes(), data, size);
    if (const std::unique_ptr<CRegistryImage> damaged = file.Map()) imagetest::Disagreement(document, *damaged);
    return 0;
}
