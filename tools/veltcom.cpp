// veltcom: the runtime's command-line tool. Registers component libraries,
// lists and creates classes, edits the registry, decodes status codes and
// checks registrations. This file holds the command table, the command line
// and the help; each command family has a file of its own.
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <new>

#include "toolInternal.h"

namespace {

struct Command {
    const char* name;     // "classes", or "reg query"
    const char* synopsis;  // arguments after the name
    const char* summary;
    const char* details;
    // The one option of its own a command may take, or null.
    const char* flag;
    int (*run)(CToolContext&);
};

const char kHiveHelp[] =
    "HIVE is a number or a name: 1 classes (the classes root), 2 user, 3 system,\n"
    "4 root (the maker root above all hives), 5 appdata. PATH is key names joined\n"
    "by backslashes (slashes work too); spaces are stored as underscores.\n";

// Every command, in the order the help lists them.
const Command kCommands[] = {
    {"register", "LIB...", "call each library's DllRegisterServer",
     "Opens each component library by the path given (a bare name means the file\n"
     "in the working directory) and calls the DllRegisterServer it defines itself.\n"
     "Prints the result with its text, and the current error information if the\n"
     "call set any. A result of 0x00000001 (S_FALSE) means some class failed to\n"
     "register: it is reported as a failure.\n",
     nullptr, RunRegister},
    {"unregister", "LIB...", "call each library's DllUnregisterServer",
     "As register, with DllUnregisterServer. A class stays registered while other\n"
     "installations count on it (its InstallCount stays above 0).\n",
     nullptr, RunUnregister},
    {"classes", "", "list the registered classes",
     "Lists every class key under CLSID in the classes hive: identifier, ProgID,\n"
     "InprocServer32, InstallCount, and display name (or description).\n",
     nullptr, RunClasses},
    {"create", "ID-OR-PROGID", "create an object and list the interfaces it answers",
     "Activates the class through COM_CreateInstance, as an application would:\n"
     "component libraries are loaded by base name from the working directory.\n"
     "ID-OR-PROGID is a class identifier (_XXXXXXXX-XXXX-xxxx-XXXX-XXXXXXXXXXXX_,\n"
     "with braces, or bare) or a ProgID. Lists which of the runtime's own\n"
     "interfaces the object answers, then which registered component interfaces;\n"
     "on failure prints the code, its text and the current error information.\n",
     nullptr, RunCreate},
    {"describe", "ID-OR-PROGID-OR-IID", "show the interfaces of a class, or one interface",
     "With a class identifier or ProgID, creates the object as create does and\n"
     "shows each registered interface it answers; with an interface identifier,\n"
     "shows that interface. Each interface comes with its base and its methods\n"
     "in slot order, every parameter with its direction and type, as the\n"
     "component's type information declares them. Interfaces are registered\n"
     "under Interface in the classes hive when a component built from a\n"
     "definition registers.\n",
     nullptr, RunDescribe},
    {"reg query", "HIVE [PATH]", "show a key with its values and sub-keys as a tree",
     "Shows the key at PATH (the hive root when PATH is omitted), its values and\n"
     "its whole subtree.\n",
     nullptr, RunRegQuery},
    {"reg set", "HIVE PATH NAME VALUE [--dword]", "set a value, creating missing keys",
     "Sets the value NAME of the key at PATH to VALUE, as a string, or with\n"
     "--dword as a 32-bit number (decimal or 0x hexadecimal). An empty NAME (\"\")\n"
     "is the key's default value. Missing keys on the path are created.\n",
     "--dword", RunRegSet},
    {"reg delete", "HIVE PATH [NAME]", "delete a key with its subtree, or one value",
     "Without NAME deletes the key at PATH and everything below it; with NAME\n"
     "deletes that value of the key (\"\" is the default value).\n",
     nullptr, RunRegDelete},
    {"reg export", "HIVE [PATH]", "write a key's subtree as XML",
     "Writes the key at PATH and its subtree to standard output as XML in the\n"
     "registry file's own form (an element per key, the default value as its\n"
     "\"default\" attribute, named values as \"item\" elements), inside an\n"
     "<export> element that records the hive and path.\n",
     nullptr, RunRegExport},
    {"decode", "CODE...", "print the text of status codes",
     "Prints the text of each status code through COM_DecodeHRESULT: the built-in\n"
     "table for facilities up to 99, the system's text for facility 98, and the\n"
     "decoder component registered under Moniker\\hresult for facilities from 100.\n"
     "CODE is 0x and hexadecimal digits, a decimal number, or a negative decimal.\n",
     nullptr, RunDecode},
    {"categories", "[CATID]", "list categories, or the classes of one",
     "Without CATID lists every component category with its description and its\n"
     "number of classes; with CATID lists the classes of that category.\n",
     nullptr, RunCategories},
    {"check", "[--restore]", "look for damaged or half-finished registrations",
     "Reports, one line each with where it is and how to mend it:\n"
     "  class keys without InprocServer32, ProgID or InstallCount;\n"
     "  ProgID keys naming classes that are not registered;\n"
     "  libraries named by InprocServer32 that are not in the working directory;\n"
     "  Moniker values naming classes that are not registered;\n"
     "  category members that are not registered classes;\n"
     "  category keys that are not identifiers.\n"
     "Exits with 1 when it finds any. It also warns, without failing, about an\n"
     "InprocServer32 value with a directory part (activation loads the base name\n"
     "from the working directory), a library activation would refuse to load\n"
     "because other users could have replaced it, and a ProgID claimed by more\n"
     "than one class. A registry file that cannot be read is reported with its\n"
     "line and column.\n"
     "With --restore, when the registry file cannot be read and Registry.XML.bak\n"
     "can, keeps the damaged file as Registry.XML.damaged and puts a copy of the\n"
     "backup in its place. Exits with 1 when it restores nothing.\n",
     "--restore", RunCheck},
};

const char kOptionsHelp[] =
    "Options (anywhere on the line):\n"
    "  --registry DIR  use DIR/Registry.XML for this call (otherwise $COMLIB/Registry.XML,\n"
    "                  or ./Registry.XML when COMLIB is not set)\n"
    "  --json          machine-readable output on standard output\n"
    "  -h, --help      show help; after a command, that command's help\n";

const char kExitHelp[] =
    "Exit status: 0 success, 1 a failing status (or problems found by check),\n"
    "2 a usage error. Errors go to standard error, one line each, with the status\n"
    "code and its text.\n";

bool IsRegCommand(const Command& command) { return std::string(command.name).rfind("reg ", 0) == 0; }

void PrintGlobalHelp(std::ostream& out) {
    out << "Usage: veltcom [--registry DIR] [--json] COMMAND [ARGUMENTS]\n\n"
           "The command-line tool of the component runtime: registers component libraries,\n"
           "lists and creates classes, edits the registry and decodes status codes.\n\n"
           "Commands:\n";
    for (const Command& command : kCommands) {
        const std::string usage = std::string(command.name) + " " + command.synopsis;
        out << "  " << usage;
        if (usage.size() < 32)
            out << std::string(32 - usage.size(), ' ');
        else
            out << "\n" << std::string(34, ' ');
        out << command.summary << "\n";
    }
    out << "  help [COMMAND]                  show the help of a command\n\n"
        << kHiveHelp << "\n"
        << kOptionsHelp << "\n"
        << kExitHelp;
}

std::string Usage(const Command& command) {
    const std::string synopsis = command.synopsis;
    return std::string("veltcom ") + command.name + (synopsis.empty() ? "" : " " + synopsis);
}

void PrintCommandHelp(const Command& command) {
    std::string summary = command.summary;
    summary[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(summary[0])));
    std::cout << "Usage: " << Usage(command) << "\n\n"
              << summary << ".\n\n"
              << command.details;
    if (IsRegCommand(command)) std::cout << "\n" << kHiveHelp;
    std::cout << "\n" << kOptionsHelp << "\n" << kExitHelp;
}

