/*
 * ndisfilterctl: its parsers of arguments and replies, its failure messages,
 * every command against a scripted control device that answers with
 * hand-made replies, and the commands the framework serves on the host.
 */
#include "app_fixture.h"
#include "ctl.h"

#include <ndisfilter-control.h>

#include <deque>
#include <map>
#include <mutex>
#include <sstream>

namespace {

using nfapp::ControlFailure;

void Put32(std::vector<UCHAR> &b, size_t offset, ULONG value)
{
    for (int i = 0; i < 4; ++i)
        b.at(offset + i) = (UCHAR)(value >> (8 * i));
}

ULONG Ip(const char *text)
{
    ULONG address = 0;
    EXPECT_TRUE(nfctl::ParseIpv4(text, &address)) << text;
    return address;
}

struct Outcome {
    int Status;
    std::string Out, Err;
};

Outcome RunTool(std::vector<const char *> args)
{
    args.insert(args.begin(), "ndisfilterctl");
    std::ostringstream out, err;
    int status = nfctl::Run((int)args.size(), args.data(), out, err);
    return {status, out.str(), err.str()};
}

/* ---- a control device answering scripted replies ---- */

struct Reply {
    NTSTATUS Status;
    std::vector<UCHAR> Output;
};

struct Script {
    std::mutex Lock;
    std::map<ULONG, std::deque<Reply>> Replies;                /* taken in order; none: not supported */
    std::vector<std::pair<ULONG, std::vector<UCHAR>>> Requests; /* code and input of each request */
    PDEVICE_OBJECT Device = nullptr;
};
Script *g_script = nullptr;

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS ScriptOpenClose(PDEVICE_OBJECT, PIRP irp)
{
    return Complete(irp, STATUS_SUCCESS, 0);
}

NTSTATUS ScriptControl(PDEVICE_OBJECT, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    ULONG code = stack->Parameters.DeviceIoControl.IoControlCode;
    ULONG inputLength = stack->Parameters.DeviceIoControl.InputBufferLength;
    ULONG outputLength = stack->Parameters.DeviceIoControl.OutputBufferLength;
    PUCHAR buffer = (PUCHAR)irp->AssociatedIrp.SystemBuffer;
    std::lock_guard<std::mutex> guard(g_script->Lock);
    g_script->Requests.emplace_back(code, std::vector<UCHAR>(buffer, buffer + (buffer != nullptr ? inputLength : 0)));
    std::deque<Reply> &replies = g_script->Replies[code];
    if (replies.empty())
        return Complete(irp, STATUS_NOT_SUPPORTED, 0);
    Reply reply = replies.front();
    replies.pop_front();
    ULONG length = (ULONG)std::min<size_t>(reply.Output.size(), outputLength);
    if (length != 0)
        memcpy(buffer, reply.Output.data(), length);
    return Complete(irp, reply.Status, length);
}

VOID ScriptUnload(PDRIVER_OBJECT driver)
{
    UNICODE_STRING link;
    RtlInitUnicodeString(&link, L"\\DosDevices\\NfCtlScript");
    IoDeleteSymbolicLink(&link);
    IoDeleteDevice(driver->DeviceObject);
}

NTSTATUS ScriptEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    UNICODE_STRING name, link;
    RtlInitUnicodeString(&name, L"\\Device\\NfCtlScript");
    RtlInitUnicodeString(&link, L"\\DosDevices\\NfCtlScript");
    NTSTATUS status = IoCreateDevice(driver, 0, &name, NDISFILTER_DEVICE_TYPE, 0, FALSE, &g_script->Device);
    if (!NT_SUCCESS(status))
        return status;
    status = IoCreateSymbolicLink(&link, &name);
    if (!NT_SUCCESS(status)) {
        IoDeleteDevice(g_script->Device);
        return status;
    }
    g_script->Device->Flags |= DO_BUFFERED_IO;
    driver->MajorFunction[IRP_MJ_CREATE] = ScriptOpenClose;
    driver->MajorFunction[IRP_MJ_CLEANUP] = ScriptOpenClose;
    driver->MajorFunction[IRP_MJ_CLOSE] = ScriptOpenClose;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = ScriptControl;
    driver->DriverUnload = ScriptUnload;
    return STATUS_SUCCESS;
}

