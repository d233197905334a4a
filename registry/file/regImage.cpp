// The registry's compiled image: its encoder and its reader.
#include "regImage.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace {

const char kMagic[8] = {'V', 'e', 'l', 't', 'I', 'm', 'g', '\n'};
const uint32_t kVersion = 1;

// Where the header keeps what.
const size_t kVersionAt = 8;
const size_t kHeaderSizeAt = 12;
const size_t kImageSizeAt = 16;
const size_t kRootAt = 24;
const size_t kStampAt = 32;
const size_t kChecksumAt = RegistryImage::kHeaderSize - 8;

// The fixed part of a record: type, extent, and for a node with children
// its child count and table.
const size_t kExtentAt = 1;
const size_t kChildCountAt = 5;
const size_t kTableAt = 9;
const size_t kLeafHeader = 5;
const size_t kParentHeader = 13;

uint64_t Checksum(const char* bytes, size_t size) {
    uint64_t hash = 14695981039346656037ull;
    for (size_t i = 0; i < size; ++i) {
        hash ^= static_cast<uint8_t>(bytes[i]);
        hash *= 1099511628211ull;
    }
    return hash;
}

template <class T>
void Store(char* at, T value) {
    std::memcpy(at, &value, sizeof value);
}

template <class T>
T Load(const void* at) {
    T value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

void StoreStamp(char* at, const CFileStamp& file) {
    const int64_t fields[] = {static_cast<int64_t>(file.device), static_cast<int64_t>(file.inode),
                              file.size, file.modifiedSeconds, file.modifiedNanoseconds,
                              file.changedSeconds, file.changedNanoseconds};
    std::memcpy(at, fields, sizeof fields);
}

bool IsElement(uint8_t kind) { return (kind & ~RegistryImage::kHasChildren) == RegistryImage::kElement; }

// The name of a record the builder wrote itself, which needs no checks.
CImageString TrustedName(const uint8_t* record) {
    const uint8_t* at = record + ((record[0] & RegistryImage::kHasChildren) ? kParentHeader : kLeafHeader);
    if (IsElement(record[0])) {
        while (*at++ & 0x80) {
        }
    }
    uint64_t header = 0;
    for (unsigned shift = 0;; shift += 7) {
        header |= uint64_t(*at & 0x7F) << shift;
        if (!(*at++ & 0x80)) break;
    }
    return CImageString(at, static_cast<uint32_t>(header >> 1), header & 1);
}

}  // namespace

namespace RegistryImage {

std::string PathFor(const std::string& file) { return file + ".image"; }

std::string Header(size_t size, uint32_t root, const CFileStamp& file) {
    std::string header(kHeaderSize, '\0');
    std::memcpy(&header[0], kMagic, sizeof kMagic);
    Store<uint32_t>(&header[kVersionAt], kVersion);
    Store<uint32_t>(&header[kHeaderSizeAt], kHeaderSize);
    Store<uint64_t>(&header[kImageSizeAt], size);
    Store<uint32_t>(&header[kRootAt], root);
    StoreStamp(&header[kStampAt], file);
    Store<uint64_t>(&header[kChecksumAt], Checksum(header.data(), kChecksumAt));
    return header;
}

}  // namespace RegistryImage

bool CImageString::operator==(ImageText text) const {
    if (text.size() != m_units) return false;
    for (uint32_t i = 0; i < m_units; ++i) {
        if ((*this)[i] != text[i]) return false;
    }
    return true;
}

std::u16string CImageString::Copy() const {
    std::u16string out(m_units, u'\0');
    for (uint32_t i = 0; i < m_units; ++i) out[i] = (*this)[i];
    return out;
}

CImageBuilder::CImageBuilder(std::string room) : m_bytes(std::move(room)) {
    std::memset(Room(RegistryImage::kHeaderSize), 0, RegistryImage::kHeaderSize);
    m_used = RegistryImage::kHeaderSize;
}

char* CImageBuilder::Room(size_t count) {
    if (m_bytes.size() - m_used < count)
        m_bytes.resize(std::max({m_bytes.size() * 2, m_used + count, size_t(1) << 16}));
    return &m_bytes[m_used];
}

void CImageBuilder::PutByte(uint8_t byte) {
    *Room(1) = static_cast<char>(byte);
    ++m_used;
}

void CImageBuilder::PutU32(uint32_t value) {
    Store(Room(4), value);
    m_used += 4;
}

void CImageBuilder::PutVarint(uint64_t value) {
    for (; value >= 0x80; value >>= 7) PutByte(static_cast<uint8_t>(value | 0x80));
    PutByte(static_cast<uint8_t>(value));
}

// One byte a unit when every unit fits in one.
void CImageBuilder::PutText(ImageText text) {
    bool wide = false;
    for (char16_t unit : text) wide |= unit > 0xFF;
    PutVarint(uint64_t(text.size()) << 1 | wide);
    char* out = Room(text.size() * (wide ? 2 : 1));
    for (char16_t unit : text) {
        *out++ = static_cast<char>(unit & 0xFF);
        if (wide) *out++ = static_cast<char>(unit >> 8);
    }
    m_used += text.size() * (wide ? 2 : 1);
}

