/*
 * locate.h - where the files the host program was built with are once it is
 * installed: the build tree's paths when they still exist, otherwise the
 * same file's place in the installed kit, relative to the program.
 */
#pragma once

#include <string>

namespace host {

/* `built` when it exists; otherwise <program>/../<installedDir>/<file name of built>. */
std::string Locate(const std::string &built, const char *installedDir);

/* `built` when its parent directory exists (a build tree's), otherwise "ndisfilter-out" in the
 * current directory. */
std::string OutputDirectory(const std::string &built);

/* An example client's image (installed in lib/ndisfilter/clients). */
inline std::string ExampleImage(const char *built)
{
    return Locate(built, "lib/ndisfilter/clients");
}

} // namespace host