class ScriptedDeviceTest : public testing::Test {
protected:
    void SetUp() override
    {
        g_script = &m_script;
        ASSERT_EQ(HkLoadDriver(ScriptEntry, "NfCtlScript", &m_driver), STATUS_SUCCESS);
    }
    void TearDown() override
    {
        if (m_driver != nullptr)
            HkUnloadDriver(m_driver);
        g_script = nullptr;
    }

    void Answer(ULONG code, NTSTATUS status, std::vector<UCHAR> output = {})
    {
        m_script.Replies[code].push_back({status, std::move(output)});
    }
    Outcome Run(std::vector<const char *> args)
    {
        args.insert(args.begin(), {"--device", "\\\\.\\NfCtlScript"});
        return RunTool(args);
    }
    std::vector<ULONG> Codes()
    {
        std::vector<ULONG> codes;
        for (auto &request : m_script.Requests)
            codes.push_back(request.first);
        return codes;
    }
    std::vector<UCHAR> InputOf(ULONG code)
    {
        for (auto &request : m_script.Requests)
            if (request.first == code)
                return request.second;
        return {};
    }

    /* A reply of two adapters: 1 with one MAC, 2 whose current MAC differs from its permanent one. */
    static std::vector<UCHAR> TwoAdapters()
    {
        std::vector<UCHAR> reply(nfapp::TcpIpInterfacesSize, 0);
        Put32(reply, 0, 2);
        const UCHAR macs[2][6] = {{2, 0, 0, 0, 0x0a, 1}, {2, 0, 0, 0, 0x0b, 2}};
        for (int i = 0; i < 2; ++i) {
            UCHAR *entry = &reply[4 + i * nfapp::TcpIpEntrySize];
            entry[0] = (UCHAR)(i + 1);
            entry[8] = 0xDC, entry[9] = 0x05; /* MTU 1500 */
            entry[10] = 1;                    /* state */
            memcpy(entry + 14, macs[i], 6);
            memcpy(entry + 20, macs[i], 6);
            if (i == 1)
                entry[25] = 0x22;
            const char *name = i == 0 ? "{0A000001} host A" : "{0B000002} host B";
            memcpy(entry + 26, name, strlen(name));
        }
        return reply;
    }

    Script m_script;
    PDRIVER_OBJECT m_driver = nullptr;
};

/* ---- parsers ---- */

TEST(NdisFilterCtl, ArgumentParsersAcceptTheirFormsOnly)
{
    UCHAR mac[6];
    EXPECT_TRUE(nfctl::ParseMac("02:00:00:00:0A:01", mac));
    EXPECT_EQ(nfctl::FormatMac(mac), "02:00:00:00:0a:01");
    EXPECT_TRUE(nfctl::ParseMac("02-00-00-00-0a-01", mac));
    for (const char *bad : {"02:00:00:00:0a", "02:00-00:00:0a:01", "02:00:00:00:0a:0g", "02:00:00:00:0a:011"})
        EXPECT_FALSE(nfctl::ParseMac(bad, mac)) << bad;

    ULONG value = 0;
    EXPECT_EQ(nfctl::FormatIpv4(Ip("10.1.2.255")), "10.1.2.255");
    EXPECT_EQ(Ip("1.2.3.4"), 0x04030201u); /* network order in memory */
    for (const char *bad : {"1.2.3", "1.2.3.256", "1.2.3.4.5", "1..2.3", "1.2.3.4 "})
        EXPECT_FALSE(nfctl::ParseIpv4(bad, &value)) << bad;
    EXPECT_TRUE(nfctl::ParseNumber("0x10", &value) && value == 16);
    EXPECT_TRUE(nfctl::ParseNumber("010", &value) && value == 10);
    for (const char *bad : {"", "-1", "4294967296", "0x", "12a"})
        EXPECT_FALSE(nfctl::ParseNumber(bad, &value)) << bad;

    nfapp::IpAddressTriple triple;
    ASSERT_TRUE(nfctl::ParseAddressTriple("10.0.0.5/24", triple));
    EXPECT_EQ(triple.Netmask, Ip("255.255.255.0"));
    EXPECT_EQ(triple.Broadcast, Ip("10.0.0.255"));
    ASSERT_TRUE(nfctl::ParseAddressTriple("10.0.0.5/255.0.0.0/10.0.0.7", triple));
    EXPECT_EQ(triple.Netmask, Ip("255.0.0.0"));
    EXPECT_EQ(triple.Broadcast, Ip("10.0.0.7"));
    ASSERT_TRUE(nfctl::ParseAddressTriple("10.0.0.5/0", triple));
    EXPECT_EQ(triple.Broadcast, Ip("255.255.255.255"));
    for (const char *bad : {"10.0.0.5", "10.0.0.5/33", "10.0.0.5/0x8", "10.0.0.5/24/x"})
        EXPECT_FALSE(nfctl::ParseAddressTriple(bad, triple)) << bad;
}

