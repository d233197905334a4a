// The child index: built for a key the first time a look-up among its
// children has to pass many of them, kept up to date by every change, and
// dropped where keeping it would mean a scan anyway.
#include "regIndex.h"

#include <unordered_map>

using xercesc::DOMDocument;
using xercesc::DOMNode;

namespace {

// Below this many children a scan is as quick as hashing the name.
const size_t kIndexedFrom = 32;

// Names point into the document's own storage, which lives as long as the
// document: a node's name never changes.
typedef std::unordered_map<RegStringView, DOMNode*> CChildren;

const DOMDocument* s_pDocument = nullptr;
std::unordered_map<const DOMNode*, CChildren> s_indexes;

RegStringView NameOf(const DOMNode* node) {
    const XMLCh* name = node->getNodeName();
    return name ? RegStringView(name) : RegStringView();
}

bool Serves(const DOMNode* node) { return s_pDocument && node->getOwnerDocument() == s_pDocument; }

CChildren* IndexOf(const DOMNode* parent) {
    if (s_indexes.empty()) return nullptr;
    auto found = s_indexes.find(parent);
    return found == s_indexes.end() ? nullptr : &found->second;
}

// The first child of each name wins, as in a scan.
CChildren& Build(const DOMNode* parent) {
    CChildren& children = s_indexes[parent];
    for (DOMNode* child = parent->getFirstChild(); child; child = child->getNextSibling())
        children.emplace(NameOf(child), child);
    return children;
}

}  // namespace

namespace ChildIndex {

void Attach(const DOMDocument* document) {
    s_indexes.clear();
    s_pDocument = document;
}

DOMNode* Find(const DOMNode* parent, RegStringView name) {
    const bool served = Serves(parent);
    if (served) {
        if (CChildren* children = IndexOf(parent)) {
            auto found = children->find(name);
            return found == children->end() ? nullptr : found->second;
        }
    }
    size_t passed = 0;
    for (DOMNode* child = parent->getFirstChild(); child; child = child->getNextSibling(), ++passed) {
        if (NameOf(child) == name) {
            if (served && passed >= kIndexedFrom) Build(parent);
            return child;
        }
    }
    if (served && passed >= kIndexedFrom) Build(parent);
    return nullptr;
}

void Appended(const DOMNode* parent, DOMNode* child) {
    if (CChildren* children = IndexOf(parent)) children->emplace(NameOf(child), child);
}

void Replaced(const DOMNode* parent, const DOMNode* old, DOMNode* replacement) {
    CChildren* children = IndexOf(parent);
    if (!children) return;
    if (NameOf(replacement) != NameOf(old)) {
        // Which child now comes first under either name needs a scan.
        s_indexes.erase(parent);
        return;
    }
    auto entry = children->find(NameOf(old));
    if (entry != children->end() && entry->second == old) entry->second = replacement;
}

void Removed(const DOMNode* parent) {
    // The next child of the removed one's name is found by the next scan.
    if (!s_indexes.empty()) s_indexes.erase(parent);
}

void Released(const DOMNode* node) {
    // Its memory may come back as another node.
    if (!s_indexes.empty()) s_indexes.erase(node);
}

}  // namespace ChildIndex
