// Tree operations on the registry document, the document writer and the
// enumerator builder.
#include "regHelper.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>

#include <xercesc/dom/DOMElement.hpp>
#include <xercesc/dom/DOMException.hpp>
#include <xercesc/dom/DOMNamedNodeMap.hpp>
#include <xercesc/util/XMLChar.hpp>
#include <xercesc/util/XMLString.hpp>

#include "regErrorHandler.h"
#include "registry/regRegistry.h"

using xercesc::DOMDocument;
using xercesc::DOMElement;
using xercesc::DOMNamedNodeMap;
using xercesc::DOMNode;
using xercesc::XMLString;

namespace {

typedef std::basic_string_view<XMLCh> RegStringView;

const XMLCh kItem[] = u"item";
const XMLCh kName[] = u"name";
const XMLCh kType[] = u"type";
const XMLCh kValue[] = u"value";
const XMLCh kDefault[] = u"default";
const XMLCh kString[] = u"string";

// The pieces of a path between backslashes, empty ones included: the empty
// path is one empty piece, which names no key.
class CPathPieces {
public:
    explicit CPathPieces(const XMLCh* path) : m_pNext(path) {}

    bool Next(RegStringView& piece) {
        if (!m_pNext) return false;
        const XMLCh* end = m_pNext;
        while (*end && *end != u'\\')
            ++end;
        piece = RegStringView(m_pNext, end - m_pNext);
        m_pNext = *end ? end + 1 : nullptr;
        return true;
    }

private:
    const XMLCh* m_pNext;
};

bool NameIs(const DOMNode* node, RegStringView name) {
    const XMLCh* nodeName = node->getNodeName();
    return nodeName && RegStringView(nodeName) == name;
}

bool IsElement(const DOMNode* node) { return node->getNodeType() == DOMNode::ELEMENT_NODE; }

bool IsItem(const DOMNode* node) { return IsElement(node) && NameIs(node, kItem); }

// Any child, of any node type, is compared by its DOM node name.
DOMNode* FindChild(const DOMNode* parent, RegStringView name) {
    for (DOMNode* child = parent->getFirstChild(); child; child = child->getNextSibling()) {
        if (NameIs(child, name)) return child;
    }
    return nullptr;
}

const XMLCh* AttributeValue(const DOMNode* element, const XMLCh* name) {
    const DOMNamedNodeMap* attributes = element->getAttributes();
    const DOMNode* attribute = attributes ? attributes->getNamedItem(name) : nullptr;
    return attribute ? attribute->getNodeValue() : nullptr;
}

bool ItemIsNamed(const DOMNode* item, const XMLCh* name) {
    const XMLCh* itemName = AttributeValue(item, kName);
    return itemName && XMLString::equals(itemName, name);
}

// The first value of that name, whatever else its element holds.
DOMNode* FindItem(const DOMNode* key, const XMLCh* name) {
    for (DOMNode* child = key->getFirstChild(); child; child = child->getNextSibling()) {
        if (IsItem(child) && ItemIsNamed(child, name)) return child;
    }
    return nullptr;
}

XMLSize_t AttributeCount(const DOMNode* node) {
    const DOMNamedNodeMap* attributes = node->getAttributes();
    return attributes ? attributes->getLength() : 0;
}

int GetDefaultValue(const DOMNode* key, RegString& type, RegString& value) {
    if (!IsElement(key) || AttributeCount(key) != 1) return 0;
    const DOMNode* attribute = key->getAttributes()->item(0);
    if (!NameIs(attribute, kDefault)) return 0;
    type = kString;
    value = attribute->getNodeValue();
    return 1;
}

}  // namespace

RegString NarrowTo16(const wchar_t* text) {
    RegString out;
    for (; *text; ++text)
        out.push_back(static_cast<XMLCh>(*text));
    return out;
}

RegString EscapeKey(const wchar_t* text) {
    RegString out = NarrowTo16(text);
    std::replace(out.begin(), out.end(), u' ', u'_');
    return out;
}

bool IsCreatablePath(const XMLCh* path) {
    CPathPieces pieces(path);
    RegStringView piece;
    while (pieces.Next(piece)) {
        if (piece.empty() || !xercesc::XMLChar1_0::isValidName(piece.data(), piece.size()))
            return false;
    }
    return true;
}

