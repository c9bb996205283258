/* The diagnostic channel and the event requests of the user program. */
#include "framework.h"

#include <string>
#include <unistd.h>

namespace {

struct DiagReply {
    NTSTATUS status;
    ULONG_PTR returned;
    std::string text;
    LONG argc;
};

class Diagnostics : public nftest::Framework {
protected:
    void SetUp() override { ASSERT_EQ(Load(), STATUS_SUCCESS); }

    /* Sends `command` with an output of `outputLength` bytes and reads the reply record. */
    DiagReply Diagnose(const std::string &command, ULONG outputLength = 4096)
    {
        std::vector<UCHAR> buffer(std::max<size_t>(command.size(), outputLength) + 1, 0xCC);
        memcpy(buffer.data(), command.data(), command.size());
        DiagReply reply{};
        reply.status = nftest::SendToDevice(IRP_MJ_DEVICE_CONTROL, IOCTL_NDIS_FILTER_DIAG, buffer,
                                            (ULONG)command.size(), outputLength, &reply.returned);
        const Diag *diag = (const Diag *)buffer.data();
        if (reply.returned >= FILTER_DIAG_HEADER_SIZE) {
            EXPECT_EQ(reply.returned, FILTER_DIAG_HEADER_SIZE + diag->m_BufferUsed);
            reply.text.assign(diag->m_Text, diag->m_BufferUsed);
            reply.argc = diag->m_nArgc;
        }
        EXPECT_EQ(buffer[outputLength], 0xCC) << "written past the output";
        return reply;
    }

    NTSTATUS Request(ULONG code, std::vector<UCHAR> &buffer, ULONG inputLength, ULONG outputLength,
                     ULONG_PTR *returned)
    {
        return nftest::SendToDevice(IRP_MJ_DEVICE_CONTROL, code, buffer, inputLength, outputLength, returned);
    }
};

std::string Words(int count)
{
    std::string command = "nobody";
    for (int i = 0; i < count; i++)
        command += " w" + std::to_string(i);
    return command;
}

} // namespace

TEST_F(Diagnostics, TheFrameworkAnswersItsOwnCommandsWhateverTheirCase)
{
    STRING name;
    RtlInitString(&name, (PSTR) "diag-client");
    PFilterDriver driver = nullptr;
    ASSERT_EQ(Filter_RegisterDriver(&name, (PVOID)0x1234, 1, 0, &driver), FILTER_STATUS_SUCCESS);

    DiagReply drivers = Diagnose("FILTER Show  Driver");
    EXPECT_EQ(drivers.status, STATUS_SUCCESS);
    EXPECT_EQ(drivers.argc, 2);
    EXPECT_NE(drivers.text.find("- m_DriverName = diag-client\n"), std::string::npos) << drivers.text;
    EXPECT_NE(drivers.text.find("- m_pDriverContext = 0x0000000000001234\n"), std::string::npos);

    DiagReply help = Diagnose("filter show");
    EXPECT_EQ(help.text.rfind("help - print this messages\nshow info - print driver info\n", 0), 0u) << help.text;
    EXPECT_NE(help.text.find("show adaptert - print adapter list\n"), std::string::npos);
    EXPECT_EQ(Diagnose("filter help me").text, help.text);
    EXPECT_EQ(Diagnose("filter bogus thing").text, "unsupport command bogus\n");
    EXPECT_NE(Diagnose("filter show info").text.find("- m_DeviceSymbolicLink = \\DosDevices\\NdisFilter\n"),
              std::string::npos);
    EXPECT_NE(Diagnose("filter show hookapi").text.find(" - Filter_AdapterOpened = 0x"), std::string::npos);
    EXPECT_NE(Diagnose("filter show filter").text.find("Packet Filter(Type = 3 - "), std::string::npos);
    EXPECT_EQ(Diagnose("driver filter").text, "Select filter - NDIS Packet Filter Driver\n");
    EXPECT_EQ(g_pGlobal->m_bDiagInProgress, 0);
    Filter_DeregisterDriver(driver);
}

TEST_F(Diagnostics, CommandsForOtherDriversStillSucceedWithWhatEveryoneReplied)
{
    /* Nobody claims it: the request succeeds with the bare header. */
    DiagReply nobody = Diagnose("nobody show");
    EXPECT_EQ(nobody.status, STATUS_SUCCESS);
    EXPECT_EQ(nobody.returned, (ULONG_PTR)FILTER_DIAG_HEADER_SIZE);
    EXPECT_EQ(Diagnose("filter").returned, (ULONG_PTR)FILTER_DIAG_HEADER_SIZE);

    /* "driver" alone is for every driver: the framework adds its line and passes it on. */
    DiagReply all = Diagnose("driver");
    EXPECT_EQ(all.text.rfind("filter - NDIS Packet Filter Driver, Build at ", 0), 0u) << all.text;

    /* Sixteen words are taken, the seventeenth is ignored; a byte of 128 or more ends the split. */
    EXPECT_EQ(Diagnose(Words(17)).argc, 16);
    EXPECT_EQ(Diagnose("nobody a \x80" "b c").argc, 1);
}

