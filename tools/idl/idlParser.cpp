// A recursive-descent parser over a scanner that reads on demand, so that a
// uuid, which is no ordinary token, is read as raw text where it is expected.
// Every check that needs a place is made while parsing, where the place is
// known; the first fault ends the parse.
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <set>

#include "idl.h"

namespace idl {
namespace {

struct Fault {
    Place place;
    std::string message;
};

enum class Kind { End, Identifier, Number, String, Punct };

struct Token {
    Kind kind = Kind::End;
    std::string text;
    Place place;
};

// Names the generated header would not compile with.
const std::set<std::string> kCppKeywords = {
    "alignas", "alignof",  "and",       "asm",      "auto",      "bool",     "break",    "case",
    "catch",   "char",     "class",     "const",    "constexpr", "continue", "decltype", "default",
    "delete",  "do",       "double",    "else",     "enum",      "explicit", "export",   "extern",
    "false",   "float",    "for",       "friend",   "goto",      "if",       "inline",   "int",
    "long",    "mutable",  "namespace", "new",      "noexcept",  "not",      "nullptr",  "operator",
    "or",      "private",  "protected", "public",   "register",  "return",   "short",    "signed",
    "sizeof",  "static",   "struct",    "switch",   "template",  "this",     "throw",    "true",
    "try",     "typedef",  "typeid",    "typename", "union",     "unsigned", "using",    "virtual",
    "void",    "volatile", "while",     "xor"};

const std::set<std::string> kBuiltins = {
    "boolean", "int8",  "uint8",  "int16",   "uint16", "int32", "uint32",  "int64",
    "uint64",  "float", "double", "wstring", "BSTR",   "GUID",  "HRESULT", "void"};

class Parser {
public:
    Parser(const std::string& text, Definitions& defs, const Resolver& resolve, const Reader& read,
           std::set<std::string>& active)
        : m_text(text), m_defs(defs), m_resolve(resolve), m_read(read), m_active(active) {}

    void ParseFile() {
        Next();
        while (m_token.kind != Kind::End) {
            if (IsWord("import"))
                ParseImport();
            else
                ParseDefinition();
        }
    }

    // Parses another file with this parser's resolver and reader.
    std::shared_ptr<Definitions> ParseInto(const std::string& path, const std::string& text,
                                           Error& error);

