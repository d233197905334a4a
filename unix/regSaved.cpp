// The kept bytes of subtrees, listed in the order the writer comes to them.
#include "regSaved.h"

#include <algorithm>
#include <unordered_set>
#include <vector>

using xercesc::DOMDocument;
using xercesc::DOMNode;
using SavedSubtrees::CAt;
using SavedSubtrees::CKept;
using SavedSubtrees::CSave;

namespace {

// A subtree's bytes in a save's document and image, the hash of its name,
// and how many of the entries that follow lie inside it.
struct CEntry {
    const DOMNode* node;
    CAt offset;
    CAt length;
    uint32_t hash;
    size_t inside;
};

// A save that finds its next node a few entries further on skips those:
// their nodes went, or no longer have their bytes kept.
const size_t kLookAhead = 8;

const DOMDocument* s_pDocument = nullptr;
// The last save's document and its entries; those of the save in progress;
// the next entry of the last save that the one in progress may reuse.
CSave s_last;
std::vector<CEntry> s_lastEntries;
CSave s_spare;
std::vector<CEntry> s_entries;
size_t s_nNext = 0;
// Nodes changed or freed since the last save: their entries are stale. A
// freed node's memory may come back as another node.
std::unordered_set<const DOMNode*> s_stale;

void Forget() {
    s_lastEntries.clear();
    s_entries.clear();
    s_stale.clear();
    s_nNext = 0;
}

bool Reusable(const CEntry& entry) { return s_stale.empty() || !s_stale.count(entry.node); }

// Copies the entry at `at` and those inside it, now at `offset`.
void Carry(size_t at, CAt offset) {
    const CAt from = s_lastEntries[at].offset;
    for (size_t i = at; i <= at + s_lastEntries[at].inside; ++i) {
        CEntry entry = s_lastEntries[i];
        entry.offset.bytes = entry.offset.bytes - from.bytes + offset.bytes;
        entry.offset.image = entry.offset.image - from.image + offset.image;
        s_entries.push_back(entry);
    }
}

}  // namespace

namespace SavedSubtrees {

void Attach(const DOMDocument* document) {
    s_pDocument = document;
    Forget();
}

CSave TakeBuffers() {
    s_entries.clear();
    s_nNext = 0;
    return std::move(s_spare);
}

CKept Reuse(const DOMNode* element, CAt offset) {
    const size_t end = std::min(s_lastEntries.size(), s_nNext + kLookAhead);
    for (size_t at = s_nNext; at < end; ++at) {
        const CEntry& entry = s_lastEntries[at];
        if (entry.node != element) continue;
        // A changed element is written anew: the entries inside it come next.
        if (!Reusable(entry)) {
            s_nNext = at + 1;
            return {};
        }
        Carry(at, offset);
        s_nNext = at + 1 + entry.inside;
        return {std::string_view(s_last.bytes.data() + entry.offset.bytes, entry.length.bytes),
                std::string_view(s_last.image.data() + entry.offset.image, entry.length.image),
                entry.hash};
    }
    return {};
}

size_t Begin(const DOMNode* element, CAt offset, uint32_t hash) {
    s_entries.push_back({element, offset, {0, 0}, hash, 0});
    return s_entries.size() - 1;
}

void End(size_t begun, CAt offset) {
    CEntry& entry = s_entries[begun];
    entry.length = {offset.bytes - entry.offset.bytes, offset.image - entry.offset.image};
    entry.inside = s_entries.size() - begun - 1;
}

void Finish(CSave&& save, CAt length, std::string_view& bytes, std::string_view& image) {
    s_spare = std::move(s_last);
    s_last = std::move(save);
    s_lastEntries.swap(s_entries);
    s_entries.clear();
    s_stale.clear();
    s_nNext = 0;
    bytes = std::string_view(s_last.bytes.data(), length.bytes);
    image = std::string_view(s_last.image.data(), length.image);
}

void Abandon(CSave&& save) {
    s_spare = std::move(save);
    Forget();
}

void Changed(const DOMNode* node) {
    if (s_lastEntries.empty()) return;
    for (; node; node = node->getParentNode())
        s_stale.insert(node);
}

void Released(const DOMNode* node) {
    if (!s_lastEntries.empty()) s_stale.insert(node);
}

}  // namespace SavedSubtrees