TEST_F(Diagnostics, UnfitBuffersAndASecondDiagnosticGetNothing)
{
    EXPECT_EQ(Diagnose(Words(2) + std::string(1023 - Words(2).size(), ' ')).returned,
              (ULONG_PTR)FILTER_DIAG_HEADER_SIZE);
    DiagReply tooLong = Diagnose(std::string(1024, 'x'));
    EXPECT_EQ(tooLong.status, STATUS_SUCCESS);
    EXPECT_EQ(tooLong.returned, 0u);
    EXPECT_EQ(Diagnose("filter show", FILTER_DIAG_HEADER_SIZE - 1).returned, 0u);

    g_pGlobal->m_bDiagInProgress = 1;
    EXPECT_EQ(Diagnose("filter show").returned, 0u);
    EXPECT_EQ(g_pGlobal->m_bDiagInProgress, 1) << "a refused diagnostic leaves the flag as it was";
    g_pGlobal->m_bDiagInProgress = 0;
}

TEST_F(Diagnostics, AReplyLongerThanTheOutputIsCutInsideIt)
{
    DiagReply cut = Diagnose("filter help", 64);
    EXPECT_EQ(cut.status, STATUS_SUCCESS);
    EXPECT_LE(cut.returned, 64u);
    EXPECT_EQ(cut.text, std::string("help - print this messages\nshow info - print driver info\n").substr(0, cut.text.size()));

    /* Outside a diagnostic, or with a record the framework did not prepare, nothing is written. */
    Diag forged{};
    forged.m_BufferSize = 1 << 30;
    EXPECT_EQ(Filter_DiagPrint(&forged, "%s", "x"), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_DiagPrint(nullptr, "%s", "x"), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_DiagFilter(&forged, 4), FILTER_ERROR_INVALID_FILTER_TYPE);
    PDiag taken = nullptr;
    char input[] = "x";
    EXPECT_EQ(Filter_BeginDiag(input, 1, &forged, sizeof(forged), &taken), FILTER_ERROR_INVALID_ARGUMENT);
}

TEST_F(Diagnostics, TheDeviceExtensionDumpPrintsEveryPartWhateverTheMask)
{
    std::vector<UCHAR> buffer(8);
    ULONG_PTR returned = 1;
    nftest::TakeTrace();
    EXPECT_EQ(Request(IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION, buffer, 0, 0, &returned), STATUS_SUCCESS);
    EXPECT_EQ(returned, 0u);
    auto lines = nftest::TakeTrace();
    EXPECT_EQ(nftest::FindLine(lines, "====> Dump NdisFilter Device Extension ===="), 0);
    EXPECT_GE(nftest::FindLine(lines, "- Type = NdisFilterDeviceExtension"), 0);
    EXPECT_GE(nftest::FindLine(lines, "- m_pContextDriver[15] = 0x0000000000000000"), 0);
    EXPECT_GE(nftest::FindLine(lines, "  - LastAllocateMisses = 0"), 0);
}

TEST_F(Diagnostics, EventsAreTakenOldestFirstWithTheAdapterHandleRewrittenToItsId)
{
    std::vector<UCHAR> buffer(FILTER_EVENT_RECORD_SIZE, 0xEE);
    ULONG_PTR returned = 1;
    EXPECT_EQ(Request(IOCTL_NDIS_FILTER_GET_EVENT, buffer, 0, FILTER_EVENT_RECORD_SIZE, &returned), STATUS_SUCCESS);
    EXPECT_EQ(returned, 0u);
    EXPECT_EQ(buffer, std::vector<UCHAR>(FILTER_EVENT_RECORD_SIZE, 0)) << "an empty queue answers zeroes";
    EXPECT_EQ(Request(IOCTL_NDIS_FILTER_GET_EVENT, buffer, 0, FILTER_EVENT_RECORD_SIZE - 1, &returned),
              STATUS_BUFFER_TOO_SMALL);

    /* An adapter event: a u32, the adapter handle, then fields that move up by four bytes. */
    UCHAR data[64];
    for (int i = 0; i < 64; i++)
        data[i] = (UCHAR)(0x40 + i);
    PFilterAdapter adapter = (PFilterAdapter)0x1122334455667788ull;
    memcpy(data + 4, &adapter, 8);
    ULONG id = 0;
    ASSERT_EQ(Filter_AdapterToId(adapter, &id), FILTER_STATUS_SUCCESS);
    ASSERT_EQ(Filter_ReportEventEx(7, 8, sizeof(data), data), FILTER_STATUS_SUCCESS);
    ASSERT_EQ(Filter_ReportEvent(9, 10, "second"), FILTER_STATUS_SUCCESS);

    ASSERT_EQ(Request(IOCTL_NDIS_FILTER_GET_EVENT, buffer, 0, FILTER_EVENT_RECORD_SIZE, &returned), STATUS_SUCCESS);
    EXPECT_EQ(returned, (ULONG_PTR)FILTER_EVENT_RECORD_SIZE);
    EXPECT_EQ(*(ULONG *)&buffer[0], 7u);
    EXPECT_EQ(*(ULONG *)&buffer[8], 64u);
    EXPECT_EQ(memcmp(&buffer[12], data, 4), 0);
    EXPECT_EQ(*(ULONG *)&buffer[16], id);
    EXPECT_EQ(memcmp(&buffer[20], data + 12, 26), 0) << "offsets 24 to 49 move four bytes earlier";
    EXPECT_EQ(memcmp(&buffer[46], data + 34, 30), 0) << "bytes from 46 on are left as they were";

    ASSERT_EQ(Request(IOCTL_NDIS_FILTER_GET_EVENT, buffer, 0, FILTER_EVENT_RECORD_SIZE, &returned), STATUS_SUCCESS);
    EXPECT_EQ(*(ULONG *)&buffer[0], 9u);
    EXPECT_EQ(g_pGlobal->m_CurrentLogSize, 0);
}

