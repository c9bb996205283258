/*
 * fuzz-frames - frames of any length and content from the simulated hook
 * driver, received and sent on two adapters, laid out over NDIS buffer chains
 * of random shape, through the example clients (firewall, injector, tap,
 * example-filter) and the framework's packet paths; the tap's copies are
 * taken from the output ring by the application library.
 *
 * Input: a list of frames. Frame: flags byte (bit 0 send, bit 1 second
 * adapter, bit 2 random layout), [layout: header split U16, chunk U16,
 * lookahead U16], length U16, then up to `length` bytes (a short input is
 * padded with a pattern up to the length).
 */
#include "fuzz-stack.h"

#include <ndisfilter-app.h>
#include <ndishook.h>

namespace {

nfapp::SharedChannel *g_channel;

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
    atexit([] { delete g_channel; }); /* closed before the drivers unload */
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    nffuzz::Input in(data, size);
    for (int frames = 0; !in.Empty() && frames < 32; frames++) {
        const uint8_t flags = in.Byte();
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
