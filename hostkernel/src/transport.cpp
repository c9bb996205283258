// Host kernel runtime: the TCP/IP transport, "\Device\Tcp" and "\Device\Udp".
//
// Clients open transport addresses, connection endpoints and control channels
// on these devices with ZwCreateFile and send them the internal device-control
// requests of the transport driver interface, which are carried out over real
// sockets of the host. Requests that wait for the network (connect, receive,
// datagram receive, a send the socket cannot take at once, a graceful
// disconnect behind queued sends) pend and are completed from the transport's
// own thread, which polls every socket; that thread also calls the clients'
// event handlers (connect, disconnect, error, receive, datagram receive) at
// DISPATCH_LEVEL, as a real transport does from its receive path.
//
// One lock guards every object of the transport; it is never held while a
// client is called (completion routines, event handlers), because clients
// call back into the transport from there.
#include "io_internal.h"

#include <tdikrnl.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <linux/errqueue.h>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <set>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <unordered_map>
#include <vector>

namespace hk {
namespace {

enum class Protocol { Tcp, Udp };
enum class ObjectKind { Address, Connection, Control };

constexpr ULONG kMaxDatagram = 65507;    // largest UDP payload over IPv4
constexpr ULONG kLookahead = 4096;       // bytes of stream data one indication shows at most
constexpr int kMaxMdlsPerChain = 4096;   // a longer (or circular) chain is refused
constexpr int kListenBacklog = 16;

struct Connection;

// What a file object opened on a transport device stands for (its FsContext).
struct TransportObject {
    ObjectKind kind;
    Protocol protocol;
    PFILE_OBJECT file = nullptr;
    bool cleanedUp = false;
};

struct EventHandler {
    PVOID handler = nullptr;
    PVOID context = nullptr;
};

struct Address : TransportObject {
    sockaddr_in local{};
    int fd = -1;        // UDP: the socket; TCP: the listening socket, when listening
    EventHandler events[TDI_EVENT_ERROR_EX + 1];
    std::deque<PIRP> datagramReceives;
    std::deque<PIRP> datagramSends;   // waiting for room in the socket
    std::vector<Connection *> connections;
};

struct Send {
    PIRP irp;
    ULONG done;   // bytes already handed to the socket
};

struct Connection : TransportObject {
    enum class State { Idle, Connecting, Connected, Closed };
    PVOID context = nullptr;          // the client's connection context
    Address *address = nullptr;       // associated address (its file object referenced)
    int fd = -1;
    State state = State::Idle;
    PIRP connectIrp = nullptr;
    PIRP disconnectIrp = nullptr;     // graceful release behind queued sends
    std::deque<Send> sends;
    std::deque<PIRP> receives;
    bool indicationsBlocked = false;  // the client left indicated data untaken
    bool peerClosed = false;          // the peer released its side
    bool localClosed = false;         // our side was released
    bool finBehindData = false;       // the peer released, unread data comes first
    NTSTATUS closedStatus = STATUS_CONNECTION_DISCONNECTED;
};

struct Completion {
    PIRP irp;
    NTSTATUS status;
    ULONG_PTR information;
};

struct Statistics {
    ULONG datagramsSent = 0, datagramsReceived = 0;
    LONGLONG datagramBytesSent = 0, datagramBytesReceived = 0;
    ULONG framesSent = 0, framesReceived = 0;
    LONGLONG frameBytesSent = 0, frameBytesReceived = 0;
    ULONG openConnections = 0, localDisconnects = 0, remoteDisconnects = 0;
};

struct Transport {
    std::mutex lock;
    PDRIVER_OBJECT driver = nullptr;
    PDEVICE_OBJECT tcp = nullptr;
    PDEVICE_OBJECT udp = nullptr;
    int epoll = -1;
    std::unordered_map<int, TransportObject *> sockets; // every open socket and its owner
    std::set<TransportObject *> objects;
    Statistics stats;
    LARGE_INTEGER startTime{};
};

Transport &State()
{
    static Transport *transport = new Transport();
    return *transport;
}

// ---- helpers ----

NTSTATUS StatusFromErrno(int error)
{
    switch (error) {
    case ECONNREFUSED: return STATUS_CONNECTION_REFUSED;
    case ENETUNREACH: return STATUS_NETWORK_UNREACHABLE;
    case EHOSTUNREACH: return STATUS_HOST_UNREACHABLE;
    case ECONNRESET:
    case EPIPE: return STATUS_CONNECTION_RESET;
    case ECONNABORTED: return STATUS_CONNECTION_ABORTED;
    case ETIMEDOUT: return STATUS_IO_TIMEOUT;
    case EADDRINUSE: return STATUS_ADDRESS_ALREADY_EXISTS;
    case EADDRNOTAVAIL: return STATUS_INVALID_ADDRESS;
    case EACCES:
    case EPERM: return STATUS_ACCESS_DENIED;
    case EMSGSIZE: return STATUS_INVALID_BUFFER_SIZE;
    case ENOBUFS:
    case ENOMEM:
    case EMFILE:
    case ENFILE: return STATUS_INSUFFICIENT_RESOURCES;
    default: return STATUS_UNSUCCESSFUL;
    }
}

// The first IP entry of a TRANSPORT_ADDRESS of `length` bytes (-1: unbounded, the
// length walked from its own fields is trusted no further than its entries).
bool ParseTransportAddress(const void *buffer, LONG length, sockaddr_in *out)
{
    if (buffer == nullptr || length < static_cast<LONG>(sizeof(TA_IP_ADDRESS)))
        return false;
    const UCHAR *p = static_cast<const UCHAR *>(buffer);
    LONG count;
    std::memcpy(&count, p, sizeof(count));
    LONG offset = sizeof(LONG);
    for (LONG i = 0; i < count && offset + 4 <= length; ++i) {
        USHORT addressLength, addressType;
        std::memcpy(&addressLength, p + offset, 2);
        std::memcpy(&addressType, p + offset + 2, 2);
        if (offset + 4 + addressLength > length)
            return false;
        if (addressType == TDI_ADDRESS_TYPE_IP && addressLength >= TDI_ADDRESS_LENGTH_IP) {
            TDI_ADDRESS_IP ip;
            std::memcpy(&ip, p + offset + 4, sizeof(ip));
            std::memset(out, 0, sizeof(*out));
            out->sin_family = AF_INET;
            out->sin_port = ip.sin_port;
            out->sin_addr.s_addr = ip.in_addr;
            return true;
        }
        offset += 4 + addressLength;
    }
    return false;
}

void FillTransportAddress(TA_IP_ADDRESS *ta, const sockaddr_in &address)
{
    std::memset(ta, 0, sizeof(*ta));
    ta->TAAddressCount = 1;
    ta->Address[0].AddressLength = TDI_ADDRESS_LENGTH_IP;
    ta->Address[0].AddressType = TDI_ADDRESS_TYPE_IP;
    ta->Address[0].Address[0].sin_port = address.sin_port;
    ta->Address[0].Address[0].in_addr = address.sin_addr.s_addr;
}

// The extended attribute `name` of a create request, bounded by the buffer.
bool FindEa(const void *buffer, ULONG length, const char *name, const UCHAR **value,
            USHORT *valueLength)
{
    const UCHAR *base = static_cast<const UCHAR *>(buffer);
    ULONG offset = 0;
    const size_t nameLength = std::strlen(name);
    for (int guard = 0; buffer != nullptr && guard < 64; ++guard) {
        const ULONG header = FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName);
        if (length < header || offset > length - header)
            return false;
        FILE_FULL_EA_INFORMATION ea;
        std::memcpy(&ea, base + offset, header);
        const ULONG total = header + ea.EaNameLength + 1u + ea.EaValueLength;
        if (total > length - offset)
            return false;
        const char *eaName = reinterpret_cast<const char *>(base + offset + header);
        if (ea.EaNameLength == nameLength && std::memcmp(eaName, name, nameLength) == 0) {
            *value = base + offset + header + ea.EaNameLength + 1;
            *valueLength = ea.EaValueLength;
            return true;
        }
        if (ea.NextEntryOffset == 0)
            return false;
        offset += ea.NextEntryOffset;
    }
    return false;
}

// Total bytes of an MDL chain, or -1 when it is too long to be real.
LONGLONG ChainLength(PMDL mdl)
{
    LONGLONG total = 0;
    for (int i = 0; mdl != nullptr; mdl = mdl->Next, ++i) {
        if (i >= kMaxMdlsPerChain)
            return -1;
        total += MmGetMdlByteCount(mdl);
    }
    return total;
}

// Copies between a flat buffer and an MDL chain from byte `offset` of the chain.
ULONG CopyChain(PMDL mdl, ULONG offset, void *flat, ULONG length, bool toChain)
{
    ULONG copied = 0;
    UCHAR *bytes = static_cast<UCHAR *>(flat);
    for (int i = 0; mdl != nullptr && copied < length && i < kMaxMdlsPerChain;
         mdl = mdl->Next, ++i) {
        ULONG count = MmGetMdlByteCount(mdl);
        if (offset >= count) {
            offset -= count;
            continue;
        }
        UCHAR *va = static_cast<UCHAR *>(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority));
        if (va == nullptr)
            break;
        ULONG n = count - offset;
        if (n > length - copied)
            n = length - copied;
        if (toChain)
            std::memcpy(va + offset, bytes + copied, n);
        else
            std::memcpy(bytes + copied, va + offset, n);
        copied += n;
        offset = 0;
    }
    return copied;
}