void PrintRegHelp() {
    std::cout << "Usage: veltcom reg query|set|delete|export HIVE PATH ...\n\n"
                 "Works on any hive and key path of the registry.\n\n";
    for (const Command& command : kCommands) {
        if (IsRegCommand(command))
            std::cout << "  " << Usage(command) << "\n      " << command.summary << "\n";
    }
    std::cout << "\n" << kHiveHelp << "\n" << kOptionsHelp << "\n" << kExitHelp;
}

// The command named by the first one or two words; null when none is.
const Command* FindCommand(const std::vector<std::string>& words, size_t& used) {
    for (const Command& command : kCommands) {
        const std::string name = command.name;
        if (words.size() >= 1 && name == words[0]) {
            used = 1;
            return &command;
        }
        if (words.size() >= 2 && name == words[0] + " " + words[1]) {
            used = 2;
            return &command;
        }
    }
    return nullptr;
}

// The command of the current call, for pointing usage errors at its help.
std::string g_commandName;

struct CommandLine {
    bool json = false;
    bool help = false;
    bool hasRegistry = false;
    std::string registry;
    std::vector<std::string> words;
    std::vector<std::string> flags;
};

bool LooksLikeNumber(const std::string& arg) {
    return arg.size() > 1 && arg[0] == '-' && std::isdigit(static_cast<unsigned char>(arg[1]));
}

