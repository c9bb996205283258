// Host kernel runtime, bridge area: the user program's side.
//
// A process that has no device of the name it opens (it did not load the
// drivers) carries its Win32 calls to the daemon at the bridge's socket. One
// connection serves the process; a thread reads what the daemon sends:
// replies to opens, the first answer of a request (completed, or pending),
// its completion, and the mappings its requests made in this process. A
// remote handle is a user handle of an object of its own type, so the Win32
// entry points tell it from a local one; its calls behave as the local ones:
// a request returns once the daemon's dispatch routine returned, an
// overlapped one then completes through its OVERLAPPED and event.
//
// Mappings: the process reserves an address window at connection time; the
// daemon maps pool pages only inside it, at the same address in both
// processes, so the user-mode address a driver returns is valid here.
#include "bridge_internal.h"
#include "bridge_protocol.h"

#include <hostkernel.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <thread>

namespace hk {
namespace {

const char kRemoteFileTypeName[] = "BridgeFile";

// One request of this process in the daemon, from its issue to its completion.
struct ClientRequest {
    uint32_t id = 0;
    uint32_t handle = 0;
    void *output = nullptr;
    uint32_t outputLength = 0;
    LPOVERLAPPED overlapped = nullptr;
    PKEVENT event = nullptr; // referenced
    std::thread::id issuer;
    bool answered = false; // dispatch returned (Pending or Complete came)
    bool completed = false;
    NTSTATUS status = STATUS_PENDING;
    uint32_t win32Error = 0;
    ULONG_PTR information = 0;
};

class Connection : public std::enable_shared_from_this<Connection> {
public:
    ~Connection();
    bool Start(const char *path, DWORD *error);
    bool Alive()
    {
        std::lock_guard<std::mutex> guard(lock_);
        return alive_;
    }
    // Opens a device in the daemon: its handle, or 0 with *error.
    uint32_t Open(const Name &name, DWORD access, DWORD share, DWORD flags, DWORD *error);
    BOOL Request(uint32_t handle, bool synchronousFile, UCHAR major, DWORD code, LPCVOID input,
                 DWORD inputLength, LPVOID output, DWORD outputLength, LPDWORD bytes,
                 LPOVERLAPPED overlapped);
    void WaitCompleted(LPOVERLAPPED overlapped);
    size_t Cancel(uint32_t handle, LPOVERLAPPED overlapped, bool byThread);
    void Close(uint32_t handle);

private:
    void Receive();
    void Answer(const bridge::Header &header, const uint8_t *body, int fd);
    void Finish(std::shared_ptr<ClientRequest> request); // caller holds lock_
    void Fail(); // the daemon went away

