#pragma once
// The driver's only way into the file allocation table. A handler knows
// entries and runs of consecutive clusters, not chains or files; each entry
// width has its own implementation. Any entry that is not a valid cluster
// number ends a chain, whatever its value: there is no separate test for
// end-of-chain or bad-cluster marks.
#include <cstdint>

#include "fat/cluster_run.h"
#include "fat/fat_driver.h"

class FATDriver::FATHandler {
public:
    virtual ~FATHandler() = default;

    // The run that starts at run.next; false if run.next is no cluster of
    // the volume. Runs need not be maximal.
    virtual bool next_run(ClusterRun& run) = 0;
    // Next-fit search for free clusters from run.next, wrapping once;
    // false if the volume has none.
    virtual bool find_free(ClusterRun& run) = 0;
    // 0xFFFFFFFF writes an end of chain, cut to the entry's width; 0 frees.
    virtual void set_entry(std::uint32_t cluster, std::uint32_t value) = 0;
    virtual std::uint32_t count_free() = 0;

protected:
    FATHandler() = default;
    FATHandler(const FATHandler&) = delete;
    FATHandler& operator=(const FATHandler&) = delete;
};
