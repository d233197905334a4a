#include "registryGenerator.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "benchClasses.h"

namespace bench {

namespace {

// Identifier texts and ProgIDs are ASCII: narrowing keeps every byte.
std::string Narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

std::string ClassText(uint32_t index) {
    wchar_t* text = nullptr;
    if (FAILED(COM_CLSIDToString(ClassId(index), &text))) return std::string();
    const std::string narrow = Narrow(std::wstring(text, COM_SysStringLen(text)));
    COM_SysFreeString(text);
    return narrow;
}

std::string KeyWithDefault(const std::string& key, const std::string& value) {
    return "<" + key + " default = \"" + value + "\"/>";
}

// As registration leaves it: the class key's default is the ProgID, then its
// sub-keys in the order they are created.
void AppendClassKey(std::string& out, uint32_t index) {
    const std::string id = ClassText(index);
    const std::string progId = Narrow(ProgId(index));
    out += "<" + id + " default = \"" + progId + "\">";
    out += KeyWithDefault("InprocServer32", kComponentFile);
    out += KeyWithDefault("ProgID", progId);
    out += KeyWithDefault("InstallCount", "1");
    out += "</" + id + ">";
}

void AppendProgIdKey(std::string& out, uint32_t index) {
    const std::string progId = Narrow(ProgId(index));
    out += "<" + progId + ">" + KeyWithDefault("CLSID", ClassText(index)) + "</" + progId + ">";
}

}  // namespace

bool RunChild(const std::string& childPath, const std::string& directory, const char* mode, const char* argument,
              std::string& output) {
    int pipeEnds[2];
    if (pipe2(pipeEnds, O_CLOEXEC) != 0) return false;
    const pid_t pid = fork();
    if (pid < 0) {
        close(pipeEnds[0]);
        close(pipeEnds[1]);
        return false;
    }
    if (pid == 0) {
        dup2(pipeEnds[1], STDOUT_FILENO);
        close(pipeEnds[0]);
        close(pipeEnds[1]);
        if (chdir(directory.c_str()) != 0) _exit(127);
        setenv("COMLIB", directory.c_str(), 1);
        execl(childPath.c_str(), childPath.c_str(), mode, argument, static_cast<char*>(nullptr));
        _exit(127);
    }
    close(pipeEnds[1]);
    output.clear();
    char buffer[256];
    for (ssize_t got; (got = read(pipeEnds[0], buffer, sizeof buffer)) != 0;) {
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) break;
        output.append(buffer, static_cast<size_t>(got));
    }
    close(pipeEnds[0]);
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string GenerateRegistry(uint32_t classes) {
    std::string out = "<?xml version='1.0' encoding='ISO-8859-1' ?>\n";
    out += "<Software><Quorvane><Version><ApplicationData/><Classes>";
    if (classes == 0) {
        out += "<CLSID/>";
    } else {
        out += "<CLSID>";
        for (uint32_t i = 0; i < classes; ++i) AppendClassKey(out, i);
        out += "</CLSID>";
    }
    out += "<ComponentCategories/><Moniker/>";
    for (uint32_t i = 0; i < classes; ++i) AppendProgIdKey(out, i);
    out += "</Classes></Version></Quorvane></Software>";
    return out;
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

bool WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.close();
    return !file.fail();
}

std::string CheckGeneratorFormat(const std::string& scratch, const std::string& childPath) {
    const uint32_t kClasses = 3;
    const std::string directory = scratch + "/format-check";
    mkdir(directory.c_str(), 0755);
    unlink((directory + "/Registry.XML").c_str());
    std::string output;
    if (!RunChild(childPath, directory, "register", std::to_string(kClasses).c_str(), output)) {
        return "registering classes through the runtime failed in " + directory;
    }
    const std::string written = ReadFile(directory + "/Registry.XML");
    const std::string generated = GenerateRegistry(kClasses);
    if (written == generated) return std::string();
    size_t at = 0;
    while (at < written.size() && at < generated.size() && written[at] == generated[at]) ++at;
    return "the runtime wrote " + written.substr(at, 60) + " where the generator has " + generated.substr(at, 60) +
           " (byte " + std::to_string(at) + ")";
}

std::string PrepareRegistryDirectory(const std::string& scratch, uint32_t classes, const std::string& componentPath) {
    const std::string directory = scratch + "/" + std::to_string(classes);
    mkdir(directory.c_str(), 0755);
    // Generating takes milliseconds even at ten thousand classes, so every
    // run starts from a fresh file and no run's changes reach the next.
    if (!WriteFile(directory + "/Registry.XML", GenerateRegistry(classes))) return std::string();
    if (!WriteFile(directory + "/" + kComponentFile, ReadFile(componentPath))) return std::string();
    return directory;
}

}  // namespace bench