    int socket_ = -1;
    uint8_t *window_ = nullptr;
    std::mutex sendLock_;
    std::mutex lock_;
    std::condition_variable changed_;
    bool alive_ = false;
    bool refused_ = false; // the daemon serves another user
    uint32_t nextId_ = 1;
    std::map<uint32_t, std::shared_ptr<ClientRequest>> requests_;
    std::map<uint32_t, std::pair<bridge::Opened, uint32_t>> opens_; // answers to opens not yet taken, with their handles
};

struct RemoteFile {
    std::shared_ptr<Connection> connection;
    uint32_t handle;
    bool synchronous; // opened without FILE_FLAG_OVERLAPPED
};

std::mutex g_connectionLock;
std::shared_ptr<Connection> g_connection;

// A window of kWindowSize reserved (inaccessible) at an address the daemon is
// unlikely to use for itself, away from the heaps and from the sanitizers'
// fixed ranges; anywhere when none of the tries is free.
uint8_t *ReserveWindow()
{
    const int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
    uint64_t seed = static_cast<uint64_t>(getpid()) * 0x9E3779B97F4A7C15ull;
    for (int attempt = 0; attempt < 8; ++attempt) {
        seed ^= seed >> 29;
        seed *= 0xBF58476D1CE4E5B9ull;
        uint64_t slot = (seed >> 20) % 4096; // 4096 slots of 256 MiB from 0x300000000000
        void *hint = reinterpret_cast<void *>(0x300000000000ull + (slot << 28));
        void *window = mmap(hint, bridge::kWindowSize, PROT_NONE, flags | MAP_FIXED_NOREPLACE, -1, 0);
        if (window == hint)
            return static_cast<uint8_t *>(window);
        if (window != MAP_FAILED)
            munmap(window, bridge::kWindowSize);
    }
    void *window = mmap(nullptr, bridge::kWindowSize, PROT_NONE, flags, -1, 0);
    return window == MAP_FAILED ? nullptr : static_cast<uint8_t *>(window);
}

// The receiver holds the connection until it ends; the window stays reserved,
// since what was mapped in it may still be read.
Connection::~Connection()
{
    if (socket_ >= 0)
        close(socket_);
}

bool Connection::Start(const char *path, DWORD *error)
{
    *error = ERROR_FILE_NOT_FOUND;
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof(address.sun_path))
        return false;
    strcpy(address.sun_path, path);
    socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (socket_ < 0)
        return false;
    if (connect(socket_, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) != 0) {
        if (errno == EACCES || errno == EPERM) {
            fprintf(stderr, "bridge: no access to the daemon's socket %s\n", path);
            *error = ERROR_ACCESS_DENIED;
        }
        close(socket_);
        socket_ = -1;
        return false;
    }
    window_ = ReserveWindow();
    if (window_ == nullptr) {
        *error = ERROR_NOT_ENOUGH_MEMORY;
        return false;
    }
    bridge::Hello hello{bridge::kVersion, 0, reinterpret_cast<uint64_t>(window_), bridge::kWindowSize};
    if (!bridge::SendMessage(socket_, bridge::Type::Hello, 0, 0, &hello, sizeof(hello)))
        return false;
    alive_ = true;
    std::shared_ptr<Connection> self = shared_from_this();
    std::thread([self] { self->Receive(); }).detach();
    return true;
}

void Connection::Receive()
{
    std::vector<uint8_t> body;
    for (;;) {
        bridge::Header header;
        int fd = -1;
        if (!bridge::ReceiveExactly(socket_, &header, sizeof(header), &fd))
            break;
        if (header.bodyLength > bridge::kMaxTransfer + 64) {
            if (fd >= 0)
                close(fd);
            break;
        }
        body.resize(header.bodyLength);
        int later = -1;
        if (header.bodyLength != 0 && !bridge::ReceiveExactly(socket_, body.data(), body.size(), &later)) {
            if (fd >= 0)
                close(fd);
            break;
        }
        if (fd < 0)
            fd = later;
        else if (later >= 0)
            close(later);
        if (static_cast<bridge::Type>(header.type) == bridge::Type::Refused &&
            header.bodyLength >= sizeof(bridge::Refused)) {
            bridge::Refused refused;
            memcpy(&refused, body.data(), sizeof(refused));
            fprintf(stderr, "bridge: the daemon serves only its own user (uid %u); this process runs as uid %u\n",
                    refused.daemonUid, refused.peerUid);
            std::lock_guard<std::mutex> guard(lock_);
            refused_ = true;
            break;
        }
        Answer(header, body.data(), fd);
    }
    Fail();
}

// Caller holds lock_. Delivers the outcome into the OVERLAPPED and wakes its waiters.
void Connection::Finish(std::shared_ptr<ClientRequest> request)
{
    request->answered = true;
    request->completed = true;
    if (request->overlapped != nullptr) {
        request->overlapped->InternalHigh = request->information;
        __atomic_store_n(&request->overlapped->Internal,
                         static_cast<ULONG_PTR>(static_cast<ULONG>(request->status)), __ATOMIC_RELEASE);
    }
    if (request->event != nullptr) {
        KeSetEvent(request->event, IO_NO_INCREMENT, FALSE);
        ObDereferenceObject(request->event);
        request->event = nullptr;
    }
    requests_.erase(request->id);
    changed_.notify_all();
}

void Connection::Answer(const bridge::Header &header, const uint8_t *body, int fd)
{
    switch (static_cast<bridge::Type>(header.type)) {
    case bridge::Type::Opened:
        if (header.bodyLength >= sizeof(bridge::Opened)) {
            std::lock_guard<std::mutex> guard(lock_);
            bridge::Opened opened;
            memcpy(&opened, body, sizeof(opened));
            opens_[header.id] = std::make_pair(opened, header.handle);
            changed_.notify_all();
        }
        break;
    case bridge::Type::Pending: {
        std::lock_guard<std::mutex> guard(lock_);
        auto found = requests_.find(header.id);
        if (found != requests_.end()) {
            found->second->answered = true;
            changed_.notify_all();
        }
        break;
    }
    case bridge::Type::Complete: {
        if (header.bodyLength < sizeof(bridge::Complete))
            break;
        bridge::Complete complete;
        memcpy(&complete, body, sizeof(complete));
        std::lock_guard<std::mutex> guard(lock_);
        auto found = requests_.find(header.id);
        if (found == requests_.end())
            break;
        std::shared_ptr<ClientRequest> request = found->second;
        size_t count = complete.outputLength;
        if (count > header.bodyLength - sizeof(complete))
            count = header.bodyLength - sizeof(complete);
        if (count > request->outputLength)
            count = request->outputLength;
        if (count != 0 && request->output != nullptr)
            memcpy(request->output, body + sizeof(complete), count);
        request->status = complete.status;
        request->win32Error = complete.win32Error;
        request->information = static_cast<ULONG_PTR>(complete.information);
        Finish(request);
        break;
    }
    case bridge::Type::Map: {
        bridge::Map map;
        if (fd < 0 || header.bodyLength < sizeof(map))
            break;
        memcpy(&map, body, sizeof(map));
        uint64_t base = reinterpret_cast<uint64_t>(window_);
        if (map.address < base || map.length == 0 || map.length > bridge::kWindowSize ||
            map.address - base > bridge::kWindowSize - map.length || (map.address & (PAGE_SIZE - 1)) != 0) {
            fprintf(stderr, "bridge: the daemon asked for a mapping outside this process's window\n");
            break;
        }
        mmap(reinterpret_cast<void *>(map.address), map.length, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED,
             fd, static_cast<off_t>(map.fileOffset));
        break;
    }
    case bridge::Type::Unmap: {
        bridge::Unmap unmap;
        if (header.bodyLength < sizeof(unmap))
            break;
        memcpy(&unmap, body, sizeof(unmap));
        uint64_t base = reinterpret_cast<uint64_t>(window_);
        if (unmap.address < base || unmap.length > bridge::kWindowSize ||
            unmap.address - base > bridge::kWindowSize - unmap.length)
            break;
        // Back to a reserved, inaccessible part of the window.
        mmap(reinterpret_cast<void *>(unmap.address), unmap.length, PROT_NONE,
             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
        break;
    }
    default:
        break;
    }
    if (fd >= 0)
        close(fd);
}

void Connection::Fail()
{
    std::lock_guard<std::mutex> guard(lock_);
    alive_ = false;
    shutdown(socket_, SHUT_RDWR);
    while (!requests_.empty()) {
        std::shared_ptr<ClientRequest> request = requests_.begin()->second;
        request->status = STATUS_DEVICE_DOES_NOT_EXIST;
        request->information = 0;
        Finish(request);
    }
    changed_.notify_all();
}

uint32_t Connection::Open(const Name &name, DWORD access, DWORD share, DWORD flags, DWORD *error)
{
    uint32_t id;
    {
        std::lock_guard<std::mutex> guard(lock_);
        id = nextId_++;
    }
    bridge::Open open{access, share, flags, static_cast<uint32_t>(name.size())};
    bool sent;
    {
        std::lock_guard<std::mutex> guard(sendLock_);
        sent = bridge::SendMessage(socket_, bridge::Type::Open, 0, id, &open, sizeof(open), name.data(),
                                   name.size() * sizeof(char16_t));
    }
    std::unique_lock<std::mutex> lock(lock_);
    changed_.wait(lock, [&] { return !sent || !alive_ || opens_.count(id) != 0; });
    auto found = opens_.find(id);
    if (found == opens_.end()) {
        *error = refused_ ? ERROR_ACCESS_DENIED : ERROR_DEV_NOT_EXIST;
        return 0;
    }
    bridge::Opened opened = found->second.first;
    uint32_t handle = found->second.second;
    opens_.erase(found);
    if (!NT_SUCCESS(opened.status) || handle == 0) {
        *error = opened.win32Error != 0 ? opened.win32Error : RtlNtStatusToDosError(opened.status);
        return 0;
    }
    return handle;
}

BOOL Connection::Request(uint32_t handle, bool synchronousFile, UCHAR major, DWORD code, LPCVOID input,
                         DWORD inputLength, LPVOID output, DWORD outputLength, LPDWORD bytes,
                         LPOVERLAPPED overlapped)
{
    if (inputLength > bridge::kMaxTransfer || outputLength > bridge::kMaxTransfer) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    auto request = std::make_shared<ClientRequest>();
    request->handle = handle;
    request->output = output;
    request->outputLength = output != nullptr ? outputLength : 0;
    request->issuer = std::this_thread::get_id();
    if (overlapped != nullptr) {
        if (overlapped->hEvent != nullptr) {
            void *event = nullptr;
            if (!NT_SUCCESS(ObjectReferenceUserHandle(overlapped->hEvent, kEventTypeName, &event))) {
                SetLastError(ERROR_INVALID_HANDLE);
                return FALSE;
            }
            request->event = static_cast<PKEVENT>(event);
            KeClearEvent(request->event);
        }
        request->overlapped = overlapped;
        overlapped->InternalHigh = 0;
        __atomic_store_n(&overlapped->Internal, static_cast<ULONG_PTR>(static_cast<ULONG>(STATUS_PENDING)),
                         __ATOMIC_RELEASE);
    }
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (!alive_) {
            if (request->event != nullptr)
                ObDereferenceObject(request->event);
            SetLastError(ERROR_DEV_NOT_EXIST);
            return FALSE;
        }
        request->id = nextId_++;
        requests_[request->id] = request;
    }
    bridge::Request message{};
    message.major = major;
    message.code = code;
    message.inputLength = input != nullptr ? inputLength : 0;
    message.outputLength = outputLength;
    if (overlapped != nullptr)
        message.byteOffset = (static_cast<uint64_t>(overlapped->OffsetHigh) << 32) | overlapped->Offset;
    bool sent;
    {
        std::lock_guard<std::mutex> guard(sendLock_);
        sent = bridge::SendMessage(socket_, bridge::Type::Request, handle, request->id, &message, sizeof(message),
                                   input, message.inputLength);
    }
    if (!sent)
        shutdown(socket_, SHUT_RDWR); // the receiver fails every request

    bool asynchronous = overlapped != nullptr && !synchronousFile;
    std::unique_lock<std::mutex> lock(lock_);
    changed_.wait(lock, [&] { return request->answered; });
    if (asynchronous && !request->completed) {
        SetLastError(ERROR_IO_PENDING);
        return FALSE;
    }
    changed_.wait(lock, [&] { return request->completed; });
    if (bytes != nullptr)
        *bytes = static_cast<DWORD>(request->information);
    if (request->win32Error != 0) {
        SetLastError(request->win32Error);
        return FALSE;
    }
    if (!NT_SUCCESS(request->status)) {
        SetLastError(RtlNtStatusToDosError(request->status));
        return FALSE;
    }
    return TRUE;
}

void Connection::WaitCompleted(LPOVERLAPPED overlapped)
{
    std::unique_lock<std::mutex> lock(lock_);
    changed_.wait(lock, [&] {
        return static_cast<NTSTATUS>(__atomic_load_n(&overlapped->Internal, __ATOMIC_ACQUIRE)) != STATUS_PENDING;
    });
}

size_t Connection::Cancel(uint32_t handle, LPOVERLAPPED overlapped, bool byThread)
{
    std::vector<uint32_t> chosen;
    {
        std::lock_guard<std::mutex> guard(lock_);
        for (const auto &entry : requests_) {
            const ClientRequest &request = *entry.second;
            if (request.handle != handle)
                continue;
            if (byThread ? request.issuer == std::this_thread::get_id()
                         : overlapped == nullptr || request.overlapped == overlapped)
                chosen.push_back(request.id);
        }
    }
    std::lock_guard<std::mutex> guard(sendLock_);
    for (uint32_t id : chosen)
        bridge::SendMessage(socket_, bridge::Type::Cancel, handle, id, nullptr, 0);
    return chosen.size();
}

void Connection::Close(uint32_t handle)
{
    std::lock_guard<std::mutex> guard(sendLock_);
    bridge::SendMessage(socket_, bridge::Type::Close, handle, 0, nullptr, 0);
}

// The connection of this process, made (again) when there is none or the last one failed.
std::shared_ptr<Connection> CurrentConnection(DWORD *error)
{
    std::lock_guard<std::mutex> guard(g_connectionLock);
    if (g_connection != nullptr && g_connection->Alive())
        return g_connection;
    char path[256];
    if (HkBridgeSocketPath(path, sizeof(path)) == 0) {
        *error = ERROR_FILE_NOT_FOUND;
        return nullptr;
    }
    auto connection = std::make_shared<Connection>();
    if (!connection->Start(path, error))
        return nullptr;
    g_connection = connection;
    return connection;
}

void RemoteFileLastHandle(void *body)
{
    RemoteFile *file = static_cast<RemoteFile *>(body);
    file->connection->Close(file->handle);
}

void RemoteFileDelete(void *body)
{
    static_cast<RemoteFile *>(body)->~RemoteFile();
}

// The remote file behind a user handle, referenced, or nullptr.
RemoteFile *ReferenceRemote(HANDLE handle)
{
    void *body = nullptr;
    if (!NT_SUCCESS(ObjectReferenceUserHandle(handle, kRemoteFileTypeName, &body)))
        return nullptr;
    return static_cast<RemoteFile *>(body);
}

} // namespace

