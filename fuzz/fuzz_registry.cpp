// Registry operations decoded from the input (create, open, delete keys; set,
// read and delete string and number values with any names and texts;
// enumerate), all below a scratch key of the maker root. Every operation
// that reports success must leave a file that a fresh parser accepts and
// that holds what was written.
#include <xercesc/dom/DOM.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/sax/ErrorHandler.hpp>
#include <xercesc/sax/SAXParseException.hpp>
#include <xercesc/util/PlatformUtils.hpp>

#include <memory>
#include <vector>

#include "fuzzSupport.h"

namespace {

using namespace xercesc;
static_assert(sizeof(XMLCh) == sizeof(char16_t), "the DOM's text is 16-bit");

using EnumPtr = utlAutoIf<COM_IEnumBSTR, &COM_IID_IEnumBSTR>;
using RegistryPtr = utlAutoIf<COM_IRegistry, &COM_IID_IRegistry>;
using Path = std::vector<std::u16string>;

const wchar_t kScratch[] = L"Fuzz";

std::u16string U16(const XMLCh* text) {
    return text ? std::u16string(reinterpret_cast<const char16_t*>(text)) : std::u16string();
}

// Records what the parser finds instead of stopping.
class CRecordingHandler : public ErrorHandler {
public:
    void warning(const SAXParseException& e) override { Record("warning", e); }
    void error(const SAXParseException& e) override { Record("error", e); }
    void fatalError(const SAXParseException& e) override { Record("fatal error", e); }
    void resetErrors() override { message.clear(); }

    std::string message;

private:
    void Record(const char* kind, const SAXParseException& e) {
        if (!message.empty()) return;
        char* text = XMLString::transcode(e.getMessage());
        message = std::string(kind) + " at line " + std::to_string(e.getLineNumber()) +
                  ", column " + std::to_string(e.getColumnNumber()) + ": " + (text ? text : "");
        XMLString::release(&text);
    }
};

// The registry file as a fresh load sees it.
class CFreshLoad {
public:
    CFreshLoad() {
        m_parser.setErrorHandler(&m_handler);
        try {
            m_parser.parse((ScratchDirectory() + "/Registry.XML").c_str());
        } catch (...) {
            m_handler.message = "the parser threw";
        }
        FUZZ_CHECK(m_handler.message.empty() && m_parser.getDocument(),
                   "the saved registry does not load: %s", m_handler.message.c_str());
    }

    // The element of a key below the scratch key, or null.
    const DOMElement* Key(const Path& path) const {
        const DOMElement* key = m_parser.getDocument()->getDocumentElement();
        Path full = {u"Quorvane", u"Fuzz"};
        full.insert(full.end(), path.begin(), path.end());
        for (const std::u16string& name : full) {
            const DOMElement* child = key ? key->getFirstElementChild() : nullptr;
            while (child && U16(child->getTagName()) != name)
                child = child->getNextElementSibling();
            key = child;
        }
        return key;
    }

    // The value's type and data in the file; false when it is not there.
    bool Value(const Path& path, const std::u16string& name, std::u16string& type,
               std::u16string& data) const {
        const DOMElement* key = Key(path);
        FUZZ_CHECK(key, "the current key is missing from the file");
        if (name.empty()) {
            const DOMAttr* value = key->getAttributeNode(u"default");
            if (!value) return false;
            type = u"string";
            data = U16(value->getValue());
            return true;
        }
        for (const DOMElement* item = key->getFirstElementChild(); item;
             item = item->getNextElementSibling()) {
            if (U16(item->getTagName()) != u"item" || U16(item->getAttribute(u"name")) != name)
                continue;
            type = U16(item->getAttribute(u"type"));
            data = U16(item->getAttribute(u"value"));
            return true;
        }
        return false;
    }

private:
    CRecordingHandler m_handler;
    mutable XercesDOMParser m_parser;
};

Path Pieces(const std::wstring& path) {
    Path pieces(1);
    for (char16_t c : EscapedName(path)) {
        if (c == u'\\')
            pieces.emplace_back();
        else
            pieces.back() += c;
    }
    return pieces;
}

class CSession {
public:
    CSession() {
        FUZZ_CHECK(m_registry.CreateInstance(COM_CLSID_Registry) == S_OK, "no registry");
        FUZZ_CHECK(m_registry->Open(4, L"") == S_OK, "no maker root");
        m_registry->DeleteKey(kScratch);
        FUZZ_CHECK(m_registry->CreateKey(kScratch, 1) == S_OK, "no scratch key");
    }
    ~CSession() { m_registry->Close(); }

    void Step(FuzzedDataProvider& in) {
        switch (in.ConsumeIntegralInRange(0, 7)) {
        case 0:
            CreateKey(KeyPath(in), in.ConsumeBool());
            break;
        case 1:
            OpenKey(KeyPath(in));
            break;
        case 2:
            DeleteKey(KeyPath(in));
            break;
        case 3:
            SetString(Name(in), WideText(in, 24));
            break;
        case 4:
            SetNumber(Name(in), in.ConsumeIntegral<unsigned>());
            break;
        case 5:
            DeleteValue(Name(in));
            break;
        case 6:
            Enumerate();
            break;
        default:
            GoUp();
            break;
        }
    }

private:
    // A few names recur, so that keys and values are found again; the rest
    // are any text.
    static std::wstring Name(FuzzedDataProvider& in) {
        static const wchar_t* const common[] = {L"", L"a", L"b", L"key one", L"\u00E9t\u00E9"};
        const size_t pick = in.ConsumeIntegralInRange<size_t>(0, 7);
        return pick < 5 ? common[pick] : WideText(in, 12);
    }

