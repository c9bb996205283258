/*
 * fuzz-ioctl - control requests of a user program: every control code of the
 * framework and random ones, with each transfer type, random buffers and
 * lengths, on up to two handles of \\.\NdisFilter, through CreateFile,
 * DeviceIoControl and CloseHandle as the application library calls them.
 *
 * Input: a list of steps. Step: op byte, handle byte, then
 *   op % 4 == 0,1  a request: code selector byte (< 0xC0 a framework code,
 *                  < 0xE0 one the hook driver claims, else a U32 code),
 *                  method byte, input length U16, output length U16,
 *                  wait byte, input bytes
 *   op % 4 == 2    the handle closed and opened again
 *   op % 4 == 3    nothing (lets libFuzzer splice steps)
 */
#include "fuzz-stack.h"

#include <ndishook.h>

#include <string.h>

#include <memory>

/* For the default of the one setting a request changes for good. */
#include "ndisfilter-global.h"

namespace {

const ULONG KnownCodes[] = {
    IOCTL_NDIS_FILTER_DIAG,
    IOCTL_NDIS_FILTER_GET_VERSION,
    IOCTL_NDIS_FILTER_START_SHARE,
    IOCTL_NDIS_FILTER_STOP_SHARE,
    IOCTL_NDIS_FILTER_READ_SHARE,
    IOCTL_NDIS_FILTER_WRITE_SHARE,
    IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES,
    IOCTL_NDIS_FILTER_GET_EVENT,
    IOCTL_NDIS_FILTER_CLEAR_EVENT,
    IOCTL_NDIS_FILTER_START_ETHRLOG,
    IOCTL_NDIS_FILTER_STOP_ETHRLOG,
    IOCTL_NDIS_FILTER_SET_IPCONFIG,
    IOCTL_NDIS_FILTER_GET_IPCONFIG,
    IOCTL_NDIS_FILTER_SET_MEDIA_STATUS,
    IOCTL_NDIS_FILTER_GET_MEDIA_STATUS,
    IOCTL_NDIS_FILTER_GET_DBGFLAG,
    IOCTL_NDIS_FILTER_SET_PACKET_DUMP,
    IOCTL_NDIS_FILTER_GET_PACKET_DUMP,
    IOCTL_NDIS_FILTER_GET_ADAPTER,
    IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE,
    IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION,
    IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL,
    IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK,
    IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK,
};

/* Codes the hook driver claims, with each transfer type (one answers more than most outputs hold). */
const ULONG HookAnswered = NDISFILTER_CTL_CODE(0xA00);
const ULONG HookOverflow = NDISFILTER_CTL_CODE(0xA01);

/* How long a request may stay pending before it is cancelled. */
const DWORD PendingWaitMs = 2;

HANDLE Open()
{
    return CreateFileA(NDISFILTER_USER_DEVICE, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                       FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OVERLAPPED, nullptr);
}

/* One request, completed or cancelled before it returns; its buffers are exactly as long as it says. */
void Request(HANDLE device, HANDLE event, ULONG code, const std::vector<UCHAR> &input, ULONG inputLength,
             ULONG outputLength, bool wait)
{
    std::unique_ptr<UCHAR[]> in(inputLength ? new UCHAR[inputLength] : nullptr);
    std::unique_ptr<UCHAR[]> out(outputLength ? new UCHAR[outputLength] : nullptr);
    if (inputLength)
        memcpy(in.get(), nffuzz::MakeFrame(input, inputLength).data(), inputLength);
    if (outputLength)
        memset(out.get(), 0xA5, outputLength);
    OVERLAPPED overlapped;
    memset(&overlapped, 0, sizeof(overlapped));
    overlapped.hEvent = event;
    DWORD bytes = 0;
    if (DeviceIoControl(device, code, in.get(), inputLength, out.get(), outputLength, &bytes, &overlapped))
        return;
    if (GetLastError() != ERROR_IO_PENDING)
        return;
    if (!wait || WaitForSingleObject(event, PendingWaitMs) != WAIT_OBJECT_0)
        CancelIoEx(device, &overlapped);
    GetOverlappedResult(device, &overlapped, &bytes, TRUE);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    nffuzz::LoadStack(nffuzz::StackOptions());
    static const UCHAR answer[600] = {1, 2, 3, 4};
    for (ULONG method = METHOD_BUFFERED; method <= METHOD_NEITHER; method++)
        if (!NT_SUCCESS(NdisHookClaimIoControl(HookAnswered | method, STATUS_SUCCESS, answer, sizeof(answer))) ||
            !NT_SUCCESS(NdisHookClaimIoControl(HookOverflow | method, STATUS_BUFFER_OVERFLOW, answer, 24)))
            nffuzz::Fail("the hook driver did not take the control codes");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    nffuzz::Input in(data, size);
    HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE devices[2] = {Open(), Open()};
    bool congestion = false;
    for (int steps = 0; !in.Empty() && steps < 64; steps++) {
        const uint8_t op = in.Byte() % 4;
        HANDLE &device = devices[in.Byte() & 1];
        if (op == 2) {
            if (device != INVALID_HANDLE_VALUE)
                CloseHandle(device);
            device = Open();
            continue;
        }
        if (op == 3)
            continue;
        const uint8_t selector = in.Byte();
        ULONG code;
        if (selector < 0xC0)
            code = KnownCodes[selector % RTL_NUMBER_OF(KnownCodes)];
        else if (selector < 0xE0)
            code = selector & 1 ? HookAnswered : HookOverflow;
        else
            code = in.U32();
        code = (code & ~3u) | (in.Byte() & 3); /* any transfer type */
        const ULONG inputLength = in.U16() % 4097;
        const ULONG outputLength = in.U16() % 4097;
        const bool wait = in.Bool();
        std::vector<UCHAR> input = in.Bytes(inputLength);
        congestion |= (code & ~3u) == (IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL & ~3u);
        if (device != INVALID_HANDLE_VALUE)
            Request(device, event, code, input, inputLength, outputLength, wait);
    }
    /* The one setting a request changes for good: back to its default for the next input. */
    if (congestion && devices[0] != INVALID_HANDLE_VALUE) {
        const ULONG maximum = NF_DEFAULT_INJECT_PACKET_MAX;
        Request(devices[0], event, IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL,
                std::vector<UCHAR>((const UCHAR *)&maximum, (const UCHAR *)(&maximum + 1)), sizeof(maximum), 0, true);
    }
    for (HANDLE device : devices)
        if (device != INVALID_HANDLE_VALUE)
            CloseHandle(device);
    CloseHandle(event);
    nffuzz::CheckAfterInput();
    return 0;
}