bool IsStorableText(const XMLCh* text) {
    for (; *text; ++text) {
        if (*text < 0x20 && *text != u'\t' && *text != u'\n' && *text != u'\r') return false;
    }
    return true;
}

int FindKey(const DOMNode* parent, const XMLCh* name, DOMNode** out) {
    DOMNode* found = FindChild(parent, name);
    if (!found) return 0;
    *out = found;
    return 1;
}

int ResolveKey(const DOMNode* start, const XMLCh* path, DOMNode** out) {
    const DOMNode* node = start;
    DOMNode* found = nullptr;
    CPathPieces pieces(path);
    RegStringView piece;
    while (pieces.Next(piece)) {
        found = FindChild(node, piece);
        if (!found) return 0;
        node = found;
    }
    *out = found;
    return 1;
}

int CreateKey(DOMDocument* doc, DOMNode* start, const XMLCh* path, DOMNode** out) {
    DOMNode* node = start;
    CPathPieces pieces(path);
    RegStringView piece;
    RegString name;
    while (pieces.Next(piece)) {
        DOMNode* child = FindChild(node, piece);
        if (!child) {
            name.assign(piece);
            child = node->appendChild(doc->createElement(name.c_str()));
        }
        node = child;
    }
    *out = node;
    return 1;
}

int DeleteKey(DOMNode* start, const XMLCh* path) {
    DOMNode* found = nullptr;
    if (!ResolveKey(start, path, &found)) return 0;
    try {
        DOMNode* parent = found->getParentNode();
        if (!parent) return 0;
        // Not released: another user's current key may lie in the subtree.
        parent->removeChild(found);
        return 1;
    } catch (const xercesc::DOMException&) {
        return 0;
    }
}

int GetValue(const DOMNode* key, const XMLCh* name, RegString& type, RegString& value) {
    if (!*name) return GetDefaultValue(key, type, value);
    for (const DOMNode* child = key->getFirstChild(); child; child = child->getNextSibling()) {
        if (!IsItem(child) || AttributeCount(child) != 3 || !ItemIsNamed(child, name)) continue;
        const XMLCh* itemType = AttributeValue(child, kType);
        const XMLCh* itemValue = AttributeValue(child, kValue);
        if (!itemType || !itemValue) continue;
        type = itemType;
        value = itemValue;
        return 1;
    }
    return 0;
}

int SetValue(DOMDocument* doc, DOMNode* key, const XMLCh* name, const XMLCh* type,
             const XMLCh* value) {
    if (!*name) {
        if (!IsElement(key)) return 0;
        static_cast<DOMElement*>(key)->setAttribute(kDefault, value);
        return 1;
    }
    DOMElement* item = doc->createElement(kItem);
    item->setAttribute(kName, name);
    item->setAttribute(kType, type);
    item->setAttribute(kValue, value);
    if (DOMNode* old = FindItem(key, name)) {
        key->replaceChild(item, old);
        return 1;
    }
    key->appendChild(item);
    return 1;
}

int DeleteValue(DOMDocument*, DOMNode* key, const XMLCh* name) {
    if (!*name) {
        if (!IsElement(key)) return 0;
        static_cast<DOMElement*>(key)->removeAttribute(kDefault);
        return 1;
    }
    DOMNode* item = FindItem(key, name);
    if (!item) return 0;
    key->removeChild(item);
    return 1;
}

