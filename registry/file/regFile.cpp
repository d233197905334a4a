// The registry's file on disk.
//
// A save writes the whole new document into a temporary file beside the
// old one, syncs it and renames it over the old one: readers, which take no
// lock, always find a whole old or a whole new document, and a crash or a
// full disk leaves the old one in place. Before the rename the old document
// is hard-linked to "<file>.bak".
#include "regFile.h"

#include "regImage.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <cstdlib>
#include <ctime>

namespace {

// The file a save replaces: a symbolic link stays a link, and its target
// gets the new content.
bool SaveTarget(const std::string& path, std::string& target) {
    struct stat info;
    if (lstat(path.c_str(), &info) != 0 || !S_ISLNK(info.st_mode)) {
        target = path;
        return true;
    }
    char* resolved = realpath(path.c_str(), nullptr);
    if (!resolved) return false;
    target = resolved;
    std::free(resolved);
    return true;
}

std::string DirectoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string BaseNameOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Opens a new file beside `path` under a name no other save uses,
// "<dir>/.<name>.<pid>.<n>". The umask gives it its permission bits, as it
// would any new file.
int CreateTemporary(const std::string& path, std::string& temporary) {
    static std::atomic<unsigned long> s_nNext{0};
    const std::string prefix =
        DirectoryOf(path) + "/." + BaseNameOf(path) + "." + std::to_string(getpid()) + ".";
    for (int attempt = 0; attempt < 100; ++attempt) {
        temporary = prefix + std::to_string(s_nNext++);
        const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0 || errno != EEXIST) return fd;
    }
    return -1;
}

bool WriteAll(int fd, std::string_view bytes, off_t offset) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = pwrite(fd, bytes.data() + done, bytes.size() - done, offset + done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// Writes in pieces of 64 kB. The page cache keeps a file in blocks no
// larger than the writes that made them, and a fault on a mapping maps the
// whole block around it: a reader of an image written in one piece would
// map a megabyte for each look-up.
bool WriteInPieces(int fd, std::string_view bytes, off_t offset) {
    const size_t kPiece = size_t(1) << 16;
    for (size_t done = 0; done < bytes.size(); done += kPiece) {
        if (!WriteAll(fd, bytes.substr(done, kPiece), offset + static_cast<off_t>(done))) return false;
    }
    return true;
}

// A full disk often shows first at close, so its result counts too. The
// descriptor is closed whatever happens.
bool SyncAndClose(int fd, struct stat& written) {
    const bool synced = fsync(fd) == 0 && fstat(fd, &written) == 0;
    return close(fd) == 0 && synced;
}

// A writer killed in the middle of a save leaves its temporary file behind.
// Under the writers' lock no living process is saving, so the files of
// processes that are gone can go too.
void RemoveAbandonedTemporaries(const std::string& target) {
    const std::string directory = DirectoryOf(target);
    const std::string prefix = "." + BaseNameOf(target) + ".";
    DIR* dir = opendir(directory.c_str());
    if (!dir) return;
    while (const dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.compare(0, prefix.size(), prefix) != 0) continue;
        char* end = nullptr;
        const long pid = std::strtol(name.c_str() + prefix.size(), &end, 10);
        if (end == name.c_str() + prefix.size() || *end != '.' || pid <= 0) continue;
        if (kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH)
            unlink((directory + "/" + name).c_str());
    }
    closedir(dir);
}

// The rename itself is on disk only once the directory is. Past the rename
// the new document is in place, so a failure here cannot undo it and is
// not reported.
void SyncDirectory(const std::string& directory) {
    const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    fsync(fd);
    close(fd);
}

// The last good document stays at hand as "<file>.bak". Linked under a
// temporary name first, so that an older backup is replaced in one step.
// Where the file system has no hard links, there is no backup.
// A rename between two links of one file does nothing, and leaves the
// staging link behind: when an interrupted save already made the backup of
// this very document, for one. So the staging name always goes at the end.
void KeepBackup(const std::string& target, const std::string& temporary) {
    const std::string staging = temporary + ".bak";
    if (link(target.c_str(), staging.c_str()) != 0) return;
    rename(staging.c_str(), (target + ".bak").c_str());
    unlink(staging.c_str());
}

// The replacement keeps the old file's owner where this process may give
// it away; changing the owner clears the set-id bits, so it goes first.
void CopyOwnerAndMode(int fd, const struct stat& original) {
    if ((original.st_uid != geteuid() || original.st_gid != getegid()) &&
        fchown(fd, original.st_uid, original.st_gid) != 0) {
        // Not privileged: the file stays this process's own.
    }
    if (fchmod(fd, original.st_mode & 07777) != 0) {
        // The bits the umask gave stay.
    }
}

