/*
 * fuzz-handles - a client driver calling the framework with handles good and
 * bad: its own drivers, filters, memory blocks and the adapters, records it
 * freed earlier in the input, records of another type, NULL, and pointers
 * into readable memory that is no record (a buffer of the input's bytes, code,
 * a constant string). Forged handles are aligned as records are: an x64
 * kernel reads a misaligned tag just as well, but the sanitizer would report
 * every one. Packets are always real ones: a packet has no tag.
 *
 * Every input registers two client drivers and takes back what is left of
 * them at its end. The forged buffer never holds a record tag, so the only
 * records that pass a tag check are real ones.
 *
 * Input: a list of calls. Call: op byte (% 16); for ops 9-11 the packet
 * (byte count, bytes, length byte, direction byte); for ops below 13 a handle
 * (selector byte % 12, then its index bytes); then the op's arguments. Op 14
 * fills part of the forged buffer, op 15 sets the filters' verdict.
 */
#include "fuzz-stack.h"

#include <hostkernel.h>

#include <string.h>

#include <algorithm>

namespace {

const ULONG Tags[] = {FILTER_DRIVER_TAG,   FILTER_EVENT_HANDLER_TAG, FILTER_PACKET_FILTER_TAG,   FILTER_INTERFACE_TAG,
                      FILTER_INTERFACE_REF_TAG, FILTER_LOG_LOOKASIDE_TAG, FILTER_MEMORY_TAG, FILTER_TIMER_TAG,
                      FILTER_IOCTL_HANDLER_TAG, FILTER_IF_EVENT_HANDLER_TAG, FILTER_ADAPTER_TAG,
                      FILTER_NDIS_REQUEST_TAG};
/* Read-only memory as long as the forged buffer's room for a record. */
alignas(8) const char ConstantText[2048] = "not a record, not a record, not a record, not a record";

/* Room for any record read at a forged address: the buffer goes on at least this far behind it,
 * and starts this far before it (Filter_FreeMemory looks at the header in front of a block). */
const size_t RecordRoom = 1024;
const size_t HeaderRoom = 16;
/* No record of the framework is larger. */
const size_t SmallestHandleBlock = 128;
alignas(16) UCHAR g_forged[4096];

volatile FILTER_RESULT g_verdict = FILTER_RESULT_BYPASS;

FILTER_RESULT NTAPI Verdict(PFilterDriver, PVOID, PPacketFilter, PVOID, PFilterPacket Packet)
{
    const FILTER_RESULT verdict = g_verdict;
    if (verdict == FILTER_RESULT_CONSUME)
        Filter_ReleasePacket(Packet); /* consumed: the filter owns it */
    return verdict;
}

BOOLEAN NTAPI CountAdapter(PVOID Context, PFilterAdapter)
{
    ++*(int *)Context;
    return TRUE;
}

BOOLEAN NTAPI CountFilter(PVOID Context, PPacketFilter)
{
    ++*(int *)Context;
    return TRUE;
}

/* The records of one input: live ones, and freed ones whose blocks are still in the pool's quarantine. */
struct Records {
    PFilterDriver Drivers[2] = {};
    std::vector<PPacketFilter> Filters[2];
    std::vector<PVOID> Memory;
    std::vector<PVOID> Freed;

