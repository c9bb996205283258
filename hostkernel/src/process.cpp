// Host kernel runtime, thread area: the process object.
//
// Every thread of the runtime runs in the system process (PsGetCurrentProcessId
// is 4 everywhere), so there is one process object. Like the real one it is an
// opaque block whose image name, "System", sits at an offset drivers do not
// know and find by scanning it.
#include "internal.h"

#include <cstring>

namespace hk {
namespace {

constexpr size_t kProcessObjectSize = 0x3010;
constexpr size_t kImageNameOffset = 0x5a8;
constexpr size_t kImageNameLength = 15;

struct alignas(16) ProcessObject {
    unsigned char bytes[kProcessObjectSize];
};

PEPROCESS SystemProcess()
{
    static ProcessObject *process = [] {
        auto *p = new ProcessObject();
        std::memset(p->bytes, 0, sizeof(p->bytes));
        static const char kName[kImageNameLength] = "System";
        std::memcpy(p->bytes + kImageNameOffset, kName, sizeof(kName));
        return p;
    }();
    return reinterpret_cast<PEPROCESS>(process);
}

} // namespace
} // namespace hk

extern "C" {

/* The process of the calling thread: always the system process. Any IRQL. */
PEPROCESS PsGetCurrentProcess(VOID)
{
    return hk::SystemProcess();
}

PEPROCESS IoGetCurrentProcess(VOID)
{
    return hk::SystemProcess();
}

} // extern "C"