// Up to 64 slices of the chain from `offset` for sendmsg.
int ChainSlices(PMDL mdl, ULONG offset, ULONG length, iovec *slices, int max)
{
    int n = 0;
    for (int i = 0; mdl != nullptr && length > 0 && n < max && i < kMaxMdlsPerChain;
         mdl = mdl->Next, ++i) {
        ULONG count = MmGetMdlByteCount(mdl);
        if (offset >= count) {
            offset -= count;
            continue;
        }
        UCHAR *va = static_cast<UCHAR *>(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority));
        if (va == nullptr)
            break;
        ULONG take = count - offset;
        if (take > length)
            take = length;
        slices[n].iov_base = va + offset;
        slices[n].iov_len = take;
        ++n;
        length -= take;
        offset = 0;
    }
    return n;
}

template <class T>
T *ParametersOf(PIRP irp)
{
    return reinterpret_cast<T *>(&IoGetCurrentIrpStackLocation(irp)->Parameters);
}

// ---- sockets and poll interest (transport lock held) ----

int OpenSocket(Transport &t, TransportObject *owner, int type)
{
    int fd = socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd >= 0)
        t.sockets[fd] = owner;
    return fd;
}

void CloseSocket(Transport &t, int *fd)
{
    if (*fd < 0)
        return;
    epoll_ctl(t.epoll, EPOLL_CTL_DEL, *fd, nullptr);
    t.sockets.erase(*fd);
    close(*fd);
    *fd = -1;
}

void Watch(Transport &t, int fd, uint32_t events)
{
    if (fd < 0)
        return;
    epoll_event ev{};
    ev.events = events;
    ev.data.fd = fd;
    if (epoll_ctl(t.epoll, EPOLL_CTL_MOD, fd, &ev) != 0)
        epoll_ctl(t.epoll, EPOLL_CTL_ADD, fd, &ev);
}

void UpdateInterest(Transport &t, Address *a)
{
    if (a->fd < 0)
        return;
    uint32_t events = 0;
    if (a->protocol == Protocol::Udp) {
        if (!a->datagramReceives.empty() || a->events[TDI_EVENT_RECEIVE_DATAGRAM].handler)
            events |= EPOLLIN;
        if (!a->datagramSends.empty())
            events |= EPOLLOUT;
    } else {
        events |= EPOLLIN;
    }
    Watch(t, a->fd, events);
}

bool HasReceiveHandler(const Connection *c)
{
    return c->address != nullptr && c->address->events[TDI_EVENT_RECEIVE].handler != nullptr;
}

void UpdateInterest(Transport &t, Connection *c)
{
    if (c->fd < 0)
        return;
    uint32_t events = 0;
    if (c->state == Connection::State::Connecting) {
        events = EPOLLOUT;
    } else if (c->state == Connection::State::Connected) {
        if (!c->peerClosed) {
            if (!c->finBehindData)
                events |= EPOLLRDHUP;
            if (!c->receives.empty() || (HasReceiveHandler(c) && !c->indicationsBlocked))
                events |= EPOLLIN;
        }
        if (!c->sends.empty())
            events |= EPOLLOUT;
    }
    if (c->state == Connection::State::Closed || (c->peerClosed && c->localClosed)) {
        epoll_ctl(t.epoll, EPOLL_CTL_DEL, c->fd, nullptr);
        return;
    }
    Watch(t, c->fd, events);
}

// ---- completing (transport lock not held) ----

// Set in the poll thread, which completes requests at DISPATCH_LEVEL as a
// transport's receive path does; dispatch routines complete at their caller's IRQL.
thread_local bool t_inPollThread = false;

void CompleteAll(std::vector<Completion> &done)
{
    KIRQL old = PASSIVE_LEVEL;
    if (t_inPollThread && !done.empty())
        KeRaiseIrql(DISPATCH_LEVEL, &old);
    for (const Completion &c : done) {
        c.irp->IoStatus.Status = c.status;
        c.irp->IoStatus.Information = c.information;
        IoCompleteRequest(c.irp, IO_NETWORK_INCREMENT);
    }
    if (t_inPollThread && !done.empty())
        KeLowerIrql(old);
    done.clear();
}

NTSTATUS CompleteNow(PIRP irp, NTSTATUS status, ULONG_PTR information = 0)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NETWORK_INCREMENT);
    return status;
}

// ---- stream data (transport lock held) ----

// Sends what the socket takes of the queued sends; finished ones go to `done`.
void PumpSends(Transport &t, Connection *c, std::vector<Completion> &done)
{
    while (!c->sends.empty() && c->fd >= 0) {
        Send &s = c->sends.front();
        const ULONG length = ParametersOf<TDI_REQUEST_KERNEL_SEND>(s.irp)->SendLength;
        if (s.done < length) {
            iovec slices[64];
            int n = ChainSlices(s.irp->MdlAddress, s.done, length - s.done, slices, 64);
            msghdr msg{};
            msg.msg_iov = slices;
            msg.msg_iovlen = n;
            ssize_t sent = n > 0 ? sendmsg(c->fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT) : 0;
            if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
                break;
            if (sent < 0) {
                done.push_back({s.irp, StatusFromErrno(errno), s.done});
                c->sends.pop_front();
                continue;
            }
            if (n == 0) { // the chain is shorter than SendLength
                done.push_back({s.irp, STATUS_INVALID_PARAMETER, s.done});
                c->sends.pop_front();
                continue;
            }
            s.done += static_cast<ULONG>(sent);
            t.stats.frameBytesSent += sent;
            if (s.done < length)
                break; // partial: the rest when the socket has room again
        }
        ++t.stats.framesSent;
        done.push_back({s.irp, STATUS_SUCCESS, s.done});
        c->sends.pop_front();
    }
    if (c->sends.empty() && c->disconnectIrp != nullptr) {
        shutdown(c->fd, SHUT_WR);
        c->localClosed = true;
        ++t.stats.localDisconnects;
        done.push_back({c->disconnectIrp, STATUS_SUCCESS, 0});
        c->disconnectIrp = nullptr;
    }
}

