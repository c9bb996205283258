/* Names of status codes and enumerations, as the trace lines print them. */
#include "framework.h"

#include <set>

TEST(StatusNames, EveryStatusFromMinus45ToZeroHasItsOwnName)
{
    std::set<std::string> names;
    for (LONG status = -45; status <= 0; status++) {
        std::string name = Filter_StatusString(status);
        EXPECT_NE(name, "Unknown") << status;
        names.insert(name);
    }
    EXPECT_EQ(names.size(), 46u);
    EXPECT_STREQ(Filter_StatusString(FILTER_STATUS_SUCCESS), "FILTER_STATUS_SUCCESS");
    EXPECT_STREQ(Filter_StatusString(-1), "FILTER_ERROR_INVALID_ARGUMENT");
    EXPECT_STREQ(Filter_StatusString(-19), "FILTER_ERROR_INTERFACE_NOT_ACTIVE");
    EXPECT_STREQ(Filter_StatusString(-22), "FILTER_ERROR_EXCEPTION");
    EXPECT_STREQ(Filter_StatusString(-33), "FILTER_ERROR_INTERFACE_ARE_REFERENCED");
    EXPECT_STREQ(Filter_StatusString(-35), "FILTER_ERROR_INVALID_MEMORY_POINTER");
    EXPECT_STREQ(Filter_StatusString(-45), "FILTER_ERROR_DRIVER_DIAG_IN_PROGRESS");
}

TEST(StatusNames, ValuesOutsideTheTableAreUnknown)
{
    EXPECT_STREQ(Filter_StatusString(1), "Unknown");
    EXPECT_STREQ(Filter_StatusString(-46), "Unknown");
    EXPECT_STREQ(Filter_StatusString((LONG)0x80000000), "Unknown");
    EXPECT_STREQ(Filter_StatusString(0x7FFFFFFF), "Unknown");
}

TEST(EnumerationNames, ResultsTypesAndMethodsNameTheirValuesAndNothingElse)
{
    EXPECT_STREQ(Filter_ResultString(FILTER_RESULT_BYPASS), "FILTER_RESULT_BYPASS");
    EXPECT_STREQ(Filter_ResultString(FILTER_RESULT_CAPTURE), "FILTER_RESULT_CAPTURE");
    EXPECT_STREQ(Filter_ResultString(4), "Unknown");

    EXPECT_STREQ(Filter_TypeString(-1), "FILTER_TYPE_INVALID");
    EXPECT_STREQ(Filter_TypeString(FILTER_TYPE_INJECT_TO_PROTOCOL), "FILTER_TYPE_INJECT_TO_PROTOCOL");
    EXPECT_STREQ(Filter_TypeString(-2), "Unknown");
    EXPECT_STREQ(Filter_TypeString(4), "Unknown");

    EXPECT_STREQ(Filter_MethodString(FILTER_METHOD_START_FROM_FIRST_FILTER), "FILTER_METHOD_START_FROM_FIRST_FILTER");
    EXPECT_STREQ(Filter_MethodString(FILTER_METHOD_START_AFTER_THIS_FILTER), "FILTER_METHOD_START_AFTER_THIS_FILTER");
    EXPECT_STREQ(Filter_MethodString(5), "Unknown");
}

TEST(EnumerationNames, EveryOrderBesidesTheSentinelsIsAFixedPosition)
{
    EXPECT_STREQ(Filter_OrderString(-2), "FILTER_ORDER_NEXT");
    EXPECT_STREQ(Filter_OrderString(-1), "FILTER_ORDER_LAST");
    EXPECT_STREQ(Filter_OrderString(0), "FILTER_ORDER_FIRST");
    EXPECT_STREQ(Filter_OrderString(5), "FILTER_ORDER_FIXED");
    EXPECT_STREQ(Filter_OrderString(-3), "FILTER_ORDER_FIXED");
    EXPECT_STREQ(Filter_OrderString(0x7FFFFFFF), "FILTER_ORDER_FIXED");
}

extern "C" unsigned PublicHeaderPacketSizeFromC(void);

TEST(PublicHeader, CompilesAsC11WithTheSameLayout)
{
    EXPECT_EQ(PublicHeaderPacketSizeFromC(), sizeof(FilterPacket));
}
