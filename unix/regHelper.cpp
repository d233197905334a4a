// Tree operations on the registry document, the document writer and the
// enumerator builder.
#include "regHelper.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include <xercesc/dom/DOMElement.hpp>
#include <xercesc/dom/DOMException.hpp>
#include <xercesc/dom/DOMNamedNodeMap.hpp>
#include <xercesc/util/XMLChar.hpp>
#include <xercesc/util/XMLString.hpp>

#include "comApi.h"
#include "comUtil.h"
#include "regErrorHandler.h"
#include "regImage.h"
#include "regIndex.h"
#include "regRules.h"
#include "regSaved.h"

using xercesc::DOMDocument;
using xercesc::DOMElement;
using xercesc::DOMNamedNodeMap;
using xercesc::DOMNode;
using xercesc::XMLString;

namespace {

using RegistryRules::kDefault;
using RegistryRules::kItem;
using RegistryRules::kName;
using RegistryRules::kType;
using RegistryRules::kValue;

bool NameIs(const DOMNode* node, RegStringView name) {
    const XMLCh* nodeName = node->getNodeName();
    return nodeName && RegStringView(nodeName) == name;
}

bool IsElement(const DOMNode* node) { return node->getNodeType() == DOMNode::ELEMENT_NODE; }

bool IsItem(const DOMNode* node) { return IsElement(node) && NameIs(node, kItem); }

// Any child, of any node type, is compared by its DOM node name.
DOMNode* FindChild(const DOMNode* parent, RegStringView name) { return ChildIndex::Find(parent, name); }

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

// A character that no XML file can hold, written or referenced.
bool IsIllegalInXml(XMLCh c) {
    return (c < 0x20 && c != u'\t' && c != u'\n' && c != u'\r') || c == 0xFFFE || c == 0xFFFF;
}

bool IsHighSurrogate(XMLCh c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsLowSurrogate(XMLCh c) { return c >= 0xDC00 && c <= 0xDFFF; }

// Exactly the attributes name, type and value, in that order.
bool HasValueAttributesOnly(const DOMNode* item) {
    const DOMNamedNodeMap* attributes = item->getAttributes();
    return attributes->getLength() == 3 && NameIs(attributes->item(0), kName) &&
           NameIs(attributes->item(1), kType) && NameIs(attributes->item(2), kValue);
}

// A node about to be freed leaves the child index and the saved subtrees.
// Every other change tells the saved subtrees before it is made, so that
// one that fails halfway leaves no stale bytes either.
void NoteReleased(DOMNode* node) {
    ChildIndex::Released(node);
    SavedSubtrees::Released(node);
}

// Frees a detached subtree from the leaves up. The DOM's own release of a
// subtree recurses, and a hand-edited file may nest deeper than any stack.
void ReleaseSubtree(DOMNode* root) {
    DOMNode* node = root;
    for (;;) {
        while (DOMNode* last = node->getLastChild())
            node = last;
        if (node == root) break;
        DOMNode* parent = node->getParentNode();
        NoteReleased(node);
        parent->removeChild(node)->release();
        node = parent;
    }
    NoteReleased(root);
    root->release();
}

}  // namespace

RegString ToUtf16(const wchar_t* text) {
    RegString out;
    for (; *text; ++text) {
        const uint32_t c = static_cast<uint32_t>(*text);
        if (c < 0xD800 || (c > 0xDFFF && c <= 0xFFFF)) {
            out.push_back(static_cast<XMLCh>(c));
        } else if (c >= 0x10000 && c <= 0x10FFFF) {
            out.push_back(static_cast<XMLCh>(0xD800 + ((c - 0x10000) >> 10)));
            out.push_back(static_cast<XMLCh>(0xDC00 + ((c - 0x10000) & 0x3FF)));
        } else {
            out.push_back(kNoCharacter);
        }
    }
    return out;
}

RegString EscapeKey(const wchar_t* text) {
    RegString out = ToUtf16(text);
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

size_t PathDepth(const XMLCh* path) {
    size_t depth = 1;
    for (; *path; ++path) depth += *path == u'\\';
    return depth;
}

bool IsStorableText(const XMLCh* text) {
    for (const XMLCh* p = text; *p; ++p) {
        if (IsIllegalInXml(*p)) return false;
        if (IsHighSurrogate(*p) && IsLowSurrogate(p[1]))
            ++p;
        else if (IsHighSurrogate(*p) || IsLowSurrogate(*p))
            return false;
    }
    return true;
}

bool IsSingleByteText(const XMLCh* text) {
    for (; *text; ++text) {
        if (*text > 0xFF) return false;
    }
    return true;
}

int FindKey(const DOMNode* parent, const XMLCh* name, DOMNode** out) {
    DOMNode* found = FindChild(parent, name);
    if (!found) return 0;
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
            SavedSubtrees::Changed(node);
            child = node->appendChild(doc->createElement(name.c_str()));
            ChildIndex::Appended(node, child);
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
        SavedSubtrees::Changed(parent);
        ReleaseSubtree(parent->removeChild(found));
        ChildIndex::Removed(parent);
        return 1;
    } catch (const xercesc::DOMException&) {
        return 0;
    }
}

int SetValue(DOMDocument* doc, DOMNode* key, const XMLCh* name, const XMLCh* type,
             const XMLCh* value) {
    if (!*name) {
        if (!IsElement(key)) return 0;
        SavedSubtrees::Changed(key);
        static_cast<DOMElement*>(key)->setAttribute(kDefault, value);
        return 1;
    }
    DOMNode* old = FindItem(key, name);
    // A value element just as this function makes them is the same after
    // its type and data change as after a replacement, and costs no memory.
    if (old && HasValueAttributesOnly(old)) {
        SavedSubtrees::Changed(old);
        static_cast<DOMElement*>(old)->setAttribute(kType, type);
        static_cast<DOMElement*>(old)->setAttribute(kValue, value);
        return 1;
    }
    DOMElement* item = doc->createElement(kItem);
    item->setAttribute(kName, name);
    item->setAttribute(kType, type);
    item->setAttribute(kValue, value);
    SavedSubtrees::Changed(key);
    if (old) {
        key->replaceChild(item, old);
        ChildIndex::Replaced(key, old, item);
        ReleaseSubtree(old);
        return 1;
    }
    key->appendChild(item);
    ChildIndex::Appended(key, item);
    return 1;
}

int DeleteValue(DOMDocument*, DOMNode* key, const XMLCh* name) {
    if (!*name) {
        if (!IsElement(key)) return 0;
        SavedSubtrees::Changed(key);
        static_cast<DOMElement*>(key)->removeAttribute(kDefault);
        return 1;
    }
    DOMNode* item = FindItem(key, name);
    if (!item) return 0;
    SavedSubtrees::Changed(key);
    ReleaseSubtree(key->removeChild(item));
    ChildIndex::Removed(key);
    return 1;
}

namespace {

const char kDeclaration[] = "<?xml version='1.0' encoding='ISO-8859-1' ?>\n";

// What a piece of text is in the file decides how its characters are
// written. Every character up to U+00FF is one byte, as the declaration
// says; a name can hold no other.
enum class TextRole {
    Name,       // tag and attribute names, instruction targets
    Content,    // text, comments, CDATA and instructions: markup is written raw
    Attribute,  // attribute values: markup, tab, LF and CR as references
};

const char* EntityFor(XMLCh c) {
    switch (c) {
    case u'"': return "&quot;";
    case u'&': return "&amp;";
    case u'<': return "&lt;";
    case u'>': return "&gt;";
    // As references they survive the normalisation that turns white space
    // in an attribute value into blanks when the file is read.
    case u'\t': return "&#9;";
    case u'\n': return "&#10;";
    case u'\r': return "&#13;";
    default: return nullptr;
    }
}

// The ASCII characters that need more than a copy: those an attribute value
// writes as references, and the control characters no file may hold.
const struct CSpecialTable {
    bool entries[128] = {};
    CSpecialTable() {
        for (XMLCh c = 0; c < 128; ++c) entries[c] = c < 0x20 || EntityFor(c) != nullptr;
    }
    bool operator[](size_t c) const { return entries[c]; }
} kIsSpecial;


// A growing byte buffer that the writer narrows text straight into; its
// bytes are handed out whole, without a copy.
class CByteBuffer {
public:
    CByteBuffer() = default;
    // Writes into `room`, whose size is all room.
    explicit CByteBuffer(std::string room) : m_data(std::move(room)) {}

