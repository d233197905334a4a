// The bytes each subtree of the registry document was last saved as, in the
// file and in its image, so that a save rewrites only what changed since the
// one before.
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
// unchanged subtree where the list stands. Every change to the document goes
// through the notices below, so that no kept bytes ever differ from what the
// writer would write now. Callers serialise their use, as they do every
// operation on the document.
namespace SavedSubtrees {

// Starts over for a new document; null for none.
void Attach(const xercesc::DOMDocument* document);

// Where a subtree's bytes stand in a save: in the file and in the image.
struct CAt {
    size_t bytes;
    size_t image;
};

// A subtree's kept bytes, and the name hash its image's parent files it under.
struct CKept {
    std::string_view bytes;
    std::string_view image;
    uint32_t hash;
};

// A save's document and image.
struct CSave {
    std::string bytes;
    std::string image;
};

// Starts a save, which writes into the buffers handed out here; their size
// is room, not content, and they keep the capacity of an earlier save.
CSave TakeBuffers();
// The bytes `element` was written as by the last save, now recorded as
// written again at `at` of the save in progress; empty when unknown.
CKept Reuse(const xercesc::DOMNode* element, CAt at);
// `element` is written anew from `at`; End, given the number Begin returns,
// records where its bytes end. Subtrees begun inside it are recorded inside
// it.
size_t Begin(const xercesc::DOMNode* element, CAt at, uint32_t hash);
void End(size_t begun, CAt at);
// Ends the save in progress, whose document and image are the first bytes
// of `save` that `length` counts; they stay valid until the next save ends.
void Finish(CSave&& save, CAt length, std::string_view& bytes, std::string_view& image);
// Ends the save in progress without a document: nothing is kept.
void Abandon(CSave&& save);

// Something in the subtree of `node` changed: its bytes and those of every
// node above it are stale.
void Changed(const xercesc::DOMNode* node);
// `node` is about to be freed.
void Released(const xercesc::DOMNode* node);

}  // namespace SavedSubtrees

#endif
