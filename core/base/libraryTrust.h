// The rules by which a component library is opened: no other user can have
// written it, and its entry points are its own. Shared inline by activation,
// which refuses such a library, and the veltcom tool, which warns about it;
// the tool links only the shared library.
#ifndef VELTCOM_CORE_LIBRARY_TRUST_H
#define VELTCOM_CORE_LIBRARY_TRUST_H

#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

// Why `directory` lets other users replace what it holds: writable by every
// user without the sticky bit. Empty when it does not, or cannot be read.
inline std::string DirectoryRefusal(const std::string& directory) {
    struct stat info;
    if (stat(directory.c_str(), &info) != 0) return "";
    if (!(info.st_mode & S_IWOTH) || (info.st_mode & S_ISVTX)) return "";
    char resolved[PATH_MAX];
    const std::string shown = realpath(directory.c_str(), resolved) ? resolved : directory;
    return "its directory " + shown + " is writable by every user and has no sticky bit";
}

// Why the library file at `path` must not be loaded: another user could have
// written it. Empty when it may be loaded, when it cannot be examined (the
// loader then tells why it cannot open it), and whenever
// VELTCOM_ALLOW_INSECURE_LIBRARIES is 1. A symbolic link is judged by its
// target, and by the directories of both.
inline std::string LibraryRefusal(const char* path) {
    const char* allow = std::getenv("VELTCOM_ALLOW_INSECURE_LIBRARIES");
    if (allow && std::strcmp(allow, "1") == 0) return "";
    struct stat file;
    if (stat(path, &file) != 0) return "";
    if (file.st_mode & S_IWOTH) return "the file is writable by every user";
    if (file.st_uid != 0 && file.st_uid != geteuid())
        return "the file is owned by user " + std::to_string(file.st_uid) +
               ", neither root nor this process's user";
    const char* slash = std::strrchr(path, '/');
    std::string reason = DirectoryRefusal(slash ? std::string(path, slash - path + 1) : ".");
    char target[PATH_MAX];
    if (reason.empty() && realpath(path, target))
        reason = DirectoryRefusal(std::string(target, std::strrchr(target, '/') - target + 1));
    return reason;
}

// The address of `name` in the library opened as `handle`, or null. dlsym
// also searches the library's dependencies, the runtime among them: only an
// entry point the library defines itself counts.
inline void* OwnSymbol(void* handle, const char* name) {
    void* symbol = dlsym(handle, name);
    link_map* library = nullptr;
    link_map* owner = nullptr;
    Dl_info info;
    if (!symbol || dlinfo(handle, RTLD_DI_LINKMAP, &library) != 0 ||
        !dladdr1(symbol, &info, reinterpret_cast<void**>(&owner), RTLD_DL_LINKMAP))
        return nullptr;
    return owner == library ? symbol : nullptr;
}

#endif
