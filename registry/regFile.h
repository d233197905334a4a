// The registry's file on disk: reading it whole, replacing it atomically,
// the writers' lock that several processes share, and telling whether
// another process has replaced it since this one last read or wrote it.
#ifndef VELTCOM_REGISTRY_REGFILE_H
#define VELTCOM_REGISTRY_REGFILE_H

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

#include "comBase.h"

// What tells one version of the file from another: a save makes a new file,
// so its inode changes; an edit in place changes its size or time.
struct CFileIdentity {
    bool known = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    struct timespec modified = {0, 0};

    static CFileIdentity Of(const struct stat& info);
    bool operator==(const CFileIdentity& other) const;
    bool operator!=(const CFileIdentity& other) const { return !(*this == other); }
};

class CRegistryFile {
public:
    explicit CRegistryFile(std::string path) : m_path(std::move(path)) {}
    ~CRegistryFile();
    CRegistryFile(const CRegistryFile&) = delete;
    CRegistryFile& operator=(const CRegistryFile&) = delete;

    const std::string& Path() const { return m_path; }

    // Reads the whole file. A missing file is first made with `initial`, all
    // at once, so that no other process ever reads it half written. An
    // existing file that cannot be read gives E_FAIL and is left alone.
    HRESULT Read(std::string& content, const std::string& initial);

    // Whether the file on disk is not the one this process last read or
    // wrote. One stat.
    bool Changed() const;
    // Makes the next Changed() true, after this process's copy has parted
    // from the file.
    void Forget() { m_known.known = false; }

    // Replaces the file's content, or returns REGDB_E_WRITEREGDB with the file
    // as it was. See ReplaceAtomically and WriteInPlace.
    HRESULT Write(const std::string& bytes);

    // Holds the lock that every process changing the registry takes, from
    // "is the file still the one I know" through the rename.
    class CWriterLock {
    public:
        explicit CWriterLock(CRegistryFile& file);
        ~CWriterLock();
        CWriterLock(const CWriterLock&) = delete;
        CWriterLock& operator=(const CWriterLock&) = delete;

    private:
        int m_fd;
    };

private:
    HRESULT CreateMissing(const std::string& initial);
    HRESULT ReplaceAtomically(const std::string& target, const std::string& bytes, bool& noTemporary);
    HRESULT WriteInPlace(const std::string& target, const std::string& bytes);
    int LockDescriptor();

    std::string m_path;
    CFileIdentity m_known;
    int m_lockFd = -1;
    pid_t m_lockOwner = 0;
    // Whether this process has cleared away the temporary files of writers
    // that were killed; once is enough.
    bool m_bSwept = false;
};

#endif
