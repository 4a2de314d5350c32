#pragma once
// A stretch of consecutive clusters: the unit in which the table handlers
// answer chain walks and free-space searches.
#include <cstdint>

struct ClusterRun {
    // Chain walk: the run's first cluster. Free search: the first free one.
    std::uint32_t first;
    // The cluster behind the run's last one.
    std::uint32_t end;
    // Chain walk: in, the cluster to start with; out, the entry of the run's
    // last cluster, that is, where the chain goes on. Free search: where the
    // next search starts.
    std::uint32_t next;
};
