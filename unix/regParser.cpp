// The registry's document parser.
#include "regParser.h"

#ifdef VELTCOM_DIRECT_DOM

#include <xercesc/dom/DOMException.hpp>
#include <xercesc/dom/DOMText.hpp>
#include <xercesc/dom/impl/DOMAttrImpl.hpp>
#include <xercesc/dom/impl/DOMAttrMapImpl.hpp>
#include <xercesc/dom/impl/DOMDocumentImpl.hpp>
#include <xercesc/dom/impl/DOMElementImpl.hpp>
#include <xercesc/dom/impl/DOMNodeBase.hpp>
#include <xercesc/framework/XMLAttr.hpp>
#include <xercesc/internal/XMLScanner.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLString.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>

#include <sys/mman.h>

using namespace xercesc;

namespace {

// The name every directly built element is made with, before it takes its
// own: pooling one short name costs next to nothing.
const XMLCh kPlaceholderName[] = u"_";

template <class Has, class Part>
std::ptrdiff_t OffsetOf(DOMNode* node, Part* (Has::*get)()) {
    Has* has = dynamic_cast<Has*>(node);
    Part* part = has ? (has->*get)() : nullptr;
    return part ? reinterpret_cast<char*>(part) - reinterpret_cast<char*>(node) : -1;
}

}  // namespace

const CNodeLinks::CLayout& CNodeLinks::LayoutOf(DOMNode* node) {
    const std::type_info* type = &typeid(*node);
    for (const CLayout& layout : m_layouts)
        if (layout.type == type) return layout;
    m_layouts.push_back({type, OffsetOf(node, &HasDOMNodeImpl::getNodeImpl),
                         OffsetOf(node, &HasDOMChildImpl::getChildNodeImpl),
                         OffsetOf(node, &HasDOMParentImpl::getParentNodeImpl)});
    return m_layouts.back();
}

// A node without the part is refused as xerces' own casts refuse it.
template <class Part>
Part* CNodeLinks::PartOf(DOMNode* node, std::ptrdiff_t CLayout::*offset) {
    const std::ptrdiff_t at = LayoutOf(node).*offset;
    if (at < 0) throw DOMException(DOMException::INVALID_STATE_ERR, 0, XMLPlatformUtils::fgMemoryManager);
    return reinterpret_cast<Part*>(reinterpret_cast<char*>(node) + at);
}

DOMNodeImpl* CNodeLinks::Node(DOMNode* node) { return PartOf<DOMNodeImpl>(node, &CLayout::node); }

DOMChildNode* CNodeLinks::Child(DOMNode* node) { return PartOf<DOMChildNode>(node, &CLayout::child); }

DOMParentNode* CNodeLinks::Parent(DOMNode* node) { return PartOf<DOMParentNode>(node, &CLayout::parent); }

// The first child's previous-sibling link names the last child.
void CNodeLinks::Append(DOMNode* parent, DOMNode* child) {
    DOMParentNode* children = Parent(parent);
    DOMNodeImpl* childNode = Node(child);
    DOMChildNode* childLinks = Child(child);
    childNode->fOwnerNode = parent;
    childNode->isOwned(true);
    if (DOMNode* first = children->fFirstChild) {
        DOMChildNode* firstLinks = Child(first);
        DOMNode* last = firstLinks->previousSibling;
        Child(last)->nextSibling = child;
        childLinks->previousSibling = last;
        firstLinks->previousSibling = child;
    } else {
        children->fFirstChild = child;
        childNode->isFirstChild(true);
        childLinks->previousSibling = child;
    }
}

namespace {

// Requests from this size on are cut from runs; the document asks for its
// node storage in blocks of 16 kB and more.
const size_t kFromRunsAt = 1 << 14;
// Huge pages are this size and alignment.
const size_t kHugePage = size_t(1) << 21;
const size_t kRunSize = 8 * kHugePage;

}  // namespace

CDocumentArena::~CDocumentArena() {
    for (const CRun& run : m_runs) munmap(run.start, run.size);
}

MemoryManager* CDocumentArena::getExceptionMemoryManager() { return XMLPlatformUtils::fgMemoryManager; }

