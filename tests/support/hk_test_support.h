/*
 * Helpers shared by the test programs of the host runtime and the drivers.
 *
 * Every test program links hk_test_main, whose listener fails a test that
 * left verifier findings behind. A test that provokes a finding on purpose
 * says so with ExpectVerifierFinding.
 */
#pragma once

#include <gtest/gtest.h>
#include <hk/host_core.h>

#include <chrono>
#include <string>
#include <thread>

namespace hktest {

// Expects the code in its scope to record at least `minimum` verifier findings containing
// `text`. Findings that do not contain it fail the test. The findings are consumed, so the
// end-of-test check does not see them.
class ExpectVerifierFinding {
public:
    explicit ExpectVerifierFinding(std::string text, int minimum = 1);
    ~ExpectVerifierFinding();
    ExpectVerifierFinding(const ExpectVerifierFinding &) = delete;
    ExpectVerifierFinding &operator=(const ExpectVerifierFinding &) = delete;

private:
    std::string text_;
    int minimum_;
};

// Polls `condition` until it holds or `timeout` passes; returns its last value. For
// conditions other threads make true (generous time-outs keep loaded machines green).
template <class Condition>
bool WaitUntil(Condition condition, std::chrono::milliseconds timeout = std::chrono::seconds(10))
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Expects as many live pool blocks of `tag` at the end of its scope as at the start.
class ExpectNoPoolLeak {
public:
    explicit ExpectNoPoolLeak(ULONG tag) : tag_(tag), before_(HkPoolLiveAllocationCountWithTag(tag)) {}
    ~ExpectNoPoolLeak()
    {
        EXPECT_EQ(before_, HkPoolLiveAllocationCountWithTag(tag_)) << "pool blocks leaked";
    }
    ExpectNoPoolLeak(const ExpectNoPoolLeak &) = delete;
    ExpectNoPoolLeak &operator=(const ExpectNoPoolLeak &) = delete;

private:
    ULONG tag_;
    ULONG before_;
};

} // namespace hktest