    static std::wstring KeyPath(FuzzedDataProvider& in) {
        std::wstring path = Name(in);
        for (int more = in.ConsumeIntegralInRange(0, 2); more > 0; --more)
            path += L"\\" + Name(in);
        return path;
    }

    Path Below(const std::wstring& path) const {
        Path full = m_path;
        for (const std::u16string& piece : Pieces(path))
            full.push_back(piece);
        return full;
    }

    void CreateKey(const std::wstring& path, bool open) {
        if (m_registry->CreateKey(path.c_str(), open ? 1 : 0) != S_OK) return;
        const Path created = Below(path);
        FUZZ_CHECK(CFreshLoad().Key(created), "created key %s is not in the file",
                   Printable(path).c_str());
        if (open) m_path = created;
    }

    void OpenKey(const std::wstring& path) {
        if (m_registry->OpenKey(path.c_str()) == S_OK) m_path = Below(path);
    }

    void DeleteKey(const std::wstring& path) {
        if (m_registry->DeleteKey(path.c_str()) != S_OK) return;
        FUZZ_CHECK(!CFreshLoad().Key(Below(path)), "deleted key %s is in the file",
                   Printable(path).c_str());
        FUZZ_CHECK(m_registry->OpenKey(path.c_str()) == REGDB_E_KEYMISSING,
                   "deleted key %s still opens", Printable(path).c_str());
    }

    void SetString(const std::wstring& name, const std::wstring& value) {
        if (m_registry->SetValueString(name.c_str(), value.c_str()) != S_OK) return;
        CheckInFile(name, u"string", Stored(value));
        wchar_t* text = nullptr;
        FUZZ_CHECK(m_registry->GetValueString(name.c_str(), &text) == S_OK, "%s not read back",
                   Printable(name).c_str());
        const std::u16string back = Stored(std::wstring(text, COM_SysStringLen(text)));
        COM_SysFreeString(text);
        FUZZ_CHECK(back == Stored(value), "%s reads back as %s", Printable(name).c_str(),
                   Printable(back).c_str());
    }

    void SetNumber(const std::wstring& name, unsigned value) {
        if (m_registry->SetValueDWORD(name.c_str(), value) != S_OK) return;
        const std::wstring decimal = std::to_wstring(value);
        // The default value is always a string.
        CheckInFile(name, EscapedName(name).empty() ? u"string" : u"dword", Stored(decimal));
        if (EscapedName(name).empty()) return;
        unsigned back = ~value;
        FUZZ_CHECK(m_registry->GetValueDWORD(name.c_str(), &back) == S_OK && back == value,
                   "%s reads back as %u, not %u", Printable(name).c_str(), back, value);
    }

    void DeleteValue(const std::wstring& name) {
        if (m_registry->DeleteValue(name.c_str()) != S_OK) return;
        std::u16string type, data;
        FUZZ_CHECK(!CFreshLoad().Value(m_path, EscapedName(name), type, data),
                   "deleted value %s is in the file", Printable(name).c_str());
    }

    void CheckInFile(const std::wstring& name, const std::u16string& type,
                     const std::u16string& data) const {
        std::u16string fileType, fileData;
        FUZZ_CHECK(CFreshLoad().Value(m_path, EscapedName(name), fileType, fileData),
                   "value %s is not in the file", Printable(name).c_str());
        FUZZ_CHECK(fileType == type && fileData == data, "value %s is %s %s in the file, not %s",
                   Printable(name).c_str(), Printable(fileType).c_str(),
                   Printable(fileData).c_str(), Printable(data).c_str());
    }

    // Every name enumerated can be read or opened. Slots left empty come out
    // as empty names, and the key list also names each value element "item".
    void Enumerate() {
        for (const std::wstring& name : Names(false)) {
            if (name.empty()) continue;
            unsigned number;
            FUZZ_CHECK(m_registry->GetValueString(name.c_str(), nullptr) == S_OK ||
                           m_registry->GetValueDWORD(name.c_str(), &number) == S_OK,
                       "enumerated value %s does not read", Printable(name).c_str());
        }
        for (const std::wstring& name : Names(true)) {
            if (name.empty() || name == L"item") continue;
            FUZZ_CHECK(m_registry->OpenKey(name.c_str()) == S_OK, "enumerated key %s does not open",
                       Printable(name).c_str());
            Reopen();
        }
    }

    std::vector<std::wstring> Names(bool keys) {
        EnumPtr names;
        const HRESULT hr =
            keys ? m_registry->EnumKeys(names.Out()) : m_registry->EnumValues(names.Out());
        FUZZ_CHECK(hr == S_OK, "enumeration gave 0x%08X", static_cast<unsigned>(hr));
        std::vector<std::wstring> out;
        wchar_t* name = nullptr;
        unsigned long fetched = 0;
        while (names->Next(1, &name, &fetched) == S_OK && fetched == 1) {
            out.emplace_back(name, COM_SysStringLen(name));
            COM_SysFreeString(name);
        }
        return out;
    }

    void GoUp() {
        if (!m_path.empty()) m_path.pop_back();
        Reopen();
    }

    // Opens the current key again by its full path from the hive root.
    void Reopen() {
        std::wstring path = kScratch;
        for (const std::u16string& piece : m_path)
            path += L"\\" + std::wstring(piece.begin(), piece.end());
        FUZZ_CHECK(m_registry->Open(4, path.c_str()) == S_OK,
                   "the current key does not open again");
    }

    RegistryPtr m_registry;
    Path m_path;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    ScratchDirectory();
    XMLPlatformUtils::Initialize();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    CSession session;
    for (int steps = 0; steps < 24 && in.remaining_bytes() > 0; ++steps)
        session.Step(in);
    return 0;
}