// Ends a connection: pending requests fail with `status`, the socket closes.
void FailConnection(Transport &t, Connection *c, NTSTATUS status, std::vector<Completion> &done)
{
    if (c->connectIrp != nullptr) {
        done.push_back({c->connectIrp, status, 0});
        c->connectIrp = nullptr;
    }
    if (c->disconnectIrp != nullptr) {
        done.push_back({c->disconnectIrp, status, 0});
        c->disconnectIrp = nullptr;
    }
    for (const Send &s : c->sends)
        done.push_back({s.irp, status, s.done});
    c->sends.clear();
    for (PIRP irp : c->receives)
        done.push_back({irp, status, 0});
    c->receives.clear();
    if (c->state == Connection::State::Connected && t.stats.openConnections > 0)
        --t.stats.openConnections;
    c->state = Connection::State::Closed;
    c->closedStatus = status;
    CloseSocket(t, &c->fd);
}

// Fills the receive at the head of the queue from the socket. Returns false when
// the socket has nothing (EAGAIN); sets *closed (0 graceful, errno) when the peer
// is gone.
bool ReceiveInto(Transport &t, Connection *c, PIRP irp, ULONG *received, int *closedBy)
{
    *closedBy = -1;
    *received = 0;
    const ULONG length = ParametersOf<TDI_REQUEST_KERNEL_RECEIVE>(irp)->ReceiveLength;
    LONGLONG chain = ChainLength(irp->MdlAddress);
    ULONG room = chain < 0 ? 0 : static_cast<ULONG>(chain < length ? chain : length);
    iovec slices[64];
    int n = ChainSlices(irp->MdlAddress, 0, room, slices, 64);
    if (n == 0)
        return true; // nothing to fill: a zero-byte receive completes at once
    msghdr msg{};
    msg.msg_iov = slices;
    msg.msg_iovlen = n;
    ssize_t got = recvmsg(c->fd, &msg, MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return false;
    if (got < 0) {
        *closedBy = errno;
        return true;
    }
    if (got == 0) {
        *closedBy = 0;
        return true;
    }
    *received = static_cast<ULONG>(got);
    ++t.stats.framesReceived;
    t.stats.frameBytesReceived += got;
    return true;
}

// ---- the poll thread's work ----
//
// The poll thread holds a reference on the file object of the object it works
// for, so the object outlives every call out; a cleanup that ran meanwhile shows
// in cleanedUp and a closed socket.

struct Reference {
    PFILE_OBJECT file = nullptr;
    explicit Reference(PFILE_OBJECT f) : file(f) { ObReferenceObject(file); }
    ~Reference() { ObDereferenceObject(file); }
};

// Calls out to clients at DISPATCH_LEVEL, as from a transport's receive path.
struct AtDispatch {
    KIRQL old;
    AtDispatch() { KeRaiseIrql(DISPATCH_LEVEL, &old); }
    ~AtDispatch() { KeLowerIrql(old); }
};

void OnPeerClosed(Transport &t, Connection *c, int error, std::unique_lock<std::mutex> &held,
                  std::vector<Completion> &done)
{
    const bool abortive = error != 0;
    ULONG flags = abortive ? TDI_DISCONNECT_ABORT : TDI_DISCONNECT_RELEASE;
    ++t.stats.remoteDisconnects;
    if (abortive) {
        FailConnection(t, c, STATUS_CONNECTION_RESET, done);
    } else {
        c->peerClosed = true;
        c->closedStatus = STATUS_CONNECTION_DISCONNECTED;
        for (PIRP irp : c->receives)
            done.push_back({irp, STATUS_SUCCESS, 0});
        c->receives.clear();
        UpdateInterest(t, c);
    }
    EventHandler h = c->address != nullptr ? c->address->events[TDI_EVENT_DISCONNECT]
                                           : EventHandler{};
    PVOID context = c->context;
    held.unlock();
    CompleteAll(done);
    if (h.handler != nullptr) {
        AtDispatch irql;
        reinterpret_cast<PTDI_IND_DISCONNECT>(h.handler)(h.context, context, 0, nullptr, 0,
                                                          nullptr, flags);
    }
    held.lock();
}

// Stream data for a connection: pending receives first, else indications.
void OnReadable(Transport &t, Connection *c, std::unique_lock<std::mutex> &held)
{
    static thread_local std::vector<UCHAR> lookahead(kLookahead);
    std::vector<Completion> done;
    for (int round = 0; round < 64 && !c->cleanedUp && c->fd >= 0 && !c->peerClosed &&
                        c->state == Connection::State::Connected;
         ++round) {
        if (!c->receives.empty()) {
            PIRP irp = c->receives.front();
            ULONG received;
            int closedBy;
            if (!ReceiveInto(t, c, irp, &received, &closedBy))
                break;
            if (closedBy >= 0) {
                OnPeerClosed(t, c, closedBy, held, done);
                break;
            }
            c->receives.pop_front();
            done.push_back({irp, STATUS_SUCCESS, received});
            continue;
        }
        if (!HasReceiveHandler(c) || c->indicationsBlocked)
            break;
        ssize_t peeked = recv(c->fd, lookahead.data(), lookahead.size(), MSG_PEEK | MSG_DONTWAIT);
        if (peeked < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        if (peeked <= 0) {
            OnPeerClosed(t, c, peeked == 0 ? 0 : errno, held, done);
            break;
        }
        int available = 0;
        ioctl(c->fd, FIONREAD, &available);
        if (available < peeked)
            available = static_cast<int>(peeked);
        EventHandler h = c->address->events[TDI_EVENT_RECEIVE];
        PVOID context = c->context;
        ULONG indicated = static_cast<ULONG>(peeked);
        ULONG flags = TDI_RECEIVE_NORMAL | TDI_RECEIVE_AT_DISPATCH_LEVEL |
                      (static_cast<ULONG>(available) == indicated ? TDI_RECEIVE_ENTIRE_MESSAGE : 0);
        ULONG taken = 0;
        PIRP irp = nullptr;
        NTSTATUS status;
        {
            held.unlock();
            CompleteAll(done);
            {
                AtDispatch irql;
                status = reinterpret_cast<PTDI_IND_RECEIVE>(h.handler)(
                    h.context, context, flags, indicated, static_cast<ULONG>(available), &taken,
                    lookahead.data(), &irp);
            }
            held.lock();
            if (taken > indicated)
                taken = indicated;
            if (c->cleanedUp || c->fd < 0) {
                if (status == STATUS_MORE_PROCESSING_REQUIRED && irp != nullptr) {
                    IoSetNextIrpStackLocation(irp);
                    done.push_back({irp, c->closedStatus, 0});
                }
                break;
            }
            if (taken > 0) {
                ssize_t consumed = recv(c->fd, lookahead.data(), taken, MSG_DONTWAIT);
                if (consumed > 0) {
                    ++t.stats.framesReceived;
                    t.stats.frameBytesReceived += consumed;
                }
            }
            if (status == STATUS_MORE_PROCESSING_REQUIRED && irp != nullptr) {
                // The client's receive takes the rest: it is queued first in line.
                IoSetNextIrpStackLocation(irp);
                IoGetCurrentIrpStackLocation(irp)->DeviceObject = t.tcp;
                c->receives.push_front(irp);
                continue;
            }
            if (taken < indicated) {
                c->indicationsBlocked = true; // until the client posts a receive
                break;
            }
        }
    }
    UpdateInterest(t, c);
    held.unlock();
    CompleteAll(done);
    held.lock();
}

void OnConnectDone(Transport &t, Connection *c, std::vector<Completion> &done)
{
    int error = 0;
    socklen_t length = sizeof(error);
    getsockopt(c->fd, SOL_SOCKET, SO_ERROR, &error, &length);
    PIRP irp = c->connectIrp;
    c->connectIrp = nullptr;
    if (error != 0) {
        CloseSocket(t, &c->fd);
        c->state = Connection::State::Idle;
        if (irp != nullptr)
            done.push_back({irp, StatusFromErrno(error), 0});
        return;
    }
    c->state = Connection::State::Connected;
    ++t.stats.openConnections;
    if (irp != nullptr)
        done.push_back({irp, STATUS_SUCCESS, 0});
    UpdateInterest(t, c);
}

void OnConnectionEvent(Transport &t, Connection *c, uint32_t events,
                       std::unique_lock<std::mutex> &held)
{
    std::vector<Completion> done;
    if (c->state == Connection::State::Connecting) {
        if (events & (EPOLLOUT | EPOLLERR | EPOLLHUP))
            OnConnectDone(t, c, done);
        held.unlock();
        CompleteAll(done);
        held.lock();
        return;
    }
    if (c->state != Connection::State::Connected)
        return;
    if (events & EPOLLERR) {
        int error = 0;
        socklen_t length = sizeof(error);
        getsockopt(c->fd, SOL_SOCKET, SO_ERROR, &error, &length);
        OnPeerClosed(t, c, error != 0 ? error : ECONNRESET, held, done);
    } else {
        if (events & EPOLLOUT)
            PumpSends(t, c, done);
        if ((events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP)) && !c->cleanedUp && c->fd >= 0) {
            held.unlock();
            CompleteAll(done);
            held.lock();
            if (!c->cleanedUp && c->fd >= 0 && !c->peerClosed) {
                int available = 0;
                ioctl(c->fd, FIONREAD, &available);
                if (available == 0 && (events & (EPOLLRDHUP | EPOLLHUP))) {
                    OnPeerClosed(t, c, 0, held, done);
                } else {
                    if (events & (EPOLLRDHUP | EPOLLHUP))
                        c->finBehindData = true; // seen again as a zero-length read
                    OnReadable(t, c, held);
                }
            }
        }
        if (!c->cleanedUp)
            UpdateInterest(t, c);
    }
    held.unlock();
    CompleteAll(done);
    held.lock();
}

// One datagram for an address: a pending receive takes it, else the handler.
void OnDatagram(Transport &t, Address *a, std::unique_lock<std::mutex> &held)
{
    static thread_local std::vector<UCHAR> buffer(kMaxDatagram + 1);
    std::vector<Completion> done;
    for (int round = 0; round < 64 && !a->cleanedUp && a->fd >= 0; ++round) {
        EventHandler h = a->events[TDI_EVENT_RECEIVE_DATAGRAM];
        if (a->datagramReceives.empty() && h.handler == nullptr)
            break;
        sockaddr_in from{};
        socklen_t fromLength = sizeof(from);
        ssize_t got = recvfrom(a->fd, buffer.data(), buffer.size(), MSG_DONTWAIT,
                               reinterpret_cast<sockaddr *>(&from), &fromLength);
        if (got < 0)
            break;
        ++t.stats.datagramsReceived;
        t.stats.datagramBytesReceived += got;
        const ULONG length = static_cast<ULONG>(got);
        TA_IP_ADDRESS source;
        FillTransportAddress(&source, from);
        PIRP irp = nullptr;
        ULONG offset = 0;
        if (!a->datagramReceives.empty()) {
            irp = a->datagramReceives.front();
            a->datagramReceives.pop_front();
        } else {
            ULONG taken = 0;
            NTSTATUS status;
            held.unlock();
            CompleteAll(done);
            {
                AtDispatch irql;
                status = reinterpret_cast<PTDI_IND_RECEIVE_DATAGRAM>(h.handler)(
                    h.context, sizeof(source), &source, 0, nullptr,
                    TDI_RECEIVE_NORMAL | TDI_RECEIVE_ENTIRE_MESSAGE | TDI_RECEIVE_AT_DISPATCH_LEVEL,
                    length, length, &taken, buffer.data(), &irp);
            }
            held.lock();
            if (status != STATUS_MORE_PROCESSING_REQUIRED || irp == nullptr)
                continue; // taken or declined: a datagram is indicated once
            IoSetNextIrpStackLocation(irp);
            IoGetCurrentIrpStackLocation(irp)->DeviceObject = t.udp;
            offset = taken < length ? taken : length;
        }
        auto *p = ParametersOf<TDI_REQUEST_KERNEL_RECEIVEDG>(irp);
        LONGLONG chain = ChainLength(irp->MdlAddress);
        ULONG room = chain < 0 ? 0 : static_cast<ULONG>(chain);
        if (p->ReceiveLength != 0 && p->ReceiveLength < room)
            room = p->ReceiveLength;
        ULONG want = length - offset;
        ULONG copied = CopyChain(irp->MdlAddress, 0, buffer.data() + offset,
                                 want < room ? want : room, true);
        PTDI_CONNECTION_INFORMATION ret = p->ReturnDatagramInformation;
        if (ret != nullptr && ret->RemoteAddress != nullptr &&
            ret->RemoteAddressLength >= static_cast<LONG>(sizeof(source)))
            std::memcpy(ret->RemoteAddress, &source, sizeof(source));
        done.push_back({irp, copied < want ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS, copied});
    }
    if (!a->cleanedUp)
        UpdateInterest(t, a);
    held.unlock();
    CompleteAll(done);
    held.lock();
}

// An ICMP error queued on a datagram socket goes to the address's error handler.
void OnDatagramError(Address *a, std::unique_lock<std::mutex> &held)
{
    for (int round = 0; round < 16 && !a->cleanedUp && a->fd >= 0; ++round) {
        UCHAR data[64];
        UCHAR control[512];
        iovec iov{data, sizeof(data)};
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof(control);
        if (recvmsg(a->fd, &msg, MSG_ERRQUEUE | MSG_DONTWAIT) < 0)
            break;
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        for (cmsghdr *cm = CMSG_FIRSTHDR(&msg); cm != nullptr; cm = CMSG_NXTHDR(&msg, cm)) {
            if (cm->cmsg_level != SOL_IP || cm->cmsg_type != IP_RECVERR)
                continue;
            sock_extended_err ee;
            std::memcpy(&ee, CMSG_DATA(cm), sizeof(ee));
            if (ee.ee_origin == SO_EE_ORIGIN_ICMP && ee.ee_type == 3)
                status = ee.ee_code == 3   ? STATUS_PORT_UNREACHABLE
                         : ee.ee_code == 2 ? STATUS_PROTOCOL_UNREACHABLE
                         : ee.ee_code == 0 ? STATUS_NETWORK_UNREACHABLE
                                           : STATUS_HOST_UNREACHABLE;
            else
                status = StatusFromErrno(static_cast<int>(ee.ee_errno));
        }
        EventHandler h = a->events[TDI_EVENT_ERROR];
        if (h.handler == nullptr)
            continue;
        held.unlock();
        {
            AtDispatch irql;
            reinterpret_cast<PTDI_IND_ERROR>(h.handler)(h.context, status);
        }
        held.lock();
    }
}

void PumpDatagramSends(Transport &t, Address *a, std::vector<Completion> &done);

// An incoming connection on a listening address: the connect handler accepts it
// with one of the address's endpoints, or it is reset.
void OnIncoming(Transport &t, Address *a, std::unique_lock<std::mutex> &held)
{
    std::vector<Completion> done;
    for (int round = 0; round < 16 && !a->cleanedUp && a->fd >= 0; ++round) {
        sockaddr_in peer{};
        socklen_t peerLength = sizeof(peer);
        int fd = accept4(a->fd, reinterpret_cast<sockaddr *>(&peer), &peerLength,
                         SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0)
            break;
        t.sockets[fd] = a;
        EventHandler h = a->events[TDI_EVENT_CONNECT];
        TA_IP_ADDRESS remote;
        FillTransportAddress(&remote, peer);
        CONNECTION_CONTEXT context = nullptr;
        PIRP accept = nullptr;
        NTSTATUS status = STATUS_CONNECTION_REFUSED;
        if (h.handler != nullptr) {
            held.unlock();
            {
                AtDispatch irql;
                status = reinterpret_cast<PTDI_IND_CONNECT>(h.handler)(
                    h.context, sizeof(remote), &remote, 0, nullptr, 0, nullptr, &context, &accept);
            }
            held.lock();
        }
        Connection *c = nullptr;
        if (status == STATUS_MORE_PROCESSING_REQUIRED && accept != nullptr) {
            IoSetNextIrpStackLocation(accept);
            PFILE_OBJECT file = IoGetCurrentIrpStackLocation(accept)->FileObject;
            auto *object = file != nullptr && file->DeviceObject == t.tcp
                               ? static_cast<TransportObject *>(file->FsContext)
                               : nullptr;
            if (object != nullptr && t.objects.count(object) &&
                object->kind == ObjectKind::Connection) {
                c = static_cast<Connection *>(object);
                if (c->address != a || c->state != Connection::State::Idle || c->cleanedUp)
                    c = nullptr;
            }
            if (c == nullptr)
                done.push_back({accept, STATUS_INVALID_CONNECTION, 0});
        }
        if (c == nullptr) {
            linger abort{1, 0};
            setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
            t.sockets.erase(fd);
            close(fd);
            continue;
        }
        t.sockets[fd] = c;
        c->fd = fd;
        c->state = Connection::State::Connected;
        ++t.stats.openConnections;
        UpdateInterest(t, c);
        done.push_back({accept, STATUS_SUCCESS, 0});
    }
    held.unlock();
    CompleteAll(done);
    held.lock();
}

void OnAddressEvent(Transport &t, Address *a, uint32_t events, std::unique_lock<std::mutex> &held)
{
    if (a->protocol == Protocol::Tcp) {
        OnIncoming(t, a, held);
        return;
    }
    if (events & EPOLLERR)
        OnDatagramError(a, held);
    if ((events & EPOLLOUT) && !a->cleanedUp) {
        std::vector<Completion> done;
        PumpDatagramSends(t, a, done);
        UpdateInterest(t, a);
        held.unlock();
        CompleteAll(done);
        held.lock();
    }
    if ((events & EPOLLIN) && !a->cleanedUp)
        OnDatagram(t, a, held);
}

void PollThread()
{
    t_inPollThread = true;
    Transport &t = State();
    epoll_event events[64];
    for (;;) {
        int n = epoll_wait(t.epoll, events, 64, -1);
        for (int i = 0; i < n; ++i) {
            std::unique_lock<std::mutex> held(t.lock);
            auto it = t.sockets.find(events[i].data.fd);
            if (it == t.sockets.end())
                continue;
            TransportObject *object = it->second;
            if (object->cleanedUp)
                continue;
            Reference keep(object->file);
            if (object->kind == ObjectKind::Address) {
                Address *a = static_cast<Address *>(object);
                if (a->fd == events[i].data.fd)
                    OnAddressEvent(t, a, events[i].events, held);
            } else if (object->kind == ObjectKind::Connection) {
                Connection *c = static_cast<Connection *>(object);
                if (c->fd == events[i].data.fd)
                    OnConnectionEvent(t, c, events[i].events, held);
            }
            held.unlock(); // the reference may be the last: no lock while it goes
        }
    }
}

// ---- datagram sends (transport lock held) ----

NTSTATUS SendDatagramNow(Transport &t, Address *a, PIRP irp, bool *wouldBlock)
{
    static thread_local std::vector<UCHAR> buffer(kMaxDatagram);
    *wouldBlock = false;
    auto *p = ParametersOf<TDI_REQUEST_KERNEL_SENDDG>(irp);
    sockaddr_in to{};
    if (p->SendDatagramInformation == nullptr ||
        !ParseTransportAddress(p->SendDatagramInformation->RemoteAddress,
                               p->SendDatagramInformation->RemoteAddressLength, &to))
        return STATUS_INVALID_ADDRESS_COMPONENT;
    LONGLONG chain = ChainLength(irp->MdlAddress);
    if (chain < 0 || p->SendLength > chain || p->SendLength > kMaxDatagram)
        return STATUS_INVALID_PARAMETER;
    ULONG length = CopyChain(irp->MdlAddress, 0, buffer.data(), p->SendLength, false);
    for (int attempt = 0; attempt < 2; ++attempt) {
        ssize_t sent = sendto(a->fd, buffer.data(), length, MSG_DONTWAIT | MSG_NOSIGNAL,
                              reinterpret_cast<sockaddr *>(&to), sizeof(to));
        if (sent >= 0) {
            ++t.stats.datagramsSent;
            t.stats.datagramBytesSent += sent;
            irp->IoStatus.Information = static_cast<ULONG_PTR>(sent);
            return STATUS_SUCCESS;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            *wouldBlock = true;
            return STATUS_PENDING;
        }
        if (errno != ECONNREFUSED) // an earlier ICMP error reported here: send again
            return StatusFromErrno(errno);
    }
    return STATUS_PORT_UNREACHABLE;
}

void PumpDatagramSends(Transport &t, Address *a, std::vector<Completion> &done)
{
    while (!a->datagramSends.empty() && a->fd >= 0) {
        PIRP irp = a->datagramSends.front();
        bool wouldBlock;
        NTSTATUS status = SendDatagramNow(t, a, irp, &wouldBlock);
        if (wouldBlock)
            return;
        a->datagramSends.pop_front();
        done.push_back({irp, status, NT_SUCCESS(status) ? irp->IoStatus.Information : 0});
    }
}

// ---- creating and closing ----

NTSTATUS CreateAddress(Transport &t, Protocol protocol, PFILE_OBJECT file, const UCHAR *value,
                       USHORT valueLength)
{
    sockaddr_in local{};
    if (!ParseTransportAddress(value, valueLength, &local))
        return STATUS_INVALID_ADDRESS_COMPONENT;
    auto *a = new Address();
    a->kind = ObjectKind::Address;
    a->protocol = protocol;
    a->file = file;
    a->local = local;
    std::lock_guard<std::mutex> guard(t.lock);
    // A datagram address owns its socket from the start; a stream address binds its
    // port when it starts listening, or with each connection.
    int fd = OpenSocket(t, a, protocol == Protocol::Udp ? SOCK_DGRAM : SOCK_STREAM);
    if (fd < 0) {
        delete a;
        return StatusFromErrno(errno);
    }
    int on = 1;
    if (protocol == Protocol::Tcp)
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    else
        setsockopt(fd, SOL_IP, IP_RECVERR, &on, sizeof(on));
    if (bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof(local)) != 0) {
        NTSTATUS status = StatusFromErrno(errno);
        CloseSocket(t, &fd);
        delete a;
        return status;
    }
    if (protocol == Protocol::Udp) {
        socklen_t length = sizeof(a->local);
        getsockname(fd, reinterpret_cast<sockaddr *>(&a->local), &length);
        a->fd = fd;
        Watch(t, fd, 0);
    } else {
        CloseSocket(t, &fd); // the port was only checked: connections bind it again
    }
    t.objects.insert(a);
    file->FsContext = a;
    file->FsContext2 = reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(TDI_TRANSPORT_ADDRESS_FILE));
    return STATUS_SUCCESS;
}

