// Every driver that writes, in the order of the report.
#include "tests/powercut/driver_row.h"

namespace PowerCut {

std::vector<DriverRow> DriverRows(bool strict) {
    std::vector<DriverRow> rows = FatRows();
    for (DriverRow& row : ExtRows()) rows.push_back(std::move(row));
    for (DriverRow& row : NtfsRows()) rows.push_back(std::move(row));
    if (strict) return rows;
    for (DriverRow& row : NtfsSmallSectorRows()) rows.push_back(std::move(row));
    for (DriverRow& row : HfsplusRows()) rows.push_back(std::move(row));
    return rows;
}

}  // namespace PowerCut