    // The imports' definitions, for lookups.
    std::vector<const Definitions*> Scopes() const {
        std::vector<const Definitions*> scopes{&m_defs};
        for (const auto& imported : m_defs.imported) scopes.push_back(imported.get());
        return scopes;
    }

private:
    // --- scanning ---
    char Peek(size_t ahead = 0) const {
        return m_pos + ahead < m_text.size() ? m_text[m_pos + ahead] : '\0';
    }
    void Advance() {
        if (m_text[m_pos] == '\n') {
            ++m_place.line;
            m_place.column = 1;
        } else {
            ++m_place.column;
        }
        ++m_pos;
    }
    void SkipSpace() {
        for (;;) {
            if (m_pos >= m_text.size()) return;
            const char c = Peek();
            if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
                Advance();
            } else if (c == '/' && Peek(1) == '/') {
                while (m_pos < m_text.size() && Peek() != '\n') Advance();
            } else if (c == '/' && Peek(1) == '*') {
                const Place start = m_place;
                Advance();
                Advance();
                while (!(Peek() == '*' && Peek(1) == '/')) {
                    if (m_pos >= m_text.size()) throw Fault{start, "unterminated comment"};
                    Advance();
                }
                Advance();
                Advance();
            } else {
                return;
            }
        }
    }
    void Next() {
        SkipSpace();
        m_token = Token{};
        m_token.place = m_place;
        m_tokenStart = m_pos;
        if (m_pos >= m_text.size()) return;
        const char c = Peek();
        const size_t start = m_pos;
        if (std::isalpha(static_cast<unsigned char>(c)) || c == '_') {
            while (std::isalnum(static_cast<unsigned char>(Peek())) || Peek() == '_') Advance();
            m_token.kind = Kind::Identifier;
        } else if (std::isdigit(static_cast<unsigned char>(c)) ||
                   (c == '-' && std::isdigit(static_cast<unsigned char>(Peek(1))))) {
            Advance();
            while (std::isalnum(static_cast<unsigned char>(Peek())) || Peek() == '.') Advance();
            m_token.kind = Kind::Number;
        } else if (c == '"') {
            ScanString();
            return;
        } else if (std::string("[](){}<>,;:=*").find(c) != std::string::npos) {
            Advance();
            m_token.kind = Kind::Punct;
        } else {
            throw Fault{m_place, std::string("unexpected character '") +
                                     (std::isprint(static_cast<unsigned char>(c))
                                          ? std::string(1, c)
                                          : "\\x" + Hex2(static_cast<unsigned char>(c))) +
                                     "'"};
        }
        m_token.text = m_text.substr(start, m_pos - start);
    }
    static std::string Hex2(unsigned value) {
        const char* digits = "0123456789ABCDEF";
        return {digits[value >> 4], digits[value & 15]};
    }
    // Strings hold printable ASCII; \" and \\ are the only escapes.
    void ScanString() {
        m_token.kind = Kind::String;
        Advance();
        for (;;) {
            const char c = Peek();
            if (m_pos >= m_text.size() || c == '\n')
                throw Fault{m_token.place, "unterminated string"};
            if (c == '"') break;
            if (c == '\\') {
                Advance();
                if (Peek() != '"' && Peek() != '\\')
                    throw Fault{m_place, "unknown escape in string"};
            } else if (static_cast<unsigned char>(c) < 0x20 ||
                       static_cast<unsigned char>(c) > 0x7E) {
                throw Fault{m_place, "strings hold printable ASCII characters only"};
            }
            m_token.text += Peek();
            Advance();
        }
        Advance();
    }

    // --- token helpers ---
    bool IsWord(const char* word) const {
        return m_token.kind == Kind::Identifier && m_token.text == word;
    }
    bool IsPunct(char c) const { return m_token.kind == Kind::Punct && m_token.text[0] == c; }
    std::string Describe() const {
        switch (m_token.kind) {
            case Kind::End:
                return "end of file";
            case Kind::String:
                return "a string";
            default:
                return "'" + m_token.text + "'";
        }
    }
    [[noreturn]] void Expected(const std::string& what) const {
        throw Fault{m_token.place, "expected " + what + ", found " + Describe()};
    }
    void Expect(char c) {
        if (!IsPunct(c)) Expected(std::string("'") + c + "'");
        Next();
    }
    std::string Identifier(const char* what) {
        if (m_token.kind != Kind::Identifier) Expected(what);
        std::string name = m_token.text;
        Next();
        return name;
    }
    std::string String(const char* what) {
        if (m_token.kind != Kind::String) Expected(what);
        std::string text = m_token.text;
        Next();
        return text;
    }
    int64_t Integer(int64_t low, int64_t high, const char* what) {
        if (m_token.kind != Kind::Number) Expected(what);
        const Token number = m_token;
        errno = 0;
        char* end = nullptr;
        const long long value = std::strtoll(number.text.c_str(), &end, 0);
        if (*end != '\0' || errno == ERANGE)
            throw Fault{number.place, "'" + number.text + "' is not an integer"};
        if (value < low || value > high)
            throw Fault{number.place, std::string(what) + " " + number.text + " is out of range"};
        Next();
        return value;
    }

