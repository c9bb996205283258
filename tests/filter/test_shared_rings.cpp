/*
 * The memory shared with the user program: the share's one owner, the two
 * block rings as the program sees them through its own mapping, and the
 * parked read. The program side here is plain Win32 on the control device.
 */
#include "hook_fixture.h"
#include "packets.h"

#include <windows.h>

#include <sys/mman.h>
#include <unistd.h>

#include <thread>

namespace {

class SharedRings : public hooktest::HookTest {
protected:
    void SetUp() override
    {
        LoadBoth(true);
        m_adapter = OpenAdapter(1);
        ASSERT_EQ(Filter_AdapterToId(m_adapter, &m_adapterId), FILTER_STATUS_SUCCESS);
        m_device = Open();
        ASSERT_NE(m_device, INVALID_HANDLE_VALUE);
    }
    void TearDown() override
    {
        if (m_device != INVALID_HANDLE_VALUE)
            CloseHandle(m_device);
        hooktest::HookTest::TearDown();
    }

    static HANDLE Open()
    {
        return CreateFileA("\\\\.\\NdisFilter", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                           FILE_FLAG_OVERLAPPED, nullptr);
    }

    /* START_SHARE as the program sends it; the answer is the address (20: refused). */
    static ULONG64 StartShare(HANDLE device)
    {
        ULONG64 buffer = 1; /* the value in, the address out */
        DWORD returned = 0;
        OVERLAPPED overlapped = {};
        overlapped.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        BOOL ok = DeviceIoControl(device, IOCTL_NDIS_FILTER_START_SHARE, &buffer, 4, &buffer, 8, &returned, &overlapped);
        if (!ok && GetLastError() == ERROR_IO_PENDING)
            ok = GetOverlappedResult(device, &overlapped, &returned, TRUE);
        CloseHandle(overlapped.hEvent);
        EXPECT_TRUE(ok);
        EXPECT_EQ(returned, 8u);
        return buffer;
    }

    static BOOL Simple(HANDLE device, ULONG code)
    {
        DWORD returned = 0;
        OVERLAPPED overlapped = {};
        overlapped.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        BOOL ok = DeviceIoControl(device, code, nullptr, 0, nullptr, 0, &returned, &overlapped);
        if (!ok && GetLastError() == ERROR_IO_PENDING)
            ok = GetOverlappedResult(device, &overlapped, &returned, TRUE);
        CloseHandle(overlapped.hEvent);
        return ok;
    }

    /* A packet of the adapter holding `frame`. */
    PFilterPacket Packet(const nftest::Frame &frame)
    {
        PFilterPacket packet = Filter_AllocatePacket(m_adapter);
        memcpy(packet->m_Data, frame.data(), frame.size());
        packet->m_nPacketSize = packet->m_nBytesRead = (ULONG)frame.size();
        return packet;
    }

    /* Copies one frame into the output ring, as a filter indicating to the application does. */
    BOOLEAN Indicate(UCHAR mark)
    {
        nftest::Frame frame = nftest::CaseFrame(8);
        frame[60] = mark;
        PFilterPacket packet = Packet(frame);
        BOOLEAN written = NdisFilter_WriteShareMemory(packet);
        Filter_ReleasePacket(packet);
        return written;
    }

    static PSharedBlock UserBlock(SharedMemory *shared, const SharedBlockRing &ring, LONG index)
    {
        return (PSharedBlock)((PUCHAR)shared + 80 + ring.m_iBaseOffset + (ULONG_PTR)index * ring.m_iBlockSize);
    }

    PFilterAdapter m_adapter = nullptr;
    ULONG m_adapterId = 0;
    HANDLE m_device = INVALID_HANDLE_VALUE;
};

} // namespace

