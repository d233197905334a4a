// The registry's file on disk: reading it whole, replacing it atomically,
// the writers' lock that several processes share, and telling whether
// another process has replaced it since this one last read or wrote it.
#ifndef VELTCOM_REGISTRY_REGFILE_H
#define VELTCOM_REGISTRY_REGFILE_H

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <sys/mman.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "comBase.h"

// Every process of the runtime that saves the registry raises a counter kept
// in the first eight bytes of the lock file, mapped into each process that
// reads the registry. A reader compares the counter with the value it saw
// last, which costs no system call, and so learns of a save at once. Inline,
// so that the veltcom tool, which links only the shared library, raises the
// same counter.
//
// Maps the counter of the lock file open as `fd`, first making the file long
// enough when it is shorter and `writable`; null when that cannot be done.
inline uint64_t* MapSaveCounter(int fd, bool writable) {
    struct stat info;
    if (fd < 0 || fstat(fd, &info) != 0) return nullptr;
    if (info.st_size < static_cast<off_t>(sizeof(uint64_t)) &&
        (!writable || ftruncate(fd, sizeof(uint64_t)) != 0))
        return nullptr;
    void* page = mmap(nullptr, sizeof(uint64_t), writable ? PROT_READ | PROT_WRITE : PROT_READ,
                      MAP_SHARED, fd, 0);
    return page == MAP_FAILED ? nullptr : static_cast<uint64_t*>(page);
}

inline void UnmapSaveCounter(uint64_t* counter) {
    if (counter) munmap(counter, sizeof(uint64_t));
}

// Release order: whoever sees the new count also sees the file it counts.
inline void RaiseSaveCounter(uint64_t* counter) { __atomic_fetch_add(counter, 1, __ATOMIC_RELEASE); }

inline uint64_t ReadSaveCounter(const uint64_t* counter) {
    return __atomic_load_n(counter, __ATOMIC_ACQUIRE);
}

// What tells one version of the file from another, to a process and to the
// file's image. A save makes a new file; any write to a file moves its
// change time, which, unlike the modification time, no one can set back.
struct CFileStamp {
    uint64_t device = 0;
    uint64_t inode = 0;
    int64_t size = 0;
    int64_t modifiedSeconds = 0;
    int64_t modifiedNanoseconds = 0;
    int64_t changedSeconds = 0;
    int64_t changedNanoseconds = 0;

    static CFileStamp Of(const struct stat& info);
    bool operator==(const CFileStamp& other) const;
    bool operator!=(const CFileStamp& other) const { return !(*this == other); }
};

// How long a writer waits for the writers' lock, and a thread for another
// thread's transaction: VELTCOM_REGISTRY_WAIT_MS when it holds a number of
// milliseconds (at most a year's worth), otherwise 10 seconds.
int64_t WriterWaitMilliseconds();

class CRegistryFile {
public:
    // How long a process trusts the counter alone: a file replaced by other
    // means than a save of the runtime (an editor, a copy) is noticed by a
    // stat at most this long after the last one.
    static const int64_t s_nRecheckMilliseconds = 100;

    explicit CRegistryFile(std::string path) : m_path(std::move(path)) {}
    ~CRegistryFile();
    CRegistryFile(const CRegistryFile&) = delete;
    CRegistryFile& operator=(const CRegistryFile&) = delete;

    const std::string& Path() const { return m_path; }

    // Reads the whole file. A missing file is first made with `initial`, all
    // at once, so that no other process ever reads it half written. An
    // existing file that cannot be read gives E_FAIL and is left alone.
    HRESULT Read(std::string& content, const std::string& initial);

    // Looks at the file without reading it, as Read would have, but without
    // mapping the save counter: Changed and Outdated then compare with what
    // it found. `image` receives the path of its image. False when it is not
    // there.
    bool Look(CFileStamp& stamp, std::string& image);
    // The stamp of the file on disk now, with no record of having looked:
    // false when it is not there.
    bool Stamp(CFileStamp& stamp) const;