// The lock file beside the file a save replaces; empty when a link cannot be
// followed.
std::string LockPathOf(const std::string& path) {
    std::string target;
    return SaveTarget(path, target) ? target + ".lock" : std::string();
}

// Good to a few milliseconds, and read without a system call.
int64_t CoarseMilliseconds() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

CFileStamp CFileStamp::Of(const struct stat& info) {
    CFileStamp stamp;
    stamp.device = info.st_dev;
    stamp.inode = info.st_ino;
    stamp.size = info.st_size;
    stamp.modifiedSeconds = info.st_mtim.tv_sec;
    stamp.modifiedNanoseconds = info.st_mtim.tv_nsec;
    stamp.changedSeconds = info.st_ctim.tv_sec;
    stamp.changedNanoseconds = info.st_ctim.tv_nsec;
    return stamp;
}

bool CFileStamp::operator==(const CFileStamp& other) const {
    return device == other.device && inode == other.inode && size == other.size &&
           modifiedSeconds == other.modifiedSeconds &&
           modifiedNanoseconds == other.modifiedNanoseconds && changedSeconds == other.changedSeconds &&
           changedNanoseconds == other.changedNanoseconds;
}

CRegistryFile::~CRegistryFile() {
    if (m_lockFd >= 0) close(m_lockFd);
    UnmapSaveCounter(m_pSaveCounter);
}

// The mapping outlives the descriptor. A lock file this process may not
// write still tells it of the saves of others.
void CRegistryFile::MapCounter() {
    const std::string path = LockPathOf(m_path);
    if (path.empty()) return;
    m_bCounterWritable = true;
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) {
        m_bCounterWritable = false;
        fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    }
    if (fd < 0) return;
    m_pSaveCounter = MapSaveCounter(fd, m_bCounterWritable);
    close(fd);
}

HRESULT CRegistryFile::Read(std::string& content, const std::string& initial) {
    if (!m_pSaveCounter) MapCounter();
    // Taken before the file is read: a save counted later is looked at again.
    const uint64_t saves = m_pSaveCounter ? ReadSaveCounter(m_pSaveCounter) : 0;
    int fd = open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        // Only a missing file is made anew; one that is there but cannot be
        // opened is never overwritten.
        if (errno != ENOENT) return E_FAIL;
        const HRESULT hr = CreateMissing(initial);
        if (FAILED(hr)) return hr;
        fd = open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return E_FAIL;
    }
    // Looked at before the read, so that a change made while it reads makes
    // the file look changed; and the room for the whole file is made at
    // once, since growing by appends would copy a large registry over and
    // over.
    struct stat info;
    if (fstat(fd, &info) != 0) {
        close(fd);
        return E_FAIL;
    }
    content.clear();
    content.reserve(static_cast<size_t>(info.st_size));
    char chunk[1 << 16];
    ssize_t n;
    while ((n = read(fd, chunk, sizeof chunk)) != 0) {
        if (n < 0 && errno == EINTR) continue;
        // A directory opens but cannot be read.
        if (n < 0) break;
        content.append(chunk, static_cast<size_t>(n));
    }
    close(fd);
    if (n != 0) return E_FAIL;
    Looked(info, saves);
    m_readStamp = CFileStamp::Of(info);
    return S_OK;
}

// One lstat serves both ends where the path is no link, as it nearly always is.
bool CRegistryFile::Look(CFileStamp& stamp, std::string& image) {
    const uint64_t saves = m_pSaveCounter ? ReadSaveCounter(m_pSaveCounter) : 0;
    struct stat info;
    if (lstat(m_path.c_str(), &info) != 0) return false;
    if (S_ISLNK(info.st_mode)) {
        image = ImagePath();
        if (image.empty() || stat(m_path.c_str(), &info) != 0) return false;
    } else {
        image = RegistryImage::PathFor(m_path);
    }
    if (!S_ISREG(info.st_mode)) return false;
    Looked(info, saves);
    stamp = CFileStamp::Of(info);
    return true;
}