// Requests larger than a run, which no document block is, go elsewhere too:
// no size can overflow the rounding below.
void* CDocumentArena::allocate(XMLSize_t size) {
    if (!m_bLarge || size < kFromRunsAt || size > kRunSize)
        return XMLPlatformUtils::fgMemoryManager->allocate(size);
    size = (size + 63) & ~size_t(63);
    if (size > m_nFree) {
        // Mapped a huge page larger, so that the run can start on one.
        const size_t length = kRunSize + kHugePage;
        void* mapped = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapped == MAP_FAILED) throw OutOfMemoryException();
        m_runs.push_back({static_cast<char*>(mapped), length});
        m_pFree = reinterpret_cast<char*>((reinterpret_cast<uintptr_t>(mapped) + kHugePage - 1) & ~(kHugePage - 1));
        m_nFree = kRunSize;
        madvise(m_pFree, kRunSize, MADV_HUGEPAGE);
    }
    void* block = m_pFree;
    m_pFree += size;
    m_nFree -= size;
    return block;
}

bool CDocumentArena::Owns(const void* p) const {
    for (const CRun& run : m_runs)
        if (p >= run.start && p < run.start + run.size) return true;
    return false;
}

void CDocumentArena::deallocate(void* p) {
    if (p && !Owns(p)) XMLPlatformUtils::fgMemoryManager->deallocate(p);
}

CRegistryParser::CRegistryParser(bool large)
    : CDocumentArena(large), XercesDOMParser(nullptr, static_cast<CDocumentArena*>(this)) {}

void CRegistryParser::startDocument() {
    XercesDOMParser::startDocument();
    m_names.clear();
}

void CRegistryParser::endDocument() {
    XercesDOMParser::endDocument();
    m_names = {};
}

// Without a document type there are no default attributes, no ID
// attributes and no entity nodes: elements and attributes are what the
// start tag says, and nothing else.
bool CRegistryParser::BuildsDirectly() const {
    return !fDocumentType && !fScanner->getDoNamespaces() && !fCreateSchemaInfo && !fDoXInclude;
}

// The scanner numbers element names one by one as it meets them; a number
// far beyond those seen, as a declaration left unnumbered has, is no index.
const XMLCh* CRegistryParser::ElementName(const XMLElementDecl& decl) {
    const XMLSize_t id = decl.getId();
    if (id > m_names.size() + kNamesAhead) return fDocument->cloneString(decl.getFullName());
    if (id >= m_names.size()) m_names.resize(id + 1);
    std::pair<const XMLElementDecl*, const XMLCh*>& name = m_names[id];
    if (name.first != &decl) name = {&decl, fDocument->cloneString(decl.getFullName())};
    return name.second;
}

DOMElement* CRegistryParser::CreateElement(const XMLElementDecl& decl) {
    DOMElementImpl* element =
        new (fDocument, DOMMemoryManager::ELEMENT_OBJECT) DOMElementImpl(fDocument, kPlaceholderName);
    element->fName = ElementName(decl);
    return element;
}

void CRegistryParser::startElement(const XMLElementDecl& decl, unsigned int urlId, const XMLCh* prefix,
                                   const RefVectorOf<XMLAttr>& attributes, XMLSize_t count,
                                   bool isEmpty, bool isRoot) {
    // The document element goes through the document's own checks.
    if (!BuildsDirectly() || decl.hasAttDefs() || fCurrentParent == fDocument ||
        fCurrentParent->getNodeType() != DOMNode::ELEMENT_NODE) {
        XercesDOMParser::startElement(decl, urlId, prefix, attributes, count, isEmpty, isRoot);
        return;
    }
    DOMElement* element = CreateElement(decl);
    if (count) {
        DOMAttrMapImpl* map = static_cast<DOMElementImpl*>(element)->fAttributes;
        map->reserve(count);
        for (XMLSize_t i = 0; i < count; ++i) {
            const XMLAttr* attribute = attributes.elementAt(i);
            DOMAttrImpl* attr = static_cast<DOMAttrImpl*>(createAttr(attribute->getName()));
            map->setNamedItemFast(attr);
            if (const XMLCh* value = attribute->getValue())
                m_links.Append(attr, fDocument->createTextNode(value));
            attr->setSpecified(attribute->getSpecified());
        }
    }
    m_links.Append(fCurrentParent, element);
    fCurrentParent = element;
    fCurrentNode = element;
    fWithinElement = true;
    if (isEmpty) endElement(decl, urlId, isRoot, prefix);
}

