// What each subtree of the registry document was last saved as: its bytes
// in the file, and its record in the image. A save rewrites only what
// changed since the one before, and appends to the image only the records
// of what changed.
#ifndef VELTCOM_UNIX_REGSAVED_H
#define VELTCOM_UNIX_REGSAVED_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMNode.hpp>

// Serves one document, the registry's. The bytes of the last save are kept
// whole, with a list of the subtrees in them in the order the writer came to
// them; the next save, walking the document in the same order, finds each
// unchanged subtree where the list stands. The records of other keys with
// children are kept by node. Every change to the document goes through the
// notices below, so that nothing kept ever differs from what the writer
// would write now. Callers serialise their use, as they do every operation
// on the document.
namespace SavedSubtrees {

// A record in the image: where it stands, 0 when unknown, and the hash of
// its node's name.
struct CRecord {
    uint32_t offset = 0;
    uint32_t hash = 0;
};

// A subtree's kept bytes and record.
struct CKept {
    std::string_view bytes;
    CRecord record;
};

// A save's document and new image records.
struct CSave {
    std::string bytes;
    std::string image;
};

// Starts over for a new document, or a new image; null for none.
void Attach(const xercesc::DOMDocument* document);

// Starts a save, which writes into the buffers handed out here; their size
// is room, not content, and they keep the capacity of an earlier save.
CSave TakeBuffers();
// The bytes `element` was written as by the last save, now recorded as
// written again at `offset` of the save in progress; empty when unknown, or
// when `withRecord` and its record is unknown.
CKept Reuse(const xercesc::DOMNode* element, size_t offset, bool withRecord);
// `element` is written anew from `offset`; End, given the number Begin
// returns, records where its bytes end, and its record. Subtrees begun
// inside it are recorded inside it.
size_t Begin(const xercesc::DOMNode* element, size_t offset);
void End(size_t begun, size_t offset, CRecord record);
// The record of a key with children that has not changed since it was
// written; false when there is none.
bool ReuseRecord(const xercesc::DOMNode* key, CRecord& record);
// `key` was written as `record`.
void Recorded(const xercesc::DOMNode* key, CRecord record);
// Ends the save in progress, whose document and new records are the first
// `length` and `imageLength` bytes of `save`; they stay valid until the next
// save ends.
void Finish(CSave&& save, size_t length, size_t imageLength, std::string_view& bytes,
            std::string_view& image);
// Ends the save in progress without a document: nothing is kept.
void Abandon(CSave&& save);

// Something in the subtree of `node` changed: its bytes and those of every
// node above it are stale.
void Changed(const xercesc::DOMNode* node);
// `node` is about to be freed.
void Released(const xercesc::DOMNode* node);

}  // namespace SavedSubtrees

#endif