HANDLE BridgeOpen(const Name &win32Name, DWORD access, DWORD share, DWORD flags)
{
    DWORD error = ERROR_FILE_NOT_FOUND;
    std::shared_ptr<Connection> connection = CurrentConnection(&error);
    if (connection == nullptr) {
        SetLastError(error);
        return INVALID_HANDLE_VALUE;
    }
    if (win32Name.size() > bridge::kMaxNameUnits) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    uint32_t handle = connection->Open(win32Name, access, share, flags, &error);
    if (handle == 0) {
        SetLastError(error);
        return INVALID_HANDLE_VALUE;
    }
    void *body = ObjectCreate(sizeof(RemoteFile), kRemoteFileTypeName, RemoteFileDelete);
    if (body == nullptr) {
        connection->Close(handle);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return INVALID_HANDLE_VALUE;
    }
    new (body) RemoteFile{connection, handle, (flags & FILE_FLAG_OVERLAPPED) == 0};
    ObjectSetLastHandleProcedure(body, RemoteFileLastHandle);
    HANDLE result = ObjectInsertUserHandle(body, access);
    ObDereferenceObject(body);
    SetLastError(ERROR_SUCCESS);
    return result;
}

bool BridgeIsRemote(HANDLE handle)
{
    RemoteFile *file = ReferenceRemote(handle);
    if (file == nullptr)
        return false;
    ObDereferenceObject(file);
    return true;
}

