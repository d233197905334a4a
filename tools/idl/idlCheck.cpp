// Whether a new version of a definition keeps the binary contract of the
// old: interfaces are matched by identifier, their methods slot by slot;
// classes by name, status codes by name.
#include "idl.h"

namespace idl {
namespace {

// The part of a method that the binary contract sees: types and directions.
std::string Signature(const Method& m) {
    std::string text = "(";
    for (size_t i = 0; i < m.params.size(); ++i) {
        const Param& p = m.params[i];
        text += i ? ", " : "";
        text += p.in && p.out ? "[in, out] " : p.out ? "[out] " : "[in] ";
        text += p.type.Text();
    }
    return text + ")";
}

void CompareInterface(const Interface& a, const Interface& b, std::vector<std::string>& breaking) {
    const std::string name = b.name;
    if (a.name != b.name)
        breaking.push_back("interface " + a.name + " {" + a.uuid + "}: the uuid now names " +
                           b.name);
    if (a.base != b.base)
        breaking.push_back("interface " + name + ": base " + a.base + " became " + b.base);
    for (size_t i = 0; i < a.methods.size(); ++i) {
        const Method& old = a.methods[i];
        const std::string slot = "interface " + name + ", slot " + std::to_string(i + 1) + ": ";
        if (i >= b.methods.size()) {
            breaking.push_back(slot + "method " + old.name + " removed");
        } else if (old.name != b.methods[i].name) {
            breaking.push_back(slot + "method " + old.name + " replaced by " + b.methods[i].name);
        } else if (Signature(old) != Signature(b.methods[i])) {
            breaking.push_back(slot + "method " + old.name + " changed from " + Signature(old) +
                               " to " + Signature(b.methods[i]));
        }
    }
    for (size_t i = a.methods.size(); i < b.methods.size(); ++i)
        breaking.push_back("interface " + name + ", slot " + std::to_string(i + 1) + ": method " +
                           b.methods[i].name + " added to a published interface");
}

template <class T, class Key>
const T* Find(const std::vector<T>& list, Key key) {
    for (const T& item : list)
        if (key(item)) return &item;
    return nullptr;
}

}  // namespace

void Compare(const Definitions& before, const Definitions& after,
             std::vector<std::string>& breaking, std::vector<std::string>& compatible) {
    for (const Interface& a : before.interfaces) {
        if (a.declaredOnly) continue;
        const Interface* b =
            Find(after.interfaces, [&](const Interface& x) { return x.uuid == a.uuid; });
        if (b) {
            CompareInterface(a, *b, breaking);
            continue;
        }
        const Interface* renamed =
            Find(after.interfaces, [&](const Interface& x) { return x.name == a.name; });
        breaking.push_back(
            "interface " + a.name + ": " +
            (renamed ? "uuid " + a.uuid + " became " + renamed->uuid : std::string("removed")));
    }
    for (const Interface& b : after.interfaces) {
        if (b.declaredOnly) continue;
        if (!Find(before.interfaces,
                  [&](const Interface& x) { return x.uuid == b.uuid || x.name == b.name; }))
            compatible.push_back("interface " + b.name + ": added");
    }
    for (const Coclass& a : before.coclasses) {
        const Coclass* b =
            Find(after.coclasses, [&](const Coclass& x) { return x.name == a.name; });
        if (!b)
            breaking.push_back("coclass " + a.name + ": removed");
        else if (a.uuid != b->uuid)
            breaking.push_back("coclass " + a.name + ": uuid " + a.uuid + " became " + b->uuid);
        else if (a.progId != b->progId)
            breaking.push_back("coclass " + a.name + ": ProgID " + a.progId + " became " +
                               b->progId);
    }
    for (const Coclass& b : after.coclasses)
        if (!Find(before.coclasses, [&](const Coclass& x) { return x.name == b.name; }))
            compatible.push_back("coclass " + b.name + ": added");
    for (const Facility& a : before.facilities) {
        const Facility* b =
            Find(after.facilities, [&](const Facility& x) { return x.name == a.name; });
        if (!b) {
            breaking.push_back("facility " + a.name + ": removed");
            continue;
        }
        if (a.number != b->number) breaking.push_back("facility " + a.name + ": number changed");
        for (const StatusCode& s : a.codes) {
            const StatusCode* t =
                Find(b->codes, [&](const StatusCode& x) { return x.name == s.name; });
            if (!t)
                breaking.push_back("facility " + a.name + ": status " + s.name + " removed");
            else if (t->code != s.code || t->success != s.success)
                breaking.push_back("facility " + a.name + ": status " + s.name +
                                   " changed its code");
        }
    }
}

}  // namespace idl