NTSTATUS DispatchCreate(Transport &t, Protocol protocol, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    PFILE_OBJECT file = stack->FileObject;
    const void *ea = irp->AssociatedIrp.SystemBuffer;
    const ULONG eaLength = stack->Parameters.Create.EaLength;
    const UCHAR *value = nullptr;
    USHORT valueLength = 0;
    if (FindEa(ea, eaLength, TdiTransportAddress, &value, &valueLength))
        return CompleteNow(irp, CreateAddress(t, protocol, file, value, valueLength));
    TransportObject *object;
    if (FindEa(ea, eaLength, TdiConnectionContext, &value, &valueLength)) {
        if (protocol != Protocol::Tcp || valueLength < sizeof(PVOID))
            return CompleteNow(irp, STATUS_INVALID_PARAMETER);
        auto *c = new Connection();
        std::memcpy(&c->context, value, sizeof(PVOID));
        c->kind = ObjectKind::Connection;
        object = c;
        file->FsContext2 = reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(TDI_CONNECTION_FILE));
    } else {
        object = new TransportObject();
        object->kind = ObjectKind::Control;
        file->FsContext2 = reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(TDI_CONTROL_CHANNEL_FILE));
    }
    object->protocol = protocol;
    object->file = file;
    {
        std::lock_guard<std::mutex> guard(t.lock);
        t.objects.insert(object);
    }
    file->FsContext = object;
    return CompleteNow(irp, STATUS_SUCCESS);
}

