// The registry's image beside the document it was made from: an image file
// kept in memory as saves write it, and a node-by-node comparison of what a
// reader of either form sees.
#ifndef VELTCOM_FUZZ_IMAGESUPPORT_H
#define VELTCOM_FUZZ_IMAGESUPPORT_H

#include <unistd.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <xercesc/dom/DOM.hpp>

#include "registry/file/regImage.h"
#include "unix/regHelper.h"

namespace imagetest {

// An image file as a process's saves leave it: written whole, then appended
// to, each time with a new slot.
class CImageFile {
public:
    // The base offset the next save's records go to.
    uint32_t Base() const { return m_bytes.empty() ? RegistryImage::kHeaderSize : m_bytes.size(); }

    void Add(const CWritten& written) {
        if (m_bytes.empty()) m_bytes.assign(RegistryImage::kHeaderSize, '\0');
        m_bytes.append(written.image.data(), written.image.size());
        RegistryImage::CSlot slot;
        slot.sequence = ++m_nSequence;
        slot.used = m_bytes.size();
        slot.root = written.root;
        m_bytes.replace(RegistryImage::SlotOffset(slot.sequence), RegistryImage::kSlotSize,
                        RegistryImage::SlotBytes(slot));
    }

    std::string& Bytes() { return m_bytes; }

    // The file mapped as a reader maps it; null when the reader refuses it.
    std::unique_ptr<CRegistryImage> Map() const {
        char path[] = "/tmp/veltcom-image-XXXXXX";
        const int fd = mkstemp(path);
        if (fd < 0) return nullptr;
        const bool written = write(fd, m_bytes.data(), m_bytes.size()) == static_cast<ssize_t>(m_bytes.size());
        close(fd);
        std::unique_ptr<CRegistryImage> image = written ? CRegistryImage::Map(path, CFileStamp()) : nullptr;
        unlink(path);
        return image;
    }

private:
    std::string m_bytes;
    uint64_t m_nSequence = 0;
};

inline std::string Narrow(RegStringView text) { return std::string(text.begin(), text.end()); }

inline RegStringView TextOf(const XMLCh* text) { return text ? RegStringView(text) : RegStringView(); }

// The first difference between what the document and the image show a
// reader, as a node name and what differs; empty when they agree. Every
// node is compared by type, name, attributes in order and children, and every
// child is looked up by name as a path walk looks it up.
inline std::string Disagreement(const xercesc::DOMDocument* document, const CRegistryImage& image) {
    using xercesc::DOMNode;
    std::vector<std::pair<const DOMNode*, CRegistryImage::Node>> pending{{document, image.Document()}};
    try {
        while (!pending.empty()) {
            const auto [node, record] = pending.back();
            pending.pop_back();
            const std::string where = Narrow(TextOf(node->getNodeName()));
            if (image.Type(record) != node->getNodeType()) return where + ": type";
            if (!(image.Name(record) == TextOf(node->getNodeName()))) return where + ": name";
            const xercesc::DOMNamedNodeMap* attributes = node->getAttributes();
            const uint32_t count = attributes ? static_cast<uint32_t>(attributes->getLength()) : 0;
            if (image.AttributeCount(record) != count) return where + ": attribute count";
            std::string problem;
            image.ForEachAttribute(record, [&](uint32_t i, const CImageString& name, const CImageString& value) {
                const DOMNode* attribute = attributes->item(i);
                if (!(name == TextOf(attribute->getNodeName())) || !(value == TextOf(attribute->getNodeValue())))
                    problem = where + ": attribute " + std::to_string(i);
                return problem.empty();
            });
            if (!problem.empty()) return problem;
            std::vector<const DOMNode*> children;
            for (const DOMNode* child = node->getFirstChild(); child; child = child->getNextSibling())
                children.push_back(child);
            if (image.ChildCount(record) != children.size()) return where + ": child count";
            std::vector<CRegistryImage::Node> records;
            image.ForEachChild(record, [&](CRegistryImage::Node child) {
                records.push_back(child);
                return true;
            });
            for (size_t i = 0; i < children.size(); ++i) {
                size_t first = 0;
                const RegStringView name = TextOf(children[i]->getNodeName());
                while (TextOf(children[first]->getNodeName()) != name) ++first;
                if (image.Find(record, name) != records[first])
                    return where + ": finding child " + Narrow(name);
                pending.emplace_back(children[i], records[i]);
            }
        }
    } catch (const CImageDamaged&) {
        return "the image reads as damaged";
    }
    return std::string();
}

}  // namespace imagetest

#endif
