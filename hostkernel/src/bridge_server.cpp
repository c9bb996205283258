// Host kernel runtime, bridge area: the daemon's side.
//
// HkBridgeServe serves one user program's process: each Open becomes a
// CreateFile here, each Request a DeviceIoControl, ReadFile or WriteFile on
// that handle, overlapped, so the driver gets the same IRP as from a local
// caller, in the serving thread at PASSIVE_LEVEL. A request that completes
// in its dispatch is answered at once; one that pends is answered Pending,
// and a second thread of the connection sends its completion later. While a
// thread serves the process, MmMapLockedPages(UserMode) maps into that
// process (BridgeMapView). When the process goes (its socket closes), what
// it left is closed as Windows closes it at process exit: its requests are
// cancelled and its handles closed (IRP_MJ_CLEANUP, IRP_MJ_CLOSE).
#include "bridge_internal.h"
#include "bridge_protocol.h"

#include <hostkernel.h>

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <memory>
#include <thread>

namespace hk {

struct BridgeProcess {
    std::atomic<int> references{1};
    int socket = -1;
    std::mutex sendLock;
    bool connected = true; // under sendLock: messages may still be sent
    uint64_t windowBase = 0;
    uint64_t windowSize = 0;
    std::mutex viewLock;
    std::map<uint64_t, uint64_t> views; // address -> mapped length, inside the window

    bool Send(bridge::Type type, uint32_t handle, uint32_t id, const void *part1, size_t length1,
              const void *part2 = nullptr, size_t length2 = 0, int fd = -1)
    {
        std::lock_guard<std::mutex> guard(sendLock);
        if (!connected)
            return false;
        if (!bridge::SendMessage(socket, type, handle, id, part1, length1, part2, length2, fd)) {
            connected = false;
            shutdown(socket, SHUT_RDWR);
            return false;
        }
        return true;
    }
};

namespace {

thread_local BridgeProcess *t_actingFor = nullptr;

void Release(BridgeProcess *process)
{
    if (process->references.fetch_sub(1) == 1) {
        close(process->socket);
        delete process;
    }
}

// One request in flight: the buffers and OVERLAPPED the daemon's Win32 call uses.
struct ServedRequest {
    uint32_t id = 0;
    uint32_t handle = 0;
    OVERLAPPED overlapped{};
    std::vector<uint8_t> input;
    std::vector<uint8_t> output;
    bool issued = false; // answered Pending: its completion goes out from the completer
};

class Session {
public:
    explicit Session(BridgeProcess *process) : process_(process) {}
    // Serves until the process goes; false when requests it left never completed
    // (the session must then stay allocated for them).
    bool Run();

private:
    bool Hello(const uint8_t *body, uint32_t length);
    void Open(const bridge::Header &header, const uint8_t *body, uint32_t length);
    void Request(const bridge::Header &header, const uint8_t *body, uint32_t length);
    void Cancel(const bridge::Header &header);
    void Close(uint32_t handle);
    void SendComplete(const ServedRequest &request, NTSTATUS status, uint32_t win32Error, ULONG_PTR information);
    void Complete(); // the completer thread
    void End();

