// The registry's document parser: xerces' own scanner and DOM, with the
// document built without the per-node costs that dominate a large registry.
//
// Building it so means working inside xerces' node classes, whose layout is
// private to one release: the build uses the direct builder only against
// the release it was written for (VELTCOM_DIRECT_DOM), and a process only
// once it has seen it build a sample document as xerces' own parser does.
// Anywhere else, xerces' own parser serves, a few times slower on a large
// registry.
#ifndef VELTCOM_UNIX_REGPARSER_H
#define VELTCOM_UNIX_REGPARSER_H

#include <xercesc/parsers/XercesDOMParser.hpp>

// A new parser for the registry's document; `large` when the document is.
xercesc::XercesDOMParser* NewRegistryParser(bool large);

#ifdef VELTCOM_DIRECT_DOM

#include <cstddef>
#include <typeinfo>
#include <utility>
#include <vector>

#include <xercesc/dom/impl/DOMChildNode.hpp>
#include <xercesc/dom/impl/DOMNodeImpl.hpp>
#include <xercesc/dom/impl/DOMParentNode.hpp>
#include <xercesc/framework/MemoryManager.hpp>
#include <xercesc/framework/XMLElementDecl.hpp>

// Where a node's link records lie within it. xerces finds them with a
// cross-cast per step, and each cross-cast costs about as much as the rest
// of the parse put together; the offsets are fixed for each node class, so
// they are found once per class and reused.
class CNodeLinks {
public:
    xercesc::DOMNodeImpl* Node(xercesc::DOMNode* node);
    xercesc::DOMChildNode* Child(xercesc::DOMNode* node);
    xercesc::DOMParentNode* Parent(xercesc::DOMNode* node);

    // Makes `child`, a node that has no parent, the last child of `parent`,
    // exactly as the parser's own append does.
    void Append(xercesc::DOMNode* parent, xercesc::DOMNode* child);

private:
    struct CLayout {
        const std::type_info* type;
        std::ptrdiff_t node, child, parent;  // -1 where the class has none
    };
    const CLayout& LayoutOf(xercesc::DOMNode* node);
    template <class Part>
    Part* PartOf(xercesc::DOMNode* node, std::ptrdiff_t CLayout::*offset);

    std::vector<CLayout> m_layouts;
};

// The memory of a large document's parse. Its node storage comes in large
// blocks, which are cut from big runs of memory that the kernel may back with
// huge pages: a page fault for every 4 kB of a document of tens of
// megabytes costs a third of its load. Blocks given back are kept until the
// whole document goes, as the document itself does with its nodes; smaller
// requests go to the XML library's own memory manager.
class CDocumentArena : public xercesc::MemoryManager {
public:
    explicit CDocumentArena(bool large) : m_bLarge(large) {}
    ~CDocumentArena() override;
    CDocumentArena(const CDocumentArena&) = delete;
    CDocumentArena& operator=(const CDocumentArena&) = delete;

    xercesc::MemoryManager* getExceptionMemoryManager() override;
    void* allocate(XMLSize_t size) override;
    void deallocate(void* p) override;

private:
    struct CRun {
        char* start;
        size_t size;
    };
    bool Owns(const void* p) const;

    const bool m_bLarge;
    std::vector<CRun> m_runs;
    char* m_pFree = nullptr;
    size_t m_nFree = 0;
};

// Parses exactly as xerces' DOM parser does, into the same kinds of nodes.
// For a document without a document type, elements and attributes are
// linked through CNodeLinks, and an element's name is stored once per
// distinct name instead of going through the document's name pool, whose
// fixed-size table turns every new name into a walk of a long chain. Any
// other document is built by xerces' own code throughout.
//
// `large` asks for the memory of a large document: see CDocumentArena,
// which is a base so that it outlives the parser's own destruction.
class CRegistryParser : private CDocumentArena, public xercesc::XercesDOMParser {
public:
    explicit CRegistryParser(bool large);

protected:
    void startDocument() override;
    void endDocument() override;
    void startElement(const xercesc::XMLElementDecl& decl, unsigned int urlId, const XMLCh* prefix,
                      const xercesc::RefVectorOf<xercesc::XMLAttr>& attributes, XMLSize_t count,
                      bool isEmpty, bool isRoot) override;
    void endElement(const xercesc::XMLElementDecl& decl, unsigned int urlId, bool isRoot,
                    const XMLCh* prefix) override;

private:
    bool BuildsDirectly() const;
    xercesc::DOMElement* CreateElement(const xercesc::XMLElementDecl& decl);
    const XMLCh* ElementName(const xercesc::XMLElementDecl& decl);

    CNodeLinks m_links;
    // The document's copy of each element name, by the scanner's number
    // for its declaration; kept for one parse.
    static const size_t kNamesAhead = 1024;
    std::vector<std::pair<const xercesc::XMLElementDecl*, const XMLCh*>> m_names;
};

#endif  // VELTCOM_DIRECT_DOM

#endif
