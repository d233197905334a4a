// A document as text: every node's type, name, value and attributes, in
// order, with a mark wherever a link read from one end disagrees with the
// other. Two documents built alike describe alike.
#ifndef VELTCOM_FUZZ_DOMDESCRIPTION_H
#define VELTCOM_FUZZ_DOMDESCRIPTION_H

#include <string>

#include <xercesc/dom/DOM.hpp>

inline std::string DescribedText(const XMLCh* text) {
    std::string out;
    for (; text && *text; ++text) out += *text < 0x80 ? static_cast<char>(*text) : '?';
    return out;
}

inline void DescribeNode(const xercesc::DOMNode* node, std::string& out) {
    using xercesc::DOMNode;
    out += std::to_string(node->getNodeType()) + "<" + DescribedText(node->getNodeName()) + ">";
    if (node->getNodeValue()) out += "=" + DescribedText(node->getNodeValue());
    if (const xercesc::DOMNamedNodeMap* attributes = node->getAttributes()) {
        for (XMLSize_t i = 0; i < attributes->getLength(); ++i) {
            const auto* attribute = static_cast<const xercesc::DOMAttr*>(attributes->item(i));
            out += attribute->getSpecified() ? " @" : " default@";
            if (attribute->getOwnerElement() != node) out += "!owner";
            DescribeNode(attribute, out);
        }
    }
    out += "(";
    const DOMNode* document =
        node->getNodeType() == DOMNode::DOCUMENT_NODE ? node : node->getOwnerDocument();
    const DOMNode* previous = nullptr;
    for (const DOMNode* child = node->getFirstChild(); child; child = child->getNextSibling()) {
        if (child->getParentNode() != node) out += "!parent";
        if (child->getPreviousSibling() != previous) out += "!previous";
        if (child->getOwnerDocument() != document) out += "!document";
        DescribeNode(child, out);
        previous = child;
    }
    if (node->getLastChild() != previous) out += "!last";
    out += ")";
}

inline std::string Described(const xercesc::DOMNode* node) {
    std::string out;
    if (node) DescribeNode(node, out);
    return out;
}

#endif
