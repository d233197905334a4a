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
const uint32_t kVersion = 2;

// Where a slot keeps what.
const size_t kVersionAt = 8;
const size_t kSequenceAt = 16;
const size_t kUsedAt = 24;
const size_t kRootAt = 32;
const size_t kStampAt = 40;
const size_t kChecksumAt = RegistryImage::kSlotSize - 8;

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

const size_t kStampFields = 7;

void StoreStamp(char* at, const CFileStamp& file) {
    const int64_t fields[kStampFields] = {static_cast<int64_t>(file.device), static_cast<int64_t>(file.inode),
                                          file.size, file.modifiedSeconds, file.modifiedNanoseconds,
                                          file.changedSeconds, file.changedNanoseconds};
    std::memcpy(at, fields, sizeof fields);
}

CFileStamp LoadStamp(const char* at) {
    int64_t fields[kStampFields];
    std::memcpy(fields, at, sizeof fields);
    CFileStamp file;
    file.device = static_cast<uint64_t>(fields[0]);
    file.inode = static_cast<uint64_t>(fields[1]);
    file.size = fields[2];
    file.modifiedSeconds = fields[3];
    file.modifiedNanoseconds = fields[4];
    file.changedSeconds = fields[5];
    file.changedNanoseconds = fields[6];
    return file;
}

bool IsElement(uint8_t kind) { return (kind & ~RegistryImage::kHasChildren) == RegistryImage::kElement; }

// The node types of the document's nodes: element 1 to notation 12.
bool IsNodeType(uint8_t kind) {
    const uint8_t type = kind & ~RegistryImage::kHasChildren;
    return type >= 1 && type <= 12;
}

const uint8_t kDocument = 9;

}  // namespace