TEST(NdisFilterCtl, ReplyParsersBoundEveryCountAndLengthTheyRead)
{
    /* A count of 1000 in a reply holding two entries, a name filling its 256 bytes. */
    std::vector<UCHAR> adapters(4 + 2 * nfapp::TcpIpEntrySize, 'n');
    Put32(adapters, 0, 1000);
    std::vector<nfapp::AdapterEntry> parsed;
    ASSERT_TRUE(nfapp::ParseTcpIpInterfaces(adapters.data(), (DWORD)adapters.size(), parsed));
    ASSERT_EQ(parsed.size(), 2u);
    EXPECT_EQ(parsed[1].Name, std::string(256, 'n'));
    EXPECT_FALSE(nfapp::ParseTcpIpInterfaces(adapters.data(), 3, parsed));

    std::vector<UCHAR> event(nfapp::EventRecordSize, 'e');
    nfapp::EventRecord record;
    for (ULONG length : {0xFFFFFFFFu, 5000u, 3u}) {
        Put32(event, 8, length);
        ASSERT_TRUE(nfapp::ParseEventRecord(event.data(), (DWORD)event.size(), record));
        EXPECT_EQ(record.Data.size(), length == 3 ? 3u : 1024u);
    }
    EXPECT_FALSE(nfapp::ParseEventRecord(event.data(), nfapp::EventRecordSize - 1, record));

    /* m_BufferUsed beyond the reply: the text stops at the reply's end; zero bytes are dropped. */
    std::vector<UCHAR> diag(60, 0);
    Put32(diag, 28, 0xFFFFFFF0);
    memcpy(&diag[33], "ab\0cd", 5);
    std::string text;
    ASSERT_TRUE(nfapp::ParseDiagReply(diag.data(), 50, 60, text));
    EXPECT_EQ(text, "abcd");
    EXPECT_FALSE(nfapp::ParseDiagReply(diag.data(), 60, 39, text));

    /* The IP configuration: a round trip, a count above 8 cut, a ninth entry refused. */
    nfapp::IpConfiguration config, back;
    config.Carried = 0x1234;
    config.Addresses.push_back({Ip("10.0.0.1"), Ip("255.255.255.0"), Ip("10.0.0.255")});
    config.DnsServers = {Ip("8.8.8.8"), Ip("8.8.4.4")};
    config.Wins2 = Ip("10.0.0.9");
    std::vector<UCHAR> bytes(220, 0xAA);
    ASSERT_TRUE(nfapp::BuildIpConfig(config, bytes.data()));
    EXPECT_EQ(bytes[180], 8); /* the first DNS server */
    nfapp::ParseIpConfig(bytes.data(), back);
    EXPECT_EQ(back.Carried, 0x1234u);
    EXPECT_EQ(back.DnsServers, config.DnsServers);
    EXPECT_EQ(back.Wins2, config.Wins2);
    EXPECT_FALSE(back.Clipped);
    Put32(bytes, 104, 9);
    nfapp::ParseIpConfig(bytes.data(), back);
    EXPECT_EQ(back.Gateways.size(), 8u);
    EXPECT_TRUE(back.Clipped);
    config.Gateways.assign(9, 1);
    EXPECT_FALSE(nfapp::BuildIpConfig(config, bytes.data()));
}