// Unlinks an endpoint from its address; the address file reference goes to *release.
void Disassociate(Connection *c, PFILE_OBJECT *release)
{
    *release = nullptr;
    if (c->address == nullptr)
        return;
    auto &list = c->address->connections;
    for (size_t i = 0; i < list.size(); ++i)
        if (list[i] == c) {
            list.erase(list.begin() + static_cast<std::ptrdiff_t>(i));
            break;
        }
    *release = c->address->file;
    c->address = nullptr;
}

NTSTATUS DispatchCleanup(Transport &t, PIRP irp)
{
    PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    auto *object = static_cast<TransportObject *>(file->FsContext);
    std::vector<Completion> done;
    std::vector<PFILE_OBJECT> release;
    if (object != nullptr) {
        std::lock_guard<std::mutex> guard(t.lock);
        object->cleanedUp = true;
        if (object->kind == ObjectKind::Address) {
            auto *a = static_cast<Address *>(object);
            for (PIRP r : a->datagramReceives)
                done.push_back({r, STATUS_CANCELLED, 0});
            for (PIRP r : a->datagramSends)
                done.push_back({r, STATUS_CANCELLED, 0});
            a->datagramReceives.clear();
            a->datagramSends.clear();
            for (auto &e : a->events)
                e = EventHandler{};
            CloseSocket(t, &a->fd);
        } else if (object->kind == ObjectKind::Connection) {
            auto *c = static_cast<Connection *>(object);
            if (c->fd >= 0 && c->state == Connection::State::Connected && !c->localClosed) {
                linger abort{1, 0}; // an endpoint closed while connected resets the connection
                setsockopt(c->fd, SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
            }
            FailConnection(t, c, STATUS_CANCELLED, done);
            PFILE_OBJECT addressFile;
            Disassociate(c, &addressFile);
            if (addressFile != nullptr)
                release.push_back(addressFile);
        }
    }
    CompleteAll(done);
    for (PFILE_OBJECT f : release)
        ObDereferenceObject(f);
    return CompleteNow(irp, STATUS_SUCCESS);
}

NTSTATUS DispatchClose(Transport &t, PIRP irp)
{
    PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    auto *object = static_cast<TransportObject *>(file->FsContext);
    if (object != nullptr) {
        std::lock_guard<std::mutex> guard(t.lock);
        t.objects.erase(object);
        if (object->kind == ObjectKind::Address) {
            // Endpoints still associated (their cleanup never ran) let go of it.
            for (Connection *c : static_cast<Address *>(object)->connections)
                c->address = nullptr;
            delete static_cast<Address *>(object);
        } else if (object->kind == ObjectKind::Connection) {
            delete static_cast<Connection *>(object);
        } else {
            delete object;
        }
        file->FsContext = nullptr;
    }
    return CompleteNow(irp, STATUS_SUCCESS);
}

// ---- internal device control ----

NTSTATUS Associate(Transport &t, Connection *c, PIRP irp)
{
    HANDLE handle = ParametersOf<TDI_REQUEST_KERNEL_ASSOCIATE>(irp)->AddressHandle;
    PFILE_OBJECT addressFile = nullptr;
    NTSTATUS status = ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode,
                                                reinterpret_cast<PVOID *>(&addressFile), nullptr);
    if (!NT_SUCCESS(status))
        return CompleteNow(irp, STATUS_INVALID_HANDLE);
    {
        std::lock_guard<std::mutex> guard(t.lock);
        auto *object = addressFile->DeviceObject == t.tcp
                           ? static_cast<TransportObject *>(addressFile->FsContext)
                           : nullptr;
        if (object == nullptr || !t.objects.count(object) || object->kind != ObjectKind::Address)
            status = STATUS_INVALID_HANDLE;
        else if (c->address != nullptr)
            status = STATUS_ADDRESS_ALREADY_ASSOCIATED;
        else {
            c->address = static_cast<Address *>(object);
            c->address->connections.push_back(c);
            addressFile = nullptr; // the endpoint keeps the reference
        }
    }
    if (addressFile != nullptr)
        ObDereferenceObject(addressFile);
    return CompleteNow(irp, status);
}

