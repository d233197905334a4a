// veltcom-idl: compiles an interface definition into a C++ header, or
// compares two versions of one.
//
//     veltcom-idl [-I DIR]... [-o DIR] FILE.idl
//     veltcom-idl [-I DIR]... --check OLD.idl NEW.idl
#include <unistd.h>

#include <climits>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "idl.h"

namespace {

bool ReadFile(const std::string& path, std::string& text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream buffer;
    buffer << in.rdbuf();
    text = buffer.str();
    return static_cast<bool>(in) || in.eof();
}

bool Exists(const std::string& path) { return access(path.c_str(), R_OK) == 0; }

std::string DirectoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

// Where veltcom.idl lies: the installed include directory relative to this
// program, else the source tree it was built from.
std::string RuntimeIdlDirectory() {
    char self[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length > 0) {
        self[length] = '\0';
        const std::string installed = DirectoryOf(self) + "/" VELTCOM_IDL_INSTALLED_RELATIVE;
        if (Exists(installed + "/veltcom.idl")) return installed;
    }
    return VELTCOM_IDL_SOURCE_DIR;
}

// The importing file's directory first, then -I directories in order, then
// the runtime's own definitions.
idl::Resolver MakeResolver(const std::vector<std::string>& includes) {
    return [includes](const std::string& name, const std::string& from) -> std::string {
        if (!name.empty() && name[0] == '/') return Exists(name) ? name : "";
        std::vector<std::string> directories{DirectoryOf(from)};
        directories.insert(directories.end(), includes.begin(), includes.end());
        directories.push_back(RuntimeIdlDirectory());
        for (const std::string& directory : directories)
            if (Exists(directory + "/" + name)) return directory + "/" + name;
        return "";
    };
}

// FILE:LINE:COL: error: MESSAGE, the line, and a caret under the column.
void Report(const idl::Error& error, const std::string& text) {
    std::cerr << error.file << ":" << error.place.line << ":" << error.place.column
              << ": error: " << error.message << "\n";
    std::istringstream lines(text);
    std::string line;
    for (int i = 0; i < error.place.line && std::getline(lines, line); ++i) {
    }
    std::string caret;
    for (int i = 0; i + 1 < error.place.column && i < static_cast<int>(line.size()); ++i)
        caret += line[i] == '\t' ? '\t' : ' ';
    std::cerr << line << "\n" << caret << "^\n";
}

std::shared_ptr<idl::Definitions> Load(const std::string& path, const idl::Resolver& resolve) {
    std::string text;
    if (!ReadFile(path, text)) {
        std::cerr << path << ": error: cannot read the file\n";
        return nullptr;
    }
    idl::Error error;
    auto defs = idl::Parse(path, text, resolve, ReadFile, error);
    if (!defs) {
        std::string errorText;
        ReadFile(error.file, errorText);
        Report(error, error.file == path ? text : errorText);
    }
    return defs;
}

int Usage() {
    std::cerr << "usage: veltcom-idl [-I DIR]... [-o DIR] FILE.idl\n"
                 "       veltcom-idl [-I DIR]... --check OLD.idl NEW.idl\n";
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> includes, files;
    std::string outDir = ".";
    bool check = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if ((arg == "-I" || arg == "-o") && i + 1 < argc) {
            (arg == "-I" ? includes.push_back(argv[++i]) : void(outDir = argv[++i]));
        } else if (arg.compare(0, 2, "-I") == 0 && arg.size() > 2) {
            includes.push_back(arg.substr(2));
        } else if (arg == "--check") {
            check = true;
        } else if (!arg.empty() && arg[0] == '-') {
            return Usage();
        } else {
            files.push_back(arg);
        }
    }
    const idl::Resolver resolve = MakeResolver(includes);
    if (check) {
        if (files.size() != 2) return Usage();
        auto before = Load(files[0], resolve);
        auto after = Load(files[1], resolve);
        if (!before || !after) return 1;
        std::vector<std::string> breaking, compatible;
        idl::Compare(*before, *after, breaking, compatible);
        for (const std::string& line : breaking) std::cout << "incompatible: " << line << "\n";
        for (const std::string& line : compatible) std::cout << "compatible: " << line << "\n";
        return breaking.empty() ? 0 : 1;
    }
    if (files.size() != 1) return Usage();
    auto defs = Load(files[0], resolve);
    if (!defs) return 1;
    std::string stem = files[0].substr(files[0].rfind('/') + 1);
    if (stem.size() > 4 && stem.compare(stem.size() - 4, 4, ".idl") == 0)
        stem.resize(stem.size() - 4);
    const std::string header = outDir + "/" + stem + ".h";
    std::ofstream out(header, std::ios::binary);
    out << idl::GenerateHeader(*defs, stem);
    out.close();
    if (!out) {
        std::cerr << header << ": error: cannot write the header\n";
        return 1;
    }
    return 0;
}