TEST_F(SharedRings, TheShareHasOneOwnerAndASecondOneGetsTwenty)
{
    ULONG size = 0;
    DWORD returned = 0;
    OVERLAPPED overlapped = {};
    overlapped.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    ASSERT_TRUE(DeviceIoControl(m_device, IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, nullptr, 0, &size, 4, &returned,
                                &overlapped));
    CloseHandle(overlapped.hEvent);
    EXPECT_EQ(size, 1724520u);

    ULONG64 address = StartShare(m_device);
    ASSERT_NE(address, 20u);
    SharedMemory *shared = (SharedMemory *)(ULONG_PTR)address;
    EXPECT_NE((PVOID)shared, (PVOID)g_pGlobal->m_pSharedMemory); /* a mapping of its own */
    EXPECT_EQ(shared->KernelModeOutput.m_iBlockSize, 1684);
    EXPECT_EQ(shared->KernelModeInput.m_iBaseOffset, 862208);
    g_pGlobal->m_pSharedMemory->m_OutputBlocks[3].m_Frame[0] = 0x5A;
    EXPECT_EQ(shared->m_OutputBlocks[3].m_Frame[0], 0x5A); /* the same pages */

    HANDLE second = Open();
    EXPECT_EQ(StartShare(second), 20u);
    EXPECT_EQ(StartShare(m_device), 20u); /* also the owner itself, a second time */
    CloseHandle(second);                  /* a non-owner's cleanup changes nothing */
    EXPECT_NE(g_pGlobal->m_FileObject, nullptr);

    EXPECT_TRUE(Simple(m_device, IOCTL_NDIS_FILTER_STOP_SHARE));
    EXPECT_EQ(g_pGlobal->m_FileObject, nullptr);
    EXPECT_EQ(g_pGlobal->m_pMappedMemory->m_pUserModeVirtualAddress, nullptr);
    second = Open();
    EXPECT_NE(StartShare(second), 20u);
    CloseHandle(second); /* the owner's cleanup gives the share back */
    EXPECT_EQ(g_pGlobal->m_FileObject, nullptr);
}

TEST_F(SharedRings, StartShareWithAZeroValueIsRefused)
{
    ULONG64 buffer = 0;
    DWORD returned = 0;
    OVERLAPPED overlapped = {};
    overlapped.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    EXPECT_FALSE(DeviceIoControl(m_device, IOCTL_NDIS_FILTER_START_SHARE, &buffer, 4, &buffer, 8, &returned,
                                 &overlapped));
    EXPECT_EQ(GetLastError(), (DWORD)ERROR_INVALID_PARAMETER);
    CloseHandle(overlapped.hEvent);
}

TEST_F(SharedRings, TheOutputRingIsFullAt511AndWrapsAround)
{
    SharedMemory *shared = (SharedMemory *)(ULONG_PTR)StartShare(m_device);
    SharedBlockRing &output = shared->KernelModeOutput;
    for (int i = 0; i < 511; i++)
        ASSERT_TRUE(Indicate((UCHAR)i)) << i;
    GlobalDebugFlag = 0x400;
    HkDebugClearCapture();
    EXPECT_FALSE(Indicate(0xEE));
    std::vector<UCHAR> signal(FILTER_SIGNAL_SIZE);
    EXPECT_EQ(Filter_IndicateSignalToApplication(signal.data()), FILTER_ERROR_OUT_OF_MEMORY);
    GlobalDebugFlag = 0;
    EXPECT_EQ(output.m_iWrite, 511);
    EXPECT_EQ(output.m_nCount, 512 + 511);
    /* A full ring is no failure of the writer: both still end with their leave line. */
    auto lines = nftest::TakeTrace();
    EXPECT_GE(nftest::FindLine(lines, "Leave NdisFilter_WriteShareMemory(), success, IRQL=0"), 0);
    EXPECT_GE(nftest::FindLine(lines, "Leave NdisFilter_WriteSignalPacket(), success, IRQL=0"), 0);

    /* The program takes every block: the ring is empty when the indexes meet. */
    for (LONG i = output.m_iRead; i != output.m_iWrite; i = (i + 1) % 512) {
        const SharedBlock *block = UserBlock(shared, output, i);
        ASSERT_EQ(block->m_nAdapterId, m_adapterId);
        ASSERT_EQ(block->m_nPacketSize, 119u);
        ASSERT_EQ(block->m_Frame[60], (UCHAR)i);
    }
    output.m_iRead = output.m_iWrite;

    for (int i = 0; i < 10; i++)
        ASSERT_TRUE(Indicate((UCHAR)(100 + i)));
    EXPECT_EQ(output.m_iWrite, 9);
    EXPECT_EQ(UserBlock(shared, output, 511)->m_Frame[60], 100);
    EXPECT_EQ(UserBlock(shared, output, 0)->m_Frame[60], 101);
}

