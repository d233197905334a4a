// The C++ header of a definition: declarations in the order written, so that
// each interface's methods are its slots in order, then the tables of type
// information, class registration and status texts.
#include <cctype>
#include <cstdio>
#include <sstream>

#include "idl.h"

namespace idl {
namespace {

bool IsStruct(const Definitions& defs, const std::string& name) {
    for (const Struct& s : defs.structs)
        if (s.name == name) return true;
    for (const auto& imported : defs.imported)
        for (const Struct& s : imported->structs)
            if (s.name == name) return true;
    return false;
}

// The C++ type of a value of IDL type `name`, as a struct member or the
// target of an out-pointer.
std::string ValueType(const Definitions& defs, const std::string& name) {
    if (name == "boolean") return "bool";
    if (name == "float" || name == "double" || name == "HRESULT") return name;
    if (name == "BSTR") return "wchar_t*";
    if (name == "GUID") return "COM_GUID";
    if (IsIntegerType(name)) return name + "_t";
    if (FindInterface(defs, name)) return name + "*";
    return name;  // an enum or a struct
}

std::string ParamType(const Definitions& defs, const Param& p) {
    const std::string& t = p.type.name;
    if (t == "void") return "void**";
    if (p.out) return ValueType(defs, t) + "*";
    if (t == "wstring") return "const wchar_t*";
    if (t == "GUID") return "const COM_GUID&";
    if (IsStruct(defs, t)) return "const " + t + "&";
    return ValueType(defs, t);
}

// {0x6B0C3F52, 0x1D7E, 0x4F3A, {0x9C, 0x2B, ...}}
std::string GuidInitializer(const std::string& uuid) {
    std::string hex;
    for (char c : uuid)
        if (c != '-') hex += c;
    std::string out =
        "{0x" + hex.substr(0, 8) + ", 0x" + hex.substr(8, 4) + ", 0x" + hex.substr(12, 4) + ", {";
    for (int i = 0; i < 8; ++i) out += (i ? ", 0x" : "0x") + hex.substr(16 + 2 * i, 2);
    return out + "}}";
}

std::string Wide(const std::string& text) {
    std::string out = "L\"";
    for (char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

std::string Narrow(const std::string& text) { return Wide(text).substr(1); }

std::string WideOrNull(const std::string& text) { return text.empty() ? "nullptr" : Wide(text); }

std::string Hex(uint32_t value) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "0x%08Xu", value);
    return buffer;
}

std::string Guard(const std::string& stem) {
    std::string guard = "VELTCOM_IDL_";
    for (char c : stem)
        guard += std::isalnum(static_cast<unsigned char>(c)) ? std::toupper(c) : '_';
    return guard + "_H";
}

// An import's header: "veltcom.idl" is the runtime's own.
std::string IncludeOf(const std::string& import) {
    std::string stem = import.substr(import.rfind('/') + 1);
    if (stem.size() > 4 && stem.compare(stem.size() - 4, 4, ".idl") == 0)
        stem.resize(stem.size() - 4);
    if (stem == "veltcom") return "<veltcom.h>";
    return "\"" + stem + ".h\"";
}

void WriteInterface(std::ostream& out, const Definitions& defs, const Interface& x) {
    out << "// {" << x.uuid << "}\n"
        << "inline constexpr COM_GUID IID_" << x.name << " = " << GuidInitializer(x.uuid) << ";\n"
        << "class " << x.name << " : public " << x.base << " {\npublic:\n";
    for (const Method& m : x.methods) {
        out << "    virtual HRESULT " << m.name << "(";
        for (size_t i = 0; i < m.params.size(); ++i)
            out << (i ? ", " : "") << ParamType(defs, m.params[i]) << " " << m.params[i].name;
        out << ") = 0;\n";
    }
    out << "};\n"
        << "template <>\nstruct COM_InterfaceTraits<" << x.name << "> {\n"
        << "    using Base = " << x.base << ";\n"
        << "    static const COM_GUID& iid() { return IID_" << x.name << "; }\n};\n\n";
}

unsigned Flags(const Param& p) {
    return (p.in ? 1u : 0u) | (p.out ? 2u : 0u) | (p.retval ? 4u : 0u);
}

void WriteTypeLibrary(std::ostream& out, const Definitions& defs, const std::string& stem) {
    std::vector<const Interface*> described;
    for (const Interface& x : defs.interfaces)
        if (!x.declaredOnly) described.push_back(&x);
    if (described.empty() && defs.categories.empty()) return;
    out << "// Type information: COM_DEFINE_TYPELIBRARY(TYPELIB_" << stem
        << ") in one source of the component exports it.\n";
    for (const Interface* x : described) {
        for (const Method& m : x->methods) {
            if (m.params.empty()) continue;
            out << "inline constexpr COM_TYPEPARAM TYPEPARAMS_" << x->name << "_" << m.name
                << "[] = {\n";
            for (const Param& p : m.params)
                out << "    {" << Narrow(p.name) << ", " << Narrow(p.type.Text()) << ", "
                    << Flags(p) << "},\n";
            out << "};\n";
        }
        if (!x->methods.empty()) {
            out << "inline constexpr COM_TYPEMETHOD TYPEMETHODS_" << x->name << "[] = {\n";
            for (const Method& m : x->methods) {
                out << "    {" << Narrow(m.name) << ", ";
                if (m.params.empty())
                    out << "nullptr, 0},\n";
                else
                    out << "TYPEPARAMS_" << x->name << "_" << m.name << ", " << m.params.size()
                        << "},\n";
            }
            out << "};\n";
        }
    }
    std::string interfaces = "nullptr", categories = "nullptr";
    if (!described.empty()) {
        interfaces = "TYPEINTERFACES_" + stem;
        out << "inline constexpr COM_TYPEINTERFACE " << interfaces << "[] = {\n";
    }
    for (const Interface* x : described) {
        // The runtime's own identifiers are named COM_IID_I...
        const std::string baseIid =
            x->base.compare(0, 4, "COM_") == 0 ? "COM_IID_" + x->base.substr(4) : "IID_" + x->base;
        out << "    {&IID_" << x->name << ", " << Narrow(x->name) << ", &" << baseIid << ", "
            << Narrow(x->base) << ", ";
        if (x->methods.empty())
            out << "nullptr, 0},\n";
        else
            out << "TYPEMETHODS_" << x->name << ", " << x->methods.size() << "},\n";
    }
    if (!described.empty()) out << "};\n";
    if (!defs.categories.empty()) {
        categories = "TYPECATEGORIES_" + stem;
        out << "inline constexpr COM_TYPECATEGORY " << categories << "[] = {\n";
        for (const Category& c : defs.categories)
            out << "    {&CATID_" << c.name << ", CATDESC_" << c.name << "},\n";
        out << "};\n";
    }
    out << "inline constexpr COM_TYPELIBRARY TYPELIB_" << stem << " = {COM_TYPELIBRARY_VERSION, "
        << interfaces << ", " << described.size() << ", " << categories << ", "
        << defs.categories.size() << "};\n\n";
}

std::string Identifier(const std::string& stem) {
    std::string out;
    for (char c : stem) out += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return out;
}

}  // namespace

std::string GenerateHeader(const Definitions& defs, const std::string& fileStem) {
    const std::string stem = Identifier(fileStem);
    std::ostringstream out;
    out << "// Generated by veltcom-idl from " << defs.file.substr(defs.file.rfind('/') + 1)
        << ": edit the definition, not this file.\n"
        << "#ifndef " << Guard(stem) << "\n#define " << Guard(stem) << "\n\n"
        << "#include <cstdint>\n\n";
    for (const std::string& import : defs.imports) out << "#include " << IncludeOf(import) << "\n";
    out << "#include <comImplements.h>\n#include <comTypeInfo.h>\n\n";

    for (const Interface& x : defs.interfaces)
        if (!x.declaredOnly) out << "class " << x.name << ";\n";
    out << "\n";
    for (const Const& c : defs.consts) {
        if (c.isString)
            out << "inline constexpr wchar_t " << c.name << "[] = " << Wide(c.value) << ";\n";
        else
            out << "inline constexpr " << ValueType(defs, c.type.name) << " " << c.name << " = "
                << c.value << (c.type.name == "uint64" ? "u" : "") << ";\n";
    }
    for (const Enum& e : defs.enums) {
        out << "enum " << e.name << " : int32_t {\n";
        for (const auto& [name, value] : e.values) out << "    " << name << " = " << value << ",\n";
        out << "};\n";
    }
    for (const Struct& s : defs.structs) {
        out << "struct " << s.name << " {\n";
        for (const Member& m : s.members)
            out << "    " << ValueType(defs, m.type.name) << " " << m.name << ";\n";
        out << "};\n";
    }
    out << "\n";
    for (const Interface& x : defs.interfaces)
        if (!x.declaredOnly) WriteInterface(out, defs, x);

    for (const Category& c : defs.categories)
        out << "// {" << c.uuid << "}\ninline constexpr COM_GUID CATID_" << c.name << " = "
            << GuidInitializer(c.uuid) << ";\ninline constexpr const wchar_t* CATDESC_" << c.name
            << " = " << WideOrNull(c.description) << ";\n";

    for (const Facility& f : defs.facilities) {
        char number[16];
        std::snprintf(number, sizeof number, "0x%X", f.number);
        out << "\ninline constexpr unsigned int " << f.name << "_FACILITY = " << number << ";\n";
        for (const StatusCode& s : f.codes)
            out << "inline constexpr HRESULT " << f.name << (s.success ? "_S_" : "_E_") << s.name
                << " = static_cast<HRESULT>("
                << Hex((s.success ? 0u : 0x80000000u) | (f.number << 16) | s.code) << ");\n";
        out << "inline constexpr COM_STATUSTEXT STATUSTEXTS_" << f.name << "[] = {\n";
        for (const StatusCode& s : f.codes)
            out << "    {" << f.name << (s.success ? "_S_" : "_E_") << s.name << ", "
                << Wide(s.text) << "},\n";
        out << "};\ninline constexpr COM_FACILITYINFO FACILITY_" << f.name << " = {" << f.name
            << "_FACILITY, STATUSTEXTS_" << f.name << ", " << f.codes.size() << ", "
            << Wide("Unknown status of facility " + std::string(number)) << "};\n";
    }

    for (const Coclass& c : defs.coclasses) {
        out << "\n// {" << c.uuid << "}, ProgID \"" << c.progId << "\"\n"
            << "inline constexpr COM_GUID CLSID_" << c.name << " = " << GuidInitializer(c.uuid)
            << ";\n";
        std::string categories = "nullptr";
        if (!c.categories.empty()) {
            categories = "CATEGORIES_" + c.name;
            out << "inline constexpr const COM_GUID* CATEGORIES_" << c.name << "[] = {";
            for (const std::string& category : c.categories) out << "&CATID_" << category << ", ";
            out << "nullptr};\n";
        }
        std::string moniker = "nullptr, nullptr";
        for (const Facility& f : defs.facilities) {
            if (f.name != c.decodes) continue;
            char value[16];
            std::snprintf(value, sizeof value, "%X", f.number);
            moniker = "L\"hresult\", " + Wide(value);
        }
        out << "inline constexpr COM_CLASSINFO CLASS_" << c.name << " = {&CLSID_" << c.name << ", "
            << Wide(c.progId) << ", " << WideOrNull(c.displayName) << ", "
            << WideOrNull(c.description) << ", " << categories << ", " << moniker << "};\n";
    }
    out << "\n";
    WriteTypeLibrary(out, defs, stem);
    out << "#endif\n";
    return out.str();
}

}  // namespace idl
