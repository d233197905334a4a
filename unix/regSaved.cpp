// The kept bytes of subtrees, listed in the order the writer comes to them,
// and the kept records of keys.
#include "regSaved.h"

#include <algorithm>
#include <unordered_map>
#include <unordered_set>
#include <vector>

using xercesc::DOMDocument;
using xercesc::DOMNode;
using SavedSubtrees::CKept;
using SavedSubtrees::CRecord;
using SavedSubtrees::CSave;

namespace {

// A subtree's bytes in a save's document, its record, and how many of the
// entries that follow lie inside it.
struct CEntry {
    const DOMNode* node;
    size_t offset;
    size_t length;
    CRecord record;
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
// The records of keys outside the entries, by node.
std::unordered_map<const DOMNode*, CRecord> s_records;
// Nodes changed or freed since the last save: their entries and records are
// stale. A freed node's memory may come back as another node.
std::unordered_set<const DOMNode*> s_stale;

void Forget() {
    s_lastEntries.clear();
    s_entries.clear();
    s_records.clear();
    s_stale.clear();
    s_nNext = 0;
}

bool Keeps() { return !s_lastEntries.empty() || !s_records.empty(); }

bool Reusable(const CEntry& entry) { return s_stale.empty() || !s_stale.count(entry.node); }

// Copies the entry at `at` and those inside it, now at `offset`. Records
// stay where they stand in the image.
void Carry(size_t at, size_t offset) {
    const size_t from = s_lastEntries[at].offset;
    for (size_t i = at; i <= at + s_lastEntries[at].inside; ++i) {
        CEntry entry = s_lastEntries[i];
        entry.offset = entry.offset - from + offset;
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
    for (const DOMNode* node : s_stale) s_records.erase(node);
    return std::move(s_spare);
}

CKept Reuse(const DOMNode* element, size_t offset, bool withRecord) {
    const size_t end = std::min(s_lastEntries.size(), s_nNext + kLookAhead);
    for (size_t at = s_nNext; at < end; ++at) {
        const CEntry& entry = s_lastEntries[at];
        if (entry.node != element) continue;
        // A changed element is written anew: the entries inside it come next.
        if (!Reusable(entry) || (withRecord && entry.record.offset == 0)) {
            s_nNext = at + 1;
            return {};
        }
        Carry(at, offset);
        s_nNext = at + 1 + entry.inside;
        return {std::string_view(s_last.bytes.data() + entry.offset, entry.length), entry.record};
    }
    return {};
}

size_t Begin(const DOMNode* element, size_t offset) {
    s_entries.push_back({element, offset, 0, CRecord(), 0});
    return s_entries.size() - 1;
}

void End(size_t begun, size_t offset, CRecord record) {
    CEntry& entry = s_entries[begun];
    entry.length = offset - entry.offset;
    entry.record = record;
    entry.inside = s_entries.size() - begun - 1;
}

bool ReuseRecord(const DOMNode* key, CRecord& record) {
    const auto found = s_records.find(key);
    if (found == s_records.end()) return false;
    record = found->second;
    return true;
}

void Recorded(const DOMNode* key, CRecord record) { s_records[key] = record; }

void Finish(CSave&& save, size_t length, size_t imageLength, std::string_view& bytes, std::string_view& image) {
    s_spare = std::move(s_last);
    s_last = std::move(save);
    s_lastEntries.swap(s_entries);
    s_entries.clear();
    s_stale.clear();
    s_nNext = 0;
    bytes = std::string_view(s_last.bytes.data(), length);
    image = std::string_view(s_last.image.data(), imageLength);
}

void Abandon(CSave&& save) {
    s_spare = std::move(save);
    Forget();
}

void Changed(const DOMNode* node) {
    if (!Keeps()) return;
    for (; node; node = node->getParentNode())
        s_stale.insert(node);
}

void Released(const DOMNode* node) {
    if (Keeps()) s_stale.insert(node);
}

}  // namespace SavedSubtrees
