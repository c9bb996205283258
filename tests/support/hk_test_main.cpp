/*
 * The main of every test program: GoogleTest with thread-safe death tests and
 * a listener that fails any test that left verifier findings behind.
 */
#include "hk_test_support.h"

#include <stdio.h>
#include <stdlib.h>

#include <vector>

namespace {

/* Fails the test that just ended when the runtime recorded verifier findings during it;
 * findings recorded between tests are printed and dropped. */
class VerifierFindingsListener : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo &) override
    {
        for (const std::string &finding : hk::TakeVerifierFindings())
            fprintf(stderr, "note: verifier finding recorded outside any test: %s\n",
                    finding.c_str());
    }

    void OnTestEnd(const testing::TestInfo &) override
    {
        for (const std::string &finding : hk::TakeVerifierFindings())
            ADD_FAILURE() << "verifier finding left by the test: " << finding;
    }
};

} // namespace

namespace hktest {

ExpectVerifierFinding::ExpectVerifierFinding(std::string text, int minimum)
    : text_(std::move(text)), minimum_(minimum)
{
}

ExpectVerifierFinding::~ExpectVerifierFinding()
{
    int matching = 0;
    for (const std::string &finding : hk::TakeVerifierFindings()) {
        if (finding.find(text_) != std::string::npos)
            ++matching;
        else
            ADD_FAILURE() << "unexpected verifier finding: " << finding;
    }
    EXPECT_GE(matching, minimum_) << "expected a verifier finding containing \"" << text_ << "\"";
}

} // namespace hktest

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    /* A test that opens a device it did not load must not reach a daemon someone runs on this machine. */
    setenv("NDISFILTER_SOCKET", "/nonexistent/ndisfilter.sock", 0);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    testing::UnitTest::GetInstance()->listeners().Append(new VerifierFindingsListener);
    return RUN_ALL_TESTS();
}
