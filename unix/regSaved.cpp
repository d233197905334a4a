// The kept bytes of subtrees: where in the last save's document each one
// lies, in a table addressed by its element.
#include "regSaved.h"

#include <cstdint>
#include <vector>

using xercesc::DOMDocument;
using xercesc::DOMNode;

namespace {

// Where a subtree's bytes lie in the document of save number `save`.
struct CEntry {
    const DOMNode* node;
    uint64_t save;
    size_t offset;
    size_t length;
};

// An open-addressed table: a save looks up every child of every wide key,
// tens of thousands of look-ups where a node-based map would miss the
// cache twice on each.
class CEntryTable {
public:
    CEntry* Find(const DOMNode* node) {
        if (m_slots.empty()) return nullptr;
        for (size_t i = Home(node);; i = Next(i)) {
            CEntry& slot = m_slots[i];
            if (slot.node == node) return &slot;
            if (!slot.node) return nullptr;
        }
    }

    CEntry& Insert(const DOMNode* node) {
        if (CEntry* found = Find(node)) return *found;
        if ((m_occupied + 1) * 10 > m_slots.size() * 7) Rebuild();
        size_t i = Home(node);
        while (m_slots[i].node && m_slots[i].node != Removed()) i = Next(i);
        if (!m_slots[i].node) ++m_occupied;
        m_slots[i] = {node, 0, 0, 0};
        return m_slots[i];
    }

    void Erase(const DOMNode* node) {
        if (CEntry* found = Find(node)) found->node = Removed();
    }

    // Entries older than `oldest` are dropped whenever the table is rebuilt.
    void Clear(uint64_t oldest) {
        m_slots.clear();
        m_occupied = 0;
        m_oldest = oldest;
    }
    void DropBefore(uint64_t oldest) { m_oldest = oldest; }

private:
    static const DOMNode* Removed() { return reinterpret_cast<const DOMNode*>(uintptr_t(1)); }
    bool Keeps(const CEntry& entry) const {
        return entry.node && entry.node != Removed() && entry.save >= m_oldest;
    }

    // The high bits of a multiplicative hash spread nodes that lie at
    // regular distances from each other.
    size_t Home(const DOMNode* node) const {
        return static_cast<size_t>((reinterpret_cast<uintptr_t>(node) * 0x9E3779B97F4A7C15ull) >> m_shift);
    }
    size_t Next(size_t i) const { return (i + 1) & (m_slots.size() - 1); }

    // Keeps the live entries, in a table at most half full.
    void Rebuild() {
        std::vector<CEntry> old;
        old.swap(m_slots);
        size_t live = 0;
        for (const CEntry& entry : old)
            if (Keeps(entry)) ++live;
        m_shift = 64 - 6;
        while ((size_t(1) << (64 - m_shift)) < live * 2 + 2) --m_shift;
        m_slots.assign(size_t(1) << (64 - m_shift), CEntry{nullptr, 0, 0, 0});
        m_occupied = 0;
        for (const CEntry& entry : old) {
            if (!Keeps(entry)) continue;
            size_t i = Home(entry.node);
            while (m_slots[i].node) i = Next(i);
            m_slots[i] = entry;
            ++m_occupied;
        }
    }

    std::vector<CEntry> m_slots;  // a power of two of them
    unsigned m_shift = 64;        // 64 less the power
    size_t m_occupied = 0;        // by entries, removed ones included
    uint64_t m_oldest = 0;
};

const DOMDocument* s_pDocument = nullptr;
CEntryTable s_entries;
// The number of the last save ended; entries of that save are usable.
uint64_t s_nSave = 0;
// The last save's document, and a buffer for the next save to write into.
std::string s_last;
std::string s_spare;

}  // namespace

namespace SavedSubtrees {

void Attach(const DOMDocument* document) {
    s_pDocument = document;
    s_entries.Clear(++s_nSave);
}

std::string TakeBuffer() { return std::move(s_spare); }

std::string_view Reuse(const DOMNode* element, size_t offset) {
    CEntry* entry = s_entries.Find(element);
    if (!entry || entry->save != s_nSave) return {};
    const std::string_view bytes(s_last.data() + entry->offset, entry->length);
    entry->save = s_nSave + 1;
    entry->offset = offset;
    return bytes;
}

void Store(const DOMNode* element, size_t offset, size_t length) {
    if (!s_pDocument || element->getOwnerDocument() != s_pDocument) return;
    s_entries.Insert(element) = {element, s_nSave + 1, offset, length};
}

std::string_view Finish(std::string&& buffer, size_t length) {
    s_spare = std::move(s_last);
    s_last = std::move(buffer);
    // Entries the save did not reach point into the bytes just given up.
    s_entries.DropBefore(++s_nSave);
    return std::string_view(s_last.data(), length);
}

void Abandon(std::string&& buffer) {
    s_spare = std::move(buffer);
    // Reused entries now point into the abandoned buffer.
    s_entries.Clear(s_nSave);
}

void Changed(const DOMNode* node) {
    for (; node; node = node->getParentNode())
        s_entries.Erase(node);
}

void Released(const DOMNode* node) { s_entries.Erase(node); }

}  // namespace SavedSubtrees
