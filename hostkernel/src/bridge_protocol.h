// Host kernel runtime, bridge area: the messages between a user program's
// process and the daemon that runs the drivers, over a Unix stream socket.
//
// Every message is a 16-byte header followed by `bodyLength` bytes:
//
//   client -> daemon                          daemon -> client
//   Hello    window the client reserved       Opened   status, handle of an Open
//   Open     access, share, flags, name       Pending  the request's dispatch returned STATUS_PENDING
//   Request  major, code, lengths, input      Complete status, information, output bytes
//   Cancel   a request in flight (CancelIo)   Map      pages to map at an address (+ SCM_RIGHTS fd)
//   Close    a handle (CloseHandle)           Unmap    an address range to give back
//                                             Refused  the peer is not the daemon's user
//
// The client names its opens and requests by ids of its own choosing; the
// daemon names handles. The daemon reads every client message as hostile:
// lengths are bounded by kMaxTransfer, unknown handles and ids are refused.
// Both sides are little-endian x86-64, so records are sent as they lie.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace hk {
namespace bridge {

constexpr uint32_t kVersion = 1;
// The largest input or output of one request, and so of one message body.
constexpr uint32_t kMaxTransfer = 256u * 1024u;
// The longest device name of an Open, in UTF-16 code units.
constexpr uint32_t kMaxNameUnits = 256;
// What one connection may hold at once.
constexpr size_t kMaxHandles = 64;
constexpr size_t kMaxInFlight = 64;
// The address window a client reserves for the mappings of its requests.
constexpr uint64_t kWindowSize = 64ull << 20;

enum class Type : uint16_t {
    Hello = 1,
    Open = 2,
    Request = 3,
    Cancel = 4,
    Close = 5,
    Opened = 16,
    Pending = 17,
    Complete = 18,
    Map = 19,
    Unmap = 20,
    Refused = 21,
};

struct Header {
    uint32_t bodyLength;
    uint16_t type;
    uint16_t reserved;
    uint32_t handle; // the daemon's handle the message is about (0: none)
    uint32_t id;     // the client's id of the open or request
};

struct Hello {
    uint32_t version;
    uint32_t reserved;
    uint64_t windowBase;
    uint64_t windowSize;
};

struct Open {
    uint32_t access;
    uint32_t share;
    uint32_t flags;
    uint32_t nameUnits; // followed by the UTF-16 name
};

struct Request {
    uint8_t major; // IRP_MJ_DEVICE_CONTROL, IRP_MJ_READ or IRP_MJ_WRITE
    uint8_t reserved[3];
    uint32_t code;
    uint32_t inputLength; // followed by the input bytes
    uint32_t outputLength;
    uint64_t byteOffset;
};

struct Opened {
    int32_t status;
    uint32_t win32Error; // nonzero: the error to report as it is
};

struct Complete {
    int32_t status;
    uint32_t win32Error; // nonzero: the request failed before it reached the driver
    uint64_t information;
    uint32_t outputLength; // followed by the output bytes
    uint32_t reserved;
};

struct Map {
    uint64_t address;
    uint64_t length;
    uint64_t fileOffset;
};

struct Unmap {
    uint64_t address;
    uint64_t length;
};

struct Refused {
    uint32_t daemonUid;
    uint32_t peerUid;
};

// Sends one message (header + two body parts), with `fd` attached when >= 0.
// Whole or nothing from the sender's view; false when the socket failed.
bool SendMessage(int socket, Type type, uint32_t handle, uint32_t id, const void *part1,
                 size_t length1, const void *part2 = nullptr, size_t length2 = 0, int fd = -1);
// Reads exactly `length` bytes; false at end of stream or on error. With
// `fd` non-null, a descriptor passed with the bytes is stored there (-1 if none;
// any further ones are closed).
bool ReceiveExactly(int socket, void *buffer, size_t length, int *fd = nullptr);

} // namespace bridge
} // namespace hk