TEST(NdisFilterCtl, FailuresAreNamedByTheirStatusOrWin32Error)
{
    struct Case {
        ULONG Code;
        bool Known;
        ULONG Status;
        DWORD Error;
        ControlFailure Kind;
    } cases[] = {
        {IOCTL_NDIS_FILTER_GET_EVENT, true, 0xC0000023, 122, ControlFailure::BufferRefused},
        {IOCTL_NDIS_FILTER_GET_MEDIA_STATUS, true, 0xC0010006, 317, ControlFailure::AdapterNotFound},
        {IOCTL_NDIS_FILTER_GET_MEDIA_STATUS, false, 0, 317, ControlFailure::AdapterNotFound},
        {IOCTL_NDIS_FILTER_GET_IPCONFIG, true, 0xC000000D, 87, ControlFailure::AdapterNotFound},
        {IOCTL_NDIS_FILTER_START_SHARE, true, 0xC00000F0, 87, ControlFailure::InvalidParameter},
        {IOCTL_NDIS_FILTER_GET_ADAPTER, false, 0, 1359, ControlFailure::AdapterNotFound},
        {IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, true, 0xC00000E5, 1359, ControlFailure::InternalError},
        {IOCTL_NDIS_FILTER_GET_EVENT, true, 0xC0000017, 1450, ControlFailure::OutOfResources},
        {IOCTL_NDIS_FILTER_DIAG, false, 0, 50, ControlFailure::NotSupported},
        {0, false, 0, 2, ControlFailure::DeviceMissing},
        {0, false, 0, 5, ControlFailure::AccessDenied},
        {IOCTL_NDIS_FILTER_GET_EVENT, true, 0xC0000001, 31, ControlFailure::Other},
    };
    for (const Case &c : cases)
        EXPECT_EQ(nfapp::ClassifyFailure(c.Code, c.Known, (LONG)c.Status, c.Error), c.Kind)
            << std::hex << c.Code << " " << c.Status << " " << std::dec << c.Error;
}

/* ---- the command line without any framework ---- */

TEST(NdisFilterCtl, UsageErrorsNeedNoDeviceAndAMissingDeviceIsNamed)
{
    Outcome help = RunTool({"--help"});
    EXPECT_EQ(help.Status, nfctl::ExitOk);
    for (const char *command : {"version", "adapters", "adapter-id", "events", "clear-events", "ipconfig", "media",
                                "packet-dump", "capture", "reload-debug-mask", "congestion", "diag", "dump-extension"})
        EXPECT_NE(help.Out.find("\n  " + std::string(command) + " "), std::string::npos) << command;

    EXPECT_EQ(RunTool({}).Status, nfctl::ExitUsage);
    Outcome unknown = RunTool({"frobnicate"});
    EXPECT_EQ(unknown.Status, nfctl::ExitUsage);
    EXPECT_EQ(unknown.Err, "ndisfilterctl: unknown command \"frobnicate\" (see ndisfilterctl --help)\n");
    for (std::vector<const char *> args : std::vector<std::vector<const char *>>{
             {"congestion", "x"}, {"media", "1", "sideways"}, {"ipconfig", "1", "set", "address", "1.2.3.4"},
             {"ipconfig", "1", "set", "dns"}, {"events", "--count"}, {"capture"}, {"diag"}, {"--bogus", "version"},
             {"packet-dump", "1", "maybe"}, {"adapter-id", "7"}}) {
        Outcome outcome = RunTool(args);
        EXPECT_EQ(outcome.Status, nfctl::ExitUsage) << args[0];
        EXPECT_EQ(outcome.Err.find("missing"), std::string::npos) << outcome.Err;
    }
    std::vector<const char *> longDiag = {"diag"};
    std::string word(1024, 'w');
    longDiag.push_back(word.c_str());
    EXPECT_EQ(RunTool(longDiag).Status, nfctl::ExitUsage);

    Outcome missing = RunTool({"version"});
    EXPECT_EQ(missing.Status, nfctl::ExitFailed);
    EXPECT_EQ(missing.Err, "ndisfilterctl: open \\\\.\\NdisFilter: the control device is missing (is the framework "
                           "loaded?) (error 2)\n");
    EXPECT_EQ(missing.Out, "");
}