    // --- names ---
    // What `name` is declared as in this file or an import; empty if nothing.
    std::string KindOf(const std::string& name) const {
        for (const Definitions* d : Scopes()) {
            for (const auto& x : d->interfaces)
                if (x.name == name) return "interface";
            for (const auto& x : d->structs)
                if (x.name == name) return "struct";
            for (const auto& x : d->enums)
                if (x.name == name) return "enum";
            for (const auto& x : d->consts)
                if (x.name == name) return "constant";
            for (const auto& x : d->categories)
                if (x.name == name) return "category";
            for (const auto& x : d->facilities)
                if (x.name == name) return "facility";
            for (const auto& x : d->coclasses)
                if (x.name == name) return "coclass";
        }
        return "";
    }
    static void CheckName(const std::string& name, const Place& place) {
        if (kCppKeywords.count(name)) throw Fault{place, "'" + name + "' is a C++ keyword"};
    }
    void Declare(const std::string& name, const Place& place) {
        CheckName(name, place);
        if (kBuiltins.count(name)) throw Fault{place, "'" + name + "' is a built-in type"};
        const std::string kind = KindOf(name);
        if (kind.empty()) return;
        const char* article = std::string("aeiou").find(kind[0]) != std::string::npos ? "an " : "a ";
        throw Fault{place, "'" + name + "' is already declared as " + article + kind};
    }
    void ClaimUuid(const std::string& uuid, const Place& place) {
        for (const Definitions* d : Scopes()) {
            for (const auto& x : d->interfaces)
                if (x.uuid == uuid) Reused(uuid, x.name, place);
            for (const auto& x : d->categories)
                if (x.uuid == uuid) Reused(uuid, x.name, place);
            for (const auto& x : d->coclasses)
                if (x.uuid == uuid) Reused(uuid, x.name, place);
        }
    }
    [[noreturn]] static void Reused(const std::string& uuid, const std::string& by,
                                    const Place& p) {
        throw Fault{p, "uuid " + uuid + " already identifies '" + by + "'"};
    }

    // --- imports ---
    void ParseImport() {
        Next();
        const Place place = m_token.place;
        const std::string name = String("a file name in quotes");
        Expect(';');
        const std::string path = m_resolve(name, m_defs.file);
        std::string text;
        if (path.empty() || !m_read(path, text)) throw Fault{place, "cannot find '" + name + "'"};
        if (m_active.count(path)) throw Fault{place, "'" + name + "' imports itself"};
        m_defs.imports.push_back(name);
        Error inner;
        m_active.insert(path);
        auto imported = ParseInto(path, text, inner);
        m_active.erase(path);
        if (!imported) throw inner;
        // What the import itself imports is known here as well.
        for (const auto& deeper : imported->imported) m_defs.imported.push_back(deeper);
        m_defs.imported.push_back(imported);
    }

    // --- definitions ---
    struct Attributes {
        std::map<std::string, std::string> values;
        std::map<std::string, Place> places;
    };
    Attributes ParseAttributes() {
        Attributes attributes;
        if (!IsPunct('[')) return attributes;
        do {
            Next();
            const Place place = m_token.place;
            const std::string name = Identifier("an attribute");
            if (attributes.values.count(name)) throw Fault{place, "'" + name + "' given twice"};
            Expect('(');
            std::string value;
            if (name == "uuid") {
                value = RawUuid();
            } else if (name == "progid" || name == "name" || name == "description") {
                value = String("a string");
            } else if (name == "decodes") {
                value = Identifier("a facility name");
            } else {
                throw Fault{place, "unknown attribute '" + name + "'"};
            }
            Expect(')');
            attributes.values[name] = value;
            attributes.places[name] = place;
        } while (IsPunct(','));
        Expect(']');
        return attributes;
    }
    // The uuid's 36 characters after the opening parenthesis, in upper case.
    std::string RawUuid() {
        // The scanner has read one token past '(': scan again from its start.
        m_pos = m_tokenStart;
        m_place = m_token.place;
        const Place start = m_place;
        std::string uuid;
        static const char kPattern[] = "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX";
        for (size_t i = 0; i + 1 < sizeof kPattern; ++i) {
            const char c = Peek();
            const bool ok =
                kPattern[i] == '-' ? c == '-' : std::isxdigit(static_cast<unsigned char>(c)) != 0;
            if (!ok || m_pos >= m_text.size())
                throw Fault{start, "a uuid is written as 8-4-4-4-12 hexadecimal digits"};
            uuid += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            Advance();
        }
        Next();
        return uuid;
    }
    void Refuse(const Attributes& attributes, std::initializer_list<const char*> allowed,
                const char* what) {
        for (const auto& [name, value] : attributes.values) {
            bool ok = false;
            for (const char* a : allowed) ok = ok || name == a;
            if (!ok)
                throw Fault{attributes.places.at(name), "'" + name + "' does not apply to " + what};
        }
    }
    std::string Need(const Attributes& attributes, const char* name, const std::string& what,
                     const Place& place) {
        auto found = attributes.values.find(name);
        if (found == attributes.values.end())
            throw Fault{place, what + " needs a " + name + " attribute"};
        return found->second;
    }
    std::string Optional(const Attributes& attributes, const char* name) {
        auto found = attributes.values.find(name);
        return found == attributes.values.end() ? "" : found->second;
    }