    BridgeProcess *process_;
    std::mutex lock_;
    std::map<uint32_t, HANDLE> handles_;
    uint32_t nextHandle_ = 1;
    std::map<uint32_t, std::unique_ptr<ServedRequest>> inFlight_;
    HANDLE wake_ = nullptr; // set whenever a request may have completed
    bool ending_ = false;
};

void Session::SendComplete(const ServedRequest &request, NTSTATUS status, uint32_t win32Error,
                           ULONG_PTR information)
{
    bridge::Complete complete{};
    complete.status = status;
    complete.win32Error = win32Error;
    complete.information = information;
    size_t count = 0;
    if (!NT_ERROR(status) && win32Error == 0)
        count = information < request.output.size() ? information : request.output.size();
    complete.outputLength = static_cast<uint32_t>(count);
    process_->Send(bridge::Type::Complete, request.handle, request.id, &complete, sizeof(complete),
                   request.output.data(), count);
}

bool Session::Hello(const uint8_t *body, uint32_t length)
{
    bridge::Hello hello;
    if (length < sizeof(hello))
        return false;
    memcpy(&hello, body, sizeof(hello));
    if (hello.version != bridge::kVersion || hello.windowSize > bridge::kWindowSize ||
        (hello.windowBase & (PAGE_SIZE - 1)) != 0 || hello.windowBase + hello.windowSize < hello.windowBase)
        return false;
    process_->windowBase = hello.windowBase;
    process_->windowSize = hello.windowSize & ~static_cast<uint64_t>(PAGE_SIZE - 1);
    return true;
}

void Session::Open(const bridge::Header &header, const uint8_t *body, uint32_t length)
{
    bridge::Opened opened{STATUS_SUCCESS, 0};
    uint32_t handle = 0;
    bridge::Open open;
    if (length < sizeof(open)) {
        opened = {STATUS_INVALID_PARAMETER, ERROR_INVALID_PARAMETER};
    } else {
        memcpy(&open, body, sizeof(open));
        std::lock_guard<std::mutex> guard(lock_);
        if (open.nameUnits == 0 || open.nameUnits > bridge::kMaxNameUnits ||
            length - sizeof(open) != open.nameUnits * sizeof(char16_t)) {
            opened = {STATUS_OBJECT_NAME_INVALID, ERROR_FILE_NOT_FOUND};
        } else if (handles_.size() >= bridge::kMaxHandles) {
            opened = {STATUS_INSUFFICIENT_RESOURCES, ERROR_NO_SYSTEM_RESOURCES};
        }
    }
    std::vector<WCHAR> name;
    if (opened.status == STATUS_SUCCESS) {
        name.assign(open.nameUnits + 1, 0);
        memcpy(name.data(), body + sizeof(open), open.nameUnits * sizeof(char16_t));
        // Only devices ("\\.\Name", "\\?\Name"), whole names without a terminator inside.
        static const WCHAR kPrefixes[2][4] = {{'\\', '\\', '.', '\\'}, {'\\', '\\', '?', '\\'}};
        bool device = open.nameUnits > 4 && (memcmp(name.data(), kPrefixes[0], sizeof(kPrefixes[0])) == 0 ||
                                             memcmp(name.data(), kPrefixes[1], sizeof(kPrefixes[1])) == 0);
        for (uint32_t i = 0; i < open.nameUnits && device; ++i)
            device = name[i] != 0;
        if (!device)
            opened = {STATUS_OBJECT_PATH_NOT_FOUND, ERROR_PATH_NOT_FOUND};
    }
    if (opened.status == STATUS_SUCCESS) {
        // Always overlapped here, so that a pending request never holds the serving thread.
        HANDLE file = CreateFileW(name.data(), open.access, open.share, nullptr, OPEN_EXISTING,
                                  (open.flags & ~static_cast<DWORD>(FILE_FLAG_OVERLAPPED)) | FILE_FLAG_OVERLAPPED,
                                  nullptr);
        if (file == INVALID_HANDLE_VALUE) {
            opened = {STATUS_UNSUCCESSFUL, GetLastError()};
        } else {
            std::lock_guard<std::mutex> guard(lock_);
            while (handle == 0 || handles_.count(handle) != 0)
                handle = nextHandle_++;
            handles_[handle] = file;
        }
    }
    process_->Send(bridge::Type::Opened, handle, header.id, &opened, sizeof(opened));
}

void Session::Request(const bridge::Header &header, const uint8_t *body, uint32_t length)
{
    auto request = std::make_unique<ServedRequest>();
    request->id = header.id;
    request->handle = header.handle;
    bridge::Request message;
    HANDLE file = nullptr;
    uint32_t refusal = 0;
    if (length < sizeof(message)) {
        refusal = ERROR_INVALID_PARAMETER;
    } else {
        memcpy(&message, body, sizeof(message));
        std::lock_guard<std::mutex> guard(lock_);
        auto found = handles_.find(header.handle);
        if (found == handles_.end())
            refusal = ERROR_INVALID_HANDLE;
        else if (message.inputLength != length - sizeof(message) || message.outputLength > bridge::kMaxTransfer ||
                 (message.major != IRP_MJ_DEVICE_CONTROL && message.major != IRP_MJ_READ &&
                  message.major != IRP_MJ_WRITE))
            refusal = ERROR_INVALID_PARAMETER;
        else if (inFlight_.size() >= bridge::kMaxInFlight || inFlight_.count(header.id) != 0)
            refusal = ERROR_BUSY;
        else
            file = found->second;
    }
    if (refusal != 0) {
        SendComplete(*request, STATUS_UNSUCCESSFUL, refusal, 0);
        return;
    }
    request->input.assign(body + sizeof(message), body + length);
    request->output.resize(message.outputLength);
    request->overlapped.Offset = static_cast<DWORD>(message.byteOffset);
    request->overlapped.OffsetHigh = static_cast<DWORD>(message.byteOffset >> 32);
    request->overlapped.hEvent = nullptr;
    __atomic_store_n(&request->overlapped.Internal, static_cast<ULONG_PTR>(static_cast<ULONG>(STATUS_PENDING)),
                     __ATOMIC_RELEASE);
    ServedRequest *served = request.get();
    {
        std::lock_guard<std::mutex> guard(lock_);
        inFlight_[header.id] = std::move(request);
    }
    DWORD bytes = 0;
    BOOL done;
    switch (message.major) {
    case IRP_MJ_READ:
        done = ReadFile(file, served->output.data(), message.outputLength, &bytes, &served->overlapped);
        break;
    case IRP_MJ_WRITE:
        served->output.clear();
        done = WriteFile(file, served->input.data(), message.inputLength, &bytes, &served->overlapped);
        break;
    default:
        done = DeviceIoControl(file, message.code, served->input.empty() ? nullptr : served->input.data(),
                               message.inputLength, served->output.empty() ? nullptr : served->output.data(),
                               message.outputLength, &bytes, &served->overlapped);
        break;
    }
    DWORD error = done ? ERROR_SUCCESS : GetLastError();
    std::unique_ptr<ServedRequest> finished;
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (!done && error == ERROR_IO_PENDING) {
            process_->Send(bridge::Type::Pending, served->handle, served->id, nullptr, 0);
            served->issued = true;
        } else {
            finished = std::move(inFlight_[header.id]);
            inFlight_.erase(header.id);
        }
    }
    if (finished == nullptr) {
        SetEvent(wake_); // it may have completed before it was marked issued
        return;
    }
    NTSTATUS status = static_cast<NTSTATUS>(__atomic_load_n(&finished->overlapped.Internal, __ATOMIC_ACQUIRE));
    if (status == STATUS_PENDING) // refused before it reached the driver
        SendComplete(*finished, STATUS_UNSUCCESSFUL, error, 0);
    else
        SendComplete(*finished, status, 0, finished->overlapped.InternalHigh);
}

void Session::Cancel(const bridge::Header &header)
{
    HANDLE file = nullptr;
    OVERLAPPED *overlapped = nullptr;
    {
        std::lock_guard<std::mutex> guard(lock_);
        auto found = inFlight_.find(header.id);
        auto handle = handles_.find(header.handle);
        if (found == inFlight_.end() || handle == handles_.end() || found->second->handle != header.handle)
            return;
        file = handle->second;
        overlapped = &found->second->overlapped;
    }
    // The record stays until its completion is seen, which only the completer acts on.
    CancelIoEx(file, overlapped);
}

void Session::Close(uint32_t handle)
{
    HANDLE file = nullptr;
    {
        std::lock_guard<std::mutex> guard(lock_);
        auto found = handles_.find(handle);
        if (found == handles_.end())
            return;
        file = found->second;
        handles_.erase(found);
    }
    CloseHandle(file);
}

void Session::Complete()
{
    for (;;) {
        WaitForSingleObject(wake_, 200);
        std::vector<std::unique_ptr<ServedRequest>> done;
        bool finished;
        {
            std::lock_guard<std::mutex> guard(lock_);
            for (auto it = inFlight_.begin(); it != inFlight_.end();) {
                ServedRequest &request = *it->second;
                NTSTATUS status =
                    static_cast<NTSTATUS>(__atomic_load_n(&request.overlapped.Internal, __ATOMIC_ACQUIRE));
                if (request.issued && status != STATUS_PENDING) {
                    done.push_back(std::move(it->second));
                    it = inFlight_.erase(it);
                } else {
                    ++it;
                }
            }
            finished = ending_ && inFlight_.empty();
        }
        for (const auto &request : done)
            SendComplete(*request, static_cast<NTSTATUS>(request->overlapped.Internal), 0,
                         request->overlapped.InternalHigh);
        if (finished)
            return;
    }
}

// The process is gone: cancel what it left in flight and close its handles,
// then wait (boundedly) for the requests to come back.
void Session::End()
{
    std::map<uint32_t, HANDLE> handles;
    {
        std::lock_guard<std::mutex> guard(lock_);
        handles.swap(handles_);
    }
    {
        std::lock_guard<std::mutex> guard(process_->sendLock);
        process_->connected = false;
    }
    for (const auto &entry : handles) {
        CancelIoEx(entry.second, nullptr);
        CloseHandle(entry.second);
    }
    std::lock_guard<std::mutex> guard(lock_);
    ending_ = true;
    SetEvent(wake_);
}

bool Session::Run()
{
    wake_ = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (wake_ == nullptr)
        return true;
    std::thread completer([this] { Complete(); });
    t_actingFor = process_;
    std::vector<uint8_t> body;
    bool greeted = false;
    for (;;) {
        bridge::Header header;
        if (!bridge::ReceiveExactly(process_->socket, &header, sizeof(header)))
            break;
        if (header.bodyLength > bridge::kMaxTransfer + sizeof(bridge::Request))
            break;
        body.resize(header.bodyLength);
        if (header.bodyLength != 0 && !bridge::ReceiveExactly(process_->socket, body.data(), body.size()))
            break;
        bridge::Type type = static_cast<bridge::Type>(header.type);
        if (!greeted) {
            if (type != bridge::Type::Hello || !Hello(body.data(), header.bodyLength))
                break;
            greeted = true;
            continue;
        }
        if (type == bridge::Type::Open)
            Open(header, body.data(), header.bodyLength);
        else if (type == bridge::Type::Request)
            Request(header, body.data(), header.bodyLength);
        else if (type == bridge::Type::Cancel)
            Cancel(header);
        else if (type == bridge::Type::Close)
            Close(header.handle);
        else
            break; // nothing else comes from a client
    }
    End();
    t_actingFor = nullptr;
    // A request a driver never completes, even cancelled, keeps its buffers: the
    // completer is then left waiting for it, as a process with such a request never ends.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
        {
            std::lock_guard<std::mutex> guard(lock_);
            if (inFlight_.empty())
                break;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            fprintf(stderr, "bridge: requests of a departed process did not complete; leaving them\n");
            completer.detach();
            return false;
        }
        SetEvent(wake_);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    completer.join();
    CloseHandle(wake_);
    wake_ = nullptr;
    return true;
}

} // namespace