CommandLine ParseCommandLine(int argc, char** argv) {
    CommandLine line;
    bool optionsEnded = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (optionsEnded || arg.empty() || arg[0] != '-' || arg == "-" || LooksLikeNumber(arg)) {
            line.words.push_back(arg);
        } else if (arg == "--") {
            optionsEnded = true;
        } else if (arg == "--json") {
            line.json = true;
        } else if (arg == "--help" || arg == "-h") {
            line.help = true;
        } else if (arg == "--registry") {
            if (i + 1 >= argc) throw CUsageError{"--registry needs a directory"};
            line.hasRegistry = true;
            line.registry = argv[++i];
        } else if (arg.rfind("--registry=", 0) == 0) {
            line.hasRegistry = true;
            line.registry = arg.substr(11);
        } else {
            line.flags.push_back(arg);
        }
    }
    if (line.hasRegistry && line.registry.empty())
        throw CUsageError{"--registry needs a directory"};
    return line;
}

int Help(const std::vector<std::string>& words) {
    if (words.empty()) {
        PrintGlobalHelp(std::cout);
        return kExitOk;
    }
    size_t used = 0;
    if (const Command* command = FindCommand(words, used)) {
        if (used == words.size()) {
            PrintCommandHelp(*command);
            return kExitOk;
        }
    }
    if (words.size() == 1 && words[0] == "reg") {
        PrintRegHelp();
        return kExitOk;
    }
    if (words.size() == 1 && words[0] == "help") {
        PrintGlobalHelp(std::cout);
        return kExitOk;
    }
    throw CUsageError{"no help for '" + words[0] + (words.size() > 1 ? " " + words[1] : "") +
                      "': unknown command"};
}

// --registry names the directory for this call only: the runtime takes it
// from COMLIB, as for any application.
int UseRegistryDirectory(const std::string& directory) {
    struct stat info;
    if (stat(directory.c_str(), &info) != 0) {
        ReportError("--registry " + directory, SystemErrorCode(errno));
        return kExitFailed;
    }
    if (!S_ISDIR(info.st_mode)) {
        ReportError("--registry " + directory, SystemErrorCode(ENOTDIR));
        return kExitFailed;
    }
    setenv("COMLIB", directory.c_str(), 1);
    return kExitOk;
}

int Run(int argc, char** argv) {
    CommandLine line = ParseCommandLine(argc, argv);
    if (!line.words.empty() && line.words[0] == "help")
        return Help(std::vector<std::string>(line.words.begin() + 1, line.words.end()));
    if (line.words.empty()) {
        if (line.help) return Help({});
        throw CUsageError{"no command given"};
    }
    size_t used = 0;
    const Command* command = FindCommand(line.words, used);
    if (!command) {
        if (line.words[0] == "reg") {
            if (line.help && line.words.size() == 1) return Help({"reg"});
            g_commandName = "reg";
            throw CUsageError{line.words.size() == 1
                                  ? "reg needs one of query, set, delete or export"
                                  : "unknown reg command '" + line.words[1] + "'"};
        }
        throw CUsageError{"unknown command '" + line.words[0] + "'"};
    }
    g_commandName = command->name;
    if (line.help) {
        PrintCommandHelp(*command);
        return kExitOk;
    }

    CToolContext context;
    context.json = line.json;
    context.usage = Usage(*command);
    context.args.assign(line.words.begin() + used, line.words.end());
    for (const std::string& flag : line.flags) {
        if (!command->flag || flag != command->flag)
            throw CUsageError{"unknown option '" + flag + "' for " + command->name};
        context.flags.insert(flag);
    }
    if (line.hasRegistry && UseRegistryDirectory(line.registry) != kExitOk) return kExitFailed;
    return command->run(context);
}

}  // namespace

void ExpectArgs(const CToolContext& context, size_t min, size_t max) {
    if (context.args.size() < min)
        throw CUsageError{"missing arguments; usage: " + context.usage};
    if (context.args.size() > max)
        throw CUsageError{"too many arguments; usage: " + context.usage};
}

int main(int argc, char** argv) {
    // Everything is caught here: the tool ends with a one-line report and an
    // exit status, never with an uncaught exception.
    try {
        const int status = Run(argc, argv);
        std::cout.flush();
        return status;
    } catch (const CUsageError& e) {
        const std::string help = g_commandName.empty() ? "veltcom --help"
                                                       : "veltcom " + g_commandName + " --help";
        ReportError(e.message, E_INVALIDARG, "see '" + help + "'");
        return kExitUsage;
    } catch (const std::bad_alloc&) {
        ReportError("out of memory", E_OUTOFMEMORY);
    } catch (const utlAutoIfBase::XBadPtrException&) {
        ReportError("the runtime handed out a null interface where an object was due", E_POINTER);
    } catch (int hr) {
        ReportError("unexpected failure", hr);
    } catch (const std::exception& e) {
        ReportError(std::string("unexpected failure: ") + e.what(), E_UNEXPECTED);
    } catch (...) {
        ReportError("unexpected failure", E_UNEXPECTED);
    }
    return kExitFailed;
}
