// Host kernel runtime, bridge area: what the Win32 layer and the MDL code ask
// of the bridge, which carries a user program's Win32 calls on a device to the
// daemon process that runs the drivers (bridge_client.cpp) and turns them into
// IRPs there (bridge_server.cpp).
#pragma once
#include "io_internal.h"

namespace hk {

// ---- the user program's side (bridge_client.cpp) ----

// Opens "\\.\Name" in the daemon when this process has no such device:
// INVALID_HANDLE_VALUE with ERROR_FILE_NOT_FOUND when no daemon listens at
// the bridge's socket, ERROR_ACCESS_DENIED when it refuses this user.
HANDLE BridgeOpen(const Name &win32Name, DWORD access, DWORD share, DWORD flags);
// Whether `handle` is a handle of a device in the daemon.
bool BridgeIsRemote(HANDLE handle);
// The Win32 calls on such a handle, with the same contracts as the local ones.
BOOL BridgeRequest(HANDLE handle, UCHAR major, DWORD code, LPCVOID input, DWORD inputLength,
                   LPVOID output, DWORD outputLength, LPDWORD bytes, LPOVERLAPPED overlapped);
BOOL BridgeGetOverlappedResult(HANDLE handle, LPOVERLAPPED overlapped, LPDWORD bytes, BOOL wait);
// Cancels the handle's requests of `overlapped` (all with nullptr) or, with
// byThread, those the calling thread issued. How many it cancelled.
size_t BridgeCancel(HANDLE handle, LPOVERLAPPED overlapped, bool byThread);

// ---- the daemon's side (bridge_server.cpp) ----

// A process on the other end of a connection: user-mode mappings made while a
// thread serves it are mappings in that process.
struct BridgeProcess;
// The process the calling thread serves, or nullptr (a local caller).
BridgeProcess *BridgeActingFor();
// Maps the pool pages under [address, address+length) into the process (and,
// at the same address, here); the address, or nullptr. The view keeps the
// process record alive until BridgeUnmapView.
void *BridgeMapView(BridgeProcess *process, const void *address, size_t length);
void BridgeUnmapView(BridgeProcess *process, void *view);

} // namespace hk
