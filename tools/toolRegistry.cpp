// The tool's access to the registry: where the file is, a well-formedness
// check before the runtime reads it, the runtime's registry object, and a
// read-only snapshot of the file for listings.
//
// Listings read the snapshot rather than the registry interface: the
// interface cannot list the names of a key's values, and a damaged entry
// must be shown, not stop the listing. The snapshot applies the runtime's
// own reading rules, so it shows what the runtime sees.
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMNamedNodeMap.hpp>
#include <xercesc/dom/DOMNode.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/sax/ErrorHandler.hpp>
#include <xercesc/sax/SAXParseException.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLChar.hpp>
#include <xercesc/util/XMLException.hpp>

#include "toolInternal.h"

using xercesc::DOMNode;

namespace {

const HiveInfo kHives[] = {
    {1, "classes", "Version\\Classes", "Classes"},
    {2, "user", "Version\\User", "User"},
    {3, "system", "Version\\System", "System"},
    {4, "root", "", "Quorvane"},
    {5, "appdata", "Version\\ApplicationData", "ApplicationData"},
};

// Deeper documents are refused rather than walked: the walk is recursive.
const int kMaxKeyDepth = 1000;

std::u16string FromXml(const XMLCh* text) {
    return text ? std::u16string(reinterpret_cast<const char16_t*>(text)) : std::u16string();
}

std::string NameOf(const DOMNode* node) { return Utf8(FromXml(node->getNodeName())); }

// Records the parser's first report of any severity: the runtime's parser
// stops the process on a warning as well.
class CFirstProblem : public xercesc::ErrorHandler {
public:
    void warning(const xercesc::SAXParseException& e) override { Record("warning", e); }
    void error(const xercesc::SAXParseException& e) override { Record("error", e); }
    void fatalError(const xercesc::SAXParseException& e) override { Record("fatal error", e); }
    void resetErrors() override {}

    bool found = false;
    std::string where;
    std::string message;

private:
    void Record(const char* severity, const xercesc::SAXParseException& e) {
        if (found) return;
        found = true;
        where = std::to_string(e.getLineNumber()) + ":" + std::to_string(e.getColumnNumber());
        message = std::string(severity) + ": " + Utf8(FromXml(e.getMessage()));
    }
};

// Node types the registry's writer has a form for; any other stops the
// process at the runtime's next change.
bool IsWritable(const DOMNode* node) {
    switch (node->getNodeType()) {
    case DOMNode::ELEMENT_NODE:
    case DOMNode::TEXT_NODE:
    case DOMNode::CDATA_SECTION_NODE:
    case DOMNode::ENTITY_REFERENCE_NODE:
    case DOMNode::PROCESSING_INSTRUCTION_NODE:
    case DOMNode::COMMENT_NODE:
    case DOMNode::DOCUMENT_NODE:
        return true;
    default:
        return false;
    }
}

std::string UnwritableProblem(const DOMNode* node) {
    const std::string what = node->getNodeType() == DOMNode::DOCUMENT_TYPE_NODE
                                 ? "a document type declaration"
                                 : "a node of type " + std::to_string(node->getNodeType());
    return "it holds " + what + ", which the runtime cannot write back";
}

const XMLCh* AttributeOf(const DOMNode* element, const char16_t* name) {
    const xercesc::DOMNamedNodeMap* attributes = element->getAttributes();
    const DOMNode* attribute =
        attributes ? attributes->getNamedItem(reinterpret_cast<const XMLCh*>(name)) : nullptr;
    return attribute ? attribute->getNodeValue() : nullptr;
}

size_t AttributeCount(const DOMNode* node) {
    const xercesc::DOMNamedNodeMap* attributes = node->getAttributes();
    return attributes ? attributes->getLength() : 0;
}

// Builds `key` from `node`; false with `problem` set for a document the
// runtime could not write back.
bool BuildKey(const DOMNode* node, RegKey& key, int depth, std::string& problem) {
    if (depth > kMaxKeyDepth) {
        problem = "keys are nested deeper than " + std::to_string(kMaxKeyDepth) + " levels";
        return false;
    }
    if (!IsWritable(node)) {
        problem = UnwritableProblem(node);
        return false;
    }
    // The runtime reads a default value only while it is the key's one
    // attribute.
    const XMLCh* defaultValue = AttributeOf(node, u"default");
    if (defaultValue && AttributeCount(node) == 1)
        key.values.push_back({"", "string", Utf8(FromXml(defaultValue))});
    for (const DOMNode* child = node->getFirstChild(); child; child = child->getNextSibling()) {
        if (!IsWritable(child)) {
            problem = UnwritableProblem(child);
            return false;
        }
        if (child->getNodeType() != DOMNode::ELEMENT_NODE) continue;
        if (NameOf(child) == "item") {
            const XMLCh* name = AttributeOf(child, u"name");
            const XMLCh* type = AttributeOf(child, u"type");
            const XMLCh* data = AttributeOf(child, u"value");
            if (AttributeCount(child) == 3 && name && type && data)
                key.values.push_back(
                    {Utf8(FromXml(name)), Utf8(FromXml(type)), Utf8(FromXml(data))});
            continue;
        }
        key.keys.push_back(RegKey{NameOf(child), {}, {}});
        if (!BuildKey(child, key.keys.back(), depth + 1, problem)) return false;
    }
    return true;
}

struct CXercesUse {
    CXercesUse() { xercesc::XMLPlatformUtils::Initialize(); }
    ~CXercesUse() { xercesc::XMLPlatformUtils::Terminate(); }
};

// Parses the file's bytes as the runtime does (a default parser over a
// memory buffer) and builds the snapshot. Gives where and what the first
// problem is, or an empty text when there is none.
std::string SnapshotProblem(const std::string& path, const std::string& content, RegKey& root) {
    try {
        CXercesUse xerces;
        CFirstProblem handler;
        std::string structureProblem;
        {
            xercesc::XercesDOMParser parser;
            parser.setErrorHandler(&handler);
            xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(content.data()),
                                              content.size(), "REGISTRY", false);
            parser.parse(source);
            const DOMNode* document = parser.getDocument();
            if (!handler.found && document) {
                root = RegKey();
                if (!BuildKey(document, root, 0, structureProblem)) root = RegKey();
            }
        }
        if (handler.found) return path + ":" + handler.where + ": " + handler.message;
        if (!structureProblem.empty()) return path + ": " + structureProblem;
    } catch (const xercesc::XMLException& e) {
        return path + ": " + Utf8(FromXml(e.getMessage()));
    } catch (const xercesc::OutOfMemoryException&) {
        return path + ": out of memory while parsing";
    }
    return "";
}