BOOL BridgeRequest(HANDLE handle, UCHAR major, DWORD code, LPCVOID input, DWORD inputLength,
                   LPVOID output, DWORD outputLength, LPDWORD bytes, LPOVERLAPPED overlapped)
{
    RemoteFile *file = ReferenceRemote(handle);
    if (file == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    BOOL result = file->connection->Request(file->handle, file->synchronous, major, code, input, inputLength,
                                            output, outputLength, bytes, overlapped);
    ObDereferenceObject(file);
    return result;
}

BOOL BridgeGetOverlappedResult(HANDLE handle, LPOVERLAPPED overlapped, LPDWORD bytes, BOOL wait)
{
    RemoteFile *file = ReferenceRemote(handle);
    if (file == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if (static_cast<NTSTATUS>(__atomic_load_n(&overlapped->Internal, __ATOMIC_ACQUIRE)) == STATUS_PENDING) {
        if (!wait) {
            ObDereferenceObject(file);
            SetLastError(ERROR_IO_INCOMPLETE);
            return FALSE;
        }
        if (overlapped->hEvent != nullptr)
            WaitForSingleObject(overlapped->hEvent, INFINITE);
        file->connection->WaitCompleted(overlapped);
    }
    ObDereferenceObject(file);
    NTSTATUS status = static_cast<NTSTATUS>(overlapped->Internal);
    if (bytes != nullptr)
        *bytes = static_cast<DWORD>(overlapped->InternalHigh);
    if (!NT_SUCCESS(status)) {
        SetLastError(RtlNtStatusToDosError(status));
        return FALSE;
    }
    return TRUE;
}

size_t BridgeCancel(HANDLE handle, LPOVERLAPPED overlapped, bool byThread)
{
    RemoteFile *file = ReferenceRemote(handle);
    if (file == nullptr)
        return 0;
    size_t count = file->connection->Cancel(file->handle, overlapped, byThread);
    ObDereferenceObject(file);
    return count;
}

} // namespace hk

using namespace hk;

extern "C" {

// The bridge's socket: NDISFILTER_SOCKET when set, else
// $XDG_RUNTIME_DIR/ndisfilter/ndisfilter.sock, else /tmp/ndisfilter-<uid>/ndisfilter.sock.
SIZE_T HkBridgeSocketPath(char *Buffer, SIZE_T BufferSize)
{
    char path[512];
    const char *given = getenv("NDISFILTER_SOCKET");
    const char *runtime = getenv("XDG_RUNTIME_DIR");
    int length;
    if (given != nullptr && given[0] != '\0')
        length = snprintf(path, sizeof(path), "%s", given);
    else if (runtime != nullptr && runtime[0] == '/')
        length = snprintf(path, sizeof(path), "%s/ndisfilter/ndisfilter.sock", runtime);
    else
        length = snprintf(path, sizeof(path), "/tmp/ndisfilter-%u/ndisfilter.sock", static_cast<unsigned>(getuid()));
    if (length <= 0 || static_cast<size_t>(length) >= sizeof(path) || static_cast<SIZE_T>(length) >= BufferSize)
        return 0;
    memcpy(Buffer, path, static_cast<size_t>(length) + 1);
    return static_cast<SIZE_T>(length);
}

} // extern "C"
