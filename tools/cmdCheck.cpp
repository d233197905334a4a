// check: what a half-finished or damaged registration leaves behind, and
// registrations that work but not as their authors may think (warnings).
// check --restore: a damaged registry file replaced by its backup.
//
// Identifiers are compared the way the runtime finds them: a value naming a
// class is parsed and looked up in its written form, while a key named
// after a category must already be in that form, since lookups compare key
// names as given.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <ctime>
#include <iostream>
#include <map>
#include <set>

#include "libraryTrust.h"
#include "regFile.h"
#include "toolInternal.h"

namespace {

struct Problem {
    // A warning describes a registration that works, but not as written.
    bool warning;
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
        CheckSharedProgIds();
        CheckInstallCounts();
        CheckMonikers();
        CheckCategories();
        return m_problems;
    }

private:
    void Add(const char* kind, std::string what, std::string where, std::string mend) {
        m_problems.push_back({false, kind, std::move(what), "classes " + where, std::move(mend)});
    }

    void Warn(const char* kind, std::string what, std::string where, std::string mend) {
        m_problems.push_back({true, kind, std::move(what), "classes " + where, std::move(mend)});
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
            if (!library || m_builtIn.count(key.name)) continue;
            CheckDirectoryPart(*library, where + "\\InprocServer32");
            // Registrations that name the same file differently load the same one.
            if (reportedLibraries.insert(BaseName(*library)).second)
                CheckLibrary(*library, where + "\\InprocServer32");
        }
    }

    static std::string BaseName(const std::string& library) {
        const size_t slash = library.rfind('/');
        return slash == std::string::npos ? library : library.substr(slash + 1);
    }

    // Activation opens a library by its base name in the working directory,
    // whatever directory the registered name gives.
    void CheckDirectoryPart(const std::string& library, const std::string& where) {
        const size_t slash = library.rfind('/');
        if (slash == std::string::npos || slash + 1 == library.size()) return;
        const std::string loaded = WorkingDirectory() + "/" + BaseName(library);
        Warn("library-directory-ignored",
             "library \"" + library + "\" names a directory, which activation ignores: it loads " +
                 loaded + " instead",
             where,
             "register the library by its base name (" + BaseName(library) +
                 ") and run from the directory that holds it");
    }

    void CheckLibrary(const std::string& library, const std::string& where) {
        const std::string base = BaseName(library);
        const std::string opened = "./" + base;
        struct stat info;
        if (!base.empty() && stat(opened.c_str(), &info) == 0 && !S_ISDIR(info.st_mode)) {
            CheckLibraryTrust(opened, where);
            return;
        }
        const std::string cwd = WorkingDirectory();
        Add("library-not-found",
            "library \"" + (base.empty() ? library : base) + "\" is not in the working directory " +
                cwd,
            where,
            "copy the library into " + cwd + ", or run from the directory that holds it");
    }

    // The same rule activation applies before it opens a library.
    void CheckLibraryTrust(const std::string& opened, const std::string& where) {
        const std::string reason = LibraryRefusal(opened.c_str());
        if (reason.empty()) return;
        Warn("library-refused",
             "activation refuses to load " + WorkingDirectory() + "/" + opened.substr(2) + ": " +
                 reason,
             where,
             "make the library and its directory owned by root (or by you) and writable by no "
             "other user, or set VELTCOM_ALLOW_INSECURE_LIBRARIES=1 to load it anyway");
    }

    // A ProgID key names one class; any other class claiming the same ProgID
    // is not found by it.
    void CheckSharedProgIds() {
        if (!m_classes) return;
        std::map<std::string, std::vector<std::string>> claims;
        for (const RegKey& key : m_classes->keys) {
            const std::string* progId = key.SubkeyDefault("ProgID");
            if (progId && !progId->empty()) claims[*progId].push_back(key.name);
        }
        for (const auto& claim : claims) {
            if (claim.second.size() < 2) continue;
            std::string classes;
            for (const std::string& id : claim.second)
                classes += (classes.empty() ? "" : ", ") + id;
            const std::string* named = m_root->Find(claim.first)
                                           ? m_root->Find(claim.first)->SubkeyDefault("CLSID")
                                           : nullptr;
            Warn("progid-claimed-twice",
                 "ProgID " + claim.first + " is claimed by " + std::to_string(claim.second.size()) +
                     " classes (" + classes + "); it names " + (named ? *named : "none of them"),
                 claim.first,
                 "unregister the libraries of the classes that should not have it, then register "
                 "the right one again");
        }
    }

    // A library's installation counts every one of its classes alike; counts
    // that differ were left by an install interrupted half way, or by two
    // that raced, before installations became one transaction.
    void CheckInstallCounts() {
        if (!m_classes) return;
        // Library -> count -> the classes with that count.
        std::map<std::string, std::map<std::string, std::vector<std::string>>> libraries;
        for (const RegKey& key : m_classes->keys) {
            const std::string* library = key.SubkeyDefault("InprocServer32");
            const std::string* count = key.SubkeyDefault("InstallCount");
            if (library && count && IsPositiveCount(*count)) libraries[*library][*count].push_back(key.name);
        }
        for (const auto& library : libraries) {
            if (library.second.size() < 2) continue;
            std::string counts;
            for (const auto& count : library.second)
                counts += (counts.empty() ? "" : ", ") + count.first + " in " +
                          std::to_string(count.second.size()) +
                          (count.second.size() > 1 ? " classes (" : " class (") +
                          count.second.front() + (count.second.size() > 1 ? ", ...)" : ")");
            Warn("installcount-disagrees",
                 "the classes of library \"" + library.first + "\" disagree in InstallCount: " + counts,
                 "CLSID\\" + library.second.begin()->second.front() + "\\InstallCount",
                 "unregister the library until none of its classes is left (veltcom unregister " +
                     ShellQuoted(library.first) + "), then register it once for each installation that uses it");
        }
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

struct RestoreOutcome {
    bool restored = false;
    std::string message;
};

// A file's time as people read it, in local time.
std::string LocalTime(const struct timespec& when) {
    struct tm parts;
    char text[64];
    if (!localtime_r(&when.tv_sec, &parts) ||
        !std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %Z", &parts))
        return "an unknown time";
    return text;
}

// What the backup lacks. A save links the file it replaces as the backup: the
// backup was written by the save before the last (its modification time) and
// became the backup at the last save (its later change time), whose changes
// it therefore lacks. A backup put there by other means lacks whatever was
// saved after it was written.
std::string WhatTheBackupLacks(const std::string& backup) {
    struct stat info;
    if (stat(backup.c_str(), &info) != 0) return "";
    const struct timespec& written = info.st_mtim;
    const struct timespec& linked = info.st_ctim;
    const bool linkedLater = linked.tv_sec > written.tv_sec ||
                             (linked.tv_sec == written.tv_sec && linked.tv_nsec > written.tv_nsec);
    return "the backup holds the registry as saved at " + LocalTime(written) + "; lost: " +
           (linkedLater ? "the last save, made at " + LocalTime(linked) + ", and any change after it"
                        : std::string("any change saved after it")) +
           "\n";
}

// Keeps a damaged registry as Registry.XML.damaged and puts a copy of
// Registry.XML.bak in its place, as a save would and under the writers'
// lock; the backup itself stays. Where Registry.XML is a symbolic link, the
// file it leads to is restored, from the backup beside it.
RestoreOutcome Restore(const std::string& path) {
    CRegistryFile file(path);
    std::string target;
    if (!file.Target(target))
        return {false, "cannot restore " + path + ": the symbolic link cannot be followed"};
    const std::string backup = target + ".bak", damaged = target + ".damaged";
    CRegistryFile::CWriterLock lock(file);
    if (lock.TimedOut())
        return {false, "cannot restore " + path + ": another process holds the writers' lock " +
                           target + ".lock"};
    std::string content;
    struct stat info;
    const bool present = stat(target.c_str(), &info) == 0;
    if (present && ReadFileBytes(target, content) && IsReadableRegistry(content))
        return {false, "nothing to restore: " + path + " is readable"};
    if (!ReadFileBytes(backup, content) || !IsReadableRegistry(content))
        return {false, "cannot restore " + path + ": there is no readable backup " + backup};

    std::string message;
    if (present) {
        // A hard link keeps the damaged file without a moment when the
        // registry is missing; the restore then replaces the name only.
        if (unlink(damaged.c_str()) != 0 && errno != ENOENT)
            return {false, "cannot restore " + path + ": " + damaged + " cannot be replaced: " +
                               StatusText(SystemErrorCode(errno))};
        if (link(target.c_str(), damaged.c_str()) != 0)
            return {false, "cannot restore " + path + ": the damaged file cannot be kept as " +
                               damaged + ": " + StatusText(SystemErrorCode(errno))};
        message = "kept the damaged registry as " + damaged + "\n";
    }
    const HRESULT hr = file.Restore(content);
    if (FAILED(hr))
        return {false, message + "cannot restore " + path + ": " + StatusText(hr)};
    return {true, message + WhatTheBackupLacks(backup) + "restored " + path + " from " + backup};
}

int RunRestore(const CToolContext& context) {
    const std::string path = RegistryFilePath();
    const RestoreOutcome outcome = Restore(path);
    if (context.json) {
        CJsonWriter(std::cout)
            .BeginObject()
            .Key("registry").String(path)
            .Key("restored").Bool(outcome.restored)
            .Key("message").String(outcome.message)
            .EndObject();
    } else {
        std::cout << outcome.message << "\n";
    }
    return outcome.restored ? kExitOk : kExitFailed;
}

void WriteJson(const std::vector<Problem>& problems, size_t problemCount) {
    CJsonWriter json(std::cout);
    json.BeginObject()
        .Key("registry").String(RegistryFilePath())
        .Key("workingDirectory").String(WorkingDirectory())
        .Key("count").Number(static_cast<long long>(problemCount));
    for (const bool warnings : {false, true}) {
        if (warnings)
            json.Key("warningCount").Number(static_cast<long long>(problems.size() - problemCount));
        json.Key(warnings ? "warnings" : "problems").BeginArray();
        for (const Problem& p : problems) {
            if (p.warning != warnings) continue;
            json.BeginObject()
                .Key("kind").String(p.kind)
                .Key("what").String(p.what)
                .Key("where").String(p.where)
                .Key("mend").String(p.mend)
                .EndObject();
        }
        json.EndArray();
    }
    json.EndObject();
}

void WriteText(const std::vector<Problem>& problems, size_t problemCount) {
    for (const Problem& p : problems)
        std::cout << (p.warning ? "warning: " : "") << p.where << ": " << p.what
                  << "; to mend: " << p.mend << "\n";
    if (problemCount == 0)
        std::cout << "no problems found in " << RegistryFilePath() << "\n";
    else
        std::cout << problemCount << (problemCount == 1 ? " problem" : " problems")
                  << " found in " << RegistryFilePath() << "\n";
    const size_t warnings = problems.size() - problemCount;
    if (warnings > 0) std::cout << warnings << (warnings == 1 ? " warning" : " warnings") << "\n";
}

}  // namespace

int RunCheck(CToolContext& context) {
    ExpectArgs(context, 0, 0);
    if (context.flags.count("--restore")) return RunRestore(context);
    if (FAILED(EnsureRegistry())) return kExitFailed;
    const std::vector<Problem> problems = CChecker().Run();
    size_t problemCount = 0;
    for (const Problem& p : problems) problemCount += p.warning ? 0 : 1;
    if (context.json)
        WriteJson(problems, problemCount);
    else
        WriteText(problems, problemCount);
    // Warnings alone do not fail the check: those registrations work.
    return problemCount == 0 ? kExitOk : kExitFailed;
}
