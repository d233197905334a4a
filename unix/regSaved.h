// The bytes each subtree of the registry document was last saved as, so
// that a save rewrites only what changed since the one before.
#ifndef VELTCOM_UNIX_REGSAVED_H
#define VELTCOM_UNIX_REGSAVED_H

#include <cstddef>
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

// Starts a save, which writes into the buffer handed out here; its size is
// room, not content, and it keeps the capacity of an earlier save.
std::string TakeBuffer();
// The bytes `element` was written as by the last save, now recorded as
// written again at `offset` of the save in progress; empty when unknown.
std::string_view Reuse(const xercesc::DOMNode* element, size_t offset);
// `element` is written anew from `offset`; End, given the number Begin
// returns, records where its bytes end. Subtrees begun inside it are
// recorded inside it.
size_t Begin(const xercesc::DOMNode* element, size_t offset);
void End(size_t begun, size_t offset);
// Ends the save in progress, whose document is the first `length` bytes of
// `buffer`; they stay valid until the next save ends.
std::string_view Finish(std::string&& buffer, size_t length);
// Ends the save in progress without a document: nothing is kept.
void Abandon(std::string&& buffer);

// Something in the subtree of `node` changed: its bytes and those of every
// node above it are stale.
void Changed(const xercesc::DOMNode* node);
// `node` is about to be freed.
void Released(const xercesc::DOMNode* node);

}  // namespace SavedSubtrees

#endif