namespace {

const char kDeclaration[] = "<?xml version='1.0' encoding='ISO-8859-1' ?>\n";

const char* EntityFor(char c) {
    switch (c) {
    case '"': return "&quot;";
    case '&': return "&amp;";
    case '<': return "&lt;";
    case '>': return "&gt;";
    default: return nullptr;
    }
}

// The characters that an escaped text writes as entity references.
const struct CMarkupTable {
    bool entries[128] = {};
    CMarkupTable() { entries['"'] = entries['&'] = entries['<'] = entries['>'] = true; }
    bool operator[](size_t c) const { return entries[c]; }
} kIsMarkup;

void AppendByte(std::string& bytes, char c, bool escape) {
    const char* entity = escape ? EntityFor(c) : nullptr;
    if (entity)
        bytes += entity;
    else
        bytes.push_back(c);
}

// Appends text in the local code page, escaped on request; false when the
// conversion yields nothing. ASCII text, nearly all of any registry, is
// copied code unit by code unit: every code page the transcoder picks on
// this platform agrees with ASCII there.
bool AppendText(std::string& bytes, const XMLCh* text, bool escape) {
    if (!text) return false;
    const size_t start = bytes.size();
    for (const XMLCh* p = text; *p; ++p) {
        if (*p >= 0x80) {
            bytes.resize(start);
            char* converted = XMLString::transcode(text);
            if (!converted) return false;
            for (const char* c = converted; *c; ++c)
                AppendByte(bytes, *c, escape);
            XMLString::release(&converted);
            return true;
        }
        AppendByte(bytes, static_cast<char>(*p), escape);
    }
    return true;
}

// An attribute holds its value as child nodes. The usual single text child
// is read directly: the parser library's own accessor checks every node with
// a dynamic_cast, which was half the cost of a save.
const XMLCh* AttributeValue(const DOMNode* attribute) {
    const DOMNode* first = attribute->getFirstChild();
    if (first && !first->getNextSibling() && first->getNodeType() == DOMNode::TEXT_NODE)
        return first->getNodeValue();
    return attribute->getNodeValue();
}

// Gathers a save's bytes in one buffer and hands them to the stream in large
// pieces: the stream sees a few big writes per save, not several per node.
class CDocumentWriter {
public:
    explicit CDocumentWriter(std::ostream& out) : m_out(out), m_buffer(new char[kBufferSize]) {}

    // False at the first node whose type has no written form.
    bool Write(const DOMNode* node) {
        switch (node->getNodeType()) {
        case DOMNode::ELEMENT_NODE: return WriteElement(node);
        case DOMNode::TEXT_NODE:
            Put("\n");
            Text(node->getNodeValue());
            Put("\n");
            return true;
        case DOMNode::CDATA_SECTION_NODE:
            Put("<![CDATA[");
            Text(node->getNodeValue());
            Put("]]>\n");
            return true;
        case DOMNode::ENTITY_REFERENCE_NODE: return WriteChildren(node);
        case DOMNode::PROCESSING_INSTRUCTION_NODE:
            Put("<?");
            Text(node->getNodeName());
            Put(" ");
            Text(node->getNodeValue());
            Put("?>\n");
            return true;
        case DOMNode::COMMENT_NODE:
            Put("<!--");
            Text(node->getNodeValue());
            Put("-->\n");
            return true;
        case DOMNode::DOCUMENT_NODE: Put(kDeclaration); return WriteChildren(node);
        default: return false;
        }
    }

    void Flush() {
        m_out.write(m_buffer.get(), m_used);
        m_used = 0;
    }

private:
    static const size_t kBufferSize = 1 << 16;
    // Room made before each text, so that names and values of usual length
    // are narrowed straight into the buffer.
    static const size_t kRoomForText = 1 << 12;

    bool WriteElement(const DOMNode* element) {
        Put("<");
        Text(element->getNodeName());
        const DOMNamedNodeMap* attributes = element->getAttributes();
        const XMLSize_t count = attributes->getLength();
        for (XMLSize_t i = 0; i < count; ++i) {
            const DOMNode* attribute = attributes->item(i);
            Put(" ");
            Text(attribute->getNodeName());
            Put(" = \"");
            Text(AttributeValue(attribute), true);
            Put("\"");
        }
        const DOMNode* first = element->getFirstChild();
        if (!first) {
            Put("/>");
            return true;
        }
        Put(">");
        if (!WriteSiblings(first)) return false;
        Put("</");
        Text(element->getNodeName());
        Put(">");
        return true;
    }

    bool WriteChildren(const DOMNode* node) { return WriteSiblings(node->getFirstChild()); }

    bool WriteSiblings(const DOMNode* first) {
        for (const DOMNode* node = first; node; node = node->getNextSibling()) {
            if (!Write(node)) return false;
        }
        return true;
    }

    template <size_t N>
    void Put(const char (&literal)[N]) {
        Append(literal, N - 1);
    }

    void Append(const char* bytes, size_t length) {
        if (length > kBufferSize - m_used) {
            Flush();
            if (length > kBufferSize) {
                m_out.write(bytes, length);
                return;
            }
        }
        std::memcpy(m_buffer.get() + m_used, bytes, length);
        m_used += length;
    }