void CRegistryParser::endElement(const XMLElementDecl& decl, unsigned int urlId, bool isRoot,
                                 const XMLCh* prefix) {
    if (!BuildsDirectly()) {
        XercesDOMParser::endElement(decl, urlId, isRoot, prefix);
        return;
    }
    fCurrentNode = fCurrentParent;
    const DOMNodeImpl* node = m_links.Node(fCurrentNode);
    fCurrentParent = node->isOwned() ? node->fOwnerNode : nullptr;
    // More ends than starts, in a document that goes on after an error.
    if (!fCurrentParent && fDocument) {
        fCurrentNode = fDocument->getDocumentElement();
        fCurrentParent = fCurrentNode;
    }
    if (fCurrentParent == fDocument) fWithinElement = false;
}

namespace {

// A document that holds every kind of node the direct builder makes or
// hands on to xerces: the document element, nested elements with and
// without attributes, text, a comment, an instruction, CDATA, a reference.
const char kSample[] =
    "<r a='1'><k default = \"x\"><item name = \"n\" type = \"string\" value = \"&lt;v\"/>"
    "<e/>t&amp;u<!--c--><?p d?><![CDATA[z]]></k><k2 b='2' c='3'><x><y/></x></k2></r>";

bool SameNodes(const DOMNode* a, const DOMNode* b);

bool SameText(const XMLCh* a, const XMLCh* b) { return (!a && !b) || (a && b && XMLString::equals(a, b)); }

// Names, values, attributes, and links read from either end.
bool SameNode(const DOMNode* a, const DOMNode* b) {
    if (a->getNodeType() != b->getNodeType() || !SameText(a->getNodeName(), b->getNodeName()) ||
        !SameText(a->getNodeValue(), b->getNodeValue()))
        return false;
    const DOMNamedNodeMap* aAttributes = a->getAttributes();
    const DOMNamedNodeMap* bAttributes = b->getAttributes();
    const XMLSize_t count = aAttributes ? aAttributes->getLength() : 0;
    if (count != (bAttributes ? bAttributes->getLength() : 0)) return false;
    for (XMLSize_t i = 0; i < count; ++i) {
        if (!SameNodes(aAttributes->item(i), bAttributes->item(i))) return false;
    }
    return SameNodes(a->getFirstChild(), b->getFirstChild());
}

// Two lists of siblings, with their subtrees.
bool SameNodes(const DOMNode* a, const DOMNode* b) {
    const DOMNode* previous = nullptr;
    for (; a && b; a = a->getNextSibling(), b = b->getNextSibling()) {
        if (a->getPreviousSibling() != previous || !SameNode(a, b)) return false;
        previous = a;
    }
    return !a && !b && (!previous || !previous->getParentNode() ||
                        previous->getParentNode()->getLastChild() == previous);
}

bool BuildsAlike() {
    XercesDOMParser reference;
    CRegistryParser direct(false);
    for (XercesDOMParser* parser : {&reference, static_cast<XercesDOMParser*>(&direct)}) {
        MemBufInputSource source(reinterpret_cast<const XMLByte*>(kSample), sizeof kSample - 1, "sample", false);
        parser->parse(source);
        if (parser->getErrorCount() != 0 || !parser->getDocument()) return false;
    }
    return SameNode(reference.getDocument(), direct.getDocument());
}

}  // namespace

#endif  // VELTCOM_DIRECT_DOM

XercesDOMParser* NewRegistryParser(bool large) {
#ifdef VELTCOM_DIRECT_DOM
    static const bool s_bDirect = BuildsAlike();
    if (s_bDirect) return new CRegistryParser(large);
#else
    (void)large;
#endif
    return new XercesDOMParser;
}
