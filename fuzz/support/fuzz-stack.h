/*
 * fuzz-stack.h - what every fuzz harness shares: the drivers loaded once per
 * process (framework, simulated hook driver bound, adapters, optionally the
 * example clients), the check after each input, and a forward reader of the
 * input bytes.
 *
 * The check after an input waits until the injected-packet queues are empty
 * and every packet is back with the hook driver, then takes the runtime's
 * verifier findings; anything left over aborts the process with the findings
 * and the last debug lines, which libFuzzer reports as a crash. At exit the
 * drivers are unloaded and the findings of the unload (leaks) checked too.
 */
#pragma once

#include <windows.h>
#include <ntddk.h>
#include <ndis.h>
#include <ndisfilter.h>

#include <stddef.h>
#include <stdint.h>

#include <vector>

namespace nffuzz {

struct StackOptions {
    int Adapters = 1;     /* adapters 1..n: MAC 00-11-22-33-44-0n */
    bool Clients = false; /* the example clients: firewall, injector, tap, example-filter */
};

/* Loads the stack; aborts when anything fails to load. Call once, from LLVMFuzzerInitialize. */
void LoadStack(const StackOptions &options);
/* Adapter `index` (0-based) and its framework identifier. */
PFilterAdapter Adapter(int index);
ULONG AdapterId(int index);
int AdapterCount();

/* Prints the message, the verifier findings and the last debug lines, then aborts. */
[[noreturn]] void Fail(const char *format, ...) __attribute__((format(printf, 1, 2)));
/* Waits until no injected packet is queued and every packet is back; Fail after a time-out. */
void Settle();
/* Settle, then Fail on any verifier finding; forgets the frames the adapters delivered. */
void CheckAfterInput();

/* A frame of `length` bytes: `bytes` first, the rest filled with a pattern. */
std::vector<UCHAR> MakeFrame(const std::vector<UCHAR> &bytes, size_t length);

/* Reads the input front to back; past its end every value is 0 and Bytes is short. */
class Input {
public:
    Input(const uint8_t *data, size_t size) : m_data(data), m_size(size) {}
    bool Empty() const { return m_offset >= m_size; }
    size_t Remaining() const { return m_size - m_offset; }
    uint8_t Byte() { return m_offset < m_size ? m_data[m_offset++] : 0; }
    uint16_t U16() { return (uint16_t)(Byte() | Byte() << 8); }
    uint32_t U32() { return (uint32_t)U16() | (uint32_t)U16() << 16; }
    uint64_t U64() { return (uint64_t)U32() | (uint64_t)U32() << 32; }
    bool Bool() { return Byte() & 1; }
    /* Up to `count` bytes (fewer at the end of the input). */
    std::vector<UCHAR> Bytes(size_t count)
    {
        size_t n = count < Remaining() ? count : Remaining();
        std::vector<UCHAR> bytes(m_data + m_offset, m_data + m_offset + n);
        m_offset += n;
        return bytes;
    }
    template <class T, size_t N>
    const T &Pick(const T (&values)[N])
    {
        return values[Byte() % N];
    }

private:
    const uint8_t *m_data;
    size_t m_size;
    size_t m_offset = 0;
};

} // namespace nffuzz
