// The registry's compiled image, "Registry.XML.image": every node of the
// document in a flat form that needs no parsing. Processes that only read
// map it read-only and share its pages through the page cache, so that a
// read costs a stat, a mapping and a few look-ups whatever the registry's
// size.
//
// The file is a header followed by the records of the document's nodes in
// document order, each record directly followed by those of its children.
// Every offset inside a record counts from the record itself, so a subtree's
// records can be copied from one image into the next unchanged. All numbers
// are little-endian and unaligned.
//
//   record:  u8   node type, with kHasChildren when it has children
//            u32  extent: bytes from the record to the end of its subtree
//            [with children: u32 child count, u32 offset of its table or 0]
//            [element: varint attribute count]
//            text name
//            [other than an element: text value]
//            [element: text name, text value for each attribute, in order]
//            the children's records
//            [table]
//   text:    varint (units << 1 | wide), then the units: one byte each, or
//            two when wide
//   table:   u32 slot count, a power of two; then for each slot u32 name
//            hash and u32 offset of the first child of that name, 0 when
//            empty. A name is found from slot (hash & (count - 1)) on.
#ifndef VELTCOM_REGISTRY_REGIMAGE_H
#define VELTCOM_REGISTRY_REGIMAGE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "regFile.h"

typedef std::u16string_view ImageText;

namespace RegistryImage {

const uint8_t kHasChildren = 0x80;
const uint8_t kElement = 1;
const size_t kHeaderSize = 128;
// A key with this many children gets a table, through which a child is
// found by name in constant time.
const uint32_t kTableFrom = 32;

// The hash a table files a name under.
inline uint32_t NameHash(ImageText name) {
    uint32_t hash = 2166136261u;
    for (char16_t unit : name) {
        hash ^= unit;
        hash *= 16777619u;
    }
    return hash;
}

// The path of the image of the registry file at `file`.
std::string PathFor(const std::string& file);

// The header of an image `size` bytes long, whose records start at
// kHeaderSize with its document's at `root`, describing the file `file`.
std::string Header(size_t size, uint32_t root, const CFileStamp& file);

}  // namespace RegistryImage

// Encodes an image as the registry's writer walks the document: every node
// is opened, given its attributes, and ended after its children. A subtree
// whose records an earlier image holds is appended whole.
class CImageBuilder {
public:
    // Writes into `room`, whose capacity an earlier image leaves.
    explicit CImageBuilder(std::string room);

    size_t Offset() const { return m_used; }
    void Open(uint8_t type, bool hasChildren, ImageText name, ImageText value, uint32_t attributes);
    void Attribute(ImageText name, ImageText value);
    void End();
    // The subtree `records`, as an earlier image held it, whose root is
    // named by a name of hash `hash`.
    void Append(std::string_view records, uint32_t hash);
    // The name hash of the node opened last.
    uint32_t LastHash() const { return m_nLastHash; }
    // The bytes, room included; the image is the first Offset(), its first
    // kHeaderSize left for the header.
    std::string Take() { return std::move(m_bytes); }

private:
    struct COpen {
        size_t record;
        size_t firstChild;  // in m_children
        bool hasChildren;
    };
    struct CChild {
        uint32_t offset;  // from the start of the image
        uint32_t hash;
    };
    char* Room(size_t count);
    void PutByte(uint8_t byte);
    void PutU32(uint32_t value);
    void PutVarint(uint64_t value);
    void PutText(ImageText text);
    void Counted(uint32_t hash);
    void WriteTable(const COpen& node, const CChild* children, uint32_t count);

    std::string m_bytes;
    size_t m_used = 0;
    std::vector<COpen> m_open;
    std::vector<CChild> m_children;
    uint32_t m_nLastHash = 0;
};

// A text of the image, as stored: one byte or two a unit.
class CImageString {
public:
    CImageString() = default;
    CImageString(const uint8_t* data, uint32_t units, bool wide)
        : m_data(data), m_units(units), m_wide(wide) {}
    uint32_t Units() const { return m_units; }
    char16_t operator[](uint32_t i) const {
        return m_wide ? static_cast<char16_t>(m_data[2 * i] | m_data[2 * i + 1] << 8) : m_data[i];
    }
    bool operator==(ImageText text) const;
    std::u16string Copy() const;

private:
    const uint8_t* m_data = nullptr;
    uint32_t m_units = 0;
    bool m_wide = false;
};

// Thrown by a read that finds the image inconsistent: it is no longer
// trusted, and the document is read from the file instead.
struct CImageDamaged {};

// An image mapped read-only. Nodes are the offsets of their records. Every
// read checks what it reads against the image's bounds: a damaged image
// throws CImageDamaged, and never makes a read leave the mapping.
class CRegistryImage {
public:
    typedef uint32_t Node;

    // The image at `path` when it is whole and describes the file `file`;
    // null when it is missing, foreign, cut or describes another file.
    static std::unique_ptr<CRegistryImage> Map(const std::string& path, const CFileStamp& file);
    ~CRegistryImage();
    CRegistryImage(const CRegistryImage&) = delete;
    CRegistryImage& operator=(const CRegistryImage&) = delete;

    Node Document() const { return m_nRoot; }
    uint8_t Type(Node node) const;
    CImageString Name(Node node) const;
    uint32_t ChildCount(Node node) const;
    // The first child of that name, of any node type; 0 when there is none.
    Node Find(Node parent, ImageText name) const;

    // Calls visit(child) for each child in document order while it returns true.
    template <class Visit>
    void ForEachChild(Node parent, Visit visit) const {
        const CRecord record = Read(parent);
        Node child = record.firstChild;
        for (uint32_t i = 0; i < record.children; ++i) {
            if (!visit(Check(child, parent, record.end))) return;
            child = Next(child, record.end);
        }
    }
    // Calls visit(index, name, value) for each attribute of an element, in
    // order, while it returns true.
    template <class Visit>
    void ForEachAttribute(Node element, Visit visit) const {
        const CRecord record = Read(element);
        const uint8_t* at = record.attributes;
        for (uint32_t i = 0; i < record.attributeCount; ++i) {
            const CImageString name = ReadText(at, record.limit);
            const CImageString value = ReadText(at, record.limit);
            if (!visit(i, name, value)) return;
        }
    }
    uint32_t AttributeCount(Node element) const { return Read(element).attributeCount; }

private:
    struct CRecord {
        uint8_t type;
        uint32_t children;
        Node firstChild;
        Node end;
        uint32_t table;
        uint32_t attributeCount;
        CImageString name;
        const uint8_t* attributes;
        const uint8_t* limit;
    };
    CRegistryImage(const uint8_t* data, size_t size, Node root);
    CRecord Read(Node node) const;
    Node Next(Node child, Node end) const;
    Node Check(Node node, Node parent, Node end) const;
    CImageString ReadText(const uint8_t*& at, const uint8_t* limit) const;
    uint64_t ReadVarint(const uint8_t*& at, const uint8_t* limit) const;
    uint32_t ReadU32(size_t offset) const;

    const uint8_t* m_data;
    size_t m_size;
    Node m_nRoot;
};

#endif
