// Constant-time look-up of a key's child by name, for keys with many
// children: the classes and ProgIDs of a large registry.
#ifndef VELTCOM_UNIX_REGINDEX_H
#define VELTCOM_UNIX_REGINDEX_H

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMNode.hpp>

#include "regHelper.h"

// The index serves one document, the registry's; the children of nodes in
// any other document are scanned. Every change to the children of an
// indexed node goes through the notices below, so that a look-up always
// gives what a scan in document order gives: the first child of that name.
// Callers serialise their use, as they do every operation on the document.
namespace ChildIndex {

// Starts over for a new document; null for none.
void Attach(const xercesc::DOMDocument* document);

// The first child of `parent`, of any node type, with that node name.
xercesc::DOMNode* Find(const xercesc::DOMNode* parent, RegStringView name);

// `child` became the last child of `parent`.
void Appended(const xercesc::DOMNode* parent, xercesc::DOMNode* child);
// `replacement` took the place of `old` among the children of `parent`.
void Replaced(const xercesc::DOMNode* parent, const xercesc::DOMNode* old,
              xercesc::DOMNode* replacement);
// A child of `parent` was removed.
void Removed(const xercesc::DOMNode* parent);
// `node` is about to be freed.
void Released(const xercesc::DOMNode* node);

}  // namespace ChildIndex

#endif
