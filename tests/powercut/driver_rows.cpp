// Every driver that writes, in the order of the report.
#include "tests/powercut/driver_row.h"

namespace PowerCut {

std::vector<DriverRow> DriverRows() { return FatRows(); }

}  // namespace PowerCut
