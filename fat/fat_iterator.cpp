#include "fat/fat_iterator.h"

#include "fat/entry_time.h"
#include "fat/fat_handler.h"
#include "loader/common/raise.h"

namespace {

enum NameState : std::uint32_t { kNotLooked = 0, kNoLongName = 1, kHasLongName = 2 };

}  // namespace

FATDriver::FATIterator::FATIterator(FATDirectory* directory, std::uint32_t index)
    : directory(directory), index(index) {
    ++directory->references;
}

FATDriver::FATIterator::~FATIterator() { --directory->references; }

bool FATDriver::FATIterator::next() {
    short_text.clear();
    name_text.clear();
    name_state = kNotLooked;
    if (index == kBehindLast) return false;
    for (index = index == kBeforeFirst ? 0 : index + 1; index < directory->entry_count; ++index) {
        if (current().is_end()) break;
        if (directory->valid_entry(index)) return true;
    }
    index = kBehindLast;
    return false;
}

void FATDriver::FATIterator::load_long_name() {
    if (name_state != kNotLooked || !on_entry()) return;
    name_state = directory->long_entries(index, &name_text) != 0 ? kHasLongName : kNoLongName;
}

const std::u16string& FATDriver::FATIterator::load_short_text() {
    if (short_text.empty() && on_entry()) short_text = directory->short_text(index);
    return short_text;
}

file_identifier* FATDriver::FATIterator::identifier() {
    if (!on_entry()) return nullptr;
    std::u16string shown = current().is_directory() ? name() : std::u16string();
    return new the_identifier(shown.c_str(), current().name(), 11);
}

std::u16string FATDriver::FATIterator::name() {
    if (!on_entry()) return std::u16string();
    load_long_name();
    return name_state == kHasLongName ? name_text : load_short_text();
}

std::u16string FATDriver::FATIterator::short_name() {
    if (!on_entry()) return std::u16string();
    load_long_name();
    return name_state == kHasLongName ? load_short_text() : std::u16string();
}

std::uint64_t FATDriver::FATIterator::size() { return on_entry() ? current().size() : 0; }

std::uint64_t FATDriver::FATIterator::allocated_size() {
    if (!on_entry()) return 0;
    FATDriver* volume = directory->fat();
    const std::uint64_t cluster_bytes = volume->cluster_bytes();
    if (!current().is_directory()) return (std::uint64_t(current().size()) + cluster_bytes - 1) / cluster_bytes * cluster_bytes;
    // A directory has no size of its own; its chain is counted, and a chain
    // longer than the volume is a loop.
    std::uint64_t clusters = 0;
    ClusterRun run{0, 0, directory->entry_cluster(index)};
    while (volume->handler->next_run(run)) {
        clusters += run.end - run.first;
        if (clusters > volume->cluster_count) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    return clusters * cluster_bytes;
}

std::uint32_t FATDriver::FATIterator::kind() {
    return on_entry() && current().is_directory() ? KIND_DIRECTORY : KIND_FILE;
}

file_time FATDriver::FATIterator::modified() {
    if (!on_entry()) return 0;
    return EntryTime::from_disk(current().modify_date_value(), current().modify_time_value(), 0);
}

file_time FATDriver::FATIterator::created() {
    if (!on_entry()) return 0;
    return EntryTime::from_disk(current().create_date_value(), current().create_time_value(),
                                current().create_tenths());
}

file_time FATDriver::FATIterator::accessed() {
    if (!on_entry()) return 0;
    return EntryTime::from_disk(current().access_date_value(), 0, 0);
}

bool FATDriver::FATIterator::hidden() { return !on_entry() || (current().attributes() & fat_entry::kHidden) != 0; }

std::uint64_t FATDriver::FATIterator::object_id() {
    if (!on_entry()) return 0;
    const BlockHandle& block = directory->block_of(index);
    return block.first() * directory->fat()->sector_size + 32ull * (index % directory->entries_per_block);
}

std::uint64_t FATDriver::FATIterator::first_sector() {
    if (!on_entry()) return 0;
    std::uint32_t cluster = directory->entry_cluster(index);
    FATDriver* volume = directory->fat();
    return volume->valid_cluster(cluster) ? volume->cluster_sector(cluster) : 0;
}

std::uint32_t FATDriver::FATIterator::attributes() { return on_entry() ? current().attributes() : 0xFFFFFFFFu; }
