/*
 * ctl.h - ndisfilterctl, the command-line tool of the user program: its
 * commands as a library (so that they run in tests against a loaded
 * framework), the argument parsers and the formatting of the framework's
 * replies. Portable Win32 code like the application library.
 */
#ifndef NDISFILTERCTL_CTL_H
#define NDISFILTERCTL_CTL_H

#include <ndisfilter-control.h>

#include <ostream>
#include <string>
#include <vector>

namespace nfctl {

/* Exit statuses. */
const int ExitOk = 0;
const int ExitFailed = 1; /* a request failed or the framework is missing */
const int ExitUsage = 2;  /* the command line is wrong */

/*
 * Runs one command line (argv[0] is the program name): the command's output
 * goes to `out`, messages about failures to `err`. Returns the exit status.
 */
int Run(int argc, const char *const *argv, std::ostream &out, std::ostream &err);

/* The text --help prints. */
void PrintUsage(std::ostream &out);

/* ---- arguments ---- */

/* "02:00:00:00:0a:01" or "02-00-00-00-0a-01". */
bool ParseMac(const std::string &text, UCHAR mac[6]);
/* A dotted IPv4 address, as the framework stores it (first octet in the lowest byte). */
bool ParseIpv4(const std::string &text, ULONG *address);
/* A decimal or 0x-hexadecimal unsigned 32-bit number. */
bool ParseNumber(const std::string &text, ULONG *value);
/* "ADDRESS/PREFIX" or "ADDRESS/MASK", optionally "/BROADCAST"; the broadcast defaults to the subnet's. */
bool ParseAddressTriple(const std::string &text, nfapp::IpAddressTriple &triple);

/* ---- formatting ---- */

std::string FormatMac(const UCHAR mac[6]);
std::string FormatIpv4(ULONG address);
void FormatAdapters(const std::vector<nfapp::AdapterEntry> &adapters, std::ostream &out);
void FormatEvent(const nfapp::EventRecord &event, std::ostream &out);
void FormatIpConfig(ULONG adapterId, const nfapp::IpConfiguration &config, std::ostream &out);
const char *MediaStateName(UCHAR state);

} // namespace nfctl

#endif /* NDISFILTERCTL_CTL_H */