BridgeProcess *BridgeActingFor()
{
    return t_actingFor;
}

void *BridgeMapView(BridgeProcess *process, const void *address, size_t length)
{
    size_t fileOffset = 0, mapped = 0;
    int fd = PoolPagesFile(address, length, &fileOffset, &mapped);
    if (fd < 0)
        return nullptr;
    void *view = nullptr;
    {
        // First fit in the window, at an address that is free here too.
        std::lock_guard<std::mutex> guard(process->viewLock);
        const uint64_t end = process->windowBase + process->windowSize;
        uint64_t at = process->windowBase;
        for (int tries = 0; view == nullptr && at + mapped <= end && tries < 64;) {
            bool overlaps = false;
            for (const auto &taken : process->views) {
                if (at < taken.first + taken.second && taken.first < at + mapped) {
                    at = taken.first + taken.second;
                    overlaps = true;
                    break;
                }
            }
            if (overlaps)
                continue;
            void *got = mmap(reinterpret_cast<void *>(at), mapped, PROT_READ | PROT_WRITE,
                             MAP_SHARED | MAP_FIXED_NOREPLACE, fd, static_cast<off_t>(fileOffset));
            if (got == reinterpret_cast<void *>(at)) {
                view = got;
            } else {
                if (got != MAP_FAILED)
                    munmap(got, mapped);
                at += 1u << 20;
                ++tries;
            }
        }
        if (view != nullptr)
            process->views[reinterpret_cast<uint64_t>(view)] = mapped;
    }
    if (view == nullptr) {
        close(fd);
        return nullptr;
    }
    bridge::Map map{reinterpret_cast<uint64_t>(view), mapped, fileOffset};
    process->Send(bridge::Type::Map, 0, 0, &map, sizeof(map), nullptr, 0, fd);
    close(fd);
    process->references.fetch_add(1);
    return static_cast<char *>(view) + (reinterpret_cast<uintptr_t>(address) & (PAGE_SIZE - 1));
}

