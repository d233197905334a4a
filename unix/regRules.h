// The rules by which the registry reads keys and values, over any form of
// its document: the DOM a writer holds, or the compiled image a reader maps.
// Both give the same answers because both go through these.
//
// A tree offers:
//   Node                                   a node, false when none
//   Find(parent, RegStringView name)       the first child of any type so named
//   ChildCount(node)                       its children, of every type
//   ForEachChild(node, visit)              visit(child) while it returns true
//   IsElement(node), NameIs(node, name)
//   Name(node)                             a text
//   AttributeCount(node)
//   ForEachAttribute(node, visit)          visit(index, name, value), texts,
//                                          in order, while it returns true
//   Is(text, RegStringView), Copy(text, RegString&), Widen(text)
#ifndef VELTCOM_UNIX_REGRULES_H
#define VELTCOM_UNIX_REGRULES_H

#include <algorithm>
#include <cstdint>

#include "comApi.h"
#include "comUtil.h"
#include "regHelper.h"

namespace RegistryRules {

const XMLCh kItem[] = u"item";
const XMLCh kName[] = u"name";
const XMLCh kType[] = u"type";
const XMLCh kValue[] = u"value";
const XMLCh kDefault[] = u"default";
const XMLCh kString[] = u"string";

template <class Tree>
bool Resolve(const Tree& tree, typename Tree::Node start, const XMLCh* path,
             typename Tree::Node& out) {
    typename Tree::Node node = start;
    CPathPieces pieces(path);
    RegStringView piece;
    while (pieces.Next(piece)) {
        node = tree.Find(node, piece);
        if (!node) return false;
    }
    out = node;
    return true;
}

// The default value reads back only while it is the key element's one
// attribute, and always with type "string".
template <class Tree>
bool GetDefaultValue(const Tree& tree, typename Tree::Node key, RegString& type, RegString& value) {
    if (!tree.IsElement(key) || tree.AttributeCount(key) != 1) return false;
    bool found = false;
    tree.ForEachAttribute(key, [&](uint32_t, const auto& name, const auto& text) {
        found = tree.Is(name, kDefault);
        if (found) tree.Copy(text, value);
        return false;
    });
    if (found) type = kString;
    return found;
}

// The value of the attribute so named, when there is one.
template <class Tree>
bool NamedAttribute(const Tree& tree, typename Tree::Node element, RegStringView name, RegString& value) {
    bool found = false;
    tree.ForEachAttribute(element, [&](uint32_t, const auto& attribute, const auto& text) {
        found = tree.Is(attribute, name);
        if (found) tree.Copy(text, value);
        return !found;
    });
    return found;
}

// The first value element of that name with exactly three attributes.
template <class Tree>
bool GetValue(const Tree& tree, typename Tree::Node key, const XMLCh* name, RegString& type,
              RegString& value) {
    if (!*name) return GetDefaultValue(tree, key, type, value);
    bool found = false;
    RegString itemName;
    tree.ForEachChild(key, [&](typename Tree::Node child) {
        if (!tree.IsElement(child) || !tree.NameIs(child, kItem) || tree.AttributeCount(child) != 3)
            return true;
        found = NamedAttribute(tree, child, kName, itemName) && itemName == name &&
                NamedAttribute(tree, child, kType, type) && NamedAttribute(tree, child, kValue, value);
        return !found;
    });
    return found;
}

// Every element child is listed, value elements "item" included.
template <class Tree>
void ListKeys(const Tree& tree, typename Tree::Node key, CVecBstr& slots) {
    size_t next = 0;
    tree.ForEachChild(key, [&](typename Tree::Node child) {
        if (tree.IsElement(child)) slots[next++] = tree.Widen(tree.Name(child));
        return true;
    });
}

// A value's name goes to the slot numbered by the position of its "name"
// attribute, not to the next free one: with name written first, every value
// lands in slot 0 and the last one stays. Callers rely on this placement.
// Past a "name" attribute the next one is skipped.
template <class Tree>
void ListValues(const Tree& tree, typename Tree::Node key, CVecBstr& slots) {
    tree.ForEachChild(key, [&](typename Tree::Node child) {
        if (!tree.IsElement(child) || !tree.NameIs(child, kItem) || tree.AttributeCount(child) != 3)
            return true;
        uint32_t next = 0;
        tree.ForEachAttribute(child, [&](uint32_t p, const auto& name, const auto& text) {
            if (p < next) return true;
            if (!tree.Is(name, kName)) {
                next = p + 1;
                return true;
            }
            // A key with fewer children than the position has no such slot.
            if (p < slots.size()) {
                COM_SysFreeString(slots[p]);
                slots[p] = tree.Widen(text);
            }
            next = p + 2;
            return true;
        });
        return true;
    });
}

// One slot for each child node of the key, in document order, the slots no
// name fills null. The caller owns the array and its system strings.
template <class Tree>
wchar_t** ListNames(const Tree& tree, typename Tree::Node key, int kind, unsigned int& count) {
    count = tree.ChildCount(key);
    CVecBstr slots;
    slots.assign(count, nullptr);
    if (kind == 0)
        ListKeys(tree, key, slots);
    else
        ListValues(tree, key, slots);
    wchar_t** items = new wchar_t*[count];
    std::copy(slots.begin(), slots.end(), items);
    slots.clear();
    return items;
}

}  // namespace RegistryRules

#endif