    void ParseDefinition() {
        const Attributes attributes = ParseAttributes();
        const Place place = m_token.place;
        if (IsWord("interface")) {
            Refuse(attributes, {"uuid"}, "an interface");
            ParseInterface(attributes, place);
        } else if (IsWord("coclass")) {
            Refuse(attributes, {"uuid", "progid", "name", "description", "decodes"}, "a coclass");
            ParseCoclass(attributes, place);
        } else if (IsWord("category")) {
            Refuse(attributes, {"uuid", "description"}, "a category");
            Next();
            Category category;
            category.place = m_token.place;
            category.name = Identifier("a category name");
            Declare(category.name, category.place);
            category.uuid = Need(attributes, "uuid", "category '" + category.name + "'", place);
            ClaimUuid(category.uuid, attributes.places.at("uuid"));
            category.description = Optional(attributes, "description");
            Expect(';');
            m_defs.categories.push_back(category);
        } else {
            Refuse(attributes, {}, "this definition");
            if (IsWord("facility"))
                ParseFacility();
            else if (IsWord("enum"))
                ParseEnum();
            else if (IsWord("struct"))
                ParseStruct();
            else if (IsWord("const"))
                ParseConst();
            else
                Expected("a definition");
        }
    }

    void ParseInterface(const Attributes& attributes, const Place& place) {
        Next();
        Interface x;
        x.place = m_token.place;
        x.name = Identifier("an interface name");
        Declare(x.name, x.place);
        x.uuid = Need(attributes, "uuid", "interface '" + x.name + "'", place);
        ClaimUuid(x.uuid, attributes.places.at("uuid"));
        if (IsPunct(';')) {
            Next();
            x.declaredOnly = true;
            m_defs.interfaces.push_back(x);
            return;
        }
        if (!IsPunct(':'))
            throw Fault{m_token.place, "interface '" + x.name + "' must name its base"};
        Next();
        const Place basePlace = m_token.place;
        x.base = Identifier("a base interface");
        if (KindOf(x.base) != "interface")
            throw Fault{basePlace, "unknown base interface '" + x.base + "'"};
        Expect('{');
        // Declared now, so that its methods may take pointers to it.
        m_defs.interfaces.push_back(x);
        std::vector<Method> methods;
        while (!IsPunct('}')) methods.push_back(ParseMethod(methods));
        Next();
        Expect(';');
        m_defs.interfaces.back().methods = methods;
    }