TEST_F(Diagnostics, ClearingEventsEmptiesTheQueueAndMakesRoomForNewOnes)
{
    int reported = 0;
    while (Filter_ReportEvent(1, 2, "x") == FILTER_STATUS_SUCCESS)
        reported++;
    EXPECT_EQ(reported, 1023);
    std::vector<UCHAR> buffer(FILTER_EVENT_RECORD_SIZE);
    ULONG_PTR returned = 1;
    EXPECT_EQ(Request(IOCTL_NDIS_FILTER_CLEAR_EVENT, buffer, 0, 0, &returned), STATUS_SUCCESS);
    EXPECT_EQ(g_pGlobal->m_CurrentLogSize, 0);
    EXPECT_TRUE(IsListEmpty(&g_pGlobal->m_FilterLogList));
    EXPECT_EQ(Filter_ReportEvent(1, 2, "again"), FILTER_STATUS_SUCCESS);
}

TEST_F(Diagnostics, TheDebugMaskIsReloadedFromTheServiceKey)
{
    HkRegistrySetDword(nftest::ServiceKey(), "GlobalDebugFlag", 0x1000);
    std::vector<UCHAR> buffer(4);
    ULONG_PTR returned = 1;
    EXPECT_EQ(Request(IOCTL_NDIS_FILTER_GET_DBGFLAG, buffer, 0, 0, &returned), STATUS_SUCCESS);
    EXPECT_EQ(returned, 0u);
    for (int i = 0; i < 2000 && GlobalDebugFlag != 0x1000; i++)
        usleep(1000);
    EXPECT_EQ(GlobalDebugFlag, 0x1000u);
    GlobalDebugFlag = 0;
}

TEST_F(Diagnostics, AdapterRequestsRefuseShortBuffersUnknownAdaptersAndAnUnboundHook)
{
    std::vector<UCHAR> buffer(9028);
    ULONG_PTR returned = 1;
    EXPECT_EQ(Request(IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, buffer, 0, 9027, &returned), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(Request(IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, buffer, 0, 9028, &returned), STATUS_INTERNAL_ERROR);
    EXPECT_EQ(returned, 0u) << "no hook driver, no table";

    *(ULONG *)buffer.data() = 77; /* an id never given */
    EXPECT_EQ(Request(IOCTL_NDIS_FILTER_SET_IPCONFIG, buffer, 223, 0, &returned), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(Request(IOCTL_NDIS_FILTER_SET_IPCONFIG, buffer, 224, 0, &returned), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Request(IOCTL_NDIS_FILTER_GET_IPCONFIG, buffer, 0, 224, &returned), STATUS_INVALID_PARAMETER);

    /* The getters by MAC measure the input first; an adapter nobody has is "not found". */
    EXPECT_EQ(Request(IOCTL_NDIS_FILTER_GET_MEDIA_STATUS, buffer, 6, 0, &returned), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(Request(IOCTL_NDIS_FILTER_GET_PACKET_DUMP, buffer, 7, 7, &returned), NDIS_STATUS_ADAPTER_NOT_FOUND);
    EXPECT_EQ(Request(IOCTL_NDIS_FILTER_SET_PACKET_DUMP, buffer, 7, 0, &returned), NDIS_STATUS_ADAPTER_NOT_FOUND);
    EXPECT_EQ(Request(IOCTL_NDIS_FILTER_GET_ADAPTER, buffer, 0, 10, &returned), STATUS_INTERNAL_ERROR);
}