/* ---- every command against the scripted device ---- */

TEST_F(ScriptedDeviceTest, AdaptersAreListedAndAMacNamesItsAdapter)
{
    Answer(IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, STATUS_SUCCESS, TwoAdapters());
    Outcome list = Run({"adapters"});
    EXPECT_EQ(list.Status, nfctl::ExitOk) << list.Err;
    EXPECT_EQ(list.Out, "ID    MAC                  MTU  MEDIUM  STATE  NAME\n"
                        "1     02:00:00:00:0a:01  1500       0      1  {0A000001} host A\n"
                        "2     02:00:00:00:0b:22  1500       0      1  {0B000002} host B (permanent 02:00:00:00:0b:02)\n");

    std::vector<UCHAR> id(nfapp::AdapterIdReplySize, 0);
    Put32(id, 6, 5);
    Answer(IOCTL_NDIS_FILTER_GET_ADAPTER, STATUS_SUCCESS, id);
    Answer(IOCTL_NDIS_FILTER_GET_ADAPTER, STATUS_INTERNAL_ERROR);
    Outcome found = Run({"adapter-id", "02:00:00:00:0b:22"});
    EXPECT_EQ(found.Out, "adapter 5\n");
    EXPECT_EQ(InputOf(IOCTL_NDIS_FILTER_GET_ADAPTER), (std::vector<UCHAR>{2, 0, 0, 0, 0x0b, 0x22}));
    Outcome notFound = Run({"adapter-id", "02:00:00:00:0b:23"});
    EXPECT_EQ(notFound.Status, nfctl::ExitFailed);
    EXPECT_EQ(notFound.Err, "ndisfilterctl: GET_ADAPTER: adapter not found (status 0xC00000E5, error 1359)\n");

    Outcome none = Run({"adapters"}); /* nothing scripted: the code is not served */
    EXPECT_EQ(none.Err, "ndisfilterctl: GET_TCPIP_INTERFACES: not supported by the framework (status 0xC00000BB, "
                        "error 50)\n");
}

TEST_F(ScriptedDeviceTest, EventsAreDrainedInOrderAndALostRecordIsReported)
{
    std::vector<UCHAR> text(nfapp::EventRecordSize, 0), binary(nfapp::EventRecordSize, 0);
    Put32(text, 0, 7), Put32(text, 4, 8), Put32(text, 8, 3);
    memcpy(&text[12], "up!", 3);
    Put32(binary, 0, 1), Put32(binary, 8, 0xFFFFFFFF), Put32(binary, 12, 0xAB), Put32(binary, 16, 2);
    Answer(IOCTL_NDIS_FILTER_GET_EVENT, STATUS_SUCCESS, text);
    Answer(IOCTL_NDIS_FILTER_GET_EVENT, STATUS_INTERNAL_ERROR);
    Answer(IOCTL_NDIS_FILTER_GET_EVENT, STATUS_SUCCESS, binary);
    Answer(IOCTL_NDIS_FILTER_GET_EVENT, STATUS_SUCCESS);
    Outcome drained = Run({"events"});
    EXPECT_EQ(drained.Status, nfctl::ExitOk);
    EXPECT_EQ(drained.Err, "ndisfilterctl: an event was dropped: the framework could not name its adapter\n");
    std::string expected = "event 0x00000007 0x00000008 no adapter length 3 text \"up!\"\n"
                           "event 0x00000001 0x00000000 adapter 2 length 1024 (cut)\n"
                           "  0000  ab 00 00 00 02 00 00 00 00 00 00 00 00 00 00 00  ................\n";
    for (int line = 1; line < 64; ++line) {
        char offset[16];
        snprintf(offset, sizeof(offset), "  %04x ", line * 16);
        expected += std::string(offset) + " 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00  ................\n";
    }
    EXPECT_EQ(drained.Out, expected);
    EXPECT_EQ(Codes().size(), 4u);

    Answer(IOCTL_NDIS_FILTER_GET_EVENT, STATUS_SUCCESS);
    EXPECT_EQ(Run({"events"}).Out, "no event\n");
    /* Following: empty polls are waited out until the count is reached. */
    Answer(IOCTL_NDIS_FILTER_GET_EVENT, STATUS_SUCCESS);
    Answer(IOCTL_NDIS_FILTER_GET_EVENT, STATUS_SUCCESS, text);
    Outcome followed = Run({"events", "--follow", "--count", "1", "--interval", "1"});
    EXPECT_EQ(followed.Out, "event 0x00000007 0x00000008 no adapter length 3 text \"up!\"\n");
}

