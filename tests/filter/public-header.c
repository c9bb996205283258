/*
 * The public headers compiled as C11 with the host flags: their layout checks
 * (static assertions) must hold in C as they do in C++.
 */
#include <ntddk.h>
#include <ndis.h>
#include <ndisfilter.h>

_Static_assert(sizeof(NdisHookAPI) == 168, "NdisHookAPI");
_Static_assert(sizeof(AdapterInfo) == 286, "AdapterInfo");
_Static_assert(sizeof(IPConfig) == 228, "IPConfig");
_Static_assert(sizeof(FilterPacket) == 2496, "FilterPacket");
_Static_assert(sizeof(SharedMemory) == 1724496, "SharedMemory");

/* Referenced by the tests so the file is part of the program. */
unsigned PublicHeaderPacketSizeFromC(void)
{
    return (unsigned)sizeof(FilterPacket);
}
