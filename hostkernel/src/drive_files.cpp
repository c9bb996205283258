// Host kernel runtime, I/O area: files on drives.
//
// A kernel path "\??\C:\dir\name" names a file on drive C:. Each drive letter
// the host program mapped (HkSetDriveDirectory) is a directory of the host;
// drive C: starts out mapped to a directory in the build tree. Components are
// looked up without regard to case, as on a Windows volume, and a name that
// does not exist yet is created with the spelling the caller gave.
//
// An open file is an object of its own type ("DiskFile") behind the handle:
// the host descriptor, the access granted, the share access given and the
// current position of a synchronous file. Share access is checked between
// every open of the same host file, as the I/O manager does.
//
// Writes go through a cache of each open file, as they go through the system
// cache: they reach the host file when the cache is full, before a write that
// does not follow the cached bytes, when the last handle closes, and when a
// thread that wrote blocks in a wait, finishes a work item or ends
// (FlushThreadFileWrites). So a writer that records many small pieces costs
// one host write per cacheful, and a host program reading the file sees
// everything written before the writer went idle. A host write that fails
// after the caller was told of success is reported by the file's next write.
#include "io_internal.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <new>

#ifndef HK_DEFAULT_DRIVE_C_DIRECTORY
#define HK_DEFAULT_DRIVE_C_DIRECTORY "drive-c"
#endif