// As SnapshotProblem; reports the problem and returns its status.
HRESULT LoadSnapshot(const std::string& path, const std::string& content, RegKey& root) {
    const std::string problem = SnapshotProblem(path, content, root);
    if (problem.empty()) return S_OK;
    ReportError(problem, REGDB_E_PARSEBASE,
                "the runtime cannot read this registry file: mend or remove it");
    return REGDB_E_PARSEBASE;
}

// Reads the whole file; reports and returns a failure when it cannot.
HRESULT ReadWholeFile(const std::string& path, std::string& content) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0) {
        const int error = errno;
        ReportError("registry file " + path, SystemErrorCode(error));
        return SystemErrorCode(error);
    }
    if (S_ISDIR(info.st_mode)) {
        ReportError("registry file " + path, SystemErrorCode(EISDIR));
        return SystemErrorCode(EISDIR);
    }
    if (!ReadFileBytes(path, content)) {
        const int error = errno ? errno : EACCES;
        ReportError("registry file " + path, SystemErrorCode(error));
        return SystemErrorCode(error);
    }
    return S_OK;
}

bool FileExists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 || errno != ENOENT;
}

struct CRegistryState {
    bool tried = false;
    HRESULT result = E_FAIL;
    RegistryPtr registry;
    RegKey snapshot;
};

CRegistryState& State() {
    static CRegistryState state;
    return state;
}

HRESULT OpenRegistry(CRegistryState& state) {
    const std::string path = RegistryFilePath();
    // A missing file is the runtime's to create; anything else there must
    // parse before the runtime sees it, since its parser stops the process.
    const bool existed = FileExists(path);
    if (existed) {
        const HRESULT hr = ReadRegistryFile(path, state.snapshot);
        if (FAILED(hr)) return hr;
    }
    HRESULT hr = state.registry.CreateInstance(COM_CLSID_Registry);
    if (FAILED(hr)) {
        const std::string info = CurrentErrorInfo();
        ReportError("cannot open the registry " + path, hr, info);
        return hr;
    }
    if (existed) return S_OK;
    return ReadRegistryFile(path, state.snapshot);
}

}  // namespace

