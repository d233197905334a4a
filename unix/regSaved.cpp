// The saved bytes of subtrees, by element.
#include "regSaved.h"

#include <unordered_map>

using xercesc::DOMDocument;
using xercesc::DOMNode;

namespace {

const DOMDocument* s_pDocument = nullptr;
std::unordered_map<const DOMNode*, std::string> s_saved;
size_t s_nLastDocumentSize = 0;

}  // namespace

namespace SavedSubtrees {

void Attach(const DOMDocument* document) {
    s_saved = {};
    s_pDocument = document;
    s_nLastDocumentSize = 0;
}

const std::string* Find(const DOMNode* element) {
    if (s_saved.empty()) return nullptr;
    auto found = s_saved.find(element);
    return found == s_saved.end() ? nullptr : &found->second;
}

void Store(const DOMNode* element, std::string_view bytes) {
    if (!s_pDocument || element->getOwnerDocument() != s_pDocument) return;
    s_saved[element].assign(bytes);
}

void Changed(const DOMNode* node) {
    if (s_saved.empty()) return;
    for (; node; node = node->getParentNode())
        s_saved.erase(node);
}

void Released(const DOMNode* node) {
    // Its memory may come back as another node.
    if (!s_saved.empty()) s_saved.erase(node);
}

size_t LastDocumentSize() { return s_nLastDocumentSize; }

void SetLastDocumentSize(size_t size) { s_nLastDocumentSize = size; }

}  // namespace SavedSubtrees