TEST_F(ScriptedDeviceTest, IpConfigSetReplacesOnlyTheListsItNames)
{
    nfapp::IpConfiguration before, after;
    before.Carried = 0x55;
    before.Addresses.push_back({Ip("10.0.0.1"), Ip("255.255.255.0"), Ip("10.0.0.255")});
    before.Gateways = {Ip("10.0.0.254")};
    before.DnsServers = {Ip("10.0.0.53")};
    std::vector<UCHAR> reply(nfapp::IpConfigRequestSize, 0);
    Put32(reply, 0, 3);
    ASSERT_TRUE(nfapp::BuildIpConfig(before, &reply[4]));
    Answer(IOCTL_NDIS_FILTER_GET_IPCONFIG, STATUS_SUCCESS, reply);
    Answer(IOCTL_NDIS_FILTER_SET_IPCONFIG, STATUS_SUCCESS);
    Answer(IOCTL_NDIS_FILTER_GET_IPCONFIG, STATUS_SUCCESS, reply);

    Outcome set = Run({"ipconfig", "3", "set", "address", "192.168.1.2/16", "address", "192.168.1.3/16", "wins",
                       "10.0.0.7", "gateway", "192.168.0.1"});
    EXPECT_EQ(set.Status, nfctl::ExitOk) << set.Err;
    std::vector<UCHAR> sent = InputOf(IOCTL_NDIS_FILTER_SET_IPCONFIG);
    ASSERT_EQ(sent.size(), nfapp::IpConfigRequestSize);
    EXPECT_EQ(sent[0], 3);
    nfapp::ParseIpConfig(&sent[4], after);
    EXPECT_EQ(after.Carried, 0x55u);
    ASSERT_EQ(after.Addresses.size(), 2u);
    EXPECT_EQ(after.Addresses[1].Broadcast, Ip("192.168.255.255"));
    EXPECT_EQ(after.Gateways, std::vector<ULONG>{Ip("192.168.0.1")});
    EXPECT_EQ(after.DnsServers, before.DnsServers);
    EXPECT_EQ(after.Wins1, Ip("10.0.0.7"));
    EXPECT_EQ(InputOf(IOCTL_NDIS_FILTER_GET_IPCONFIG), (std::vector<UCHAR>{3, 0, 0, 0}));
    /* What is printed is the configuration read back. */
    EXPECT_EQ(set.Out, "adapter 3\n"
                       "  address 10.0.0.1 netmask 255.255.255.0 broadcast 10.0.0.255\n"
                       "  gateway 10.0.0.254\n"
                       "  dns 10.0.0.53\n"
                       "  wins 0.0.0.0 0.0.0.0\n");

    Answer(IOCTL_NDIS_FILTER_GET_IPCONFIG, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Run({"ipconfig", "9"}).Err,
              "ndisfilterctl: GET_IPCONFIG: adapter not found (status 0xC000000D, error 87)\n");
}