namespace hk {

const char kDiskFileTypeName[] = "DiskFile";

namespace {

// Rights that count as reading, writing and deleting for the share check.
constexpr ACCESS_MASK kReadRights = FILE_READ_DATA | FILE_EXECUTE;
constexpr ACCESS_MASK kWriteRights = FILE_WRITE_DATA | FILE_APPEND_DATA;
constexpr ACCESS_MASK kDeleteRights = DELETE;

struct FileIdentity {
    dev_t device;
    ino_t inode;
    bool operator<(const FileIdentity &other) const
    {
        return device != other.device ? device < other.device : inode < other.inode;
    }
};

// One open of a host file, as the share check sees it.
struct ShareEntry {
    const void *owner;
    ACCESS_MASK access;
    ULONG share;
};

constexpr size_t kFileCacheSize = 64 * 1024;

NTSTATUS StatusOfErrno(int error);

struct DiskFile {
    int descriptor = -1;
    ACCESS_MASK access = 0;
    bool synchronous = false;
    FileIdentity identity{};
    std::mutex lock; // guards what follows
    long long position = 0;
    char *cache = nullptr;       // kFileCacheSize bytes once written to
    long long cacheOffset = 0;   // where the cached bytes go in the file
    size_t cached = 0;
    bool listed = false;         // on a writing thread's list, which holds a reference
    NTSTATUS deferredError = STATUS_SUCCESS;
};

// Writes the cached bytes to the host file. Caller holds file->lock.
void FlushCache(DiskFile *file)
{
    size_t written = 0;
    while (written < file->cached && file->descriptor >= 0) {
        ssize_t count = pwrite(file->descriptor, file->cache + written, file->cached - written,
                               file->cacheOffset + static_cast<long long>(written));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0) {
            file->deferredError = count < 0 ? StatusOfErrno(errno) : STATUS_DISK_FULL;
            break;
        }
        written += static_cast<size_t>(count);
    }
    file->cached = 0;
}

// The files a thread wrote to since it last went idle, each referenced.
struct ThreadWrites {
    std::vector<DiskFile *> files;
    ~ThreadWrites() { Flush(); }
    void Flush()
    {
        std::vector<DiskFile *> taken;
        taken.swap(files);
        for (DiskFile *file : taken) {
            {
                std::lock_guard<std::mutex> guard(file->lock);
                FlushCache(file);
                file->listed = false;
            }
            ObfDereferenceObject(file);
        }
    }
};

thread_local ThreadWrites tWrites;

struct Drives {
    std::mutex lock;
    std::string directory[26];
    bool defaultApplied = false;
    // Opens of every host file that has one, for the share check; guarded by lock.
    std::map<FileIdentity, std::vector<ShareEntry>> opens;
    ULONG openCount = 0;
};

Drives &DriveState()
{
    static Drives *drives = new Drives();
    return *drives;
}

// Creates a directory and its parents. Caller holds no lock.
bool MakeDirectories(const std::string &path)
{
    if (path.empty())
        return false;
    std::string partial;
    size_t start = 0;
    while (start <= path.size()) {
        size_t slash = path.find('/', start);
        if (slash == std::string::npos)
            slash = path.size();
        partial = path.substr(0, slash);
        if (!partial.empty() && mkdir(partial.c_str(), 0777) != 0 && errno != EEXIST)
            return false;
        start = slash + 1;
    }
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The host directory of a drive letter ('C', 'c'), or "" when unmapped. Takes the lock.
std::string DriveDirectory(char16_t letter)
{
    Drives &drives = DriveState();
    if (letter >= u'a' && letter <= u'z')
        letter = static_cast<char16_t>(letter - u'a' + u'A');
    if (letter < u'A' || letter > u'Z')
        return std::string();
    std::lock_guard<std::mutex> guard(drives.lock);
    if (!drives.defaultApplied) {
        drives.defaultApplied = true;
        drives.directory['C' - 'A'] = HK_DEFAULT_DRIVE_C_DIRECTORY;
    }
    return drives.directory[letter - u'A'];
}

// The generic rights folded into the specific ones of a file.
ACCESS_MASK FileRights(ACCESS_MASK access)
{
    if (access & GENERIC_ALL)
        access |= FILE_ALL_ACCESS;
    if (access & GENERIC_READ)
        access |= FILE_READ_DATA | FILE_READ_ATTRIBUTES | FILE_READ_EA | READ_CONTROL | SYNCHRONIZE;
    if (access & GENERIC_WRITE)
        access |= FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_WRITE_ATTRIBUTES | FILE_WRITE_EA | READ_CONTROL |
                  SYNCHRONIZE;
    if (access & GENERIC_EXECUTE)
        access |= FILE_EXECUTE | FILE_READ_ATTRIBUTES | READ_CONTROL | SYNCHRONIZE;
    return access & ~(GENERIC_ALL | GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE);
}

// The share check of one more open against the opens of the same file. Caller holds the lock.
bool ShareAllows(const std::vector<ShareEntry> &opens, ACCESS_MASK access, ULONG share)
{
    bool read = (access & kReadRights) != 0;
    bool write = (access & kWriteRights) != 0;
    bool erase = (access & kDeleteRights) != 0;
    if (!read && !write && !erase)
        return true; // an open for attributes only takes part in no share check
    for (const ShareEntry &open : opens) {
        bool openRead = (open.access & kReadRights) != 0;
        bool openWrite = (open.access & kWriteRights) != 0;
        bool openErase = (open.access & kDeleteRights) != 0;
        if (!openRead && !openWrite && !openErase)
            continue;
        if ((read && !(open.share & FILE_SHARE_READ)) || (write && !(open.share & FILE_SHARE_WRITE)) ||
            (erase && !(open.share & FILE_SHARE_DELETE)))
            return false;
        if ((openRead && !(share & FILE_SHARE_READ)) || (openWrite && !(share & FILE_SHARE_WRITE)) ||
            (openErase && !(share & FILE_SHARE_DELETE)))
            return false;
    }
    return true;
}

void RemoveShareEntry(const FileIdentity &identity, const void *owner)
{
    Drives &drives = DriveState();
    std::lock_guard<std::mutex> guard(drives.lock);
    auto it = drives.opens.find(identity);
    if (it == drives.opens.end())
        return;
    std::vector<ShareEntry> &entries = it->second;
    for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
        if (entry->owner == owner) {
            entries.erase(entry);
            break;
        }
    }
    if (entries.empty())
        drives.opens.erase(it);
    drives.openCount--;
}

// Last handle closed: the host descriptor goes and the open leaves the share check.
void OnLastDiskFileHandle(void *body)
{
    DiskFile *file = static_cast<DiskFile *>(body);
    {
        std::lock_guard<std::mutex> guard(file->lock);
        FlushCache(file);
    }
    if (file->descriptor >= 0) {
        close(file->descriptor);
        file->descriptor = -1;
        RemoveShareEntry(file->identity, file);
    }
}

void DeleteDiskFile(void *body)
{
    OnLastDiskFileHandle(body);
    DiskFile *file = static_cast<DiskFile *>(body);
    delete[] file->cache;
    file->~DiskFile();
}

// UTF-16 to UTF-8 (unpaired surrogates refused).
bool AppendUtf8(std::string *out, const Name &text)
{
    for (size_t i = 0; i < text.size(); ++i) {
        uint32_t c = text[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            return false;
        }
        if (c < 0x80) {
            out->push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            out->push_back(static_cast<char>(0xC0 | (c >> 6)));
            out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            out->push_back(static_cast<char>(0xE0 | (c >> 12)));
            out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            out->push_back(static_cast<char>(0xF0 | (c >> 18)));
            out->push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
            out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return true;
}

// A component a Windows volume accepts: not empty, not "." or "..", none of <>:"/|?* or controls.
bool ValidComponent(const Name &component)
{
    if (component.empty() || component == u"." || component == u"..")
        return false;
    for (char16_t c : component) {
        if (c < 0x20 || c == u'<' || c == u'>' || c == u':' || c == u'"' || c == u'/' || c == u'|' || c == u'?' ||
            c == u'*')
            return false;
    }
    return true;
}

bool SameIgnoringCase(const std::string &a, const std::string &b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i) {
        char x = a[i], y = b[i];
        if (x >= 'a' && x <= 'z')
            x = static_cast<char>(x - 'a' + 'A');
        if (y >= 'a' && y <= 'z')
            y = static_cast<char>(y - 'a' + 'A');
        if (x != y)
            return false;
    }
    return true;
}

// The entry of `directory` spelt `name`, exactly or (caseInsensitive) ignoring ASCII case; "" when none.
std::string FindEntry(const std::string &directory, const std::string &name, bool caseInsensitive)
{
    struct stat info;
    if (lstat((directory + "/" + name).c_str(), &info) == 0)
        return name;
    if (!caseInsensitive)
        return std::string();
    DIR *dir = opendir(directory.c_str());
    if (dir == nullptr)
        return std::string();
    std::string found;
    while (struct dirent *entry = readdir(dir)) {
        if (SameIgnoringCase(entry->d_name, name)) {
            found = entry->d_name;
            break;
        }
    }
    closedir(dir);
    return found;
}

NTSTATUS StatusOfErrno(int error)
{
    switch (error) {
    case ENOENT:
        return STATUS_OBJECT_PATH_NOT_FOUND;
    case EEXIST:
        return STATUS_OBJECT_NAME_COLLISION;
    case EACCES:
    case EPERM:
    case EROFS:
        return STATUS_ACCESS_DENIED;
    case ENOSPC:
    case EDQUOT:
        return STATUS_DISK_FULL;
    case EISDIR:
        return STATUS_FILE_IS_A_DIRECTORY;
    case ENOTDIR:
        return STATUS_OBJECT_PATH_NOT_FOUND;
    case ENAMETOOLONG:
        return STATUS_OBJECT_NAME_INVALID;
    default:
        return STATUS_UNSUCCESSFUL;
    }
}

} // namespace

// Whether `path` names a file on a drive ("\??\X:\..." after the directory aliases are unified),
// and if so its letter and the rest of the path from the backslash after the colon.
bool DrivePathOf(const Name &path, char16_t *letter, Name *rest)
{
    Name key = UpcaseName(path);
    static const Name prefixes[] = {u"\\??\\", u"\\DOSDEVICES\\", u"\\GLOBAL??\\"};
    for (const Name &prefix : prefixes) {
        if (key.size() < prefix.size() + 2 || key.compare(0, prefix.size(), prefix) != 0)
            continue;
        char16_t drive = key[prefix.size()];
        if (drive < u'A' || drive > u'Z' || key[prefix.size() + 1] != u':')
            return false;
        *letter = drive;
        *rest = path.substr(prefix.size() + 2);
        return true;
    }
    return false;
}

// ZwCreateFile for a path on a drive; the caller checked the IRQL and the arguments.
NTSTATUS DriveCreateFile(char16_t Letter, const Name &Rest, PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                         ULONG Attributes, PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess,
                         ULONG CreateDisposition, ULONG CreateOptions)
{
    if (CreateOptions & FILE_DIRECTORY_FILE) {
        VerifierError("ZwCreateFile: directories on a drive are not supported by the host runtime");
        return STATUS_NOT_IMPLEMENTED;
    }
    ACCESS_MASK access = FileRights(DesiredAccess);
    bool synchronous = (CreateOptions & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT)) != 0;
    if (synchronous && !(access & SYNCHRONIZE))
        return STATUS_INVALID_PARAMETER;
    if ((CreateOptions & FILE_SYNCHRONOUS_IO_ALERT) && (CreateOptions & FILE_SYNCHRONOUS_IO_NONALERT))
        return STATUS_INVALID_PARAMETER;
    if (CreateDisposition > FILE_MAXIMUM_DISPOSITION)
        return STATUS_INVALID_PARAMETER;