NTSTATUS Disassociate(Transport &t, Connection *c, PIRP irp)
{
    PFILE_OBJECT release = nullptr;
    NTSTATUS status = STATUS_SUCCESS;
    {
        std::lock_guard<std::mutex> guard(t.lock);
        if (c->state == Connection::State::Connected || c->state == Connection::State::Connecting)
            status = STATUS_CONNECTION_ACTIVE;
        else
            Disassociate(c, &release);
    }
    if (release != nullptr)
        ObDereferenceObject(release);
    return CompleteNow(irp, status);
}

NTSTATUS SetEventHandler(Transport &t, Address *a, PIRP irp)
{
    auto *p = ParametersOf<TDI_REQUEST_KERNEL_SET_EVENT>(irp);
    if (p->EventType < 0 || p->EventType > TDI_EVENT_ERROR_EX)
        return CompleteNow(irp, STATUS_INVALID_PARAMETER);
    NTSTATUS status = STATUS_SUCCESS;
    {
        std::lock_guard<std::mutex> guard(t.lock);
        a->events[p->EventType].handler = p->EventHandler;
        a->events[p->EventType].context = p->EventContext;
        if (a->protocol == Protocol::Tcp && p->EventType == TDI_EVENT_CONNECT &&
            p->EventHandler != nullptr && a->fd < 0 && a->local.sin_port != 0) {
            int fd = OpenSocket(t, a, SOCK_STREAM);
            int on = 1;
            if (fd >= 0)
                setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
            if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&a->local), sizeof(a->local)) != 0 ||
                listen(fd, kListenBacklog) != 0) {
                status = StatusFromErrno(errno);
                CloseSocket(t, &fd);
                a->events[p->EventType] = EventHandler{};
            } else {
                a->fd = fd;
            }
        }
        UpdateInterest(t, a);
        for (Connection *c : a->connections)
            UpdateInterest(t, c);
    }
    return CompleteNow(irp, status);
}

