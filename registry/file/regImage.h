// The registry's compiled image, "Registry.XML.image": every node of the
// document in a flat form that needs no parsing. Processes that only read
// map it read-only and share its pages through the page cache, so that a
// read costs a stat, a mapping and a few look-ups whatever the registry's
// size.
//
// The file is a header of two slots and then records, one for each node.
// A node's record follows the records of all its children, and names them
// by their offsets in the file: every reference points backwards, so no
// damage can make a walk go round in circles. A save appends the records of
// what it changed, which name the records of unchanged subtrees where they
// already stand, and then rewrites the older of the two slots to name the
// new document record. A reader takes the slot with the higher sequence
// number of the two whose checksums hold; a slot caught half written fails
// its checksum. Once the dead records outweigh the live ones, a save writes
// a new file instead. All numbers are little-endian and unaligned.
//
//   slot:    magic, version, sequence number, bytes in use, document record,
//            the stamp of the file the image describes, checksum
//   record:  u8   node type, with kHasChildren when it has children
//            [element: varint attribute count]
//            text name
//            [element: text name, text value for each attribute, in order]
//            [with children: varint child count, u32 offset of its table or
//             0, u32 offset of each child in document order]
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
const size_t kSlotSize = 128;
const size_t kHeaderSize = 2 * kSlotSize;
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

// What a slot says: the image is the file's first `used` bytes, its
// document's record at `root`, describing the file `file`.
struct CSlot {
    uint64_t sequence = 0;
    uint64_t used = 0;
    uint32_t root = 0;
    CFileStamp file;
};

// A slot's bytes, and where in the header it goes: the older slot's place.
std::string SlotBytes(const CSlot& slot);
inline size_t SlotOffset(uint64_t sequence) { return (sequence % 2) * kSlotSize; }

}  // namespace RegistryImage

// Encodes records as the registry's writer walks the document: every node
// is opened, given its attributes, and ended after its children, when its
// record is written. A child whose record the image already holds is named
// by its offset instead.
class CImageBuilder {
public:
    // Writes into `room`, whose capacity an earlier image leaves; its bytes
    // go to the image from offset `base` on.
    CImageBuilder(std::string room, uint32_t base);

    void Open(uint8_t type, bool hasChildren, ImageText name);
    // Texts are kept by reference until End.
    void Attribute(ImageText name, ImageText value);
    // Writes the record of the node opened last and returns its offset.
    uint32_t End();
    // A child whose record stands at `record`, named by a name of hash `hash`.
    void Reuse(uint32_t record, uint32_t hash);
    // The name hash of the node opened last.
    uint32_t LastHash() const { return m_nLastHash; }
    // The new bytes, room included: the first Size() count.
    size_t Size() const { return m_used; }
    std::string Take() { return std::move(m_bytes); }

private:
    struct COpen {
        uint8_t type;
        bool hasChildren;
        ImageText name;
        uint32_t hash;
        size_t firstAttribute;  // in m_attributes
        size_t firstChild;      // in m_children
    };
    struct CChild {
        uint32_t record;
        uint32_t hash;
    };
    char* Room(size_t count);
    uint32_t Here() const { return static_cast<uint32_t>(m_nBase + m_used); }
    void PutByte(uint8_t byte);
    void PutU32(uint32_t value);
    void PutVarint(uint64_t value);
    void PutText(ImageText text);
    uint32_t WriteTable(const CChild* children, uint32_t count);

    std::string m_bytes;
    size_t m_used = 0;
    const size_t m_nBase;
    std::vector<COpen> m_open;
    std::vector<std::pair<ImageText, ImageText>> m_attributes;
    std::vector<CChild> m_children;
    uint32_t m_nLastHash = 0;
};

// A text of the image, as stored: one byte or two a unit.
class CImageString {
public:
    CImageString() = default;
    CImageString(const uint8_t* data, uint32_t units, bool wide)
        : m_data(data), m_units(units), m_wide(wide) {}
    char16_t operator[](uint32_t i) const {
        return m_wide ? static_cast<char16_t>(m_data[2 * i] | m_data[2 * i + 1] << 8) : m_data[i];
    }
    bool operator==(ImageText text) const;
    bool Empty() const { return m_units == 0; }
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

    // The newest whole slot of the header of `size` bytes at `header`;
    // false when neither is whole.
    static bool NewestSlot(const uint8_t* header, size_t size, RegistryImage::CSlot& slot);

    Node Document() const { return m_nRoot; }
    uint8_t Type(Node node) const;
    CImageString Name(Node node) const;
    uint32_t ChildCount(Node node) const;
    // The first child of that name, of any node type; 0 when there is none.
    Node Find(Node parent, ImageText name) const;

    // Calls visit(child) for each child in document order while it returns
    // true.
    template <class Visit>
    void ForEachChild(Node parent, Visit visit) const {
        const CRecord record = Read(parent);
        for (uint32_t i = 0; i < record.children; ++i) {
            if (!visit(Child(record, parent, i))) return;
        }
    }
    // Calls visit(index, name, value) for each attribute of an element, in
    // order, while it returns true.
    template <class Visit>
    void ForEachAttribute(Node element, Visit visit) const {
        const CRecord record = Read(element);
        const uint8_t* at = record.attributes;
        for (uint32_t i = 0; i < record.attributeCount; ++i) {
            const CImageString name = ReadText(at);
            const CImageString value = ReadText(at);
            if (!visit(i, name, value)) return;
        }
    }
    uint32_t AttributeCount(Node element) const { return Read(element).attributeCount; }

private:
    struct CRecord {
        uint8_t type;
        uint32_t attributeCount;
        CImageString name;
        const uint8_t* attributes;
        uint32_t children;
        uint32_t table;
        size_t childOffsets;
    };
    CRegistryImage(const uint8_t* data, size_t mapped, size_t used, Node root);
    CRecord Read(Node node) const;
    Node Child(const CRecord& record, Node parent, uint32_t index) const;
    Node Earlier(uint32_t offset, Node than) const;
    CImageString ReadText(const uint8_t*& at) const;
    uint64_t ReadVarint(const uint8_t*& at) const;
    uint32_t ReadU32(size_t offset) const;

    const uint8_t* m_data;
    size_t m_nMapped;
    // The bytes the slot counts: records past them are not this image's.
    size_t m_nUsed;
    Node m_nRoot;
};

#endif