bool ReadFileBytes(const std::string& path, std::string& content) {
    std::ifstream in(path, std::ios::binary);
    if (!in.is_open()) return false;
    std::ostringstream bytes;
    bytes << in.rdbuf();
    content = bytes.str();
    return true;
}

bool IsReadableRegistry(const std::string& content) {
    RegKey ignored;
    return SnapshotProblem("", content, ignored).empty();
}

HRESULT ReadRegistryFile(const std::string& path, RegKey& root) {
    std::string content;
    const HRESULT hr = ReadWholeFile(path, content);
    return SUCCEEDED(hr) ? LoadSnapshot(path, content, root) : hr;
}

const HiveInfo& ParseHive(const std::string& text) {
    for (const HiveInfo& hive : kHives) {
        if (text == std::to_string(hive.number)) return hive;
        if (text.size() == std::string(hive.name).size()) {
            bool same = true;
            for (size_t i = 0; i < text.size(); ++i)
                same = same && std::tolower(static_cast<unsigned char>(text[i])) == hive.name[i];
            if (same) return hive;
        }
    }
    throw CUsageError{"unknown hive '" + text +
                      "': use 1 classes, 2 user, 3 system, 4 root or 5 appdata"};
}

const HiveInfo& HiveByNumber(unsigned number) { return kHives[number - 1]; }

std::vector<std::string> SplitKeyPath(const std::string& path) {
    std::vector<std::string> pieces;
    std::string piece;
    for (char c : path + "\\") {
        if (c == '\\' || c == '/') {
            if (!piece.empty()) pieces.push_back(piece);
            piece.clear();
        } else {
            piece += c == ' ' ? '_' : c;
        }
    }
    return pieces;
}

std::string JoinKeyPath(const std::vector<std::string>& pieces) {
    std::string path;
    for (const std::string& piece : pieces)
        path += (path.empty() ? "" : "\\") + piece;
    return path;
}

bool IsStorableKeyName(const std::string& name) {
    std::u16string text;
    for (wchar_t c : Wide(name))
        text += static_cast<char16_t>(c);
    return !text.empty() && text != u"item" &&
           xercesc::XMLChar1_0::isValidName(reinterpret_cast<const XMLCh*>(text.c_str()),
                                            text.size());
}

HRESULT SystemErrorCode(int error) {
    return static_cast<HRESULT>(0x80620000u | (static_cast<unsigned>(error) & 0xFFFF));
}

const RegKey* RegKey::Find(const std::string& child) const {
    for (const RegKey& key : keys) {
        if (key.name == child) return &key;
    }
    return nullptr;
}

const RegKey* RegKey::Resolve(const std::vector<std::string>& path) const {
    const RegKey* key = this;
    for (const std::string& piece : path) {
        if (!key) break;
        key = key->Find(piece);
    }
    return key;
}

const RegValue* RegKey::FindValue(const std::string& valueName) const {
    for (const RegValue& value : values) {
        if (value.name == valueName) return &value;
    }
    return nullptr;
}

const std::string* RegKey::Default() const {
    const RegValue* value = FindValue("");
    return value ? &value->data : nullptr;
}

const std::string* RegKey::SubkeyDefault(const std::string& child) const {
    const RegKey* key = Find(child);
    return key ? key->Default() : nullptr;
}

std::string RegistryFilePath() {
    // As the runtime: COMLIB is used whenever it is set, even empty.
    const char* directory = std::getenv("COMLIB");
    return directory ? std::string(directory) + "/Registry.XML" : "Registry.XML";
}

HRESULT EnsureRegistry() {
    CRegistryState& state = State();
    if (state.tried) return state.result;
    state.tried = true;
    state.result = OpenRegistry(state);
    return state.result;
}

bool RegistryIsReady() {
    const CRegistryState& state = State();
    return state.tried && SUCCEEDED(state.result);
}

COM_IRegistry* Registry() { return State().registry.Get(); }

const RegKey& RegistrySnapshot() { return State().snapshot; }

const RegKey* HiveRoot(const HiveInfo& hive) {
    std::vector<std::string> path = {"Software", "Quorvane"};
    for (const std::string& piece : SplitKeyPath(hive.belowMakerRoot))
        path.push_back(piece);
    return RegistrySnapshot().Resolve(path);
}