bool CRegistryFile::Stamp(CFileStamp& stamp) const {
    struct stat info;
    if (stat(m_path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
    stamp = CFileStamp::Of(info);
    return true;
}

void CRegistryFile::Looked(const struct stat& info, uint64_t saves) {
    m_known = CFileStamp::Of(info);
    m_nSavesSeen = saves;
    m_nLookedAt = CoarseMilliseconds();
}

// Made under a temporary name and linked into place, which fails rather than
// replace a file that another process made meanwhile.
HRESULT CRegistryFile::CreateMissing(const std::string& initial) {
    std::string temporary;
    const int fd = CreateTemporary(m_path, temporary);
    if (fd < 0) return REGDB_E_WRITEREGDB;
    struct stat written;
    const bool wrote = WriteAll(fd, initial, 0);
    const bool complete = SyncAndClose(fd, written) && wrote;
    const bool linked = complete && (link(temporary.c_str(), m_path.c_str()) == 0 || errno == EEXIST);
    unlink(temporary.c_str());
    if (!linked) return REGDB_E_WRITEREGDB;
    SyncDirectory(DirectoryOf(m_path));
    SignalSave();
    return S_OK;
}

bool CRegistryFile::Changed() const {
    struct stat info;
    if (stat(m_path.c_str(), &info) != 0) return true;
    return !m_known || CFileStamp::Of(info) != *m_known;
}

bool CRegistryFile::Outdated() {
    // A process that only looks the file up once, as one that makes a single
    // activation does, never maps the counter: a reader maps it at its
    // second look, and trusts it from then on.
    if (!m_pSaveCounter && !m_bCounterTried) {
        m_bCounterTried = m_bLookedBefore;
        m_bLookedBefore = true;
        if (m_bCounterTried) MapCounter();
        if (m_pSaveCounter) {
            m_nSavesSeen = ReadSaveCounter(m_pSaveCounter);
            m_nLookedAt = CoarseMilliseconds();
        }
        return Changed();
    }
    if (m_pSaveCounter) {
        const uint64_t saves = ReadSaveCounter(m_pSaveCounter);
        const int64_t now = CoarseMilliseconds();
        if (saves == m_nSavesSeen && now - m_nLookedAt < s_nRecheckMilliseconds) return false;
        m_nSavesSeen = saves;
        m_nLookedAt = now;
    }
    return Changed();
}

void CRegistryFile::SignalSave() {
    if (m_pSaveCounter && m_bCounterWritable) RaiseSaveCounter(m_pSaveCounter);
}

HRESULT CRegistryFile::Write(std::string_view bytes, CFileStamp& written) {
    std::string target;
    if (!SaveTarget(m_path, target)) return REGDB_E_WRITEREGDB;
    if (!m_bSwept) {
        RemoveAbandonedTemporaries(target);
        RemoveAbandonedTemporaries(RegistryImage::PathFor(target));
        m_bSwept = true;
    }
    bool noTemporary = false;
    const HRESULT hr = ReplaceAtomically(target, bytes, true, noTemporary, written);
    // A directory that takes no new file, holding a file that may be
    // written: the only way left is in place.
    if (noTemporary && access(target.c_str(), W_OK) == 0) return WriteInPlace(target, bytes, written);
    return hr;
}

bool CRegistryFile::WriteImage(std::string_view header, std::string_view records, CImageFile& written) {
    const std::string path = ImagePath();
    if (path.empty()) return false;
    std::string temporary;
    const int fd = CreateTemporary(path, temporary);
    if (fd < 0) return false;
    struct stat info;
    const bool complete = WriteAll(fd, header, 0) &&
                          WriteInPieces(fd, records, static_cast<off_t>(header.size())) &&
                          fstat(fd, &info) == 0;
    if (close(fd) == 0 && complete && rename(temporary.c_str(), path.c_str()) == 0) {
        written = {static_cast<uint64_t>(info.st_ino), static_cast<uint64_t>(info.st_size)};
        return true;
    }
    unlink(temporary.c_str());
    return false;
}

// Readers that mapped the image before see none of this: they follow the
// slot they read, and what it names stays as it was.
bool CRegistryFile::AppendImage(CImageFile& image, std::string_view records, std::string_view slot,
                                size_t slotOffset) {
    const std::string path = ImagePath();
    const int fd = path.empty() ? -1 : open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat info;
    const bool same = fstat(fd, &info) == 0 && static_cast<uint64_t>(info.st_ino) == image.inode &&
                      static_cast<uint64_t>(info.st_size) == image.size;
    const bool written = same && WriteInPieces(fd, records, static_cast<off_t>(image.size)) &&
                         WriteAll(fd, slot, static_cast<off_t>(slotOffset));
    if (close(fd) != 0 || !written) return false;
    image.size += records.size();
    return true;
}

bool CRegistryFile::Target(std::string& target) const { return SaveTarget(m_path, target); }

std::string CRegistryFile::ImagePath() const {
    std::string target;
    return SaveTarget(m_path, target) ? RegistryImage::PathFor(target) : std::string();
}

HRESULT CRegistryFile::Restore(std::string_view bytes) {
    std::string target;
    if (!Target(target)) return REGDB_E_WRITEREGDB;
    bool noTemporary = false;
    CFileStamp written;
    const HRESULT hr = ReplaceAtomically(target, bytes, false, noTemporary, written);
    if (FAILED(hr)) return hr;
    // Running processes read the restored file at their next Open.
    if (!m_pSaveCounter) MapCounter();
    SignalSave();
    return hr;
}

HRESULT CRegistryFile::ReplaceAtomically(const std::string& target, std::string_view bytes,
                                         bool keepBackup, bool& noTemporary, CFileStamp& stamp) {
    struct stat original;
    const bool exists = stat(target.c_str(), &original) == 0;
    std::string temporary;
    const int fd = CreateTemporary(target, temporary);
    if (fd < 0) {
        noTemporary = true;
        return REGDB_E_WRITEREGDB;
    }
    if (exists) CopyOwnerAndMode(fd, original);
    // The rename moves the file's change time: its stamp is taken after it,
    // through a descriptor that outlives the checked close.
    const int kept = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    struct stat written;
    const bool wrote = WriteAll(fd, bytes, 0);
    const bool complete = SyncAndClose(fd, written) && wrote && kept >= 0;
    if (complete && exists && keepBackup) KeepBackup(target, temporary);
    if (!complete || rename(temporary.c_str(), target.c_str()) != 0) {
        if (kept >= 0) close(kept);
        unlink(temporary.c_str());
        return REGDB_E_WRITEREGDB;
    }
    SyncDirectory(DirectoryOf(target));
    // Should this look fail, the stamp from before the rename makes the next
    // look find the file changed, and read it again: no harm done.
    fstat(kept, &written);
    close(kept);
    stamp = CFileStamp::Of(written);
    m_known = stamp;
    return S_OK;
}

// The space is reserved first, so that a full disk or a size limit fails
// before the old content is touched. A crash in the middle of this write
// can still damage the file: there is no other way in such a directory.
HRESULT CRegistryFile::WriteInPlace(const std::string& target, std::string_view bytes,
                                    CFileStamp& stamp) {
    const int fd = open(target.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return REGDB_E_WRITEREGDB;
    struct stat before;
    if (fstat(fd, &before) != 0) {
        close(fd);
        return REGDB_E_WRITEREGDB;
    }
    if (posix_fallocate(fd, 0, static_cast<off_t>(bytes.size())) != 0) {
        // A reservation that failed half way may have grown the file.
        if (ftruncate(fd, before.st_size) != 0) {
            // The content itself was never touched.
        }
        close(fd);
        return REGDB_E_WRITEREGDB;
    }
    struct stat written;
    const bool wrote =
        WriteAll(fd, bytes, 0) && ftruncate(fd, static_cast<off_t>(bytes.size())) == 0;
    const bool complete = SyncAndClose(fd, written) && wrote;
    if (!complete) return REGDB_E_WRITEREGDB;
    stamp = CFileStamp::Of(written);
    m_known = stamp;
    return S_OK;
}

// Beside the file a save replaces, so that every process that reaches it,
// through a link or not, locks the same file. A lock file that cannot be
// made (a read-only directory) leaves writers unlocked.
//
// A child made by fork shares its parent's descriptor, and with it the lock
// itself: it opens one of its own.
int CRegistryFile::LockDescriptor() {
    if (m_lockFd >= 0 && m_lockOwner == getpid()) return m_lockFd;
    if (m_lockFd >= 0) close(m_lockFd);
    m_lockOwner = getpid();
    const std::string path = LockPathOf(m_path);
    if (path.empty()) return -1;
    m_lockFd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    // flock needs no write access: another user's lock file still serves.
    if (m_lockFd < 0) m_lockFd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    return m_lockFd;
}

std::string CRegistryFile::LockPath() const { return LockPathOf(m_path); }

int64_t WriterWaitMilliseconds() {
    const int64_t kDefault = 10000;
    // A longer wait is a wait without end in practice, and a deadline that far
    // ahead would overflow the clocks' arithmetic.
    const int64_t kLongest = int64_t(1000) * 60 * 60 * 24 * 365;
    const char* text = std::getenv("VELTCOM_REGISTRY_WAIT_MS");
    if (!text || !*text) return kDefault;
    char* end = nullptr;
    const long long wait = std::strtoll(text, &end, 10);
    if (*end != '\0' || wait < 0) return kDefault;
    return std::min<int64_t>(wait, kLongest);
}

// flock cannot wait with a bound, so the lock is tried again and again, the
// pause between tries growing to a few milliseconds.
CRegistryFile::CWriterLock::CWriterLock(CRegistryFile& file) : m_fd(file.LockDescriptor()) {
    if (m_fd < 0) return;
    // Not the coarse clock, which may lag by a tick and so end the wait early.
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(WriterWaitMilliseconds());
    useconds_t pause = 200;
    while (flock(m_fd, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        if (error == EINTR) continue;
        if (error != EWOULDBLOCK || std::chrono::steady_clock::now() >= deadline) {
            m_bTimedOut = error == EWOULDBLOCK;
            m_fd = -1;
            return;
        }
        usleep(pause);
        pause = std::min<useconds_t>(pause * 2, 10000);
    }
}

CRegistryFile::CWriterLock::~CWriterLock() {
    if (m_fd >= 0) flock(m_fd, LOCK_UN);
}