namespace RegistryImage {

std::string PathFor(const std::string& file) { return file + ".image"; }

std::string SlotBytes(const CSlot& slot) {
    std::string bytes(kSlotSize, '\0');
    std::memcpy(&bytes[0], kMagic, sizeof kMagic);
    Store<uint32_t>(&bytes[kVersionAt], kVersion);
    Store<uint64_t>(&bytes[kSequenceAt], slot.sequence);
    Store<uint64_t>(&bytes[kUsedAt], slot.used);
    Store<uint32_t>(&bytes[kRootAt], slot.root);
    StoreStamp(&bytes[kStampAt], slot.file);
    Store<uint64_t>(&bytes[kChecksumAt], Checksum(bytes.data(), kChecksumAt));
    return bytes;
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

CImageBuilder::CImageBuilder(std::string room, uint32_t base) : m_bytes(std::move(room)), m_nBase(base) {}

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

void CImageBuilder::Open(uint8_t type, bool hasChildren, ImageText name) {
    m_nLastHash = RegistryImage::NameHash(name);
    m_open.push_back({type, hasChildren, name, m_nLastHash, m_attributes.size(), m_children.size()});
}

void CImageBuilder::Attribute(ImageText name, ImageText value) { m_attributes.emplace_back(name, value); }

uint32_t CImageBuilder::End() {
    const COpen node = m_open.back();
    m_open.pop_back();
    const uint32_t count = static_cast<uint32_t>(m_children.size() - node.firstChild);
    // The table goes first, so that the record names it backwards too.
    const uint32_t table =
        node.hasChildren && count >= RegistryImage::kTableFrom ? WriteTable(&m_children[node.firstChild], count) : 0;
    const uint32_t record = Here();
    PutByte(static_cast<uint8_t>(node.type | (node.hasChildren ? RegistryImage::kHasChildren : 0)));
    const bool element = node.type == RegistryImage::kElement;
    if (element) PutVarint(m_attributes.size() - node.firstAttribute);
    PutText(node.name);
    for (size_t i = node.firstAttribute; i < m_attributes.size(); ++i) {
        PutText(m_attributes[i].first);
        PutText(m_attributes[i].second);
    }
    m_attributes.resize(node.firstAttribute);
    if (node.hasChildren) {
        PutVarint(count);
        PutU32(table);
        for (size_t i = node.firstChild; i < m_children.size(); ++i) PutU32(m_children[i].record);
    }
    m_children.resize(node.firstChild);
    if (!m_open.empty()) m_children.push_back({record, node.hash});
    return record;
}

void CImageBuilder::Reuse(uint32_t record, uint32_t hash) {
    if (!m_open.empty()) m_children.push_back({record, hash});
}

// Filled at most three quarters, in document order: where two children share
// a name, the first stands before the others on the way from their slot, and
// is the one a look-up finds.
uint32_t CImageBuilder::WriteTable(const CChild* children, uint32_t count) {
    uint32_t slots = 1;
    while (slots < count + count / 3 + 1) slots <<= 1;
    const uint32_t at = Here();
    PutU32(slots);
    const size_t table = m_used;
    std::memset(Room(size_t(slots) * 8), 0, size_t(slots) * 8);
    m_used += size_t(slots) * 8;
    for (const CChild* child = children; child != children + count; ++child) {
        uint32_t slot = child->hash & (slots - 1);
        while (Load<uint32_t>(&m_bytes[table + size_t(slot) * 8 + 4]) != 0) slot = (slot + 1) & (slots - 1);
        Store<uint32_t>(&m_bytes[table + size_t(slot) * 8], child->hash);
        Store<uint32_t>(&m_bytes[table + size_t(slot) * 8 + 4], child->record);
    }
    return at;
}

bool CRegistryImage::NewestSlot(const uint8_t* header, size_t size, RegistryImage::CSlot& slot) {
    bool found = false;
    for (size_t at = 0; at + RegistryImage::kSlotSize <= RegistryImage::kHeaderSize; at += RegistryImage::kSlotSize) {
        const char* bytes = reinterpret_cast<const char*>(header) + at;
        if (std::memcmp(bytes, kMagic, sizeof kMagic) != 0 || Load<uint32_t>(bytes + kVersionAt) != kVersion ||
            Load<uint64_t>(bytes + kChecksumAt) != Checksum(bytes, kChecksumAt))
            continue;
        const uint64_t sequence = Load<uint64_t>(bytes + kSequenceAt);
        const uint64_t used = Load<uint64_t>(bytes + kUsedAt);
        const uint32_t root = Load<uint32_t>(bytes + kRootAt);
        if (used > size || root < RegistryImage::kHeaderSize || root >= used) continue;
        if (found && sequence <= slot.sequence) continue;
        slot.sequence = sequence;
        slot.used = used;
        slot.root = root;
        slot.file = LoadStamp(bytes + kStampAt);
        found = true;
    }
    return found;
}

std::unique_ptr<CRegistryImage> CRegistryImage::Map(const std::string& path, const CFileStamp& file) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return nullptr;
    struct stat info;
    const bool sized = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) &&
                       info.st_size >= static_cast<off_t>(RegistryImage::kHeaderSize) &&
                       static_cast<uint64_t>(info.st_size) <= std::numeric_limits<uint32_t>::max();
    void* mapped = sized ? mmap(nullptr, info.st_size, PROT_READ, MAP_SHARED, fd, 0) : MAP_FAILED;
    close(fd);
    if (mapped == MAP_FAILED) return nullptr;
    const size_t size = static_cast<size_t>(info.st_size);
    RegistryImage::CSlot slot;
    if (!NewestSlot(static_cast<const uint8_t*>(mapped), size, slot) || !(slot.file == file)) {
        munmap(mapped, size);
        return nullptr;
    }
    std::unique_ptr<CRegistryImage> image(
        new CRegistryImage(static_cast<const uint8_t*>(mapped), size, slot.used, slot.root));
    try {
        if (image->Read(slot.root).type != (kDocument | RegistryImage::kHasChildren)) return nullptr;
    } catch (const CImageDamaged&) {
        return nullptr;
    }
    return image;
}

CRegistryImage::CRegistryImage(const uint8_t* data, size_t mapped, size_t used, Node root)
    : m_data(data), m_nMapped(mapped), m_nUsed(used), m_nRoot(root) {}

CRegistryImage::~CRegistryImage() { munmap(const_cast<uint8_t*>(m_data), m_nMapped); }

uint32_t CRegistryImage::ReadU32(size_t offset) const {
    if (offset > m_nUsed || m_nUsed - offset < 4) throw CImageDamaged();
    return Load<uint32_t>(m_data + offset);
}

