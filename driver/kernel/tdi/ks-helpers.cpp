/*
 * ks-helpers.cpp - the kernel-socket library's helpers: MDLs, extended-attribute
 * buffers, transport addresses, symbolic links, NDIS packets, byte order, the
 * Internet checksum and the current process's name.
 */
#include "ks-local.h"

/* Where the image name sits in the process object; 0 while unknown. */
static ULONG g_ProcessNameOffset;

/* The process object is scanned this far for the system process's name. */
#define KS_PROCESS_SCAN_LIMIT 12288
#define KS_PROCESS_NAME_LENGTH 16

EXTERN_C PMDL NTAPI KS_AllocateAndProbeMdl(PVOID VirtualAddress, ULONG Length,
                                           BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota, PIRP Irp)
{
    PMDL mdl = IoAllocateMdl(VirtualAddress, Length, SecondaryBuffer, ChargeQuota, Irp);
    if (mdl == NULL)
        return NULL;
    /* A buffer that cannot be locked raises; the MDL goes again and the caller gets NULL. */
    LONG code = FilterGuard([&] { MmProbeAndLockPages(mdl, KernelMode, IoModifyAccess); });
    if (code != 0) {
        if (Irp != NULL && Irp->MdlAddress == mdl)
            Irp->MdlAddress = NULL;
        IoFreeMdl(mdl);
        return NULL;
    }
    mdl->Next = NULL;
    return mdl;
}

EXTERN_C VOID NTAPI KS_UnlockAndFreeMdl(PMDL Mdl)
{
    MmUnlockPages(Mdl);
    IoFreeMdl(Mdl);
}

EXTERN_C NTSTATUS NTAPI KS_BuildEaBuffer(ULONG EaNameLength, PVOID EaName, ULONG EaValueLength,
                                         PVOID EaValue, PFILE_FULL_EA_INFORMATION *EaBuffer,
                                         PULONG EaBufferLength)
{
    if (EaBuffer == NULL || EaBufferLength == NULL)
        return STATUS_INVALID_PARAMETER;
    *EaBuffer = NULL;
    *EaBufferLength = 0;
    /* The record's length fields are 8 and 16 bits wide. */
    if (EaNameLength > 0xFF || EaValueLength > 0xFFFF || (EaNameLength > 0 && EaName == NULL) ||
        (EaValueLength > 0 && EaValue == NULL))
        return STATUS_INVALID_PARAMETER;
    ULONG length = EaNameLength + EaValueLength + FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName) + 1;
    PFILE_FULL_EA_INFORMATION ea =
        (PFILE_FULL_EA_INFORMATION)ExAllocatePoolWithTag(PagedPool, length, KS_EA_TAG);
    if (ea == NULL)
        return STATUS_INSUFFICIENT_RESOURCES;
    RtlZeroMemory(ea, length);
    ea->NextEntryOffset = 0;
    ea->Flags = 0;
    ea->EaNameLength = (UCHAR)EaNameLength;
    ea->EaValueLength = (USHORT)EaValueLength;
    if (EaNameLength > 0)
        RtlCopyMemory(ea->EaName, EaName, EaNameLength);
    ea->EaName[EaNameLength] = 0;
    if (EaValueLength > 0)
        RtlCopyMemory(ea->EaName + EaNameLength + 1, EaValue, EaValueLength);
    *EaBuffer = ea;
    *EaBufferLength = length;
    return STATUS_SUCCESS;
}

EXTERN_C ULONG NTAPI KS_TransportAddressLength(PTRANSPORT_ADDRESS TransportAddress)
{
    if (TransportAddress == NULL)
        return 0;
    ULONG length = FIELD_OFFSET(TRANSPORT_ADDRESS, Address);
    PUCHAR entry = (PUCHAR)&TransportAddress->Address[0];
    for (LONG i = 0; i < TransportAddress->TAAddressCount; ++i) {
        ULONG size = FIELD_OFFSET(TA_ADDRESS, Address) + ((PTA_ADDRESS)entry)->AddressLength;
        length += size;
        entry += size;
    }
    return length;
}

EXTERN_C VOID NTAPI KS_InitIPAddress(PTA_IP_ADDRESS TransportAddress, ULONG Address, USHORT Port)
{
    TransportAddress->TAAddressCount = 1;
    TransportAddress->Address[0].AddressLength = TDI_ADDRESS_LENGTH_IP;
    TransportAddress->Address[0].AddressType = TDI_ADDRESS_TYPE_IP;
    TransportAddress->Address[0].Address[0].sin_port = Port;
    TransportAddress->Address[0].Address[0].in_addr = Address;
    RtlZeroMemory(TransportAddress->Address[0].Address[0].sin_zero,
                  sizeof(TransportAddress->Address[0].Address[0].sin_zero));
}