    void DriverGone(int i)
    {
        Freed.push_back(Drivers[i]);
        Freed.insert(Freed.end(), Filters[i].begin(), Filters[i].end());
        Filters[i].clear();
        Drivers[i] = nullptr;
    }
};

template <class T>
T Element(nffuzz::Input &in, const std::vector<T> &list)
{
    uint8_t index = in.Byte();
    return list.empty() ? nullptr : list[index % list.size()];
}

/* Any handle: good, freed, of another type, forged or NULL. */
PVOID Handle(nffuzz::Input &in, Records &records, PFilterPacket packet)
{
    switch (in.Byte() % 12) {
    case 0:
        return nullptr;
    case 1:
    case 2:
        return records.Drivers[in.Byte() & 1];
    case 3:
    case 4: {
        const int i = in.Byte() & 1;
        return Element(in, records.Filters[i]);
    }
    case 5:
        return nffuzz::Adapter(in.Byte() % nffuzz::AdapterCount());
    case 6:
        return Element(in, records.Memory);
    case 7:
        return Element(in, records.Freed);
    case 8:
        return g_forged + HeaderRoom + (in.U16() % (sizeof(g_forged) - RecordRoom - HeaderRoom) & ~7u);
    case 9:
        return (PVOID)&Verdict;
    case 10:
        return (PVOID)(ConstantText + HeaderRoom + (in.Byte() & 8));
    default:
        return packet;
    }
}

/* Fills part of the forged buffer and scrambles every word that reads as a record tag. */
void Forge(nffuzz::Input &in)
{
    const size_t offset = in.U16() % sizeof(g_forged);
    std::vector<UCHAR> bytes = in.Bytes(in.Byte());
    if (!bytes.empty())
        memcpy(g_forged + offset, bytes.data(), std::min(bytes.size(), sizeof(g_forged) - offset));
    for (size_t i = 0; i + 4 <= sizeof(g_forged); i++) {
        ULONG word;
        memcpy(&word, g_forged + i, 4);
        if (std::find(std::begin(Tags), std::end(Tags), word) != std::end(Tags))
            g_forged[i] ^= 0x80;
    }
}

/* A packet on a real adapter holding up to a frame's worth of the input. */
PFilterPacket MakePacket(nffuzz::Input &in)
{
    PFilterPacket packet = Filter_AllocatePacket(nffuzz::Adapter(0));
    if (packet == nullptr)
        nffuzz::Fail("no packet for a real adapter");
    std::vector<UCHAR> frame = nffuzz::MakeFrame(in.Bytes(in.Byte()), 14 + in.Byte() * 4);
    memcpy(packet->m_Data, frame.data(), frame.size());
    packet->m_nPacketSize = packet->m_nBytesRead = (ULONG)frame.size();
    packet->m_nDirection = 1 + in.Byte() % 2;
    Filter_InitPacketHeader(packet, nullptr);
    return packet;
}

STRING Name(const char *text)
{
    STRING name;
    RtlInitAnsiString(&name, text);
    return name;
}

void Register(Records &records, int i)
{
    static const char *const names[] = {"FuzzClientA", "FuzzClientB"};
    STRING name = Name(names[i]);
    if (Filter_RegisterDriver(&name, &records, FILTER_API_MAJOR_VERSION, FILTER_API_MINOR_VERSION,
                              &records.Drivers[i]) != FILTER_STATUS_SUCCESS ||
        records.Drivers[i] == nullptr)
        nffuzz::Fail("%s could not register: the last input left it behind", names[i]);
}

void Call(nffuzz::Input &in, Records &records)
{
    /* The packet that a packet-taking call gets; also offered as a handle of the wrong type. */
    PFilterPacket packet = nullptr;
    auto take = [&] {
        if (packet == nullptr)
            packet = MakePacket(in);
        PFilterPacket taken = packet;
        packet = nullptr;
        return taken;
    };
    const uint8_t op = in.Byte() % 16;
    if (op >= 9 && op <= 11)
        packet = MakePacket(in);
    PVOID handle = op < 13 ? Handle(in, records, packet) : nullptr;
    PSTRING name = nullptr;
    PVOID context = nullptr;
    int count = 0;
    switch (op) {
    case 0:
        Filter_IsValidDriver((PFilterDriver)handle);
        Filter_IsValidFilter((PPacketFilter)handle);
        Filter_IsValidAdapter((PFilterAdapter)handle);
        break;
    case 1:
        if (Filter_GetDriverName((PFilterDriver)handle, &name) == FILTER_STATUS_SUCCESS && name != nullptr)
            Filter_FreeMemory(name);
        Filter_GetDriverContext((PFilterDriver)handle, &context);
        break;
    case 2: {
        if (Filter_GetFilterName((PPacketFilter)handle, &name) == FILTER_STATUS_SUCCESS && name != nullptr)
            Filter_FreeMemory(name);
        FILTER_TYPE type;
        FILTER_ORDER order;
        Filter_GetFilterContext((PPacketFilter)handle, &context);
        Filter_GetFilterType((PPacketFilter)handle, &type);
        Filter_GetFilterOrder((PPacketFilter)handle, &order);
        break;
    }
    case 3: {
        char text[8] = {'F', (char)('a' + in.Byte() % 8), 0};
        STRING filterName = Name(text);
        const FILTER_TYPE type = (FILTER_TYPE)(in.Byte() % 6) - 1;
        const FILTER_ORDER order = (FILTER_ORDER)in.U32();
        PPacketFilter filter = nullptr;
        if (Filter_RegisterFilter((PFilterDriver)handle, &filterName, Verdict, nullptr, type, order, &filter) ==
                FILTER_STATUS_SUCCESS &&
            filter != nullptr)
            records.Filters[handle == records.Drivers[1]].push_back(filter);
        break;
    }
    case 4: {
        PPacketFilter filter = (PPacketFilter)Handle(in, records, nullptr);
        if (Filter_DeregisterFilter((PFilterDriver)handle, filter) == FILTER_STATUS_SUCCESS) {
            for (std::vector<PPacketFilter> &list : records.Filters)
                list.erase(std::remove(list.begin(), list.end(), filter), list.end());
            records.Freed.push_back(filter);
        }
        break;
    }
    case 5:
        if (Filter_DeregisterDriver((PFilterDriver)handle) == FILTER_STATUS_SUCCESS)
            for (int i = 0; i < 2; i++)
                if (handle == records.Drivers[i])
                    records.DriverGone(i);
        break;
    case 6:
        Filter_EnumFilter((PFilterDriver)handle, CountFilter, &count, (FILTER_TYPE)(in.Byte() % 6) - 1);
        Filter_EnumAdapter((PFilterDriver)handle, CountAdapter, &count);
        break;
    case 7:
        Filter_ShowFilter((PPacketFilter)handle, (LONG)in.Byte());
        Filter_DumpFilter((FILTER_TYPE)(in.Byte() % 6) - 1);
        break;
    case 8: {
        ULONG id = 0;
        Filter_AdapterToId((PFilterAdapter)handle, &id);
        PFilterPacket allocated = Filter_AllocatePacket((PFilterAdapter)handle);
        if (allocated != nullptr)
            Filter_ReleasePacket(allocated);
        break;
    }
    case 9: {
        PFilterAdapter adapter = (PFilterAdapter)handle;
        switch (in.Byte() % 7) {
        case 0: Filter_InjectPacketToAdapterEx(adapter, take()); break;
        case 1: Filter_IndicatePacketToProtocolEx(adapter, take()); break;
        case 2: Filter_InjectPacketToAdapter(adapter, take()); break;
        case 3: Filter_IndicatePacketToProtocol(adapter, take()); break;
        case 4: Filter_IndicatePacketFromAdapter(adapter, take()); break;
        case 5: Filter_InjectPacketFromProtocol(adapter, take()); break;
        default: Filter_InjectPacketFromApplication(adapter, take(), in.Byte() % 5); break;
        }
        break;
    }
    case 10: {
        const FILTER_METHOD method = in.Byte() % 6;
        if (in.Bool())
            Filter_InvokeFiltersEx(method, (PPacketFilter)handle, take());
        else
            Filter_InjectPacketFromFilter(method, (PPacketFilter)handle, take());
        break;
    }
    case 11:
        Filter_InvokeFilters((FILTER_TYPE)(in.Byte() % 6) - 1, take());
        break;
    case 12:
        /* Not the hook driver's adapters and packets: their blocks start at the handle, and the
         * sanitizer would take the look at the header in front for an overflow, which on
         * Windows reads the pool's own header. */
        for (int i = 0; i < nffuzz::AdapterCount(); i++)
            if (handle == nffuzz::Adapter(i))
                handle = nullptr;
        if (Filter_FreeMemory(handle) == FILTER_STATUS_SUCCESS) {
            records.Memory.erase(std::remove(records.Memory.begin(), records.Memory.end(), handle),
                                 records.Memory.end());
            records.Freed.push_back(handle);
        }
        break;
    case 13: {
        /* A block smaller than a record is no handle: a tag check would read past its end,
         * which on Windows is the next pool block and here the sanitizer's red zone. */
        const ULONG size = in.U16();
        PVOID memory = Filter_AllocateMemory(size, HK_POOL_TAG('F', 'u', 'z', 'z'));
        if (memory != nullptr && size < SmallestHandleBlock) {
            Filter_FreeMemory(memory);
        } else if (memory != nullptr) {
            memset(memory, 0, size); /* no tag left behind by an earlier record */
            records.Memory.push_back(memory);
        }
        break;
    }
    case 14:
        Forge(in);
        break;
    default: {
        static const FILTER_RESULT verdicts[] = {FILTER_RESULT_BYPASS, FILTER_RESULT_DISCARD, FILTER_RESULT_CONSUME};
        g_verdict = in.Pick(verdicts);
        break;
    }
    }
    if (packet != nullptr)
        Filter_ReleasePacket(packet);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    nffuzz::StackOptions options;
    options.Adapters = 2;
    nffuzz::LoadStack(options);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    nffuzz::Input in(data, size);
    Records records;
    g_verdict = FILTER_RESULT_BYPASS;
    memset(g_forged, 0, sizeof(g_forged));
    Register(records, 0);
    Register(records, 1);
    for (int calls = 0; !in.Empty() && calls < 64; calls++)
        Call(in, records);
    nffuzz::Settle(); /* queued packets may still meet the filters */
    for (int i = 0; i < 2; i++)
        if (records.Drivers[i] != nullptr && Filter_DeregisterDriver(records.Drivers[i]) != FILTER_STATUS_SUCCESS)
            nffuzz::Fail("a registered driver could not deregister");
    for (PVOID memory : records.Memory)
        Filter_FreeMemory(memory);
    nffuzz::CheckAfterInput();
    return 0;
}
