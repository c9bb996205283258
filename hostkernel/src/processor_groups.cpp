/*
 * Processor groups: the host is one group of at most 64 processors.
 */
#include "core_internal.h"

/* Active processors of group 0 or of all groups; none in any other group. Any IRQL. */
ULONG NTAPI KeQueryActiveProcessorCountEx(USHORT GroupNumber)
{
    if (GroupNumber != 0 && GroupNumber != ALL_PROCESSOR_GROUPS)
        return 0;
    return KeQueryActiveProcessorCount(nullptr);
}