void CImageBuilder::Counted(uint32_t hash) {
    if (!m_open.empty()) m_children.push_back({static_cast<uint32_t>(m_used), hash});
}

void CImageBuilder::Open(uint8_t type, bool hasChildren, ImageText name, ImageText value,
                         uint32_t attributes) {
    m_nLastHash = RegistryImage::NameHash(name);
    Counted(m_nLastHash);
    m_open.push_back({m_used, m_children.size(), hasChildren});
    PutByte(static_cast<uint8_t>(type | (hasChildren ? RegistryImage::kHasChildren : 0)));
    PutU32(0);
    if (hasChildren) {
        PutU32(0);
        PutU32(0);
    }
    if (type == RegistryImage::kElement) PutVarint(attributes);
    PutText(name);
    if (type != RegistryImage::kElement) PutText(value);
}

void CImageBuilder::Attribute(ImageText name, ImageText value) {
    PutText(name);
    PutText(value);
}

void CImageBuilder::End() {
    const COpen node = m_open.back();
    m_open.pop_back();
    const uint32_t count = static_cast<uint32_t>(m_children.size() - node.firstChild);
    if (node.hasChildren) {
        Store<uint32_t>(&m_bytes[node.record + kChildCountAt], count);
        if (count >= RegistryImage::kTableFrom) {
            Store<uint32_t>(&m_bytes[node.record + kTableAt], static_cast<uint32_t>(m_used - node.record));
            WriteTable(node, &m_children[node.firstChild], count);
        }
    }
    m_children.resize(node.firstChild);
    Store<uint32_t>(&m_bytes[node.record + kExtentAt], static_cast<uint32_t>(m_used - node.record));
}

void CImageBuilder::Append(std::string_view records, uint32_t hash) {
    Counted(hash);
    std::memcpy(Room(records.size()), records.data(), records.size());
    m_used += records.size();
}

// Filled at most three quarters, in document order: where two children share
// a name, the first keeps the slot.
void CImageBuilder::WriteTable(const COpen& node, const CChild* children, uint32_t count) {
    uint32_t slots = 1;
    while (slots < count + count / 3 + 1) slots <<= 1;
    PutU32(slots);
    const size_t table = m_used;
    std::memset(Room(size_t(slots) * 8), 0, size_t(slots) * 8);
    m_used += size_t(slots) * 8;
    const uint8_t* image = reinterpret_cast<const uint8_t*>(m_bytes.data());
    for (const CChild* child = children; child != children + count; ++child) {
        for (uint32_t slot = child->hash & (slots - 1);; slot = (slot + 1) & (slots - 1)) {
            char* entry = &m_bytes[table + size_t(slot) * 8];
            const uint32_t held = Load<uint32_t>(entry + 4);
            if (held == 0) {
                Store<uint32_t>(entry, child->hash);
                Store<uint32_t>(entry + 4, static_cast<uint32_t>(child->offset - node.record));
                break;
            }
            if (Load<uint32_t>(entry) != child->hash) continue;
            const CImageString mine = TrustedName(image + child->offset);
            const CImageString theirs = TrustedName(image + node.record + held);
            if (mine.Units() == theirs.Units() && mine == theirs.Copy()) break;
        }
    }
}

std::unique_ptr<CRegistryImage> CRegistryImage::Map(const std::string& path, const CFileStamp& file) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return nullptr;
    struct stat info;
    const bool sized = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) &&
                       info.st_size >= static_cast<off_t>(RegistryImage::kHeaderSize) &&
                       info.st_size <= std::numeric_limits<uint32_t>::max();
    void* mapped = sized ? mmap(nullptr, info.st_size, PROT_READ, MAP_SHARED, fd, 0) : MAP_FAILED;
    close(fd);
    if (mapped == MAP_FAILED) return nullptr;
    const size_t size = static_cast<size_t>(info.st_size);
    // A reader looks at a few records only: reading ahead brings in pages
    // that no one asked for.
    madvise(mapped, size, MADV_RANDOM);
    const char* header = static_cast<const char*>(mapped);
    const uint32_t root = Load<uint32_t>(header + kRootAt);
    const bool whole = std::memcmp(header, kMagic, sizeof kMagic) == 0 &&
                       Load<uint32_t>(header + kVersionAt) == kVersion &&
                       Load<uint32_t>(header + kHeaderSizeAt) == RegistryImage::kHeaderSize &&
                       Load<uint64_t>(header + kImageSizeAt) == size &&
                       Load<uint64_t>(header + kChecksumAt) == Checksum(header, kChecksumAt);
    const std::string expected = RegistryImage::Header(size, root, file);
    if (!whole || std::memcmp(header, expected.data(), RegistryImage::kHeaderSize) != 0) {
        munmap(mapped, size);
        return nullptr;
    }
    std::unique_ptr<CRegistryImage> image(
        new CRegistryImage(static_cast<const uint8_t*>(mapped), size, root));
    try {
        image->Read(root);
    } catch (const CImageDamaged&) {
        return nullptr;
    }
    return image;
}

