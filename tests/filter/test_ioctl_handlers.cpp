/* Control requests answered by client drivers: registration, the walk of unclaimed codes, pending and faults. */
#include "hook_fixture.h"
#include "registry.h"

#include <ndishook.h>

#include <cstring>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace {

/* A page that faults when read: the fault the handlers below take on purpose. */
const int *UnreadablePage()
{
    static void *page = mmap(nullptr, sysconf(_SC_PAGESIZE), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return (const int *)page;
}

const ULONG Unknown = 0x800024C0; /* function 0x930, buffered */
const ULONG Other = 0x800024C4;

/* Who was asked, in order. */
std::vector<std::string> gAsked;
PIRP gKept = nullptr;

NTSTATUS NTAPI Decline(PVOID Context, PIRP Irp, ULONG Code, PVOID In, ULONG InLength, PVOID Out, ULONG OutLength,
                       PULONG_PTR Returned)
{
    gAsked.push_back((const char *)Context);
    return Filter_DefaultIoCtrlHandler(Context, Irp, Code, In, InLength, Out, OutLength, Returned);
}

/* Claims Unknown: echoes the input reversed and reports more bytes than the output holds. */
NTSTATUS NTAPI Claim(PVOID Context, PIRP, ULONG Code, PVOID In, ULONG InLength, PVOID Out, ULONG OutLength,
                     PULONG_PTR Returned)
{
    gAsked.push_back((const char *)Context);
    if (Code != Unknown)
        return STATUS_NOT_SUPPORTED;
    std::string text((const char *)In, InLength);
    std::memcpy(Out, std::string(text.rbegin(), text.rend()).data(), InLength < OutLength ? InLength : OutLength);
    *Returned = 1000;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI Keep(PVOID Context, PIRP Irp, ULONG, PVOID, ULONG, PVOID, ULONG, PULONG_PTR)
{
    gAsked.push_back((const char *)Context);
    IoMarkIrpPending(Irp);
    gKept = Irp;
    return STATUS_PENDING;
}

NTSTATUS NTAPI Crash(PVOID Context, PIRP, ULONG, PVOID, ULONG, PVOID, ULONG, PULONG_PTR)
{
    gAsked.push_back((const char *)Context);
    (void)*(volatile const int *)UnreadablePage();
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI NoteCompletion(PDEVICE_OBJECT, PIRP, PVOID Context)
{
    *(bool *)Context = true;
    return STATUS_MORE_PROCESSING_REQUIRED;
}

class IoCtrlHandlers : public hooktest::HookTest {
protected:
    void SetUp() override
    {
        LoadBoth(true, 0x80);
        gAsked.clear();
        gKept = nullptr;
        first = Register("first");
        second = Register("second");
    }

    PFilterDriver Register(const char *name)
    {
        STRING counted = nftest::Counted(name);
        PFilterDriver driver = nullptr;
        EXPECT_EQ(Filter_RegisterDriver(&counted, nullptr, 1, 0, &driver), FILTER_STATUS_SUCCESS);
        return driver;
    }

    PIoCtrlHandler Handle(PFilterDriver driver, PFILTER_IOCTL_PROC proc, const char *name)
    {
        PIoCtrlHandler handler = nullptr;
        EXPECT_EQ(Filter_RegisterIoControl(driver, proc, (PVOID)name, &handler), FILTER_STATUS_SUCCESS);
        return handler;
    }

    /* Sends `input` with a `room`-byte output; `answer` receives what came back. */
    NTSTATUS Send(ULONG code, const std::string &input, ULONG room, std::string *answer)
    {
        std::vector<UCHAR> buffer(input.size() > room ? input.size() : room);
        std::memcpy(buffer.data(), input.data(), input.size());
        ULONG_PTR information = 0;
        NTSTATUS status = nftest::SendToDevice(IRP_MJ_DEVICE_CONTROL, code, buffer, (ULONG)input.size(), room,
                                               &information);
        answer->assign((const char *)buffer.data(), information);
        return status;
    }

    PFilterDriver first = nullptr;
    PFilterDriver second = nullptr;
};

TEST_F(IoCtrlHandlers, UnclaimedCodesGoToTheHookDriverThenToEachHandlerInOrderAndTheFirstClaimWins)
{
    std::string answer;
    EXPECT_EQ(Send(Unknown, "abc", 8, &answer), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(answer, "");

    PIoCtrlHandler declining = Handle(first, Decline, "first");
    PIoCtrlHandler claiming = Handle(second, Claim, "second");
    ASSERT_NE(claiming, nullptr);
    EXPECT_EQ(Send(Unknown, "abcdef", 4, &answer), STATUS_SUCCESS);
    EXPECT_EQ(answer, "fedc"); /* 1000 bytes reported, bounded by the output */
    EXPECT_EQ(gAsked, (std::vector<std::string>{"first", "second"}));

    gAsked.clear();
    EXPECT_EQ(Send(Other, "x", 4, &answer), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(gAsked, (std::vector<std::string>{"first", "second"}));

    gAsked.clear();
    ASSERT_EQ(NdisHookClaimIoControl(Unknown, STATUS_SUCCESS, "hook", 4), STATUS_SUCCESS);
    EXPECT_EQ(Send(Unknown, "abc", 8, &answer), STATUS_SUCCESS);
    EXPECT_EQ(answer, "hook");
    EXPECT_TRUE(gAsked.empty());
    NdisHookReleaseIoControls();

    /* One handler per driver; only the owner takes it back; a driver's deregistration takes it too. */
    PIoCtrlHandler again = nullptr;
    EXPECT_EQ(Filter_RegisterIoControl(first, Claim, nullptr, &again), FILTER_ERROR_IOCTL_HANDLER_ALREADY_REGISTERED);
    EXPECT_EQ(Filter_DeregisterIoControl(first, claiming), FILTER_ERROR_INVALID_IOCTL_HANDLER_OWNER);
    ULONG notAHandler[8] = {};
    EXPECT_EQ(Filter_DeregisterIoControl(first, (PIoCtrlHandler)notAHandler), FILTER_ERROR_INVALID_IOCTL_HANDLER);
    HkDebugClearCapture();
    EXPECT_EQ(Filter_DeregisterIoControl(second, claiming), FILTER_STATUS_SUCCESS);
    auto lines = nftest::TakeTrace();
    EXPECT_GE(nftest::FindLine(lines, "Enter Filter_DeregisterIoControlr"), 0);
    EXPECT_GE(nftest::FindLine(lines, "  Error: 0 - FILTER_STATUS_SUCCESS"), 0);
    EXPECT_EQ(Send(Unknown, "abc", 8, &answer), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(Filter_DeregisterIoControl(second, claiming), FILTER_ERROR_INVALID_IOCTL_HANDLER);

    ASSERT_EQ(Filter_DeregisterDriver(first), FILTER_STATUS_SUCCESS);
    EXPECT_TRUE(IsListEmpty(&g_pGlobal->m_IoCtrlHandlerList));
    (void)declining;
}

TEST_F(IoCtrlHandlers, APendingClaimIsLeftToItsHandlerWhichCompletesItLater)
{
    Handle(first, Keep, "keeper");
    Handle(second, Claim, "second");
    PDEVICE_OBJECT device = g_pGlobal->m_pDeviceObject;
    PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
    UCHAR buffer[16] = {};
    irp->AssociatedIrp.SystemBuffer = buffer;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = IRP_MJ_DEVICE_CONTROL;
    stack->Parameters.DeviceIoControl.IoControlCode = Unknown;
    stack->Parameters.DeviceIoControl.OutputBufferLength = sizeof(buffer);
    bool completed = false;
    IoSetCompletionRoutine(irp, NoteCompletion, &completed, TRUE, TRUE, TRUE);

    EXPECT_EQ(IoCallDriver(device, irp), STATUS_PENDING);
    EXPECT_EQ(gKept, irp);
    EXPECT_FALSE(completed);
    EXPECT_EQ(gAsked, (std::vector<std::string>{"keeper"}));

    gKept->IoStatus.Status = STATUS_SUCCESS;
    gKept->IoStatus.Information = 3;
    IoCompleteRequest(gKept, IO_NO_INCREMENT);
    EXPECT_TRUE(completed);
    EXPECT_EQ(irp->IoStatus.Information, 3u);
    IoFreeIrp(irp);
}

TEST_F(IoCtrlHandlers, AFaultingHandlerEndsTheWalkWithItsText)
{
    Handle(first, Crash, "crash");
    Handle(second, Claim, "second");
    HkDebugClearCapture();
    std::string answer;
    EXPECT_EQ(Send(Unknown, "abc", 8, &answer), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(answer, "");
    EXPECT_EQ(gAsked, (std::vector<std::string>{"crash"}));
    EXPECT_GE(nftest::FindLine(nftest::TakeTrace(), "NdisFilterIoControl: exception in filter, code = -1073741819"), 0);
}

} // namespace
