// morvane boot --stats: what the loader asked of the attached disks, the
// ReadBlocks calls per disk and partition and their sizes in classes of
// powers of two, so that a slow boot shows whether it read its files in
// many small pieces or read the same metadata again and again.
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "platform/host/block_io_devices.h"
#include "platform/host/simulator.h"

namespace MorvaneTool {
namespace {

// Calls whose sizes lie in [low, 2 * low), low a power of two.
struct SizeClass {
    std::uint64_t low = 0;
    std::uint64_t calls = 0;
    std::uint64_t bytes = 0;
    std::uint64_t smallest = 0;
    std::uint64_t largest = 0;
};

std::uint64_t ClassOf(std::uint64_t size) {
    std::uint64_t low = 1;
    while (size / 2 >= low) low *= 2;
    return size == 0 ? 0 : low;
}

void AddCalls(std::vector<SizeClass>& classes, std::uint64_t size, std::uint64_t calls) {
    const std::uint64_t low = ClassOf(size);
    auto found = classes.begin();
    while (found != classes.end() && found->low < low) ++found;
    if (found == classes.end() || found->low != low) found = classes.insert(found, SizeClass{low, 0, 0, size, size});
    found->calls += calls;
    found->bytes += size * calls;
    if (size < found->smallest) found->smallest = size;
    if (size > found->largest) found->largest = size;
}

// The GPT entry number in a partition's device path: its last node before
// the end is the hard-drive node, which carries it first.
std::string PartitionName(const std::string& image, const HostFirmware::BlockIoMedium& partition) {
    constexpr std::size_t kEndNode = 4, kHardDriveNode = 42;
    const std::vector<std::uint8_t>& path = partition.DevicePath();
    if (path.size() < kEndNode + kHardDriveNode) return image + ":?";
    const std::uint8_t* node = path.data() + path.size() - kEndNode - kHardDriveNode;
    if (node[0] != 4 || node[1] != 1) return image + ":?";
    const std::uint32_t number = node[4] | node[5] << 8 | node[6] << 16 | static_cast<std::uint32_t>(node[7]) << 24;
    return image + ":" + std::to_string(number);
}

void PrintMedium(const std::string& name, const HostFirmware::ReadTally& tally) {
    if (tally.calls == 0) return;
    std::printf("  %-40s %8llu calls %14llu bytes, smallest %llu, largest %llu\n", name.c_str(),
                static_cast<unsigned long long>(tally.calls), static_cast<unsigned long long>(tally.bytes),
                static_cast<unsigned long long>(tally.calls_by_size.begin()->first),
                static_cast<unsigned long long>(tally.calls_by_size.rbegin()->first));
}

void AddTally(HostFirmware::ReadTally& total, std::vector<SizeClass>& classes, const HostFirmware::ReadTally& tally) {
    total.calls += tally.calls;
    total.bytes += tally.bytes;
    for (const auto& [size, calls] : tally.calls_by_size) AddCalls(classes, size, calls);
}

void PrintClasses(const std::vector<SizeClass>& classes) {
    std::printf("read sizes (bytes):\n");
    for (const SizeClass& size_class : classes) {
        std::printf("  %10llu-%-10llu %8llu calls %14llu bytes, smallest %llu, largest %llu\n",
                    static_cast<unsigned long long>(size_class.low),
                    static_cast<unsigned long long>(size_class.low == 0 ? 0 : 2 * size_class.low - 1),
                    static_cast<unsigned long long>(size_class.calls), static_cast<unsigned long long>(size_class.bytes),
                    static_cast<unsigned long long>(size_class.smallest),
                    static_cast<unsigned long long>(size_class.largest));
    }
}

}  // namespace

void PrintBootStats(HostFirmware::Simulator& firmware, const std::vector<std::string>& images) {
    HostFirmware::ReadTally total;
    std::vector<SizeClass> classes;
    std::printf("----\nblock I/O reads (simulated time %.3f s):\n", static_cast<double>(firmware.Now()) / 1e6);
    for (std::size_t disk = 0; disk < images.size() && disk < firmware.Disks().Count(); ++disk) {
        const HostFirmware::ReadTally& whole = firmware.Disks().Disk(disk).read_sizes;
        PrintMedium(images[disk] + " (whole disk)", whole);
        AddTally(total, classes, whole);
        std::vector<HostFirmware::BlockIoMedium*> partitions = firmware.Disks().Partitions(disk);
        for (std::size_t i = 0; i < partitions.size(); ++i) {
            PrintMedium(PartitionName(images[disk], *partitions[i]), partitions[i]->read_sizes);
            AddTally(total, classes, partitions[i]->read_sizes);
        }
    }
    std::printf("  %-40s %8llu calls %14llu bytes\n", "all disks", static_cast<unsigned long long>(total.calls),
                static_cast<unsigned long long>(total.bytes));
    PrintClasses(classes);
}

}  // namespace MorvaneTool