CRegistryImage::CRegistryImage(const uint8_t* data, size_t size, Node root)
    : m_data(data), m_size(size), m_nRoot(root) {}

CRegistryImage::~CRegistryImage() { munmap(const_cast<uint8_t*>(m_data), m_size); }

uint32_t CRegistryImage::ReadU32(size_t offset) const {
    if (offset > m_size || m_size - offset < 4) throw CImageDamaged();
    return Load<uint32_t>(m_data + offset);
}

uint64_t CRegistryImage::ReadVarint(const uint8_t*& at, const uint8_t* limit) const {
    uint64_t value = 0;
    for (unsigned shift = 0; shift < 64; shift += 7) {
        if (at >= limit) break;
        const uint8_t byte = *at++;
        value |= uint64_t(byte & 0x7F) << shift;
        if (!(byte & 0x80)) return value;
    }
    throw CImageDamaged();
}

CImageString CRegistryImage::ReadText(const uint8_t*& at, const uint8_t* limit) const {
    const uint64_t header = ReadVarint(at, limit);
    const uint64_t units = header >> 1;
    const bool wide = header & 1;
    const uint64_t bytes = units * (wide ? 2 : 1);
    if (units > std::numeric_limits<uint32_t>::max() || bytes > static_cast<uint64_t>(limit - at))
        throw CImageDamaged();
    const CImageString text(at, static_cast<uint32_t>(units), wide);
    at += bytes;
    return text;
}

// The record after `child`'s subtree, which may be its parent's end.
CRegistryImage::Node CRegistryImage::Next(Node child, Node end) const {
    const uint32_t extent = ReadU32(size_t(child) + kExtentAt);
    if (extent < kLeafHeader || extent > end - child) throw CImageDamaged();
    return child + extent;
}

// A child must start inside its parent's subtree, after the parent itself.
CRegistryImage::Node CRegistryImage::Check(Node node, Node parent, Node end) const {
    if (node <= parent || node >= end) throw CImageDamaged();
    return node;
}

CRegistryImage::CRecord CRegistryImage::Read(Node node) const {
    if (node < RegistryImage::kHeaderSize || node >= m_size) throw CImageDamaged();
    CRecord record{};
    record.type = m_data[node];
    const uint32_t extent = ReadU32(size_t(node) + kExtentAt);
    const bool parent = record.type & RegistryImage::kHasChildren;
    const size_t fixed = parent ? kParentHeader : kLeafHeader;
    if (extent < fixed || extent > m_size - node) throw CImageDamaged();
    record.end = node + extent;
    record.limit = m_data + record.end;
    if (parent) {
        record.children = ReadU32(size_t(node) + kChildCountAt);
        record.table = ReadU32(size_t(node) + kTableAt);
    }
    const uint8_t* at = m_data + node + fixed;
    const bool element = IsElement(record.type);
    // Each attribute takes at least two bytes.
    const uint64_t attributes = element ? ReadVarint(at, record.limit) : 0;
    if (attributes > static_cast<uint64_t>(record.limit - at) / 2) throw CImageDamaged();
    record.attributeCount = static_cast<uint32_t>(attributes);
    record.name = ReadText(at, record.limit);
    if (!element) ReadText(at, record.limit);
    record.attributes = at;
    for (uint32_t i = 0; i < record.attributeCount; ++i) {
        ReadText(at, record.limit);
        ReadText(at, record.limit);
    }
    record.firstChild = static_cast<Node>(at - m_data);
    // Each child takes at least a leaf's header.
    if (record.children > (record.end - record.firstChild) / kLeafHeader) throw CImageDamaged();
    return record;
}

uint8_t CRegistryImage::Type(Node node) const {
    return Read(node).type & ~RegistryImage::kHasChildren;
}

CImageString CRegistryImage::Name(Node node) const { return Read(node).name; }

uint32_t CRegistryImage::ChildCount(Node node) const { return Read(node).children; }

CRegistryImage::Node CRegistryImage::Find(Node parent, ImageText name) const {
    const CRecord record = Read(parent);
    if (record.table == 0) {
        Node found = 0;
        ForEachChild(parent, [&](Node child) {
            if (Name(child) == name) found = child;
            return found == 0;
        });
        return found;
    }
    const size_t table = size_t(parent) + record.table;
    const uint32_t slots = ReadU32(table);
    if (slots == 0 || (slots & (slots - 1)) != 0 || table + 4 + size_t(slots) * 8 > record.end)
        throw CImageDamaged();
    const uint32_t hash = RegistryImage::NameHash(name);
    for (uint32_t probe = 0, slot = hash & (slots - 1); probe < slots; ++probe, slot = (slot + 1) & (slots - 1)) {
        const size_t entry = table + 4 + size_t(slot) * 8;
        const uint32_t offset = Load<uint32_t>(m_data + entry + 4);
        if (offset == 0) return 0;
        if (Load<uint32_t>(m_data + entry) != hash) continue;
        const Node child = Check(parent + offset, parent, record.end);
        if (Name(child) == name) return child;
    }
    return 0;
}