TEST_F(ScriptedDeviceTest, MediaStateAndPacketDumpNameTheAdapterByIdOrMac)
{
    Answer(IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, STATUS_SUCCESS, TwoAdapters());
    Answer(IOCTL_NDIS_FILTER_SET_MEDIA_STATUS, STATUS_SUCCESS);
    Answer(IOCTL_NDIS_FILTER_GET_MEDIA_STATUS, STATUS_SUCCESS, {2, 0, 0, 0, 0x0b, 0x22, 1});
    Outcome media = Run({"media", "2", "disconnected"});
    EXPECT_EQ(media.Out, "02:00:00:00:0b:22 media disconnected (1)\n") << media.Err;
    EXPECT_EQ(InputOf(IOCTL_NDIS_FILTER_SET_MEDIA_STATUS), (std::vector<UCHAR>{2, 0, 0, 0, 0x0b, 0x22, 1}));

    Answer(IOCTL_NDIS_FILTER_SET_PACKET_DUMP, STATUS_SUCCESS);
    Answer(IOCTL_NDIS_FILTER_GET_PACKET_DUMP, STATUS_SUCCESS, {2, 0, 0, 0, 0x0a, 1, 1});
    EXPECT_EQ(Run({"packet-dump", "02:00:00:00:0a:01", "on"}).Out, "02:00:00:00:0a:01 packet dump on\n");
    EXPECT_EQ(InputOf(IOCTL_NDIS_FILTER_SET_PACKET_DUMP), (std::vector<UCHAR>{2, 0, 0, 0, 0x0a, 1, 1}));

    Answer(IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, STATUS_SUCCESS, TwoAdapters());
    EXPECT_EQ(Run({"media", "7"}).Err, "ndisfilterctl: adapter 7: adapter not found\n");
    Answer(IOCTL_NDIS_FILTER_GET_PACKET_DUMP, (NTSTATUS)0xC0010006);
    EXPECT_EQ(Run({"packet-dump", "02:00:00:00:0c:01"}).Err,
              "ndisfilterctl: GET_PACKET_DUMP: adapter not found (status 0xC0010006, error 317)\n");
}

TEST_F(ScriptedDeviceTest, DiagPrintsTheReplyTextAndSaysWhenNobodyAnswered)
{
    const char *text = "help - print this messages\nshow info - print driver info\n";
    std::vector<UCHAR> reply(40 + strlen(text), 0);
    Put32(reply, 24, nfapp::DiagReplyBufferSize);
    Put32(reply, 28, (ULONG)strlen(text));
    reply[32] = 1;
    memcpy(&reply[33], text, strlen(text));
    Answer(IOCTL_NDIS_FILTER_DIAG, STATUS_SUCCESS, reply);
    Outcome answered = Run({"diag", "filter", "help"});
    EXPECT_EQ(answered.Status, nfctl::ExitOk);
    EXPECT_EQ(answered.Out, text);
    std::vector<UCHAR> command = InputOf(IOCTL_NDIS_FILTER_DIAG);
    EXPECT_EQ(std::string(command.begin(), command.end()), "filter help");

    Answer(IOCTL_NDIS_FILTER_DIAG, STATUS_SUCCESS); /* refused: no bytes at all */
    EXPECT_EQ(Run({"diag", "filter", "show", "driver"}).Err,
              "ndisfilterctl: DIAG: diagnostic refused (another one is running, or the command is empty or too "
              "long)\n");
    Answer(IOCTL_NDIS_FILTER_DIAG, STATUS_SUCCESS, std::vector<UCHAR>(40, 0)); /* a header and no text */
    Outcome nobody = Run({"diag", "nobody", "show"});
    EXPECT_EQ(nobody.Status, nfctl::ExitFailed);
    EXPECT_EQ(nobody.Err, "ndisfilterctl: no driver answered \"nobody show\"\n");
}

