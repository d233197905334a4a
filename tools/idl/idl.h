// The interface definition language: what a parsed definition holds, and the
// passes over it. The parser stops at the first error; an error carries its
// place so the compiler can show the line with a caret under it.
#ifndef VELTCOM_IDL_H
#define VELTCOM_IDL_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace idl {

struct Place {
    int line = 1;
    int column = 1;
};

struct Error {
    std::string file;
    Place place;
    std::string message;
};

struct Type {
    std::string name;  // a built-in name or a declared interface, enum or struct
    int pointers = 0;
    Place place;
    std::string Text() const { return name + std::string(pointers, '*'); }
};

struct Param {
    std::string name;
    Type type;
    bool in = false, out = false, retval = false;
    std::string iidIs;
    Place place;
};

struct Method {
    std::string name;
    std::vector<Param> params;
    Place place;
};

struct Interface {
    std::string name, base, uuid;
    bool declaredOnly = false;  // `interface X;`: a class the C++ headers define
    std::vector<Method> methods;
    Place place;
};

struct Member {
    Type type;
    std::string name;
};

struct Struct {
    std::string name;
    std::vector<Member> members;
    Place place;
};

struct Enum {
    std::string name;
    std::vector<std::pair<std::string, int64_t>> values;
    Place place;
};

struct Const {
    Type type;
    std::string name;
    std::string value;  // a number as written, or the text of a string
    bool isString = false;
    Place place;
};

struct Category {
    std::string name, uuid, description;
    Place place;
};

struct StatusCode {
    bool success = false;
    std::string name, text;
    uint32_t code = 0;
};

struct Facility {
    std::string name;
    uint32_t number = 0;
    std::vector<StatusCode> codes;
    Place place;
};

struct Coclass {
    std::string name, uuid, progId, displayName, description, decodes;
    std::vector<std::string> interfaces, categories;
    Place place;
};

// One file's definitions in the order written. Names declared by the files it
// imports are known to the checks but generate nothing.
struct Definitions {
    std::string file;
    std::vector<std::string> imports;  // as written in the import lines
    std::vector<Interface> interfaces;
    std::vector<Struct> structs;
    std::vector<Enum> enums;
    std::vector<Const> consts;
    std::vector<Category> categories;
    std::vector<Facility> facilities;
    std::vector<Coclass> coclasses;
    std::vector<std::shared_ptr<Definitions>> imported;
};

// Finds an imported file: its path, or empty when none is found.
using Resolver = std::function<std::string(const std::string& name, const std::string& fromFile)>;
// Reads a file; false when it cannot.
using Reader = std::function<bool(const std::string& path, std::string& text)>;

// Parses and checks `text`, the contents of `file`, with its imports.
// Returns null and fills `error` on the first fault.
std::shared_ptr<Definitions> Parse(const std::string& file, const std::string& text,
                                   const Resolver& resolve, const Reader& read, Error& error);

// The C++ header for `defs`; `stem` names the type library and guard.
std::string GenerateHeader(const Definitions& defs, const std::string& stem);

// Differences between two versions that break callers or implementers
// (`breaking`) and those that do not (`compatible`), one line each.
void Compare(const Definitions& before, const Definitions& after,
             std::vector<std::string>& breaking, std::vector<std::string>& compatible);

// int8 ... uint64.
bool IsIntegerType(const std::string& name);

// A declared interface by name, in `defs` or what it imports; null if none.
const Interface* FindInterface(const Definitions& defs, const std::string& name);

}  // namespace idl

#endif
