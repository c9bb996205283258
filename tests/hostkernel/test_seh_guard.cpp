// The fault guard: SehGuardedCall and the driver's FilterGuard form.
#include <ntddk.h>
#include <hostkernel.h>

#include "../../driver/kernel/filter/guard.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

// Keeps the optimizer from seeing through a helper: no inlining, no constants
// carried into it from its callers (GCC says noipa; clang has no such
// attribute, and optnone does the same there).
#if defined(__clang__)
#define NOT_SEEN_THROUGH noinline, optnone
#else
#define NOT_SEEN_THROUGH noipa
#endif

// A page that faults on every access; unmapped when the test ends.
class InaccessiblePage {
public:
    InaccessiblePage()
    {
        size_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        page_ = mmap(nullptr, size_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    }
    ~InaccessiblePage() { munmap(page_, size_); }
    volatile int *Address() const { return static_cast<volatile int *>(page_); }

private:
    void *page_;
    size_t size_;
};

// Reads *context as an int.
VOID ReadThrough(PVOID context)
{
    (void)*static_cast<volatile int *>(context);
}

TEST(SehGuard, CompletedRoutineReturnsZeroAndKeepsItsEffects)
{
    int value = 0;
    EXPECT_EQ(SehGuardedCall([](PVOID context) { *static_cast<int *>(context) = 42; }, &value), 0);
    EXPECT_EQ(value, 42);

    int calls = 0;
    const auto body = [&calls] { ++calls; };
    EXPECT_EQ(FilterGuard(body), 0);
    EXPECT_EQ(FilterGuard([&] { calls += 10; }), 0);
    EXPECT_EQ(calls, 11);
}

TEST(SehGuard, ReadOfAnInaccessiblePageIsAnAccessViolation)
{
    InaccessiblePage page;
    EXPECT_EQ(SehGuardedCall(ReadThrough, const_cast<int *>(page.Address())), STATUS_ACCESS_VIOLATION);

    int before = 0;
    int after = 0;
    const LONG code = FilterGuard([&] {
        before = 1;
        page.Address()[1] = 5;
        after = 1;
    });
    EXPECT_EQ(code, STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(before, 1);
    EXPECT_EQ(after, 0);
}

TEST(SehGuard, ManyFaultsInARowAreAllCaught)
{
    InaccessiblePage page;
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(SehGuardedCall(ReadThrough, const_cast<int *>(page.Address())), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(SehGuardedCall([](PVOID) {}, nullptr), 0);
}

TEST(SehGuard, NestedGuardsCatchAtTheInnermost)
{
    InaccessiblePage page;
    LONG inner = -1;
    bool resumedInOuter = false;
    const LONG outer = FilterGuard([&] {
        inner = FilterGuard([&] { (void)page.Address()[0]; });
        resumedInOuter = true;
    });
    EXPECT_EQ(inner, STATUS_ACCESS_VIOLATION);
    EXPECT_TRUE(resumedInOuter);
    EXPECT_EQ(outer, 0);

    // After an inner guard completed, a fault belongs to the outer one.
    LONG innerDone = -1;
    const LONG outerFault = FilterGuard([&] {
        innerDone = FilterGuard([] {});
        (void)page.Address()[0];
    });
    EXPECT_EQ(innerDone, 0);
    EXPECT_EQ(outerFault, STATUS_ACCESS_VIOLATION);
}

TEST(SehGuard, ThreadsFaultUnderTheirOwnGuardsAtOnce)
{
    InaccessiblePage page;
    constexpr int kThreads = 4;
    constexpr int kRounds = 500;
    std::atomic<int> ready{0};
    std::atomic<int> caught{0};
    std::atomic<int> completed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ++ready;
            while (ready.load() < kThreads) {
            }
            for (int i = 0; i < kRounds; ++i) {
                if ((i + t) % 2 == 0) {
                    if (FilterGuard([&] { (void)page.Address()[t]; }) == STATUS_ACCESS_VIOLATION)
                        ++caught;
                } else {
                    int local = 0;
                    if (FilterGuard([&] { local = i; }) == 0 && local == i)
                        ++completed;
                }
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(caught.load(), kThreads * kRounds / 2);
    EXPECT_EQ(completed.load(), kThreads * kRounds / 2);
}

// Divides by a zero the compiler cannot see (no sanitizer check in the way).
__attribute__((no_sanitize("undefined"), NOT_SEEN_THROUGH)) int Divide(int numerator, int divisor)
{
    return numerator / divisor;
}

TEST(SehGuard, OtherProcessorFaultsMapToTheirWindowsCodes)
{
    volatile int quotient = 0;
    EXPECT_EQ(FilterGuard([&] { quotient = Divide(1, 0); }), STATUS_INTEGER_DIVIDE_BY_ZERO);
    EXPECT_EQ(FilterGuard([] { __builtin_trap(); }), STATUS_ILLEGAL_INSTRUCTION);
}

TEST(SehGuard, RaisedExceptionsAndBreakpointsEndTheGuard)
{
    EXPECT_EQ(FilterGuard([] { ExRaiseStatus(STATUS_INSUFFICIENT_RESOURCES); }), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(FilterGuard([] { ExRaiseAccessViolation(); }), STATUS_ACCESS_VIOLATION);
    // No debugger is attached to the test: a breakpoint is an exception.
    EXPECT_EQ(FilterGuard([] { DbgBreakPoint(); }), STATUS_BREAKPOINT);
}

TEST(SehGuard, IrqlStaysAsItWasAtTheFault)
{
    InaccessiblePage page;
    KIRQL old = PASSIVE_LEVEL;
    const LONG code = FilterGuard([&] {
        KeRaiseIrql(DISPATCH_LEVEL, &old);
        (void)page.Address()[0];
    });
    EXPECT_EQ(code, STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    KeLowerIrql(old);
}

TEST(SehGuard, FaultInADbgPrintArgumentLeavesTheChannelUsable)
{
    InaccessiblePage page;
    const BOOLEAN echo = HkDebugGetEcho();
    HkDebugSetEcho(FALSE);
    HkDebugClearCapture();
    EXPECT_EQ(FilterGuard([&] { DbgPrint("%s\n", reinterpret_cast<const volatile char *>(page.Address())); }),
              STATUS_ACCESS_VIOLATION);
    DbgPrint("still printing\n");
    EXPECT_EQ(hk::TakeCapturedDebugLines(), std::vector<std::string>{"still printing"});
    HkDebugSetEcho(echo);
}

// Recurses until the stack runs out.
__attribute__((NOT_SEEN_THROUGH)) int Recurse(int depth)
{
    volatile char frame[512];
    frame[0] = static_cast<char>(depth);
    return depth > 1000000000 ? frame[0] : Recurse(depth + 1) + frame[0];
}

TEST(SehGuardDeathTest, FaultOutsideAnyGuardIsABugCheck)
{
    InaccessiblePage page;
    EXPECT_EQ(FilterGuard([] {}), 0); // guards are in use in this process
    EXPECT_DEATH((void)page.Address()[0], "KMODE_EXCEPTION_NOT_HANDLED \\(0xFFFFFFFFC0000005");
}

TEST(SehGuardDeathTest, StackOverflowIsABugCheckEvenInsideAGuard)
{
    EXPECT_DEATH(FilterGuard([] { (void)Recurse(0); }), "UNEXPECTED_KERNEL_MODE_TRAP");
}

} // namespace