    // ASCII text that needs no escaping goes straight into the buffer, in
    // one pass with no branch per character but the end tests. A text that
    // cannot be converted marks the stream bad after what came before it,
    // which then stays the last that the stream takes.
    void Text(const XMLCh* text, bool escape = false) {
        if (text && TextInPlace(text, escape)) return;
        m_scratch.clear();
        if (AppendText(m_scratch, text, escape)) {
            Append(m_scratch.data(), m_scratch.size());
            return;
        }
        Flush();
        m_out.setstate(std::ios::badbit);
    }

    bool TextInPlace(const XMLCh* text, bool escape) {
        if (kBufferSize - m_used < kRoomForText) Flush();
        char* const out = m_buffer.get() + m_used;
        const size_t room = kBufferSize - m_used;
        XMLCh seen = 0;
        bool markup = false;
        size_t length = 0;
        for (XMLCh c; (c = text[length]) != 0; ++length) {
            if (length == room) return false;
            seen |= c;
            markup |= kIsMarkup[c & 0x7F];
            out[length] = static_cast<char>(c);
        }
        if (seen >= 0x80 || (escape && markup)) return false;
        m_used += length;
        return true;
    }

    std::ostream& m_out;
    std::unique_ptr<char[]> m_buffer;
    size_t m_used = 0;
    std::string m_scratch;
};

}  // namespace

std::ostream& operator<<(std::ostream& out, const DOMNode* node) {
    if (!node) {
        out.setstate(std::ios::badbit);
        return out;
    }
    CDocumentWriter writer(out);
    const bool nodeTypeWritable = writer.Write(node);
    writer.Flush();
    REG_ASSERT(nodeTypeWritable);
    return out;
}

std::ostream& operator<<(std::ostream& out, const XMLCh* text) {
    return outputContent(out, text, false);
}

std::ostream& outputContent(std::ostream& out, const XMLCh* text, bool escape) {
    std::string bytes;
    if (!AppendText(bytes, text, escape)) {
        out.setstate(std::ios::badbit);
        return out;
    }
    return out.write(bytes.data(), bytes.size());
}

wchar_t* AllocWidened(const XMLCh* text) {
    const XMLSize_t length = XMLString::stringLen(text);
    wchar_t* out = COM_SysAllocStringLen(nullptr, length);
    if (!out) return nullptr;
    std::copy(text, text + length, out);
    return out;
}

namespace {

// Every element child is listed, value elements "item" included.
void ListKeys(const DOMNode* key, CVecBstr& slots) {
    size_t next = 0;
    for (const DOMNode* child = key->getFirstChild(); child; child = child->getNextSibling()) {
        if (IsElement(child)) slots[next++] = AllocWidened(child->getNodeName());
    }
}

// A value's name goes to the slot numbered by the position of its "name"
// attribute, not to the next free one: with name written first, every value
// lands in slot 0 and the last one stays. Callers rely on this placement.
void ListValues(const DOMNode* key, CVecBstr& slots) {
    for (const DOMNode* child = key->getFirstChild(); child; child = child->getNextSibling()) {
        if (!IsItem(child) || AttributeCount(child) != 3) continue;
        const DOMNamedNodeMap* attributes = child->getAttributes();
        for (XMLSize_t p = 0; p < 3;) {
            const DOMNode* attribute = attributes->item(p);
            if (!NameIs(attribute, kName)) {
                ++p;
                continue;
            }
            // A key with fewer children than the position has no such slot.
            if (p < slots.size()) {
                COM_SysFreeString(slots[p]);
                slots[p] = AllocWidened(attribute->getNodeValue());
            }
            p += 2;
        }
    }
}

}  // namespace

HRESULT CreateEnumerator(DOMNode* key, int kind, COM_IEnumBSTR** out) {
    unsigned int count = 0;
    for (const DOMNode* child = key->getFirstChild(); child; child = child->getNextSibling())
        ++count;
    CVecBstr slots;
    slots.assign(count, nullptr);
    if (kind == 0)
        ListKeys(key, slots);
    else
        ListValues(key, slots);
    wchar_t** items = new wchar_t*[count];
    std::copy(slots.begin(), slots.end(), items);
    slots.clear();
    return CRegEnumItems::CreateInstance(COM_IID_IEnumBSTR, reinterpret_cast<void**>(out), count,
                                         items, 0);
}
