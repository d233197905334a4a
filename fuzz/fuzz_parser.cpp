// Any bytes, parsed by the registry's parser and by the XML library's own
// DOM parser: both must accept or refuse them alike and build the same
// document, node for node and link for link.
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/sax/HandlerBase.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLUni.hpp>

#include <memory>
#include <string>

#include "domDescription.h"
#include "fuzzSupport.h"
#include "unix/regParser.h"

namespace {

using namespace xercesc;

struct CParsed {
    bool refused = false;
    std::string document;
};

CParsed Parse(XercesDOMParser& parser, const uint8_t* data, size_t size) {
    // Documents that name an external subset would reach for files.
    parser.setLoadExternalDTD(false);
    HandlerBase throwing;
    parser.setErrorHandler(&throwing);
    MemBufInputSource source(data, size, "fuzz", false);
    CParsed parsed;
    try {
        parser.parse(source);
    } catch (...) {
        parsed.refused = true;
    }
    parsed.document = Described(parser.getDocument());
    return parsed;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    XMLPlatformUtils::Initialize();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // With either of xerces' scanners, the second of which leaves the element
    // declarations of a document type unnumbered.
    for (const XMLCh* scanner : {XMLUni::fgIGXMLScanner, XMLUni::fgWFXMLScanner}) {
        XercesDOMParser reference;
        reference.useScanner(scanner);
        // Larger inputs take the memory of a large document.
        const std::unique_ptr<XercesDOMParser> registry(NewRegistryParser(size >= 4096));
        registry->useScanner(scanner);
        const CParsed expected = Parse(reference, data, size);
        const CParsed actual = Parse(*registry, data, size);
        FUZZ_CHECK(actual.refused == expected.refused, "refused %d by the registry's parser, %d by xerces",
                   actual.refused, expected.refused);
        FUZZ_CHECK(actual.document == expected.document, "documents differ:\n%s\n%s",
                   actual.document.c_str(), expected.document.c_str());
    }
    return 0;
}