void BridgeUnmapView(BridgeProcess *process, void *view)
{
    uint64_t firstPage = reinterpret_cast<uint64_t>(view) & ~static_cast<uint64_t>(PAGE_SIZE - 1);
    uint64_t mapped = 0;
    {
        std::lock_guard<std::mutex> guard(process->viewLock);
        auto found = process->views.find(firstPage);
        if (found == process->views.end()) {
            VerifierError("unmapping %p, which is not a view mapped into a user program's process", view);
            return;
        }
        mapped = found->second;
        process->views.erase(found);
    }
    munmap(reinterpret_cast<void *>(firstPage), mapped);
    bridge::Unmap unmap{firstPage, mapped};
    process->Send(bridge::Type::Unmap, 0, 0, &unmap, sizeof(unmap));
    Release(process);
}

} // namespace hk

using namespace hk;

extern "C" {

void HkBridgeServe(int Socket)
{
    BridgeProcess *process = new BridgeProcess();
    process->socket = Socket;
    struct ucred peer {};
    socklen_t length = sizeof(peer);
    if (getsockopt(Socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || peer.uid != geteuid()) {
        bridge::Refused refused{static_cast<uint32_t>(geteuid()), static_cast<uint32_t>(peer.uid)};
        fprintf(stderr, "bridge: refused a connection from uid %u (only uid %u may connect)\n",
                static_cast<unsigned>(peer.uid), static_cast<unsigned>(geteuid()));
        process->Send(bridge::Type::Refused, 0, 0, &refused, sizeof(refused));
        Release(process);
        return;
    }
    Session *session = new Session(process);
    if (session->Run())
        delete session;
    Release(process);
}

} // extern "C"