    // Whether the file on disk is not the one this process last read or
    // wrote. One stat.
    bool Changed() const;
    // As Changed, but trusting the save counter: no system call while no
    // save was counted and the last stat is recent. Without a counter (the
    // lock file cannot be made or mapped) it is Changed.
    bool Outdated();
    // Counts a save, or any other replacement of the file, for the other
    // processes.
    void SignalSave();
    // Makes the next Changed() true, after this process's copy has parted
    // from the file.
    void Forget() { m_known.reset(); }

    // Replaces the file's content, or returns REGDB_E_WRITEREGDB with the file
    // as it was. See ReplaceAtomically and WriteInPlace. `written` receives
    // the stamp of the file written.
    HRESULT Write(std::string_view bytes, CFileStamp& written);
    // The image beside the file a save replaces, as one process writes it:
    // its inode, and how many bytes it has.
    struct CImageFile {
        uint64_t inode = 0;
        uint64_t size = 0;
    };
    // Puts a new image, `header` followed by `records`, in place atomically
    // but without waiting for the disk: an image that a crash loses is
    // rebuilt. False when it cannot be written.
    bool WriteImage(std::string_view header, std::string_view records, CImageFile& written);
    // Appends `records` to the image `image` and then writes `slot` at
    // `slotOffset`; false, with nothing written, when the image on disk is no
    // longer `image`.
    bool AppendImage(CImageFile& image, std::string_view records, std::string_view slot,
                     size_t slotOffset);
    // Where that image is; empty when a link cannot be followed.
    std::string ImagePath() const;
    // The stamp of the file as Read last read it.
    const CFileStamp& ReadStamp() const { return m_readStamp; }

    // The file that saves replace: the path itself, or the file a symbolic
    // link there leads to, beside which the backup and the lock file sit.
    // False when a link cannot be followed.
    bool Target(std::string& target) const;
    // Puts `bytes` in place of the file atomically, as a save does, and counts
    // it as a save; but keeps no backup, and never writes in place. For a
    // restore, which keeps the file it replaces under a name of its own. The
    // caller holds the writers' lock.
    HRESULT Restore(std::string_view bytes);

    // The lock file beside the file a save replaces; empty when a link
    // cannot be followed.
    std::string LockPath() const;

    // Holds the lock that every process changing the registry takes, from
    // "is the file still the one I know" through the rename. Waits for it at
    // most WriterWaitMilliseconds(); a lock file that cannot be made leaves
    // the writer unlocked, as it always has.
    class CWriterLock {
    public:
        explicit CWriterLock(CRegistryFile& file);
        ~CWriterLock();
        CWriterLock(const CWriterLock&) = delete;
        CWriterLock& operator=(const CWriterLock&) = delete;

        // Another process held the lock for the whole wait: nothing may be
        // written.
        bool TimedOut() const { return m_bTimedOut; }

    private:
        int m_fd;
        bool m_bTimedOut = false;
    };

private:
    HRESULT CreateMissing(const std::string& initial);
    HRESULT ReplaceAtomically(const std::string& target, std::string_view bytes, bool keepBackup,
                              bool& noTemporary, CFileStamp& written);
    HRESULT WriteInPlace(const std::string& target, std::string_view bytes, CFileStamp& written);
    void Looked(const struct stat& info, uint64_t saves);
    int LockDescriptor();
    void MapCounter();

    std::string m_path;
    std::optional<CFileStamp> m_known;
    CFileStamp m_readStamp;
    int m_lockFd = -1;
    pid_t m_lockOwner = 0;
    // Whether this process has cleared away the temporary files of writers
    // that were killed; once is enough.
    bool m_bSwept = false;
    // Whether Outdated has looked before, and has tried to map the counter.
    bool m_bLookedBefore = false;
    bool m_bCounterTried = false;
    // The lock file's save counter, when mapped; only a writable mapping
    // can count this process's own saves.
    uint64_t* m_pSaveCounter = nullptr;
    bool m_bCounterWritable = false;
    // The count when this process last looked at the file, and when that was
    // (coarse monotonic milliseconds).
    uint64_t m_nSavesSeen = 0;
    int64_t m_nLookedAt = 0;
};

#endif
