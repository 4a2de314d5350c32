#pragma once
#include <string>

namespace Launch {

// argv[1] is the kernel, argv[2] (if present) the ramdisk, and everything
// behind them forms the kernel command line. Raises on every failure.
void RunDirectWay(int argc, char** argv);

// The kernel command line of the direct way: every argument from argv[3]
// on, each followed by one blank.
std::string DirectWayCommandLine(int argc, char** argv);

}  // namespace Launch