TEST_F(ScriptedDeviceTest, RequestsWithoutDataSendTheirCodeAndReportRefusals)
{
    for (ULONG code : {IOCTL_NDIS_FILTER_START_ETHRLOG, IOCTL_NDIS_FILTER_STOP_ETHRLOG, IOCTL_NDIS_FILTER_CLEAR_EVENT,
                       IOCTL_NDIS_FILTER_GET_DBGFLAG, IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION,
                       IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL})
        Answer(code, STATUS_SUCCESS);
    std::string out;
    for (std::vector<const char *> args : std::vector<std::vector<const char *>>{
             {"capture", "start"}, {"capture", "stop"}, {"clear-events"}, {"reload-debug-mask"}, {"dump-extension"},
             {"congestion", "0x40"}}) {
        Outcome outcome = Run(args);
        EXPECT_EQ(outcome.Status, nfctl::ExitOk) << args[0] << outcome.Err;
        out += outcome.Out;
    }
    EXPECT_EQ(out, "capture logs started\ncapture logs stopped\nevents cleared\ndebug mask reloaded from the "
                   "registry\ndevice extension dumped to the kernel debugger\ninject packet maximum set to 64\n");
    EXPECT_EQ(Codes(), (std::vector<ULONG>{IOCTL_NDIS_FILTER_START_ETHRLOG, IOCTL_NDIS_FILTER_STOP_ETHRLOG,
                                           IOCTL_NDIS_FILTER_CLEAR_EVENT, IOCTL_NDIS_FILTER_GET_DBGFLAG,
                                           IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION,
                                           IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL}));
    EXPECT_EQ(InputOf(IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL), (std::vector<UCHAR>{0x40, 0, 0, 0}));

    Answer(IOCTL_NDIS_FILTER_GET_EVENT, STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(Run({"events"}).Err,
              "ndisfilterctl: GET_EVENT: the framework refused the buffer (too small) (status 0xC0000023, error 122)\n");
}

/* ---- against the framework ---- */

class NdisFilterCtlOnFramework : public apptest::AppTest {};

TEST_F(NdisFilterCtlOnFramework, VersionCongestionAndAnEmptyEventQueue)
{
    Outcome version = RunTool({"version"});
    EXPECT_EQ(version.Status, nfctl::ExitOk) << version.Err;
    EXPECT_EQ(version.Out, "framework version 1.0\nshared memory 1724520 bytes\n");

    Outcome congestion = RunTool({"congestion", "77"});
    EXPECT_EQ(congestion.Out, "inject packet maximum set to 77\n") << congestion.Err;
    EXPECT_EQ(g_pGlobal->m_nInjectPacketMax, 77u);

    Outcome events = RunTool({"events"});
    EXPECT_EQ(events.Status, nfctl::ExitOk) << events.Err;
    EXPECT_EQ(events.Out, "no event\n");
}

TEST_F(NdisFilterCtlOnFramework, AdapterCommandsReachTheAdapterByIdAndByMac)
{
    ASSERT_EQ(m_adapterId, 1u);
    Outcome list = RunTool({"adapters"});
    EXPECT_EQ(list.Status, nfctl::ExitOk) << list.Err;
    EXPECT_NE(list.Out.find("1     00:11:22:33:44:01  1500"), std::string::npos) << list.Out;
    EXPECT_EQ(RunTool({"adapter-id", "00-11-22-33-44-01"}).Out, "adapter 1\n");
    EXPECT_EQ(RunTool({"adapter-id", "00-11-22-33-44-99"}).Err,
              "ndisfilterctl: GET_ADAPTER: adapter not found (status 0xC00000E5, error 1359)\n");

    EXPECT_EQ(RunTool({"media", "1"}).Out, "00:11:22:33:44:01 media connected (0)\n");
    EXPECT_EQ(RunTool({"media", "1", "disconnected"}).Status, nfctl::ExitOk);
    EXPECT_EQ(RunTool({"media", "1"}).Out, "00:11:22:33:44:01 media disconnected (1)\n");
    EXPECT_EQ(RunTool({"packet-dump", "1", "on"}).Status, nfctl::ExitOk);
    EXPECT_EQ(RunTool({"packet-dump", "1"}).Out, "00:11:22:33:44:01 packet dump on\n");
    EXPECT_TRUE(m_adapter->m_bPacketDump);

    const char *expected = "adapter 1\n  address 10.1.2.3 netmask 255.255.255.0 broadcast 10.1.2.255\n"
                           "  gateway 10.1.2.1\n  wins 0.0.0.0 0.0.0.0\n";
    EXPECT_EQ(RunTool({"ipconfig", "1", "set", "address", "10.1.2.3/24", "gateway", "10.1.2.1"}).Out, expected);
    EXPECT_EQ(RunTool({"ipconfig", "1"}).Out, expected);

    Outcome info = RunTool({"diag", "filter", "show", "info"});
    EXPECT_EQ(info.Status, nfctl::ExitOk) << info.Err;
    EXPECT_NE(info.Out.find("- m_DeviceSymbolicLink = \\DosDevices\\NdisFilter"), std::string::npos) << info.Out;
    EXPECT_EQ(RunTool({"diag", "nobody", "here"}).Err, "ndisfilterctl: no driver answered \"nobody here\"\n");
}

} // namespace