    std::string directory = DriveDirectory(Letter);
    if (directory.empty())
        return STATUS_OBJECT_PATH_NOT_FOUND;
    if (!MakeDirectories(directory))
        return STATUS_OBJECT_PATH_NOT_FOUND;

    // "\dir\name": every component valid, every directory on the way existing.
    if (Rest.empty() || Rest[0] != u'\\')
        return STATUS_OBJECT_NAME_INVALID;
    std::vector<Name> components;
    size_t start = 1;
    for (;;) {
        size_t slash = Rest.find(u'\\', start);
        Name component = Rest.substr(start, slash == Name::npos ? Name::npos : slash - start);
        if (slash == Name::npos && component.empty() && components.empty())
            return STATUS_FILE_IS_A_DIRECTORY; // the root of the drive
        if (!ValidComponent(component))
            return STATUS_OBJECT_NAME_INVALID;
        components.push_back(component);
        if (slash == Name::npos)
            break;
        start = slash + 1;
    }
    bool caseInsensitive = (Attributes & OBJ_CASE_INSENSITIVE) != 0;
    std::string host = directory;
    for (size_t i = 0; i < components.size(); ++i) {
        std::string name;
        if (!AppendUtf8(&name, components[i]))
            return STATUS_OBJECT_NAME_INVALID;
        std::string found = FindEntry(host, name, caseInsensitive);
        bool last = i + 1 == components.size();
        if (!last) {
            struct stat info;
            if (found.empty() || stat((host + "/" + found).c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
                return STATUS_OBJECT_PATH_NOT_FOUND;
        }
        host += "/" + (found.empty() ? name : found);
    }

    Drives &drives = DriveState();
    std::lock_guard<std::mutex> guard(drives.lock);
    struct stat info;
    bool exists = stat(host.c_str(), &info) == 0;
    if (exists && S_ISDIR(info.st_mode))
        return STATUS_FILE_IS_A_DIRECTORY;
    if (exists && !S_ISREG(info.st_mode))
        return STATUS_ACCESS_DENIED;
    ULONG_PTR information = FILE_OPENED;
    bool truncate = false;
    switch (CreateDisposition) {
    case FILE_SUPERSEDE:
        information = exists ? FILE_SUPERSEDED : FILE_CREATED;
        truncate = exists;
        break;
    case FILE_OPEN:
        if (!exists)
            return STATUS_OBJECT_NAME_NOT_FOUND;
        information = FILE_OPENED;
        break;
    case FILE_CREATE:
        if (exists) {
            if (IoStatusBlock != nullptr) {
                IoStatusBlock->Status = STATUS_OBJECT_NAME_COLLISION;
                IoStatusBlock->Information = FILE_EXISTS;
            }
            return STATUS_OBJECT_NAME_COLLISION;
        }
        information = FILE_CREATED;
        break;
    case FILE_OPEN_IF:
        information = exists ? FILE_OPENED : FILE_CREATED;
        break;
    case FILE_OVERWRITE:
        if (!exists)
            return STATUS_OBJECT_NAME_NOT_FOUND;
        information = FILE_OVERWRITTEN;
        truncate = true;
        break;
    default: // FILE_OVERWRITE_IF
        information = exists ? FILE_OVERWRITTEN : FILE_CREATED;
        truncate = exists;
        break;
    }
    if (exists) {
        FileIdentity identity{info.st_dev, info.st_ino};
        auto it = drives.opens.find(identity);
        if (it != drives.opens.end() && !ShareAllows(it->second, access, ShareAccess))
            return STATUS_SHARING_VIOLATION;
    }

    int flags = O_CLOEXEC | O_RDWR | (exists ? 0 : O_CREAT | O_EXCL) | (truncate ? O_TRUNC : 0);
    int descriptor = open(host.c_str(), flags, 0666);
    if (descriptor < 0 && errno == EACCES && !truncate && !(access & kWriteRights))
        descriptor = open(host.c_str(), O_CLOEXEC | O_RDONLY);
    if (descriptor < 0)
        return StatusOfErrno(errno);
    if (fstat(descriptor, &info) != 0) {
        close(descriptor);
        return STATUS_UNSUCCESSFUL;
    }

    void *body = ObjectCreate(sizeof(DiskFile), kDiskFileTypeName, DeleteDiskFile);
    if (body == nullptr) {
        close(descriptor);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    DiskFile *file = new (body) DiskFile();
    file->descriptor = descriptor;
    file->access = access;
    file->synchronous = synchronous;
    file->identity = FileIdentity{info.st_dev, info.st_ino};
    drives.opens[file->identity].push_back(ShareEntry{file, access, ShareAccess});
    drives.openCount++;
    ObjectSetLastHandleProcedure(body, OnLastDiskFileHandle);

    HANDLE handle = (Attributes & OBJ_KERNEL_HANDLE) ? ObjectInsertHandle(body) : ObjectInsertUserHandle(body, access);
    ObfDereferenceObject(body); // the handle holds the file now
    if (handle == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    *FileHandle = handle;
    if (IoStatusBlock != nullptr) {
        IoStatusBlock->Status = STATUS_SUCCESS;
        IoStatusBlock->Information = information;
    }
    return STATUS_SUCCESS;
}

// ZwWriteFile on an open drive file (`body`, referenced by the caller).
NTSTATUS DriveWriteFile(void *body, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                        PLARGE_INTEGER ByteOffset)
{
    DiskFile *file = static_cast<DiskFile *>(body);
    if (!(file->access & kWriteRights))
        return STATUS_ACCESS_DENIED;
    bool appendOnly = !(file->access & FILE_WRITE_DATA);
    bool useCurrent = ByteOffset == nullptr ||
                      (ByteOffset->HighPart == -1 && ByteOffset->LowPart == FILE_USE_FILE_POINTER_POSITION);
    bool toEnd = appendOnly ||
                 (ByteOffset != nullptr && ByteOffset->HighPart == -1 && ByteOffset->LowPart == FILE_WRITE_TO_END_OF_FILE);
    if (useCurrent && !file->synchronous && !toEnd)
        return STATUS_INVALID_PARAMETER;
    if (!useCurrent && !toEnd && ByteOffset->QuadPart < 0)
        return STATUS_INVALID_PARAMETER;
    if (Buffer == nullptr && Length != 0)
        return STATUS_INVALID_USER_BUFFER;

    std::lock_guard<std::mutex> guard(file->lock);
    NTSTATUS status = file->deferredError;
    file->deferredError = STATUS_SUCCESS;
    off_t offset;
    if (toEnd) {
        FlushCache(file);
        struct stat info;
        if (fstat(file->descriptor, &info) != 0)
            return STATUS_UNSUCCESSFUL;
        offset = info.st_size;
    } else {
        offset = useCurrent ? file->position : ByteOffset->QuadPart;
    }
    ULONG written = 0;
    if (NT_SUCCESS(status)) {
        if (file->cached != 0 && (offset != file->cacheOffset + static_cast<long long>(file->cached) ||
                                  Length > kFileCacheSize - file->cached))
            FlushCache(file);
        if (file->cache == nullptr && Length < kFileCacheSize)
            file->cache = new (std::nothrow) char[kFileCacheSize];
        if (file->cache != nullptr && Length <= kFileCacheSize - file->cached) {
            if (file->cached == 0)
                file->cacheOffset = offset;
            if (Length != 0)
                std::memcpy(file->cache + file->cached, Buffer, Length);
            file->cached += Length;
            written = Length;
            if (!file->listed) {
                file->listed = true;
                ObfReferenceObject(file);
                tWrites.files.push_back(file);
            }
        } else {
            const char *data = static_cast<const char *>(Buffer);
            while (written < Length) {
                ssize_t count = pwrite(file->descriptor, data + written, Length - written, offset + written);
                if (count < 0 && errno == EINTR)
                    continue;
                if (count <= 0) {
                    status = count < 0 ? StatusOfErrno(errno) : STATUS_DISK_FULL;
                    break;
                }
                written += static_cast<ULONG>(count);
            }
        }
    }
    if (file->synchronous)
        file->position = offset + written;
    if (IoStatusBlock != nullptr) {
        IoStatusBlock->Status = status;
        IoStatusBlock->Information = written;
    }
    return status;
}

void FlushThreadFileWrites()
{
    if (!tWrites.files.empty())
        tWrites.Flush();
}

} // namespace hk

using namespace hk;

extern "C" {

// Maps a drive letter to a host directory (created when missing). Any thread.
NTSTATUS HkSetDriveDirectory(char Drive, const char *HostDirectory)
{
    if (Drive >= 'a' && Drive <= 'z')
        Drive = static_cast<char>(Drive - 'a' + 'A');
    if (Drive < 'A' || Drive > 'Z')
        return STATUS_INVALID_PARAMETER;
    std::string directory = HostDirectory != nullptr ? HostDirectory : "";
    while (directory.size() > 1 && directory.back() == '/')
        directory.pop_back();
    if (!directory.empty() && !MakeDirectories(directory))
        return STATUS_OBJECT_PATH_NOT_FOUND;
    Drives &drives = DriveState();
    std::lock_guard<std::mutex> guard(drives.lock);
    if (!drives.defaultApplied) {
        drives.defaultApplied = true;
        drives.directory['C' - 'A'] = HK_DEFAULT_DRIVE_C_DIRECTORY;
    }
    drives.directory[Drive - 'A'] = directory;
    return STATUS_SUCCESS;
}

SIZE_T HkGetDriveDirectory(char Drive, char *Buffer, SIZE_T BufferSize)
{
    std::string directory = DriveDirectory(static_cast<char16_t>(static_cast<unsigned char>(Drive)));
    if (directory.empty() || Buffer == nullptr || BufferSize <= directory.size())
        return 0;
    std::memcpy(Buffer, directory.c_str(), directory.size() + 1);
    return directory.size();
}

ULONG HkOpenDriveFileCount(void)
{
    Drives &drives = DriveState();
    std::lock_guard<std::mutex> guard(drives.lock);
    return drives.openCount;
}

} // extern "C"