    Method ParseMethod(const std::vector<Method>& earlier) {
        if (!IsWord("HRESULT")) {
            if (m_token.kind == Kind::Identifier && m_token.text != "HRESULT")
                throw Fault{m_token.place, "methods return HRESULT"};
            Expected("a method or '}'");
        }
        Next();
        Method method;
        method.place = m_token.place;
        method.name = Identifier("a method name");
        CheckName(method.name, method.place);
        for (const Method& m : earlier)
            if (m.name == method.name)
                throw Fault{method.place, "method '" + method.name + "' is declared twice"};
        Expect('(');
        if (!IsPunct(')')) {
            do {
                if (!method.params.empty()) Next();
                method.params.push_back(ParseParam(method));
            } while (IsPunct(','));
        }
        Expect(')');
        Expect(';');
        CheckParams(method);
        return method;
    }

    Param ParseParam(const Method& method) {
        Param param;
        param.place = m_token.place;
        if (IsPunct('[')) {
            do {
                Next();
                const Place place = m_token.place;
                const std::string attribute = Identifier("a parameter attribute");
                if (attribute == "in")
                    param.in = true;
                else if (attribute == "out")
                    param.out = true;
                else if (attribute == "retval")
                    param.retval = true;
                else if (attribute == "iid_is") {
                    Expect('(');
                    param.iidIs = Identifier("a parameter name");
                    Expect(')');
                } else {
                    throw Fault{place, "unknown parameter attribute '" + attribute + "'"};
                }
            } while (IsPunct(','));
            Expect(']');
        }
        if (!param.in && !param.out) param.in = true;
        param.type = ParseType();
        const Place namePlace = m_token.place;
        param.name = Identifier("a parameter name");
        CheckName(param.name, namePlace);
        for (const Param& p : method.params)
            if (p.name == param.name)
                throw Fault{namePlace, "parameter '" + param.name + "' is declared twice"};
        return param;
    }

    Type ParseType() {
        Type type;
        type.place = m_token.place;
        type.name = Identifier("a type");
        if (!kBuiltins.count(type.name)) {
            const std::string kind = KindOf(type.name);
            if (kind != "interface" && kind != "struct" && kind != "enum")
                throw Fault{type.place, "unknown type '" + type.name + "'"};
        }
        while (IsPunct('*')) {
            ++type.pointers;
            Next();
        }
        return type;
    }

    // The shapes the C++ mapping allows; see docs/idl.md.
    void CheckParams(const Method& method) {
        for (size_t i = 0; i < method.params.size(); ++i) {
            const Param& p = method.params[i];
            const std::string& t = p.type.name;
            const bool isInterface = KindOf(t) == "interface";
            const std::string what = "parameter '" + p.name + "'";
            if (p.retval && (!p.out || p.in || i + 1 != method.params.size()))
                throw Fault{p.place, "retval is for the last parameter, [out] only"};
            if (t == "void") {
                if (p.type.pointers != 2 || !p.out || p.in || p.iidIs.empty())
                    throw Fault{p.type.place,
                                "void is only written void** with [out, iid_is(...)]"};
                const Param* iid = nullptr;
                for (const Param& q : method.params)
                    if (q.name == p.iidIs) iid = &q;
                if (!iid || iid->type.name != "GUID" || iid->type.pointers != 0)
                    throw Fault{p.place, "iid_is names a GUID parameter of the same method"};
                continue;
            }
            if (!p.iidIs.empty()) throw Fault{p.place, "iid_is is for a void** parameter"};
            if (t == "HRESULT" && p.in && !p.out && p.type.pointers == 0) continue;
            if (t == "wstring" && (p.out || p.type.pointers != 0))
                throw Fault{p.type.place, "wstring is for [in] parameters only"};
            const int base = isInterface ? 1 : 0;
            const int wanted = base + (p.out ? 1 : 0);
            if (p.type.pointers != wanted) {
                if (p.out)
                    throw Fault{p.type.place, what + " is [out]: write its type as " + t +
                                                  std::string(wanted, '*')};
                throw Fault{p.type.place,
                            what + " is [in]: write its type as " + t + std::string(wanted, '*')};
            }
        }
    }