EXTERN_C NTSTATUS NTAPI KS_CreateSymbolicLink(PUNICODE_STRING DeviceName, BOOLEAN Create)
{
    static const WCHAR kDosDevices[] = L"\\DosDevices\\";
    const USHORT prefixBytes = sizeof(kDosDevices) - sizeof(WCHAR); /* 24 */
    const USHORT deviceDirectoryBytes = 8 * sizeof(WCHAR);          /* "\Device\" */
    if (DeviceName == NULL || DeviceName->Buffer == NULL || DeviceName->Length < 18)
        return STATUS_UNSUCCESSFUL;
    if ((ULONG)DeviceName->Length + 26 > 0xFFFF)
        return STATUS_UNSUCCESSFUL;
    USHORT size = (USHORT)(DeviceName->Length + 26);
    PWCHAR buffer = (PWCHAR)ExAllocatePoolWithTag(NonPagedPool, size, KS_LINK_TAG);
    if (buffer == NULL)
        return STATUS_INSUFFICIENT_RESOURCES;
    RtlZeroMemory(buffer, size);
    RtlCopyMemory(buffer, kDosDevices, prefixBytes);
    USHORT rest = (USHORT)(DeviceName->Length - deviceDirectoryBytes);
    RtlCopyMemory((PUCHAR)buffer + prefixBytes,
                  (PUCHAR)DeviceName->Buffer + deviceDirectoryBytes, rest);
    UNICODE_STRING link;
    link.Buffer = buffer;
    link.Length = (USHORT)(prefixBytes + rest);
    link.MaximumLength = size;
    NTSTATUS status = Create ? IoCreateSymbolicLink(&link, DeviceName) : IoDeleteSymbolicLink(&link);
    ExFreePoolWithTag(buffer, KS_LINK_TAG);
    return status;
}

EXTERN_C VOID NTAPI KS_FreePacketAndBuffers(PNDIS_PACKET Packet)
{
    if (Packet == NULL)
        return;
    UINT count = 0;
    NdisQueryPacket(Packet, NULL, &count, NULL, NULL);
    for (UINT i = 0; i < count; ++i) {
        PNDIS_BUFFER buffer = NULL;
        NdisUnchainBufferAtFront(Packet, &buffer);
        if (buffer == NULL)
            break;
        NdisFreeBuffer(buffer);
    }
    Packet->Private.Head = NULL;
    Packet->Private.ValidCounts = FALSE;
    NdisFreePacket(Packet);
}

EXTERN_C ULONG NTAPI KS_htonl(ULONG Value)
{
    return (Value << 24) | ((Value & 0xFF00u) << 8) | ((Value >> 8) & 0xFF00u) | (Value >> 24);
}

EXTERN_C USHORT NTAPI KS_htons(USHORT Value)
{
    return (USHORT)((Value << 8) | (Value >> 8));
}

/* One routine per width under both names: the swap is its own inverse. */
EXTERN_C ULONG NTAPI KS_ntohl(ULONG Value) NF_SAME_ROUTINE_AS(KS_htonl);
EXTERN_C USHORT NTAPI KS_ntohs(USHORT Value) NF_SAME_ROUTINE_AS(KS_htons);

EXTERN_C USHORT NTAPI KS_in_cksum(PUCHAR Buffer, ULONG Length)
{
    ULONG sum = 0;
    ULONG i = 0;
    for (; i + 1 < Length; i += 2)
        sum += (ULONG)Buffer[i] | ((ULONG)Buffer[i + 1] << 8); /* a 16-bit word in host order */
    if (i < Length)
        sum += (ULONG)Buffer[i] << 8;
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return (USHORT)~sum;
}

EXTERN_C VOID NTAPI KS_InitProcessNameOffset(VOID)
{
    static const CHAR kSystem[] = "System";
    PUCHAR process = (PUCHAR)IoGetCurrentProcess();
    g_ProcessNameOffset = 0;
    for (ULONG offset = 0; offset < KS_PROCESS_SCAN_LIMIT; ++offset) {
        ULONG i = 0;
        while (i < sizeof(kSystem) - 1 && process[offset + i] == (UCHAR)kSystem[i])
            ++i;
        if (i == sizeof(kSystem) - 1) {
            g_ProcessNameOffset = offset;
            return;
        }
    }
}

EXTERN_C BOOLEAN NTAPI KS_GetCurrentProcessName(PCHAR Name)
{
    ULONG offset = g_ProcessNameOffset;
    if (offset == 0) {
        Name[0] = Name[1] = Name[2] = '?';
        Name[3] = 0;
        return FALSE;
    }
    PCHAR image = (PCHAR)IoGetCurrentProcess() + offset;
    ULONG i = 0;
    for (; i < KS_PROCESS_NAME_LENGTH && image[i] != 0; ++i)
        Name[i] = image[i];
    for (; i <= KS_PROCESS_NAME_LENGTH; ++i)
        Name[i] = 0;
    return TRUE;
}