NTSTATUS Connect(Transport &t, Connection *c, PIRP irp)
{
    auto *p = ParametersOf<TDI_REQUEST_KERNEL_CONNECT>(irp);
    sockaddr_in peer{};
    if (p->RequestConnectionInformation == nullptr ||
        !ParseTransportAddress(p->RequestConnectionInformation->RemoteAddress,
                               p->RequestConnectionInformation->RemoteAddressLength, &peer))
        return CompleteNow(irp, STATUS_INVALID_ADDRESS_COMPONENT);
    std::unique_lock<std::mutex> held(t.lock);
    if (c->address == nullptr) {
        held.unlock();
        return CompleteNow(irp, STATUS_INVALID_CONNECTION);
    }
    if (c->state != Connection::State::Idle) {
        held.unlock();
        return CompleteNow(irp, STATUS_CONNECTION_ACTIVE);
    }
    int fd = OpenSocket(t, c, SOCK_STREAM);
    if (fd < 0) {
        NTSTATUS status = StatusFromErrno(errno);
        held.unlock();
        return CompleteNow(irp, status);
    }
    sockaddr_in local = c->address->local;
    if (c->address->fd >= 0)
        local.sin_port = 0; // the address listens on its port: connect from another
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    int rc = bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof(local));
    if (rc == 0)
        rc = connect(fd, reinterpret_cast<sockaddr *>(&peer), sizeof(peer));
    if (rc != 0 && errno != EINPROGRESS) {
        NTSTATUS status = StatusFromErrno(errno);
        CloseSocket(t, &fd);
        held.unlock();
        return CompleteNow(irp, status);
    }
    c->fd = fd;
    c->peerClosed = c->localClosed = c->indicationsBlocked = c->finBehindData = false;
    if (rc == 0) {
        c->state = Connection::State::Connected;
        ++t.stats.openConnections;
        UpdateInterest(t, c);
        held.unlock();
        return CompleteNow(irp, STATUS_SUCCESS);
    }
    c->state = Connection::State::Connecting;
    c->connectIrp = irp;
    IoMarkIrpPending(irp);
    UpdateInterest(t, c);
    return STATUS_PENDING;
}

