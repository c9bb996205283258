/*
 * Host kernel runtime: the bridge, which serves the devices of a daemon
 * process to user programs in processes of their own. A process that loaded
 * no driver and opens "\\.\Name" it does not have connects to the daemon's
 * Unix socket; its Win32 calls on the handle (DeviceIoControl, ReadFile,
 * WriteFile, GetOverlappedResult, CancelIo(Ex), CloseHandle) are carried
 * there and become IRPs against the daemon's device, and user-mode mappings
 * the drivers make for it are mappings of the same pages in that process.
 * Not a Windows interface; drivers never call it.
 */
#ifndef HK_HOST_BRIDGE_H
#define HK_HOST_BRIDGE_H

#include "hk/base.h"

HK_EXTERN_C_BEGIN

/*
 * The bridge's socket path: the environment's NDISFILTER_SOCKET when set,
 * else $XDG_RUNTIME_DIR/ndisfilter/ndisfilter.sock, else
 * /tmp/ndisfilter-<uid>/ndisfilter.sock. Copied (terminated) into Buffer;
 * returns its length, 0 when Buffer is too small.
 */
SIZE_T HkBridgeSocketPath(char *Buffer, SIZE_T BufferSize);

/*
 * Serves one accepted connection in the calling thread until the peer goes,
 * then closes what the peer left open (its requests are cancelled, its
 * handles closed) and closes Socket. A peer of another user than this
 * process's is told so and refused. Call at PASSIVE_LEVEL, with the drivers
 * loaded, and return before unloading them.
 */
void HkBridgeServe(int Socket);

HK_EXTERN_C_END

#endif
