// The bytes each subtree of the registry document was last saved as, so
// that a save rewrites only what changed since the one before.
#ifndef VELTCOM_UNIX_REGSAVED_H
#define VELTCOM_UNIX_REGSAVED_H

#include <string>
#include <string_view>

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMNode.hpp>

// Serves one document, the registry's. Every change to the document goes
// through the notices below, so that no saved bytes ever differ from what
// the writer would write now. Callers serialise their use, as they do every
// operation on the document.
namespace SavedSubtrees {

// Starts over for a new document; null for none.
void Attach(const xercesc::DOMDocument* document);

// The bytes `element` was last written as; null when unknown or stale.
const std::string* Find(const xercesc::DOMNode* element);
void Store(const xercesc::DOMNode* element, std::string_view bytes);

// Something in the subtree of `node` changed: its bytes and those of every
// node above it are stale.
void Changed(const xercesc::DOMNode* node);
// `node` is about to be freed.
void Released(const xercesc::DOMNode* node);

// The size of the whole document as last written, so that the next write
// makes its room once.
size_t LastDocumentSize();
void SetLastDocumentSize(size_t size);

}  // namespace SavedSubtrees

#endif
