// check: what a half-finished or damaged registration leaves behind.
//
// Identifiers are compared the way the runtime finds them: a value naming a
// class is parsed and looked up in its written form, while a key named
// after a category must already be in that form, since lookups compare key
// names as given.
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <iostream>
#include <set>

#include "toolInternal.h"

namespace {

struct Problem {
    const char* kind;
    std::string what;
    std::string where;
    std::string mend;
};

// A word the shell passes on unchanged.
std::string ShellQuoted(const std::string& text) {
    std::string out = "'";
    for (char c : text)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

std::string DeleteKeyCommand(const std::string& path) {
    return "veltcom reg delete classes " + ShellQuoted(path);
}

std::string DeleteValueCommand(const std::string& path, const std::string& name) {
    return DeleteKeyCommand(path) + " " + ShellQuoted(name);
}

std::string WorkingDirectory() {
    char buffer[PATH_MAX];
    return getcwd(buffer, sizeof buffer) ? buffer : ".";
}

bool IsPositiveCount(const std::string& text) {
    if (text.empty() || text.size() > 10) return false;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
    }
    const unsigned long long count = std::stoull(text);
    return count >= 1 && count <= 0xFFFFFFFFull;
}

class CChecker {
public:
    CChecker() : m_root(HiveRoot(HiveByNumber(1))) {
        for (const COM_GUID* id : {&COM_CLSID_Registry, &COM_CLSID_CategoryManager,
                                   &COM_CLSID_Memory, &COM_CLSID_HResultDecoderBinder})
            m_builtIn.insert(TextOfGuid(*id));
        m_classes = m_root ? m_root->Find("CLSID") : nullptr;
    }

    std::vector<Problem> Run() {
        if (!m_root) return m_problems;
        CheckClasses();
        CheckProgIds();
        CheckMonikers();
        CheckCategories();
        return m_problems;
    }

private:
    void Add(const char* kind, std::string what, std::string where, std::string mend) {
        m_problems.push_back({kind, std::move(what), "classes " + where, std::move(mend)});
    }

    // Whether activation finds the class that `text` names: built in, or a
    // key under CLSID named by the identifier's written form.
    bool IsRegistered(const std::string& text) const {
        COM_GUID id;
        if (FAILED(COM_StringToCLSID(Wide(text).c_str(), &id))) return false;
        const std::string canonical = TextOfGuid(id);
        return m_builtIn.count(canonical) || (m_classes && m_classes->Find(canonical));
    }

    void CheckClasses() {
        if (!m_classes) return;
        std::set<std::string> reportedLibraries;
        for (const RegKey& key : m_classes->keys) {
            const std::string where = "CLSID\\" + key.name;
            const std::string reRegister = "register the class's library again (veltcom register "
                                           "LIB) or delete the key (" +
                                           DeleteKeyCommand(where) + ")";
            const std::string* library = key.SubkeyDefault("InprocServer32");
            if (!library)
                Add("class-without-inprocserver32", "class key has no InprocServer32 value",
                    where, reRegister);
            if (!key.SubkeyDefault("ProgID"))
                Add("class-without-progid", "class key has no ProgID value", where, reRegister);
            const std::string* count = key.SubkeyDefault("InstallCount");
            if (!count)
                Add("class-without-installcount", "class key has no InstallCount value", where,
                    reRegister);
            else if (!IsPositiveCount(*count))
                Add("class-without-installcount",
                    "InstallCount \"" + *count + "\" is not a count of at least 1", where,
                    reRegister);
            if (library && !m_builtIn.count(key.name) && reportedLibraries.insert(*library).second)
                CheckLibrary(*library, where + "\\InprocServer32");
        }
    }

    // Activation opens a library by its base name in the working directory,
    // whatever directory the registered name gives.
    void CheckLibrary(const std::string& library, const std::string& where) {
        const size_t slash = library.rfind('/');
        const std::string base = slash == std::string::npos ? library : library.substr(slash + 1);
        struct stat info;
        if (!base.empty() && stat(("./" + base).c_str(), &info) == 0 && !S_ISDIR(info.st_mode))
            return;
        const std::string cwd = WorkingDirectory();
        Add("library-not-found",
            "library \"" + (base.empty() ? library : base) + "\" is not in the working directory " +
                cwd,
            where,
            "copy the library into " + cwd + ", or run from the directory that holds it");
    }