    char* Room(size_t count) {
        if (m_data.size() - m_used < count) Grow(count);
        return m_data.data() + m_used;
    }
    size_t Free() const { return m_data.size() - m_used; }
    void Commit(size_t count) { m_used += count; }
    void Append(const char* bytes, size_t count) {
        std::memcpy(Room(count), bytes, count);
        Commit(count);
    }
    void Push(char c) { Append(&c, 1); }
    const char* Data() const { return m_data.data(); }
    size_t Size() const { return m_used; }
    // The whole buffer, room included; the bytes are the first Size().
    std::string Take() { return std::move(m_data); }

private:
    void Grow(size_t count) {
        m_data.resize(std::max({m_data.size() * 2, m_used + count, size_t(1) << 16}));
    }

    std::string m_data;
    size_t m_used = 0;
};

void AppendReference(CByteBuffer& out, uint32_t c) {
    char reference[16];
    const int length = std::snprintf(reference, sizeof reference, "&#%u;", c);
    out.Append(reference, static_cast<size_t>(length));
}

// Appends the text as its role wants it; false when it holds a character
// the file cannot carry there, since a file that no parser reads back must
// never be written.
bool AppendEncoded(CByteBuffer& out, const XMLCh* text, TextRole role) {
    for (const XMLCh* p = text; *p; ++p) {
        const XMLCh c = *p;
        if (IsIllegalInXml(c)) return false;
        const char* entity = role == TextRole::Attribute ? EntityFor(c) : nullptr;
        if (entity) {
            out.Append(entity, std::strlen(entity));
        } else if (c <= 0xFF) {
            out.Push(static_cast<char>(c));
        } else if (role == TextRole::Name) {
            return false;
        } else if (IsHighSurrogate(c) && IsLowSurrogate(p[1])) {
            AppendReference(out, 0x10000 + ((c - 0xD800u) << 10) + (p[1] - 0xDC00u));
            ++p;
        } else if (IsHighSurrogate(c) || IsLowSurrogate(c)) {
            return false;
        } else {
            AppendReference(out, c);
        }
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

enum class WriteResult { Written, UnwritableText, UnknownNodeType };

ImageText TextOf(const XMLCh* text) { return text ? ImageText(text) : ImageText(); }

// Writes a subtree into one buffer. The walk follows the tree's own links
// instead of recursing, so no depth of nesting can exhaust the stack.
//
// Writing the registry's document, it writes the document's image in the
// same walk, reuses the bytes and image records saved for subtrees that have
// not changed since, and saves those it writes anew. Only the children of a
// key with many children are saved: the classes and ProgIDs of a large
// registry, each small, which together are nearly all of it.
class CDocumentWriter {
public:
    CDocumentWriter() : m_reuseSaved(false) {}
    // Writes the registry's document into `room`, reusing kept bytes; and,
    // unless `imageBase` is 0, the records of its image that are not kept,
    // to go into the image from `imageBase` on.
    CDocumentWriter(SavedSubtrees::CSave room, uint32_t imageBase)
        : m_reuseSaved(true),
          m_out(std::move(room.bytes)),
          m_image(imageBase ? new CImageBuilder(std::move(room.image), imageBase) : nullptr) {}

    WriteResult Write(const DOMNode* root) {
        const DOMNode* node = root;
        for (;;) {
            const size_t start = m_out.Size();
            const bool saves = Saves(node);
            const SavedSubtrees::CKept kept =
                saves ? SavedSubtrees::Reuse(node, start, Records()) : SavedSubtrees::CKept();
            if (!kept.bytes.empty()) {
                m_out.Append(kept.bytes.data(), kept.bytes.size());
                if (Records()) m_image->Reuse(kept.record.offset, kept.record.hash);
            } else {
                bool descend = false;
                if (!Open(node, descend)) return WriteResult::UnknownNodeType;
                COpen opened{node, 0, saves ? SavedSubtrees::Begin(node, start) : kNotSaved, descend,
                             RecordState::None, 0};
                OpenRecord(opened);
                if (descend) {
                    m_open.push_back(opened);
                    node = node->getFirstChild();
                    continue;
                }
                Ended(opened);
            }
            // Close every node whose subtree is done, up to one with a next
            // sibling.
            for (;;) {
                if (node == root) return m_textWritable ? WriteResult::Written
                                                        : WriteResult::UnwritableText;
                ++m_open.back().children;
                if (const DOMNode* next = node->getNextSibling()) {
                    node = next;
                    break;
                }
                const COpen parent = m_open.back();
                m_open.pop_back();
                node = parent.node;
                Close(node);
                Ended(parent);
            }
        }
    }

    const CByteBuffer& Bytes() const { return m_out; }
    size_t Size() const { return m_out.Size(); }
    size_t ImageSize() const { return m_image ? m_image->Size() : 0; }
    // The record of the node written last, the document when it is done.
    uint32_t LastRecord() const { return m_nLastRecord; }
    SavedSubtrees::CSave TakeBuffers() {
        return {m_out.Take(), m_image ? m_image->Take() : std::string()};
    }

private:
    // Room made before each text, so that names and values of usual length
    // are narrowed straight into the buffer.
    static const size_t kRoomForText = 1 << 12;
    // A key's children from this one on are saved.
    static const size_t kSavedFrom = 32;
    static const size_t kNotSaved = SIZE_MAX;

    // What became of a node's record: none is written, it is being written,
    // or the image holds it already, and with it the records of its whole
    // subtree.
    enum class RecordState { None, Opened, Kept };

    // A node whose children are being written.
    struct COpen {
        const DOMNode* node;
        size_t children;  // written so far
        size_t begun;     // its kept bytes' number, when they are kept
        bool parent;
        RecordState record;
        uint32_t hash;
    };

    bool Saves(const DOMNode* node) const {
        return m_reuseSaved && !m_open.empty() && m_open.back().children >= kSavedFrom &&
               node->getNodeType() == DOMNode::ELEMENT_NODE;
    }

    // Whether records are being written: there is an image, and this part of
    // it is not kept whole.
    bool Records() const { return m_image && m_nKeptDepth == 0; }

    // A key with children that has not changed keeps its record; any other
    // node gets one anew.
    void OpenRecord(COpen& node) {
        if (!Records()) return;
        SavedSubtrees::CRecord kept;
        if (node.parent && node.begun == kNotSaved && SavedSubtrees::ReuseRecord(node.node, kept)) {
            m_image->Reuse(kept.offset, kept.hash);
            m_nLastRecord = kept.offset;
            node.record = RecordState::Kept;
            ++m_nKeptDepth;
            return;
        }
        const auto type = static_cast<uint8_t>(node.node->getNodeType());
        m_image->Open(type, node.parent, TextOf(node.node->getNodeName()));
        const DOMNamedNodeMap* attributes = node.node->getAttributes();
        const XMLSize_t count = attributes ? attributes->getLength() : 0;
        for (XMLSize_t i = 0; i < count; ++i) {
            const DOMNode* attribute = attributes->item(i);
            m_image->Attribute(TextOf(attribute->getNodeName()), TextOf(AttributeValue(attribute)));
        }
        node.record = RecordState::Opened;
        node.hash = m_image->LastHash();
    }

    // Ends the node's record, and keeps what it wrote for the next save.
    void Ended(const COpen& node) {
        SavedSubtrees::CRecord record;
        if (node.record == RecordState::Opened) {
            record = {m_image->End(), node.hash};
            m_nLastRecord = record.offset;
            if (node.parent && node.begun == kNotSaved) SavedSubtrees::Recorded(node.node, record);
        } else if (node.record == RecordState::Kept) {
            --m_nKeptDepth;
        }
        if (node.begun != kNotSaved) SavedSubtrees::End(node.begun, m_out.Size(), record);
    }

    // Writes what comes before the node's children; `descend` tells whether
    // it has children to write. False for a node type with no written form.
    bool Open(const DOMNode* node, bool& descend) {
        switch (node->getNodeType()) {
        case DOMNode::ELEMENT_NODE:
            OpenElement(node);
            descend = node->getFirstChild() != nullptr;
            return true;
        case DOMNode::TEXT_NODE:
            Put("\n");
            Text(node->getNodeValue(), TextRole::Content);
            Put("\n");
            return true;
        case DOMNode::CDATA_SECTION_NODE:
            Put("<![CDATA[");
            Text(node->getNodeValue(), TextRole::Content);
            Put("]]>\n");
            return true;
        case DOMNode::ENTITY_REFERENCE_NODE:
            descend = node->getFirstChild() != nullptr;
            return true;
        case DOMNode::PROCESSING_INSTRUCTION_NODE:
            Put("<?");
            Text(node->getNodeName(), TextRole::Name);
            Put(" ");
            Text(node->getNodeValue(), TextRole::Content);
            Put("?>\n");
            return true;
        case DOMNode::COMMENT_NODE:
            Put("<!--");
            Text(node->getNodeValue(), TextRole::Content);
            Put("-->\n");
            return true;
        case DOMNode::DOCUMENT_NODE:
            Put(kDeclaration);
            descend = node->getFirstChild() != nullptr;
            return true;
        default: return false;
        }
    }

    // Writes what comes after the children of a node that had some.
    void Close(const DOMNode* node) {
        if (node->getNodeType() != DOMNode::ELEMENT_NODE) return;
        Put("</");
        Text(node->getNodeName(), TextRole::Name);
        Put(">");
    }

    void OpenElement(const DOMNode* element) {
        Put("<");
        Text(element->getNodeName(), TextRole::Name);
        const DOMNamedNodeMap* attributes = element->getAttributes();
        const XMLSize_t count = attributes->getLength();
        for (XMLSize_t i = 0; i < count; ++i) {
            const DOMNode* attribute = attributes->item(i);
            Put(" ");
            Text(attribute->getNodeName(), TextRole::Name);
            Put(" = \"");
            Text(AttributeValue(attribute), TextRole::Attribute);
            Put("\"");
        }
        if (element->getFirstChild())
            Put(">");
        else
            Put("/>");
    }

    template <size_t N>
    void Put(const char (&literal)[N]) {
        m_out.Append(literal, N - 1);
    }

    void Text(const XMLCh* text, TextRole role) {
        if (!text || (!TextInPlace(text, role) && !AppendEncoded(m_out, text, role)))
            m_textWritable = false;
    }

    // ASCII with nothing to write as a reference, nearly all of any
    // registry, goes straight into the buffer in one pass with no branch per
    // character but the end tests.
    bool TextInPlace(const XMLCh* text, TextRole role) {
        char* const out = m_out.Room(kRoomForText);
        const size_t room = m_out.Free();
        XMLCh seen = 0;
        bool special = false;
        size_t length = 0;
        for (XMLCh c; (c = text[length]) != 0; ++length) {
            if (length == room) return false;
            seen |= c;
            special |= kIsSpecial[c & 0x7F];
            out[length] = static_cast<char>(c);
        }
        // Outside attribute values markup and white space are written raw;
        // anything else special is left to the full encoder.
        if (seen >= 0x80 || (special && (role == TextRole::Attribute ||
                                         std::any_of(text, text + length, IsIllegalInXml))))
            return false;
        m_out.Commit(length);
        return true;
    }

    const bool m_reuseSaved;
    CByteBuffer m_out;
    std::unique_ptr<CImageBuilder> m_image;
    // How many open nodes keep their records whole.
    size_t m_nKeptDepth = 0;
    uint32_t m_nLastRecord = 0;
    std::vector<COpen> m_open;
    bool m_textWritable = true;
};

}  // namespace

std::ostream& operator<<(std::ostream& out, const DOMNode* node) {
    if (!node) {
        out.setstate(std::ios::badbit);
        return out;
    }
    CDocumentWriter writer;
    const WriteResult result = writer.Write(node);
    const bool nodeTypeWritable = result != WriteResult::UnknownNodeType;
    REG_ASSERT(nodeTypeWritable);
    // A file that says less than the document holds is never written.
    if (result != WriteResult::Written) {
        out.setstate(std::ios::badbit);
        return out;
    }
    return out.write(writer.Bytes().Data(), static_cast<std::streamsize>(writer.Bytes().Size()));
}

namespace {

WriteResult WriteWithImage(const DOMDocument* document, uint32_t imageBase, CWritten& written) {
    CDocumentWriter writer(SavedSubtrees::TakeBuffers(), imageBase);
    const WriteResult result = writer.Write(document);
    if (result != WriteResult::Written) {
        SavedSubtrees::Abandon(writer.TakeBuffers());
        return result;
    }
    const size_t size = writer.Size();
    const size_t imageSize = writer.ImageSize();
    written.root = writer.LastRecord();
    SavedSubtrees::Finish(writer.TakeBuffers(), size, imageSize, written.bytes, written.image);
    return result;
}

}  // namespace

bool WriteDocument(const DOMDocument* document, uint32_t imageBase, CWritten& written) {
    const WriteResult result = WriteWithImage(document, imageBase, written);
    if (result == WriteResult::UnknownNodeType) {
        // Stops the process as the operator above does, in its words.
        std::ostream nowhere(nullptr);
        nowhere << static_cast<const DOMNode*>(document);
    }
    return result == WriteResult::Written;
}

bool BuildImage(const DOMDocument* document, CWritten& written) {
    SavedSubtrees::Attach(document);
    return WriteWithImage(document, RegistryImage::kHeaderSize, written) == WriteResult::Written;
}

std::ostream& operator<<(std::ostream& out, const XMLCh* text) {
    return outputContent(out, text, false);
}

std::ostream& outputContent(std::ostream& out, const XMLCh* text, bool escape) {
    CByteBuffer bytes;
    if (!text || !AppendEncoded(bytes, text, escape ? TextRole::Attribute : TextRole::Content)) {
        out.setstate(std::ios::badbit);
        return out;
    }
    return out.write(bytes.Data(), static_cast<std::streamsize>(bytes.Size()));
}

namespace {

// Calls `put` with each character of the UTF-16 text, a pair as one.
template <class Put>
void ForEachCharacter(const XMLCh* text, size_t length, Put put) {
    for (size_t i = 0; i < length; ++i) {
        if (i + 1 < length && IsHighSurrogate(text[i]) && IsLowSurrogate(text[i + 1])) {
            put(static_cast<wchar_t>(0x10000 + ((text[i] - 0xD800) << 10) + (text[i + 1] - 0xDC00)));
            ++i;
        } else {
            put(static_cast<wchar_t>(text[i]));
        }
    }
}

}  // namespace

std::wstring WidenUtf16(const XMLCh* text, size_t length) {
    std::wstring out;
    out.reserve(length);
    ForEachCharacter(text, length, [&out](wchar_t c) { out.push_back(c); });
    return out;
}

wchar_t* AllocWidened(const XMLCh* text) {
    const XMLSize_t length = XMLString::stringLen(text);
    size_t characters = 0;
    ForEachCharacter(text, length, [&characters](wchar_t) { ++characters; });
    wchar_t* out = COM_SysAllocStringLen(nullptr, characters);
    if (!out) return nullptr;
    wchar_t* next = out;
    ForEachCharacter(text, length, [&next](wchar_t c) { *next++ = c; });
    return out;
}

namespace {

// The DOM as the registry's rules read it.
struct CDomTree {
    typedef const DOMNode* Node;
    typedef const XMLCh* Text;

    Node Find(Node parent, RegStringView name) const { return FindChild(parent, name); }
    uint32_t ChildCount(Node node) const {
        uint32_t count = 0;
        for (Node child = node->getFirstChild(); child; child = child->getNextSibling()) ++count;
        return count;
    }
    template <class Visit>
    void ForEachChild(Node node, Visit visit) const {
        for (Node child = node->getFirstChild(); child && visit(child); child = child->getNextSibling()) {
        }
    }
    bool IsElement(Node node) const { return ::IsElement(node); }
    bool NameIs(Node node, RegStringView name) const { return ::NameIs(node, name); }
    Text Name(Node node) const { return node->getNodeName(); }
    uint32_t AttributeCount(Node node) const {
        const DOMNamedNodeMap* attributes = node->getAttributes();
        return attributes ? static_cast<uint32_t>(attributes->getLength()) : 0;
    }
    template <class Visit>
    void ForEachAttribute(Node node, Visit visit) const {
        const DOMNamedNodeMap* attributes = node->getAttributes();
        const uint32_t count = AttributeCount(node);
        for (uint32_t i = 0; i < count; ++i) {
            const DOMNode* attribute = attributes->item(i);
            if (!visit(i, attribute->getNodeName(), AttributeValue(attribute))) return;
        }
    }
    bool Is(Text text, RegStringView other) const { return text && RegStringView(text) == other; }
    void Copy(Text text, RegString& out) const { out = text ? text : u""; }
    wchar_t* Widen(Text text) const { return AllocWidened(text ? text : u""); }
};

}  // namespace

int ResolveKey(const DOMNode* start, const XMLCh* path, DOMNode** out) {
    CDomTree::Node found = nullptr;
    if (!RegistryRules::Resolve(CDomTree(), start, path, found)) return 0;
    *out = const_cast<DOMNode*>(found);
    return 1;
}

int GetValue(const DOMNode* key, const XMLCh* name, RegString& type, RegString& value) {
    return RegistryRules::GetValue(CDomTree(), key, name, type, value);
}

wchar_t** ListNames(const DOMNode* key, int kind, unsigned int& count) {
    return RegistryRules::ListNames(CDomTree(), key, kind, count);
}
