/*
 * fuzz-shared-area - a hostile user program on the shared rings. It takes the
 * share as the application library does (PUT_SHAREDMEMORYSIZE, START_SHARE),
 * then writes what it likes anywhere in the mapped area (the mapping's own
 * header, ring geometry and indexes, block contents) while the framework's
 * ring thread serves the input ring, announces blocks (WRITE_SHARE), parks
 * reads (READ_SHARE), and frames reach the application through the tap
 * client and through blocks sent back to it. The example clients are loaded.
 *
 * Input: a list of steps, op byte first:
 *   0 bytes anywhere:   offset U32, count byte, bytes
 *   1 a header field:   field byte, selector byte, then (selector < 0x80) a byte
 *                       choosing one of the Interesting values, else a U64
 *   2 a program block:  adapter byte, direction byte, size U16, frame bytes
 *   3 WRITE_SHARE       4 READ_SHARE (one parked at a time)
 *   5 a DNS frame received on the adapter (the tap copies it up): payload byte count, bytes
 *   6 take the output ring as a program would   7 let the ring thread run
 */
#include "fuzz-stack.h"

#include <ndishook.h>

#include <string.h>

#include <chrono>
#include <thread>

namespace {

/* The mapping's header and both ring headers as the framework laid them out. */
UCHAR g_pristine[SHARED_MEMORY_OFFSET + 2 * sizeof(SharedBlockRing)];

struct Program {
    HANDLE Device = INVALID_HANDLE_VALUE;
    HANDLE Event = nullptr;
    volatile UCHAR *Mapping = nullptr; /* the MappedMemory view: SharedMemory is 20 bytes in */
    OVERLAPPED Read = {};
    HANDLE ReadEvent = nullptr;
    bool ReadParked = false;

    volatile SharedMemory *Memory() const { return (volatile SharedMemory *)(Mapping + SHARED_MEMORY_OFFSET); }

    bool Request(ULONG code, void *buffer, ULONG inputLength, ULONG outputLength, DWORD *bytes)
    {
        OVERLAPPED overlapped = {};
        overlapped.hEvent = Event;
        if (DeviceIoControl(Device, code, buffer, inputLength, buffer, outputLength, bytes, &overlapped))
            return true;
        return GetLastError() == ERROR_IO_PENDING && GetOverlappedResult(Device, &overlapped, bytes, TRUE);
    }

    /* Opens the device and takes the share; Fail when the framework refuses it. */
    void Start()
    {
        Device = CreateFileA(NDISFILTER_USER_DEVICE, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                             FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OVERLAPPED, nullptr);
        Event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        ReadEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        if (Device == INVALID_HANDLE_VALUE || Event == nullptr || ReadEvent == nullptr)
            nffuzz::Fail("the control device did not open");
        ULONG size = 0;
        DWORD bytes = 0;
        if (!Request(IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, &size, 0, sizeof(size), &bytes) ||
            size != MAPPED_MEMORY_SIZE)
            nffuzz::Fail("PUT_SHAREDMEMORYSIZE answered %u", (unsigned)size);
        ULONG64 answer = 1; /* the share value, overwritten by the address */
        if (!Request(IOCTL_NDIS_FILTER_START_SHARE, &answer, sizeof(ULONG), sizeof(answer), &bytes) || answer <= 20)
            nffuzz::Fail("START_SHARE refused the share (%llu)", (unsigned long long)answer);
        Mapping = (volatile UCHAR *)(ULONG_PTR)(answer - SHARED_MEMORY_OFFSET);
    }

    /* Gives the share back and closes the device; a parked read comes back with it. */
    void Stop()
    {
        DWORD bytes = 0;
        Request(IOCTL_NDIS_FILTER_STOP_SHARE, nullptr, 0, 0, &bytes);
        Mapping = nullptr;
        if (ReadParked && WaitForSingleObject(ReadEvent, 5000) != WAIT_OBJECT_0)
            CancelIoEx(Device, &Read);
        if (ReadParked)
            GetOverlappedResult(Device, &Read, &bytes, TRUE);
        ReadParked = false;
        CloseHandle(Device);
        CloseHandle(Event);
        CloseHandle(ReadEvent);
    }