TEST_F(SharedRings, ASignalInTheLastOutputBlockSpillsIntoTheFirstInputBlock)
{
    SharedMemory *shared = (SharedMemory *)(ULONG_PTR)StartShare(m_device);
    SharedBlockRing &output = shared->KernelModeOutput;
    for (int i = 0; i < 511; i++) { /* the program reads each block as it comes */
        ASSERT_TRUE(Indicate((UCHAR)i));
        output.m_iRead = output.m_iWrite;
    }
    ASSERT_EQ(output.m_iWrite, 511);
    std::vector<UCHAR> signal(FILTER_SIGNAL_SIZE);
    for (size_t i = 0; i < signal.size(); i++)
        signal[i] = (UCHAR)(i * 3 + 1);
    ASSERT_EQ(Filter_IndicateSignalToApplication(signal.data()), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(signal[12] | signal[13] | signal[14] | signal[15], 0); /* the size word is cleared first */

    EXPECT_EQ(memcmp(&shared->m_OutputBlocks[511], signal.data(), SHARED_BLOCK_SIZE), 0);
    EXPECT_EQ(memcmp(&shared->m_InputBlocks[0], signal.data() + SHARED_BLOCK_SIZE, 132), 0);
    EXPECT_EQ(shared->KernelModeOutput.m_iWrite, 0);

    EXPECT_TRUE(Simple(m_device, IOCTL_NDIS_FILTER_STOP_SHARE));
    g_pGlobal->m_bStopShare = TRUE; /* sharing stopped: signals are refused */
    EXPECT_EQ(Filter_IndicateSignalToApplication(signal.data()), FILTER_ERROR_OUT_OF_MEMORY);
    g_pGlobal->m_bStopShare = FALSE;
}

TEST_F(SharedRings, AParkedReadIsCompletedByAWriteCancelledOrRefusedWhenASecondIsParked)
{
    StartShare(m_device);
    OVERLAPPED first = {};
    first.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    DWORD returned = 0;
    ASSERT_FALSE(DeviceIoControl(m_device, IOCTL_NDIS_FILTER_READ_SHARE, nullptr, 0, nullptr, 0, &returned, &first));
    ASSERT_EQ(GetLastError(), (DWORD)ERROR_IO_PENDING);

    OVERLAPPED second = {};
    second.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    EXPECT_FALSE(DeviceIoControl(m_device, IOCTL_NDIS_FILTER_READ_SHARE, nullptr, 0, nullptr, 0, &returned, &second));
    EXPECT_EQ(GetLastError(), (DWORD)ERROR_GEN_FAILURE);

    EXPECT_EQ(WaitForSingleObject(first.hEvent, 0), (DWORD)WAIT_TIMEOUT);
    ASSERT_TRUE(Indicate(1));
    EXPECT_EQ(WaitForSingleObject(first.hEvent, 5000), (DWORD)WAIT_OBJECT_0);
    EXPECT_TRUE(GetOverlappedResult(m_device, &first, &returned, FALSE));

    /* Blocks are waiting: the next read answers at once. */
    EXPECT_TRUE(Simple(m_device, IOCTL_NDIS_FILTER_READ_SHARE));

    g_pGlobal->m_pSharedMemory->KernelModeOutput.m_iRead = g_pGlobal->m_pSharedMemory->KernelModeOutput.m_iWrite;
    ResetEvent(first.hEvent);
    ASSERT_FALSE(DeviceIoControl(m_device, IOCTL_NDIS_FILTER_READ_SHARE, nullptr, 0, nullptr, 0, &returned, &first));
    ASSERT_EQ(GetLastError(), (DWORD)ERROR_IO_PENDING);
    EXPECT_TRUE(CancelIoEx(m_device, &first));
    EXPECT_FALSE(GetOverlappedResult(m_device, &first, &returned, TRUE));
    EXPECT_EQ(GetLastError(), (DWORD)ERROR_OPERATION_ABORTED);
    EXPECT_EQ(g_pGlobal->m_pPendingReadIrp, nullptr);

    /* After a cancellation a new read may be parked; closing the handle completes it. */
    ResetEvent(first.hEvent);
    ASSERT_FALSE(DeviceIoControl(m_device, IOCTL_NDIS_FILTER_READ_SHARE, nullptr, 0, nullptr, 0, &returned, &first));
    ASSERT_EQ(GetLastError(), (DWORD)ERROR_IO_PENDING);
    EXPECT_TRUE(Simple(m_device, IOCTL_NDIS_FILTER_STOP_SHARE));
    EXPECT_EQ(WaitForSingleObject(first.hEvent, 5000), (DWORD)WAIT_OBJECT_0);
    CloseHandle(first.hEvent);
    CloseHandle(second.hEvent);
}

TEST_F(SharedRings, AnInputBlockWithDirection3LoopsBackToTheOutputRing)
{
    SharedMemory *shared = (SharedMemory *)(ULONG_PTR)StartShare(m_device);
    SharedBlockRing &input = shared->KernelModeInput;
    SharedBlockRing &output = shared->KernelModeOutput;
    nftest::Frame frame = nftest::CaseFrame(4);

    PSharedBlock block = UserBlock(shared, input, input.m_iWrite);
    block->m_nAdapterId = m_adapterId;
    block->m_nDirection = FILTER_DIRECTION_TO_APPLICATION;
    block->m_nPacketSize = (ULONG)frame.size();
    block->m_nIndicateCode = 77;
    memcpy(block->m_Frame, frame.data(), frame.size());
    input.m_iWrite = (input.m_iWrite + 1) % input.m_iBlockCount;
    ASSERT_TRUE(Simple(m_device, IOCTL_NDIS_FILTER_WRITE_SHARE));

    for (int i = 0; i < 500 && output.m_iWrite == output.m_iRead; i++)
        Sleep(2);
    ASSERT_NE(output.m_iWrite, output.m_iRead);
    const SharedBlock *back = UserBlock(shared, output, output.m_iRead);
    EXPECT_EQ(back->m_nAdapterId, m_adapterId);
    EXPECT_EQ(back->m_nDirection, (ULONG)FILTER_DIRECTION_TO_APPLICATION);
    EXPECT_EQ(back->m_nIndicateCode, 77u);
    EXPECT_EQ(nftest::Frame(back->m_Frame, back->m_Frame + back->m_nPacketSize), frame);
    EXPECT_EQ(input.m_iRead, input.m_iWrite);
    for (int i = 0; i < 500 && NdisHookPacketsOutstanding() != 0; i++)
        Sleep(2);
}

TEST_F(SharedRings, InputBlocksGoThroughTheInjectChainOfTheirDirection)
{
    SharedMemory *shared = (SharedMemory *)(ULONG_PTR)StartShare(m_device);
    SharedBlockRing &input = shared->KernelModeInput;
    nftest::Frame frame = nftest::CaseFrame(8);
    auto post = [&](ULONG direction, ULONG size) {
        PSharedBlock block = UserBlock(shared, input, input.m_iWrite);
        block->m_nAdapterId = m_adapterId;
        block->m_nDirection = direction;
        block->m_nPacketSize = size;
        memcpy(block->m_Frame, frame.data(), frame.size());
        input.m_iWrite = (input.m_iWrite + 1) % input.m_iBlockCount;
    };
    post(FILTER_DIRECTION_TO_PROTOCOL, (ULONG)frame.size());
    post(FILTER_DIRECTION_TO_ADAPTER, (ULONG)frame.size());
    ASSERT_TRUE(Simple(m_device, IOCTL_NDIS_FILTER_WRITE_SHARE));
    for (int i = 0; i < 500 && NdisHookDeliveredCount(m_adapter, FILTER_DIRECTION_TO_ADAPTER) == 0; i++)
        Sleep(2);
    EXPECT_EQ(ndishook::DeliveredFrames(m_adapter, FILTER_DIRECTION_TO_PROTOCOL),
              (std::vector<std::vector<UCHAR>>{frame}));
    EXPECT_EQ(ndishook::DeliveredFrames(m_adapter, FILTER_DIRECTION_TO_ADAPTER),
              (std::vector<std::vector<UCHAR>>{frame}));

    /* A length beyond the block's frame area is refused and the block stays in the ring. */
    LONG before = input.m_iRead;
    post(FILTER_DIRECTION_TO_PROTOCOL, SHARED_BLOCK_FRAME_SIZE + 1);
    ASSERT_TRUE(Simple(m_device, IOCTL_NDIS_FILTER_WRITE_SHARE));
    Sleep(50);
    EXPECT_EQ(input.m_iRead, before);
    EXPECT_EQ(NdisHookDeliveredCount(m_adapter, FILTER_DIRECTION_TO_PROTOCOL), 1u);

    /* The read index is the framework's: the program skips the block by rewriting it into one that is dropped. */
    UserBlock(shared, input, before)->m_nPacketSize = 0;
    UserBlock(shared, input, before)->m_nDirection = 0;
    ASSERT_TRUE(Simple(m_device, IOCTL_NDIS_FILTER_WRITE_SHARE));
    for (int i = 0; i < 500 && (input.m_iRead != input.m_iWrite || NdisHookPacketsOutstanding() != 0); i++)
        Sleep(2);
    EXPECT_EQ(input.m_iRead, input.m_iWrite);
    EXPECT_EQ(NdisHookPacketsOutstanding(), 0);
}

TEST_F(SharedRings, AProgramThatRewritesTheWholeAreaCannotSteerTheFramework)
{
    SharedMemory *shared = (SharedMemory *)(ULONG_PTR)StartShare(m_device);
    MappedMemory *mapped = (MappedMemory *)((PUCHAR)shared - SHARED_MEMORY_OFFSET);
    SharedBlockRing &input = shared->KernelModeInput;
    SharedBlockRing &output = shared->KernelModeOutput;
    ASSERT_NE(output.m_pkBlockBase, 0u); /* disclosed, never read back */

    /* Geometry, kernel addresses, the mapping and the framework's own indexes: all garbage. */
    for (SharedBlockRing *ring : {&input, &output}) {
        ring->m_iBlockSize = 0x7FFFFFFF;
        ring->m_iBlockCount = 0;
        ring->m_pkBlockBase = 0xDEAD0000DEAD0000ull;
    }
    input.m_iRead = 400;
    output.m_iWrite = -5;
    mapped->m_pMdl = (PMDL)0x1234;
    mapped->m_pUserModeVirtualAddress = (PVOID)0x5678;

    ASSERT_TRUE(Indicate(7)); /* lands in block 0, where the framework's own index says */
    EXPECT_EQ(output.m_iWrite, 1);
    EXPECT_EQ(UserBlock(shared, output, 0)->m_Frame[60], 7);

    /* The program's own indexes out of range: the output ring reads as full, the input ring as empty. */
    output.m_iRead = 512;
    EXPECT_FALSE(Indicate(8));
    output.m_iRead = 1;
    input.m_iWrite = -1;
    ASSERT_TRUE(Simple(m_device, IOCTL_NDIS_FILTER_WRITE_SHARE));
    Sleep(20);
    EXPECT_EQ(input.m_iRead, 400); /* untouched: nothing was read */
    EXPECT_EQ(NdisHookPacketsOutstanding(), 0);

    /* Stopping unmaps the framework's mapping with its own MDL; the verifier would catch any other. */
    EXPECT_TRUE(Simple(m_device, IOCTL_NDIS_FILTER_STOP_SHARE));
    EXPECT_EQ(g_pGlobal->m_FileObject, nullptr);
}

TEST_F(SharedRings, HandlesRacingForTheShareGetOneOwnerAndReadsRacingCancelCompleteOnce)
{
    for (int round = 0; round < 300; round++) {
        HANDLE second = Open();
        ASSERT_NE(second, INVALID_HANDLE_VALUE);
        ULONG64 answers[2] = {};
        std::thread racer([&] { answers[1] = StartShare(second); });
        answers[0] = StartShare(m_device);
        racer.join();
        EXPECT_EQ((answers[0] == SHARED_MEMORY_OFFSET) + (answers[1] == SHARED_MEMORY_OFFSET), 1) << round;
        HANDLE owner = answers[0] != SHARED_MEMORY_OFFSET ? m_device : second;

        /* A parked read, cancelled while the framework writes: completed exactly once, either way. */
        SharedMemory *shared = g_pGlobal->m_pSharedMemory;
        shared->KernelModeOutput.m_iRead = shared->KernelModeOutput.m_iWrite;
        OVERLAPPED read = {};
        read.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        DWORD returned = 0;
        if (!DeviceIoControl(owner, IOCTL_NDIS_FILTER_READ_SHARE, nullptr, 0, nullptr, 0, &returned, &read)) {
            ASSERT_EQ(GetLastError(), (DWORD)ERROR_IO_PENDING);
        }
        std::thread writer([&] { Indicate((UCHAR)round); });
        CancelIoEx(owner, &read);
        writer.join();
        GetOverlappedResult(owner, &read, &returned, TRUE);
        CloseHandle(read.hEvent);
        EXPECT_TRUE(Simple(owner, IOCTL_NDIS_FILTER_STOP_SHARE));
        CloseHandle(second);
        ASSERT_EQ(g_pGlobal->m_pPendingReadIrp, nullptr);
    }
}

TEST_F(SharedRings, APacketOfAnAdapterWithoutIdentifierEndsAtTheErrorLine)
{
    StartShare(m_device);
    /* Any handle gets an identifier while the table has room: fill it. */
    for (ULONG_PTR fake = 1; fake <= FILTER_MAX_ADAPTERS; fake++) {
        ULONG id = 0;
        Filter_AdapterToId((PFilterAdapter)(fake * 64), &id);
    }
    PFilterPacket packet = Packet(nftest::CaseFrame(8));
    packet->m_hAdapter = (PFilterAdapter)(ULONG_PTR)0x7000;
    GlobalDebugFlag = 0x400;
    HkDebugClearCapture();
    EXPECT_FALSE(NdisFilter_WriteShareMemory(packet));
    GlobalDebugFlag = 0;
    Filter_ReleasePacket(packet);
    auto lines = nftest::TakeTrace();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "Err: Filter_AdapterToId return failure.");
}

TEST_F(SharedRings, APacketThatFaultsWhileBeingCopiedLeavesTheRingUsable)
{
    SharedMemory *shared = (SharedMemory *)(ULONG_PTR)StartShare(m_device);
    /* A packet record whose frame runs into a page that cannot be read. */
    long page = sysconf(_SC_PAGESIZE);
    PUCHAR pages = (PUCHAR)mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    PFilterPacket bad = (PFilterPacket)(pages + page - FIELD_OFFSET(FilterPacket, m_Data) - 8);
    bad->m_hAdapter = m_adapter;
    bad->m_nPacketSize = 100;
    mprotect(pages + page, page, PROT_NONE);
    HkDebugClearCapture();
    EXPECT_FALSE(NdisFilter_WriteShareMemory(bad));
    EXPECT_GE(nftest::FindLine(nftest::TakeTrace(), "NdisFilter_WriteShareMemory: exception, code = -1073741819"), 0);
    munmap(pages, 2 * page);
    EXPECT_TRUE(Indicate(3)); /* the output ring's lock was given back */
    EXPECT_EQ(shared->KernelModeOutput.m_iWrite, 1);
}