    void ParseCoclass(const Attributes& attributes, const Place& place) {
        Next();
        Coclass c;
        c.place = m_token.place;
        c.name = Identifier("a class name");
        Declare(c.name, c.place);
        const std::string what = "coclass '" + c.name + "'";
        c.uuid = Need(attributes, "uuid", what, place);
        ClaimUuid(c.uuid, attributes.places.at("uuid"));
        c.progId = Need(attributes, "progid", what, place);
        c.displayName = Optional(attributes, "name");
        c.description = Optional(attributes, "description");
        c.decodes = Optional(attributes, "decodes");
        Expect('{');
        while (!IsPunct('}')) {
            const bool isInterface = IsWord("interface");
            if (!isInterface && !IsWord("category")) Expected("'interface', 'category' or '}'");
            Next();
            const Place at = m_token.place;
            const std::string name = Identifier("a name");
            const char* kind = isInterface ? "interface" : "category";
            if (KindOf(name) != kind)
                throw Fault{at, std::string("unknown ") + kind + " '" + name + "'"};
            (isInterface ? c.interfaces : c.categories).push_back(name);
            Expect(';');
        }
        Next();
        Expect(';');
        if (!c.decodes.empty() && KindOf(c.decodes) != "facility")
            throw Fault{attributes.places.at("decodes"), "unknown facility '" + c.decodes + "'"};
        m_defs.coclasses.push_back(c);
    }

    void ParseFacility() {
        Next();
        Facility f;
        f.place = m_token.place;
        f.name = Identifier("a facility name");
        Declare(f.name, f.place);
        Expect('=');
        f.number = static_cast<uint32_t>(Integer(1, 0x7FF, "facility number"));
        Expect('{');
        while (!IsPunct('}')) {
            StatusCode code;
            if (IsWord("success"))
                code.success = true;
            else if (!IsWord("error"))
                Expected("'success', 'error' or '}'");
            Next();
            const Place at = m_token.place;
            code.name = Identifier("a status name");
            Expect('=');
            const Place numberAt = m_token.place;
            code.code = static_cast<uint32_t>(Integer(0, 0xFFFF, "status code"));
            Expect(',');
            code.text = String("the status text");
            Expect(';');
            for (const StatusCode& other : f.codes) {
                if (other.name == code.name)
                    throw Fault{at, "status '" + code.name + "' is declared twice"};
                if (other.code == code.code && other.success == code.success)
                    throw Fault{numberAt, "status " + std::to_string(code.code) + " is already '" +
                                              other.name + "'"};
            }
            f.codes.push_back(code);
        }
        Next();
        Expect(';');
        m_defs.facilities.push_back(f);
    }

    void ParseEnum() {
        Next();
        Enum e;
        e.place = m_token.place;
        e.name = Identifier("an enum name");
        Declare(e.name, e.place);
        Expect('{');
        int64_t next = 0;
        while (!IsPunct('}')) {
            const Place at = m_token.place;
            const std::string name = Identifier("an enumerator");
            Declare(name, at);
            for (const auto& v : e.values)
                if (v.first == name) throw Fault{at, "'" + name + "' is declared twice"};
            if (IsPunct('=')) {
                Next();
                next = Integer(INT32_MIN, INT32_MAX, "enumerator value");
            }
            if (next > INT32_MAX) throw Fault{at, "enumerator value is out of range"};
            e.values.emplace_back(name, next++);
            if (!IsPunct(',')) break;
            Next();
        }
        Expect('}');
        Expect(';');
        m_defs.enums.push_back(e);
    }