uint64_t CRegistryImage::ReadVarint(const uint8_t*& at) const {
    const uint8_t* limit = m_data + m_nUsed;
    uint64_t value = 0;
    for (unsigned shift = 0; shift < 64 && at < limit; shift += 7) {
        const uint8_t byte = *at++;
        value |= uint64_t(byte & 0x7F) << shift;
        if (!(byte & 0x80)) return value;
    }
    throw CImageDamaged();
}

CImageString CRegistryImage::ReadText(const uint8_t*& at) const {
    const uint64_t header = ReadVarint(at);
    const uint64_t units = header >> 1;
    const bool wide = header & 1;
    if (units > static_cast<uint64_t>(m_data + m_nUsed - at) / (wide ? 2 : 1)) throw CImageDamaged();
    const CImageString text(at, static_cast<uint32_t>(units), wide);
    at += units * (wide ? 2 : 1);
    return text;
}

// Everything a record names stands before it.
CRegistryImage::Node CRegistryImage::Earlier(uint32_t offset, Node than) const {
    if (offset < RegistryImage::kHeaderSize || offset >= than) throw CImageDamaged();
    return offset;
}

CRegistryImage::CRecord CRegistryImage::Read(Node node) const {
    if (node < RegistryImage::kHeaderSize || node >= m_nUsed) throw CImageDamaged();
    CRecord record{};
    record.type = m_data[node];
    if (!IsNodeType(record.type)) throw CImageDamaged();
    const uint8_t* at = m_data + node + 1;
    const bool element = IsElement(record.type);
    // Each attribute takes at least two bytes.
    const uint64_t attributes = element ? ReadVarint(at) : 0;
    if (attributes > static_cast<uint64_t>(m_data + m_nUsed - at) / 2) throw CImageDamaged();
    record.attributeCount = static_cast<uint32_t>(attributes);
    record.name = ReadText(at);
    // No element is without a name.
    if (element && record.name.Empty()) throw CImageDamaged();
    record.attributes = at;
    for (uint32_t i = 0; i < record.attributeCount; ++i) {
        ReadText(at);
        ReadText(at);
    }
    if (record.type & RegistryImage::kHasChildren) {
        const uint64_t children = ReadVarint(at);
        record.table = ReadU32(at - m_data);
        record.childOffsets = at - m_data + 4;
        if (children > (m_nUsed - record.childOffsets) / 4) throw CImageDamaged();
        record.children = static_cast<uint32_t>(children);
    }
    return record;
}

CRegistryImage::Node CRegistryImage::Child(const CRecord& record, Node parent, uint32_t index) const {
    return Earlier(Load<uint32_t>(m_data + record.childOffsets + size_t(index) * 4), parent);
}

uint8_t CRegistryImage::Type(Node node) const { return Read(node).type & ~RegistryImage::kHasChildren; }

CImageString CRegistryImage::Name(Node node) const { return Read(node).name; }

uint32_t CRegistryImage::ChildCount(Node node) const { return Read(node).children; }

CRegistryImage::Node CRegistryImage::Find(Node parent, ImageText name) const {
    const CRecord record = Read(parent);
    if (record.table == 0) {
        for (uint32_t i = 0; i < record.children; ++i) {
            const Node child = Child(record, parent, i);
            if (Name(child) == name) return child;
        }
        return 0;
    }
    const size_t table = Earlier(record.table, parent);
    const uint32_t slots = ReadU32(table);
    if (slots == 0 || (slots & (slots - 1)) != 0 || parent - table < 4 || (parent - table - 4) / 8 < slots)
        throw CImageDamaged();
    const uint32_t hash = RegistryImage::NameHash(name);
    for (uint32_t probe = 0, slot = hash & (slots - 1); probe < slots; ++probe, slot = (slot + 1) & (slots - 1)) {
        const size_t entry = table + 4 + size_t(slot) * 8;
        const uint32_t offset = Load<uint32_t>(m_data + entry + 4);
        if (offset == 0) return 0;
        if (Load<uint32_t>(m_data + entry) != hash) continue;
        const Node child = Earlier(offset, parent);
        if (Name(child) == name) return child;
    }
    return 0;
}