    void ParkRead()
    {
        if (ReadParked)
            return;
        memset(&Read, 0, sizeof(Read));
        Read.hEvent = ReadEvent;
        ResetEvent(ReadEvent);
        DWORD bytes = 0;
        ReadParked = !DeviceIoControl(Device, IOCTL_NDIS_FILTER_READ_SHARE, nullptr, 0, nullptr, 0, &bytes, &Read) &&
                     GetLastError() == ERROR_IO_PENDING;
    }
};

LONG Clamp(LONG index)
{
    return index >= 0 && index < SHARED_BLOCK_COUNT ? index : 0;
}

/*
 * Puts the ring headers back as the framework laid them out, each ring empty
 * at the index its owner last wrote, so every input starts from one state and
 * the ring thread's work ends with the input that caused it. The mapping's
 * own header is put back only at the start of an input.
 */
void Normalize(Program &program, bool mappingHeader)
{
    volatile UCHAR *mapping = program.Mapping;
    volatile SharedMemory *memory = program.Memory();
    const LONG output = Clamp(memory->KernelModeOutput.m_iWrite);
    const LONG input = Clamp(memory->KernelModeInput.m_iRead);
    const size_t from = mappingHeader ? sizeof(PVOID) : SHARED_MEMORY_OFFSET;
    for (size_t i = from; i < sizeof(g_pristine); i++)
        mapping[i] = g_pristine[i];
    memory->KernelModeOutput.m_iWrite = memory->KernelModeOutput.m_iRead = output;
    memory->KernelModeInput.m_iWrite = memory->KernelModeInput.m_iRead = input;
}

/* Values a field is set to: geometry edges, indexes around the ring's ends, signs. */
const int64_t Interesting[] = {0, 1, -1, 2, 511, 512, 513, SHARED_BLOCK_SIZE, SHARED_BLOCK_SIZE - 1,
                               SHARED_BLOCK_COUNT * SHARED_BLOCK_SIZE, 0x7FFFFFFF, INT32_MIN, 0x10000,
                               SHARED_MEMORY_SIZE, 1 << 20, -SHARED_BLOCK_SIZE};

/* One header field of the mapping or a ring, by number: its offset in the mapping and its size. */
void FieldAt(uint8_t number, size_t *offset, size_t *size)
{
    static const struct {
        size_t Offset, Size;
    } ringFields[] = {{0, 4}, {4, 4}, {8, 4}, {12, 8}, {20, 8}, {28, 4}, {32, 4}, {36, 4}};
    static const struct {
        size_t Offset, Size;
    } mappingFields[] = {{0, 8}, {8, 8}, {16, 4}};
    number %= 2 * RTL_NUMBER_OF(ringFields) + RTL_NUMBER_OF(mappingFields);
    if (number < RTL_NUMBER_OF(mappingFields)) {
        *offset = mappingFields[number].Offset;
        *size = mappingFields[number].Size;
        return;
    }
    number -= RTL_NUMBER_OF(mappingFields);
    const size_t ring = number / RTL_NUMBER_OF(ringFields);
    *offset = SHARED_MEMORY_OFFSET + ring * sizeof(SharedBlockRing) + ringFields[number % RTL_NUMBER_OF(ringFields)].Offset;
    *size = ringFields[number % RTL_NUMBER_OF(ringFields)].Size;
}

/* Ethernet, IPv4 and UDP to port 53 from 10.0.0.2, then `payload`. */
std::vector<UCHAR> DnsFrame(const std::vector<UCHAR> &payload)
{
    std::vector<UCHAR> frame = {0x00, 0x11, 0x22, 0x33, 0x44, 0x01, 0x02, 0x00, 0x00, 0x00, 0x0a, 0x02, 0x08, 0x00,
                                0x45, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x40, 0x11, 0x00, 0x00, 10,   0,
                                0,    2,    10,   0,    0,    1,    0x30, 0x39, 0x00, 0x35, 0x00, 0x00, 0x00, 0x00};
    const size_t ip = 20 + 8 + payload.size();
    frame[16] = (UCHAR)(ip >> 8);
    frame[17] = (UCHAR)ip;
    frame[38] = (UCHAR)((ip - 20) >> 8);
    frame[39] = (UCHAR)(ip - 20);
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    nffuzz::StackOptions options;
    options.Clients = true;
    nffuzz::LoadStack(options);
    Program program;
    program.Start();
    for (size_t i = 0; i < sizeof(g_pristine); i++)
        g_pristine[i] = program.Mapping[i];
    program.Stop();
    nffuzz::CheckAfterInput();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    nffuzz::Input in(data, size);
    Program program;
    program.Start();
    Normalize(program, true);
    volatile UCHAR *mapping = program.Mapping;
    volatile SharedMemory *memory = program.Memory();
    DWORD bytes = 0;
    for (int steps = 0; !in.Empty() && steps < 64; steps++) {
        switch (in.Byte() % 8) {
        case 0: {
            const size_t offset = in.U32() % MAPPED_MEMORY_SIZE;
            const size_t count = in.Byte() % 33;
            std::vector<UCHAR> bytes = in.Bytes(count);
            for (size_t i = 0; i < bytes.size() && offset + i < MAPPED_MEMORY_SIZE; i++)
                mapping[offset + i] = bytes[i];
            break;
        }
        case 1: {
            size_t offset = 0, width = 0;
            FieldAt(in.Byte(), &offset, &width);
            const uint8_t selector = in.Byte();
            const uint64_t value = selector < 0x80 ? (uint64_t)in.Pick(Interesting) : in.U64();
            for (size_t i = 0; i < width; i++)
                mapping[offset + i] = (UCHAR)(value >> (8 * i));
            break;
        }
        case 2: {
            volatile SharedBlockRing *ring = &memory->KernelModeInput;
            const LONG write = Clamp(ring->m_iWrite);
            volatile SharedBlock *block = &memory->m_InputBlocks[write];
            const uint8_t adapter = in.Byte();
            block->m_nAdapterId = adapter < 0xF0 ? nffuzz::AdapterId(0) : adapter;
            const uint8_t direction = in.Byte();
            block->m_nDirection = direction < 0xF0 ? 1 + direction % 3 : direction;
            const ULONG length = in.U16();
            block->m_nPacketSize = length;
            std::vector<UCHAR> frame = in.Bytes(length < SHARED_BLOCK_FRAME_SIZE ? length : SHARED_BLOCK_FRAME_SIZE);
            for (size_t i = 0; i < frame.size(); i++)
                block->m_Frame[i] = frame[i];
            ring->m_iWrite = (write + 1) % SHARED_BLOCK_COUNT;
            break;
        }
        case 3:
            program.Request(IOCTL_NDIS_FILTER_WRITE_SHARE, nullptr, 0, 0, &bytes);
            break;
        case 4:
            program.ParkRead();
            break;
        case 5: {
            std::vector<UCHAR> frame = DnsFrame(in.Bytes(in.Byte()));
            NdisHookReceiveFrame(nffuzz::Adapter(0), frame.data(), (ULONG)frame.size(), nullptr);
            break;
        }
        case 6: {
            volatile SharedBlockRing *ring = &memory->KernelModeOutput;
            ring->m_iRead = Clamp(ring->m_iWrite);
            break;
        }
        case 7:
            std::this_thread::sleep_for(std::chrono::microseconds(100 * (in.Byte() % 8)));
            break;
        }
    }
    Normalize(program, false);
    program.Stop();
    nffuzz::CheckAfterInput();
    return 0;
}