    void ParseStruct() {
        Next();
        Struct s;
        s.place = m_token.place;
        s.name = Identifier("a struct name");
        Declare(s.name, s.place);
        Expect('{');
        while (!IsPunct('}')) {
            Member member{ParseType(), ""};
            const std::string& t = member.type.name;
            const int wanted = KindOf(t) == "interface" ? 1 : 0;
            if (t == "void" || t == "wstring" || member.type.pointers != wanted)
                throw Fault{member.type.place,
                            "a struct member is a value or an interface pointer"};
            const Place at = m_token.place;
            member.name = Identifier("a member name");
            CheckName(member.name, at);
            for (const Member& m : s.members)
                if (m.name == member.name)
                    throw Fault{at, "member '" + member.name + "' is declared twice"};
            Expect(';');
            s.members.push_back(member);
        }
        Next();
        Expect(';');
        m_defs.structs.push_back(s);
    }

    void ParseConst() {
        Next();
        Const c;
        c.type = ParseType();
        const std::string& t = c.type.name;
        if (c.type.pointers != 0 || !(IsIntegerType(t) || t == "boolean" || t == "float" ||
                                      t == "double" || t == "wstring"))
            throw Fault{c.type.place, "a constant is a number, a boolean or a wstring"};
        c.place = m_token.place;
        c.name = Identifier("a constant name");
        Declare(c.name, c.place);
        Expect('=');
        const Place at = m_token.place;
        if (t == "wstring") {
            c.isString = true;
            c.value = String("a string");
        } else if (t == "boolean") {
            if (!IsWord("true") && !IsWord("false")) Expected("true or false");
            c.value = m_token.text;
            Next();
        } else if (IsIntegerType(t)) {
            const bool isUnsigned = t[0] == 'u';
            const int bits = std::atoi(t.c_str() + (isUnsigned ? 4 : 3));
            const int64_t high =
                bits == 64 ? INT64_MAX : (int64_t{1} << (bits - (isUnsigned ? 0 : 1))) - 1;
            const int64_t low = isUnsigned   ? 0
                                : bits == 64 ? INT64_MIN
                                             : -(int64_t{1} << (bits - 1));
            c.value = std::to_string(Integer(low, high, "value"));
        } else {
            if (m_token.kind != Kind::Number) Expected("a number");
            char* end = nullptr;
            std::strtod(m_token.text.c_str(), &end);
            if (*end != '\0') throw Fault{at, "'" + m_token.text + "' is not a number"};
            c.value = m_token.text;
            Next();
        }
        Expect(';');
        m_defs.consts.push_back(c);
    }

    const std::string& m_text;
    Definitions& m_defs;
    const Resolver& m_resolve;
    const Reader& m_read;
    std::set<std::string>& m_active;
    size_t m_pos = 0;
    Place m_place;
    Token m_token;
    size_t m_tokenStart = 0;
};

std::shared_ptr<Definitions> Parser::ParseInto(const std::string& path, const std::string& text,
                                               Error& error) {
    auto defs = std::make_shared<Definitions>();
    defs->file = path;
    try {
        Parser parser(text, *defs, m_resolve, m_read, m_active);
        parser.ParseFile();
        return defs;
    } catch (const Fault& fault) {
        error = Error{path, fault.place, fault.message};
    } catch (const Error& inner) {
        error = inner;
    }
    return nullptr;
}

}  // namespace

std::shared_ptr<Definitions> Parse(const std::string& file, const std::string& text,
                                   const Resolver& resolve, const Reader& read, Error& error) {
    std::set<std::string> active{file};
    Definitions none;
    Parser outer(text, none, resolve, read, active);
    return outer.ParseInto(file, text, error);
}

bool IsIntegerType(const std::string& name) {
    static const std::set<std::string> kIntegers = {"int8",  "uint8",  "int16", "uint16",
                                                    "int32", "uint32", "int64", "uint64"};
    return kIntegers.count(name) != 0;
}

const Interface* FindInterface(const Definitions& defs, const std::string& name) {
    for (const Interface& x : defs.interfaces)
        if (x.name == name) return &x;
    for (const auto& imported : defs.imported)
        for (const Interface& x : imported->interfaces)
            if (x.name == name) return &x;
    return nullptr;
}

}  // namespace idl
