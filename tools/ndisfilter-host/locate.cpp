/* locate.cpp - build-tree paths and their installed places (see locate.h). */
#include "locate.h"

#include <limits.h>
#include <unistd.h>

namespace host {

std::string Locate(const std::string &built, const char *installedDir)
{
    if (access(built.c_str(), F_OK) == 0)
        return built;
    char program[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", program, sizeof(program) - 1);
    if (length <= 0)
        return built;
    std::string dir(program, (size_t)length);
    dir = dir.substr(0, dir.rfind('/'));
    return dir + "/../" + installedDir + "/" + built.substr(built.rfind('/') + 1);
}

std::string OutputDirectory(const std::string &built)
{
    std::string parent = built.substr(0, built.rfind('/'));
    return parent.empty() || access(parent.c_str(), F_OK) == 0 ? built : "ndisfilter-out";
}

} // namespace host
