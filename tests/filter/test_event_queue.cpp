/* The event queue that client drivers report into. */
#include "framework.h"

#include <string>

namespace {

class EventQueue : public nftest::Framework {
protected:
    void SetUp() override { ASSERT_EQ(Load(), STATUS_SUCCESS); }

    std::vector<PFilterLogRecord> Queued()
    {
        std::vector<PFilterLogRecord> records;
        PLIST_ENTRY head = &g_pGlobal->m_FilterLogList;
        for (PLIST_ENTRY entry = head->Flink; entry != head; entry = entry->Flink)
            records.push_back(CONTAINING_RECORD(entry, FilterLogRecord, m_Link));
        return records;
    }
};

} // namespace

TEST_F(EventQueue, RecordsQueueInReportOrderWithTheirValuesAndText)
{
    ASSERT_EQ(Filter_ReportEvent(1, 2, "adapter %d is %s", 3, "up"), FILTER_STATUS_SUCCESS);
    ASSERT_EQ(Filter_ReportEvent(4, 5, nullptr), FILTER_STATUS_SUCCESS);
    UCHAR binary[3] = {0, 0xFF, 7};
    ASSERT_EQ(Filter_ReportEventEx(6, 7, sizeof(binary), binary), FILTER_STATUS_SUCCESS);

    auto records = Queued();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0]->m_dwEvent1, 1u);
    EXPECT_EQ(records[0]->m_dwEvent2, 2u);
    EXPECT_EQ(records[0]->m_nLength, 15);
    EXPECT_STREQ(records[0]->m_Text, "adapter 3 is up");
    EXPECT_EQ(records[1]->m_nLength, 0);
    EXPECT_EQ(records[2]->m_nLength, 3);
    EXPECT_EQ(memcmp(records[2]->m_Text, binary, 3), 0);
    EXPECT_EQ(records[2]->m_Text[3], 0);
    EXPECT_EQ(g_pGlobal->m_CurrentLogSize, 3);
}

TEST_F(EventQueue, ATextThatDoesNotFitIsCutWithoutTerminatorAndLengthMinusOne)
{
    std::string longer(1025, 'y');
    ASSERT_EQ(Filter_ReportEvent(0, 0, "%s", longer.c_str()), FILTER_STATUS_SUCCESS);
    /* Exactly 1,024 characters fill the text: stored whole, no terminator, length 1024. */
    std::string exact(1024, 'x');
    ASSERT_EQ(Filter_ReportEvent(0, 0, "%s", exact.c_str()), FILTER_STATUS_SUCCESS);

    auto records = Queued();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0]->m_nLength, -1);
    EXPECT_EQ(std::string(records[0]->m_Text, 1024), std::string(1024, 'y'));
    EXPECT_EQ(records[1]->m_nLength, 1024);
    EXPECT_EQ(std::string(records[1]->m_Text, 1024), exact);
}

TEST_F(EventQueue, BinaryDataIsCutAt1024BytesAndMissingDataHasNoText)
{
    std::vector<UCHAR> data(2000, 0x5A);
    ASSERT_EQ(Filter_ReportEventEx(0, 0, (ULONG)data.size(), data.data()), FILTER_STATUS_SUCCESS);
    ASSERT_EQ(Filter_ReportEventEx(0, 0, 100, nullptr), FILTER_STATUS_SUCCESS);
    ASSERT_EQ(Filter_ReportEventEx(0, 0, 0, data.data()), FILTER_STATUS_SUCCESS);

    auto records = Queued();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0]->m_nLength, 1024);
    EXPECT_EQ(memcmp(records[0]->m_Text, data.data(), 1024), 0);
    EXPECT_EQ(records[1]->m_nLength, 0);
    EXPECT_EQ(records[2]->m_nLength, 0);
}

TEST_F(EventQueue, The1024thOutstandingRecordIsRefusedAndNothingElseChanges)
{
    for (int i = 0; i < 1023; i++)
        ASSERT_EQ(Filter_ReportEvent((ULONG)i, 0, "event %d", i), FILTER_STATUS_SUCCESS) << i;
    GlobalDebugFlag = NF_DBG_EVENT_QUEUE;
    HkDebugClearCapture();

    EXPECT_EQ(Filter_ReportEvent(9999, 0, "one too many"), FILTER_ERROR_OUT_OF_MEMORY);
    EXPECT_EQ(Filter_ReportEventEx(9999, 0, 0, nullptr), FILTER_ERROR_OUT_OF_MEMORY);

    EXPECT_EQ(g_pGlobal->m_CurrentLogSize, 1023);
    auto records = Queued();
    ASSERT_EQ(records.size(), 1023u);
    EXPECT_EQ(records.back()->m_dwEvent1, 1022u);
    auto lines = nftest::TakeTrace();
    EXPECT_GE(nftest::FindLine(lines, "pGlobal->m_CurrentLogSize = 1023, >= MAX_LOG_SIZE"), 0);

    /* Giving one record back makes room for exactly one more. */
    PFilterLogRecord record = records.front();
    RemoveEntryList(&record->m_Link);
    NdisFilter_FreeLogRecord(record);
    EXPECT_EQ(Filter_ReportEvent(1, 1, "fits again"), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_ReportEvent(1, 1, "full again"), FILTER_ERROR_OUT_OF_MEMORY);
}

TEST_F(EventQueue, AnExhaustedLookasideListRefusesTheReport)
{
    HkPoolFailAllocations(FILTER_LOG_LOOKASIDE_TAG, 1);
    EXPECT_EQ(Filter_ReportEvent(0, 0, "no memory"), FILTER_ERROR_OUT_OF_MEMORY);
    HkPoolClearFailures();
    EXPECT_EQ(g_pGlobal->m_CurrentLogSize, 0);
}
