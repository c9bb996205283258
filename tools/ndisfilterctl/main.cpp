/*
 * main.cpp - ndisfilterctl: the command line of the packet filter
 * framework's user program (see ndisfilterctl --help).
 */
#include <windows.h>

#include "ctl.h"

#include <iostream>

int main(int argc, char **argv)
{
    return nfctl::Run(argc, argv, std::cout, std::cerr);
}