    void CheckProgIds() {
        for (const RegKey& key : m_root->keys) {
            if (key.name == "CLSID" || key.name == "ComponentCategories" ||
                key.name == "Moniker" || !key.Find("CLSID"))
                continue;
            const std::string* target = key.SubkeyDefault("CLSID");
            if (target && IsRegistered(*target)) continue;
            Add("progid-names-missing-class",
                target ? "ProgID names the class " + *target + ", which is not registered"
                       : "ProgID key names no class",
                key.name + "\\CLSID",
                "register the class's library again, or delete the ProgID key (" +
                    DeleteKeyCommand(key.name) + ")");
        }
    }

    void CheckMonikers() {
        const RegKey* monikers = m_root->Find("Moniker");
        if (!monikers) return;
        for (const RegKey& moniker : monikers->keys) {
            const std::string path = "Moniker\\" + moniker.name;
            for (const RegValue& value : moniker.values) {
                if (IsRegistered(value.data)) continue;
                const std::string label = value.name.empty() ? "(default)" : value.name;
                Add("moniker-names-unregistered-class",
                    "moniker value " + label + " names " +
                        (value.data.empty() ? std::string("no class")
                                            : "the unregistered class " + value.data),
                    path + " " + label,
                    "register the class's library again, or delete the value (" +
                        DeleteValueCommand(path, value.name) + ")");
            }
        }
    }

    void CheckCategories() {
        const RegKey* categories = m_root->Find("ComponentCategories");
        if (!categories) return;
        for (const RegKey& category : categories->keys) {
            const std::string path = "ComponentCategories\\" + category.name;
            if (!IsCanonicalGuidText(category.name))
                Add("category-key-not-identifier",
                    "category key is not an identifier in the runtime's form "
                    "(_XXXXXXXX-XXXX-xxxx-XXXX-XXXXXXXXXXXX_)",
                    path, "delete the key (" + DeleteKeyCommand(path) + ") and register the category again");
            for (const RegKey& member : category.keys) {
                if (IsRegistered(member.name)) continue;
                const std::string memberPath = path + "\\" + member.name;
                Add("category-member-not-registered",
                    "category member " + member.name + " is not a registered class", memberPath,
                    "register the class's library again, or delete the membership (" +
                        DeleteKeyCommand(memberPath) + ")");
            }
        }
    }

    const RegKey* m_root;
    const RegKey* m_classes = nullptr;
    std::set<std::string> m_builtIn;
    std::vector<Problem> m_problems;
};

}  // namespace

int RunCheck(CToolContext& context) {
    ExpectArgs(context, 0, 0);
    if (FAILED(EnsureRegistry())) return kExitFailed;
    const std::vector<Problem> problems = CChecker().Run();

    if (context.json) {
        CJsonWriter json(std::cout);
        json.BeginObject()
            .Key("registry").String(RegistryFilePath())
            .Key("workingDirectory").String(WorkingDirectory())
            .Key("count").Number(static_cast<long long>(problems.size()))
            .Key("problems").BeginArray();
        for (const Problem& p : problems) {
            json.BeginObject()
                .Key("kind").String(p.kind)
                .Key("what").String(p.what)
                .Key("where").String(p.where)
                .Key("mend").String(p.mend)
                .EndObject();
        }
        json.EndArray().EndObject();
    } else {
        for (const Problem& p : problems)
            std::cout << p.where << ": " << p.what << "; to mend: " << p.mend << "\n";
        if (problems.empty())
            std::cout << "no problems found in " << RegistryFilePath() << "\n";
        else
            std::cout << problems.size() << (problems.size() == 1 ? " problem" : " problems")
                      << " found in " << RegistryFilePath() << "\n";
    }
    return problems.empty() ? kExitOk : kExitFailed;
}