NTSTATUS Disconnect(Transport &t, Connection *c, PIRP irp)
{
    auto *p = ParametersOf<TDI_REQUEST_KERNEL_DISCONNECT>(irp);
    std::vector<Completion> done;
    std::unique_lock<std::mutex> held(t.lock);
    if (c->state != Connection::State::Connected) {
        held.unlock();
        return CompleteNow(irp, STATUS_CONNECTION_INVALID);
    }
    if (p->RequestFlags & TDI_DISCONNECT_ABORT) {
        linger abort{1, 0};
        setsockopt(c->fd, SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
        ++t.stats.localDisconnects;
        FailConnection(t, c, STATUS_CONNECTION_ABORTED, done);
        held.unlock();
        CompleteAll(done);
        return CompleteNow(irp, STATUS_SUCCESS);
    }
    if (c->localClosed || c->disconnectIrp != nullptr) {
        held.unlock();
        return CompleteNow(irp, STATUS_CONNECTION_INVALID);
    }
    if (!c->sends.empty()) {
        c->disconnectIrp = irp; // released once the queued data is out
        IoMarkIrpPending(irp);
        return STATUS_PENDING;
    }
    shutdown(c->fd, SHUT_WR);
    c->localClosed = true;
    ++t.stats.localDisconnects;
    UpdateInterest(t, c);
    held.unlock();
    return CompleteNow(irp, STATUS_SUCCESS);
}

NTSTATUS StreamSend(Transport &t, Connection *c, PIRP irp)
{
    auto *p = ParametersOf<TDI_REQUEST_KERNEL_SEND>(irp);
    LONGLONG chain = ChainLength(irp->MdlAddress);
    if (chain < 0 || p->SendLength > chain)
        return CompleteNow(irp, STATUS_INVALID_PARAMETER);
    std::vector<Completion> done;
    std::unique_lock<std::mutex> held(t.lock);
    if (c->state != Connection::State::Connected || c->localClosed || c->disconnectIrp) {
        NTSTATUS status = c->state == Connection::State::Closed ? c->closedStatus
                                                                : STATUS_INVALID_CONNECTION;
        held.unlock();
        return CompleteNow(irp, status);
    }
    IoMarkIrpPending(irp);
    c->sends.push_back({irp, 0});
    PumpSends(t, c, done);
    UpdateInterest(t, c);
    held.unlock();
    CompleteAll(done);
    return STATUS_PENDING;
}

NTSTATUS StreamReceive(Transport &t, Connection *c, PIRP irp)
{
    std::unique_lock<std::mutex> held(t.lock);
    if (c->state != Connection::State::Connected) {
        NTSTATUS status = c->state == Connection::State::Closed ? c->closedStatus
                                                                : STATUS_INVALID_CONNECTION;
        held.unlock();
        return CompleteNow(irp, status);
    }
    if (c->peerClosed) {
        // Data the peer sent before releasing is still delivered; then end of stream.
        ULONG received = 0;
        int closedBy;
        ReceiveInto(t, c, irp, &received, &closedBy);
        held.unlock();
        return CompleteNow(irp, STATUS_SUCCESS, received); // zero bytes: end of stream
    }
    IoMarkIrpPending(irp);
    c->receives.push_back(irp);
    c->indicationsBlocked = false;
    UpdateInterest(t, c);
    return STATUS_PENDING;
}

NTSTATUS SendDatagram(Transport &t, Address *a, PIRP irp)
{
    std::unique_lock<std::mutex> held(t.lock);
    if (a->protocol != Protocol::Udp || a->fd < 0) {
        held.unlock();
        return CompleteNow(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    if (a->datagramSends.empty()) {
        bool wouldBlock;
        NTSTATUS status = SendDatagramNow(t, a, irp, &wouldBlock);
        if (!wouldBlock) {
            ULONG_PTR information = NT_SUCCESS(status) ? irp->IoStatus.Information : 0;
            held.unlock();
            return CompleteNow(irp, status, information);
        }
    }
    IoMarkIrpPending(irp);
    a->datagramSends.push_back(irp);
    UpdateInterest(t, a);
    return STATUS_PENDING;
}

NTSTATUS ReceiveDatagram(Transport &t, Address *a, PIRP irp)
{
    std::unique_lock<std::mutex> held(t.lock);
    if (a->protocol != Protocol::Udp || a->fd < 0) {
        held.unlock();
        return CompleteNow(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    IoMarkIrpPending(irp);
    a->datagramReceives.push_back(irp);
    UpdateInterest(t, a);
    return STATUS_PENDING;
}

// Writes `length` bytes of `record` to the request's MDL chain.
NTSTATUS ReturnRecord(PIRP irp, const void *record, ULONG length)
{
    LONGLONG chain = ChainLength(irp->MdlAddress);
    if (chain < length)
        return CompleteNow(irp, STATUS_BUFFER_TOO_SMALL);
    ULONG copied = CopyChain(irp->MdlAddress, 0, const_cast<void *>(record), length, true);
    return CompleteNow(irp, STATUS_SUCCESS, copied);
}

NTSTATUS QueryInformation(Transport &t, TransportObject *object, PIRP irp)
{
    auto *p = ParametersOf<TDI_REQUEST_KERNEL_QUERY_INFORMATION>(irp);
    std::unique_lock<std::mutex> held(t.lock);
    switch (p->QueryType) {
    case TDI_QUERY_PROVIDER_INFO: {
        TDI_PROVIDER_INFO info{};
        info.Version = 0x0002;
        if (object->protocol == Protocol::Tcp) {
            info.MaxSendSize = 0x7FFFFFFF;
            info.ServiceFlags = TDI_SERVICE_CONNECTION_MODE | TDI_SERVICE_ORDERLY_RELEASE |
                                TDI_SERVICE_ERROR_FREE_DELIVERY | TDI_SERVICE_EXPEDITED_DATA |
                                TDI_SERVICE_DELAYED_ACCEPTANCE;
        } else {
            info.MaxDatagramSize = kMaxDatagram;
            info.ServiceFlags = TDI_SERVICE_CONNECTIONLESS_MODE |
                                TDI_SERVICE_BROADCAST_SUPPORTED | TDI_SERVICE_MULTICAST_SUPPORTED;
        }
        info.MinimumLookaheadData = 1;
        info.MaximumLookaheadData = kLookahead;
        info.StartTime = t.startTime;
        held.unlock();
        return ReturnRecord(irp, &info, sizeof(info));
    }
    case TDI_QUERY_PROVIDER_STATISTICS: {
        TDI_PROVIDER_STATISTICS s{};
        s.Version = 0x0100;
        s.OpenConnections = t.stats.openConnections;
        s.LocalDisconnects = t.stats.localDisconnects;
        s.RemoteDisconnects = t.stats.remoteDisconnects;
        s.DatagramsSent = t.stats.datagramsSent;
        s.DatagramBytesSent.QuadPart = t.stats.datagramBytesSent;
        s.DatagramsReceived = t.stats.datagramsReceived;
        s.DatagramBytesReceived.QuadPart = t.stats.datagramBytesReceived;
        s.DataFramesSent = t.stats.framesSent;
        s.DataFrameBytesSent.QuadPart = t.stats.frameBytesSent;
        s.DataFramesReceived = t.stats.framesReceived;
        s.DataFrameBytesReceived.QuadPart = t.stats.frameBytesReceived;
        held.unlock();
        return ReturnRecord(irp, &s, sizeof(s));
    }
    case TDI_QUERY_ADDRESS_INFO: {
        sockaddr_in local{};
        if (object->kind == ObjectKind::Address) {
            local = static_cast<Address *>(object)->local;
        } else if (object->kind == ObjectKind::Connection) {
            auto *c = static_cast<Connection *>(object);
            socklen_t length = sizeof(local);
            if (c->fd >= 0)
                getsockname(c->fd, reinterpret_cast<sockaddr *>(&local), &length);
            else if (c->address != nullptr)
                local = c->address->local;
        } else {
            held.unlock();
            return CompleteNow(irp, STATUS_INVALID_PARAMETER);
        }
        held.unlock();
        struct {
            ULONG ActivityCount;
            TA_IP_ADDRESS Address;
        } info{}; // TDI_ADDRESS_INFO with room for one IP address
        info.ActivityCount = 1;
        FillTransportAddress(&info.Address, local);
        return ReturnRecord(irp, &info, sizeof(info));
    }
    default:
        held.unlock();
        return CompleteNow(irp, STATUS_NOT_IMPLEMENTED);
    }
}

NTSTATUS DispatchInternal(Transport &t, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    auto *object = stack->FileObject != nullptr
                       ? static_cast<TransportObject *>(stack->FileObject->FsContext)
                       : nullptr;
    if (object == nullptr || object->cleanedUp)
        return CompleteNow(irp, STATUS_INVALID_HANDLE);
    auto *a = object->kind == ObjectKind::Address ? static_cast<Address *>(object) : nullptr;
    auto *c = object->kind == ObjectKind::Connection ? static_cast<Connection *>(object) : nullptr;
    switch (stack->MinorFunction) {
    case TDI_ASSOCIATE_ADDRESS:
        return c ? Associate(t, c, irp) : CompleteNow(irp, STATUS_INVALID_CONNECTION);
    case TDI_DISASSOCIATE_ADDRESS:
        return c ? Disassociate(t, c, irp) : CompleteNow(irp, STATUS_INVALID_CONNECTION);
    case TDI_CONNECT:
        return c ? Connect(t, c, irp) : CompleteNow(irp, STATUS_INVALID_CONNECTION);
    case TDI_DISCONNECT:
        return c ? Disconnect(t, c, irp) : CompleteNow(irp, STATUS_INVALID_CONNECTION);
    case TDI_SEND:
        return c ? StreamSend(t, c, irp) : CompleteNow(irp, STATUS_INVALID_CONNECTION);
    case TDI_RECEIVE:
        return c ? StreamReceive(t, c, irp) : CompleteNow(irp, STATUS_INVALID_CONNECTION);
    case TDI_SEND_DATAGRAM:
        return a ? SendDatagram(t, a, irp) : CompleteNow(irp, STATUS_INVALID_ADDRESS);
    case TDI_RECEIVE_DATAGRAM:
        return a ? ReceiveDatagram(t, a, irp) : CompleteNow(irp, STATUS_INVALID_ADDRESS);
    case TDI_SET_EVENT_HANDLER:
        return a ? SetEventHandler(t, a, irp) : CompleteNow(irp, STATUS_INVALID_ADDRESS);
    case TDI_QUERY_INFORMATION:
        return QueryInformation(t, object, irp);
    case TDI_SET_INFORMATION: {
        auto *p = ParametersOf<TDI_REQUEST_KERNEL_SET_INFORMATION>(irp);
        if (c != nullptr && p->SetType == TDI_QUERY_CONNECTION_INFO)
            return CompleteNow(irp, STATUS_SUCCESS);
        return CompleteNow(irp, STATUS_NOT_IMPLEMENTED);
    }
    default:
        return CompleteNow(irp, STATUS_NOT_IMPLEMENTED);
    }
}

NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp)
{
    Transport &t = State();
    const Protocol protocol = device == t.tcp ? Protocol::Tcp : Protocol::Udp;
    switch (IoGetCurrentIrpStackLocation(irp)->MajorFunction) {
    case IRP_MJ_CREATE:
        return DispatchCreate(t, protocol, irp);
    case IRP_MJ_CLEANUP:
        return DispatchCleanup(t, irp);
    case IRP_MJ_CLOSE:
        return DispatchClose(t, irp);
    case IRP_MJ_INTERNAL_DEVICE_CONTROL:
        return DispatchInternal(t, irp);
    default:
        return CompleteNow(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

void Start()
{
    Transport &t = State();
    KeQuerySystemTime(&t.startTime);
    t.epoll = epoll_create1(EPOLL_CLOEXEC);
    NTSTATUS status;
    t.driver = DriverCreate("Tcpip", &status);
    if (t.driver == nullptr || t.epoll < 0) {
        VerifierError("the TCP/IP transport cannot start (0x%08x)", static_cast<unsigned>(status));
        return;
    }
    for (int i = 0; i <= IRP_MJ_MAXIMUM_FUNCTION; ++i)
        t.driver->MajorFunction[i] = Dispatch;
    OwnedUnicodeString tcp(ToName("\\Device\\Tcp"));
    OwnedUnicodeString udp(ToName("\\Device\\Udp"));
    IoCreateDevice(t.driver, 0, tcp.Get(), FILE_DEVICE_NETWORK, 0, FALSE, &t.tcp);
    IoCreateDevice(t.driver, 0, udp.Get(), FILE_DEVICE_NETWORK, 0, FALSE, &t.udp);
    DriverFinishDeviceInitialization(t.driver);
    DriverStateOf(t.driver)->phase = DriverState::Phase::Running;
    std::thread(PollThread).detach();
}

bool NamesTransportDevice(const Name &path)
{
    const Name upper = UpcaseName(path);
    for (const char *device : {"\\DEVICE\\TCP", "\\DEVICE\\UDP"}) {
        const Name name = ToName(device);
        if (upper.compare(0, name.size(), name) == 0 &&
            (upper.size() == name.size() || upper[name.size()] == u'\\'))
            return true;
    }
    return false;
}

} // namespace

void TransportStartFor(const Name &path)
{
    static std::once_flag started;
    if (NamesTransportDevice(path))
        std::call_once(started, Start);
}

ULONG TransportSocketCount()
{
    Transport &t = State();
    std::lock_guard<std::mutex> guard(t.lock);
    return static_cast<ULONG>(t.sockets.size());
}

ULONG TransportObjectCount()
{
    Transport &t = State();
    std::lock_guard<std::mutex> guard(t.lock);
    return static_cast<ULONG>(t.objects.size());
}

} // namespace hk

extern "C" {

ULONG HkTransportSocketCount(void)
{
    return hk::TransportSocketCount();
}

ULONG HkTransportObjectCount(void)
{
    return hk::TransportObjectCount();
}

} // extern "C"
