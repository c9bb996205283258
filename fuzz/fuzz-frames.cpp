/*
 * fuzz-frames - frames of any length and content from the simulated hook
 * driver, received and sent on two adapters, laid out over NDIS buffer chains
 * of random shape, through the example clients (firewall, injector, tap,
 * example-filter) and the framework's packet paths; the tap's copies are
 * taken from the output ring by the application library. A filter of the
 * harness's own, first in all four chains, uses the packet functions the
 * examples leave alone (reads, parsing, checksums, modification, clones) on
 * every packet, as the frame's API byte says.
 *
 * Input: a list of frames. Frame: flags byte (bit 0 send, bit 1 second
 * adapter, bit 2 random layout), API byte (see UsePacketApi), [layout:
 * header split U16, chunk U16, lookahead U16], length U16, then up to
 * `length` bytes (a short input is padded with a pattern up to the length).
 */
#include "fuzz-stack.h"

#include <ndisfilter-app.h>
#include <ndishook.h>

namespace {

nfapp::SharedChannel *g_channel;
PFilterDriver g_driver;
/* What UsePacketApi does to the packets of the frame being delivered. */
volatile UCHAR g_api;

/*
 * Bit 0 reads the whole frame in, bit 1 parses the headers; with a parsed IP
 * header bit 2 verifies its checksum and bit 3 recomputes the checksum that
 * bits 4-5 choose (IP, ICMP, TCP, UDP); bit 6 marks the packet modified,
 * bit 7 clones it (the clone is released). Every packet goes on.
 */
FILTER_RESULT NTAPI UsePacketApi(PFilterDriver, PVOID, PPacketFilter, PVOID, PFilterPacket Packet)
{
    static const ULONG checksums[] = {FILTER_CHECKSUM_IP, FILTER_CHECKSUM_ICMP, FILTER_CHECKSUM_TCP,
                                      FILTER_CHECKSUM_UDP};
    const UCHAR api = g_api;
    if (api & 1)
        Filter_TransferPacketData(Packet);
    if (api & (2 | 4 | 8))
        Filter_InitPacketHeader(Packet, nullptr);
    if ((api & 4) && Packet->m_pIp != nullptr)
        Filter_VerifyPacketCheckSum(Packet);
    if ((api & 8) && Packet->m_pIp != nullptr)
        Filter_CalculatePacketCheckSum(Packet->m_pIp, checksums[(api >> 4) & 3]);
    if (api & 0x40)
        Filter_ModifyPacket(Packet);
    PFilterPacket clone = nullptr;
    if ((api & 0x80) && Filter_ClonePacket(Packet, &clone) == FILTER_STATUS_SUCCESS && clone != nullptr)
        Filter_ReleasePacket(clone);
    return FILTER_RESULT_BYPASS;
}

void RegisterPacketApiFilters()
{
    STRING name;
    RtlInitAnsiString(&name, "FuzzPacketApi");
    if (Filter_RegisterDriver(&name, nullptr, FILTER_API_MAJOR_VERSION, FILTER_API_MINOR_VERSION, &g_driver) !=
            FILTER_STATUS_SUCCESS ||
        g_driver == nullptr)
        nffuzz::Fail("the packet API filter's driver did not register");
    for (FILTER_TYPE type = FILTER_TYPE_INCOMING_PACKET; type <= FILTER_TYPE_INJECT_TO_PROTOCOL; type++) {
        PPacketFilter filter = nullptr;
        if (Filter_RegisterFilter(g_driver, &name, UsePacketApi, nullptr, type, FILTER_ORDER_FIRST, &filter) !=
                FILTER_STATUS_SUCCESS ||
            filter == nullptr)
            nffuzz::Fail("the packet API filter did not register");
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    nffuzz::StackOptions options;
    options.Adapters = 2;
    options.Clients = true;
    nffuzz::LoadStack(options);
    g_channel = new nfapp::SharedChannel();
    if (!g_channel->Open() || !g_channel->Start())
        nffuzz::Fail("the application channel did not start: %s", g_channel->ControlError().Describe().c_str());
    RegisterPacketApiFilters();
    atexit([] { /* before the drivers unload */
        delete g_channel;
        Filter_DeregisterDriver(g_driver);
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    nffuzz::Input in(data, size);
    for (int frames = 0; !in.Empty() && frames < 32; frames++) {
        const uint8_t flags = in.Byte();
        g_api = in.Byte();
        NDIS_HOOK_FRAME_LAYOUT layout = {};
        if (flags & 4) {
            const uint16_t split = in.U16();
            layout.HeaderSplit = split == 0xFFFF ? NDIS_HOOK_NO_SPLIT : split;
            layout.ChunkSize = in.U16();
            layout.Lookahead = in.U16();
        }
        const size_t length = in.U16();
        std::vector<UCHAR> frame = nffuzz::MakeFrame(in.Bytes(length), length);
        PFilterAdapter adapter = nffuzz::Adapter((flags >> 1) & 1);
        const NDIS_HOOK_FRAME_LAYOUT *shape = flags & 4 ? &layout : nullptr;
        if (flags & 1)
            NdisHookSendFrame(adapter, frame.data(), (ULONG)frame.size(), shape);
        else
            NdisHookReceiveFrame(adapter, frame.data(), (ULONG)frame.size(), shape);
    }
    nffuzz::Settle();
    g_channel->Drain(nfapp::ReceiveCallback());
    if (g_channel->ReceiveFailed())
        nffuzz::Fail("the output ring went wrong: %s", g_channel->ReceiveError().Describe().c_str());
    nffuzz::CheckAfterInput();
    return 0;
}
