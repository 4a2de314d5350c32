// Building a directory object from its chain, and the operations that only
// read: listing, lookup and opening.
#include "fat/fat_directory.h"

#include <cstring>

#include "fat/fat_file.h"
#include "fat/fat_handler.h"
#include "fat/fat_iterator.h"
#include "fat/short_name.h"
#include "loader/common/raise.h"

namespace {

const unsigned char kDotName[11] = {'.', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
const unsigned char kDotDotName[11] = {'.', '.', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};

}  // namespace

FATDriver::FATDirectory::FATDirectory(FATDriver* owner, std::uint32_t id) : DirectoryObject(owner, id) {
    if (id == 0 && owner->root_cluster == 0) {
        read_fixed_root();
    } else {
        read_chain(id == 0 ? owner->root_cluster : id);
        if (id != 0) check_dot_entries();
    }
}

FATDriver::FATDirectory::~FATDirectory() = default;

void FATDriver::FATDirectory::read_fixed_root() {
    FATDriver* volume = fat();
    std::uint32_t first = volume->first_data_sector - volume->root_dir_sectors;
    clusters.push_back(volume->get_block(first, volume->root_dir_sectors, false));
    entry_count = volume->root_dir_sectors * (volume->sector_size / 32);
    entries_per_block = entry_count;
    last_cluster = 0;
}

void FATDriver::FATDirectory::read_chain(std::uint32_t first) {
    FATDriver* volume = fat();
    entries_per_block = volume->sector_size / 32 * volume->sectors_per_cluster;
    ClusterRun run{0, 0, first};
    // A chain can't hold more clusters than the volume: more is a loop.
    std::uint64_t seen = 0;
    while (volume->handler->next_run(run)) {
        seen += run.end - run.first;
        if (seen > volume->cluster_count) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        for (std::uint32_t cluster = run.first; cluster != run.end; ++cluster) {
            clusters.push_back(volume->get_block(volume->cluster_sector(cluster), volume->sectors_per_cluster, false));
            last_cluster = cluster;
        }
    }
    if (clusters.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    entry_count = static_cast<std::uint32_t>(clusters.size()) * entries_per_block;
}

void FATDriver::FATDirectory::check_dot_entries() {
    auto is_dot = [this](std::uint32_t index, const unsigned char* name) {
        const DirEntry& dot = entry(index);
        return std::memcmp(dot.name(), name, 11) == 0 &&
               (dot.attributes() & (fat_entry::kDirectory | fat_entry::kVolumeLabel)) == fat_entry::kDirectory;
    };
    if (entry_count < 2 || !is_dot(0, kDotName) || !is_dot(1, kDotDotName) || entry_cluster(0) != id) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

bool FATDriver::FATDirectory::valid_entry(std::uint32_t index) {
    const DirEntry& candidate = entry(index);
    if (candidate.first_byte() == '.' || candidate.is_deleted() || candidate.is_end()) return false;
    if ((candidate.attributes() & fat_entry::kVolumeLabel) != 0) return false;
    return fat()->passes_filter(entry_cluster(index), candidate.size(), candidate.is_directory());
}

std::uint32_t FATDriver::FATDirectory::long_entries(std::uint32_t index, std::u16string* text) {
    std::uint8_t sum = ShortName::checksum(entry(index).name());
    auto fits = [this](std::uint32_t at, std::uint32_t order) {
        const DirEntry& part = entry(at);
        return part.is_long() && part.long_form().first_cluster() == 0 &&
               (part.long_form().order() & ~fat_entry::kLastLong) == order;
    };
    if (index == 0 || !fits(index - 1, 1)) return 0;
    std::uint32_t count = 1;
    for (;;) {
        const LongDirEntry& part = entry(index - count).long_form();
        if (part.checksum() != sum) return 0;
        if ((part.order() & fat_entry::kLastLong) != 0) break;
        if (count == kMaxLongEntries || index - count == 0 || !fits(index - count - 1, count + 1)) return 0;
        ++count;
    }
    if (text != nullptr) {
        text->clear();
        for (std::uint32_t n = 1; n <= count; ++n) {
            const LongDirEntry& part = entry(index - n).long_form();
            for (std::uint32_t k = 0; k < fat_entry::kUnitsPerLong; ++k) {
                char16_t unit = part.unit(k);
                if (unit == 0) return count;
                text->push_back(unit);
            }
        }
    }
    return count;
}

std::u16string FATDriver::FATDirectory::short_text(std::uint32_t index) {
    return ShortName::to_text(entry(index));
}

std::uint32_t FATDriver::FATDirectory::search_short(const unsigned char* name11, std::uint32_t skip) {
    for (std::uint32_t index = 0; index < entry_count && !entry(index).is_end(); ++index) {
        if (index != skip && valid_entry(index) && std::memcmp(entry(index).name(), name11, 11) == 0) return index;
    }
    return kNone;
}

std::uint32_t FATDriver::FATDirectory::search_long(const std::u16string& name) {
    std::u16string wanted = name;
    fat()->normalize_path(wanted);
    std::u16string long_name;
    for (std::uint32_t index = 0; index < entry_count && !entry(index).is_end(); ++index) {
        if (!valid_entry(index) || long_entries(index, &long_name) == 0) continue;
        fat()->normalize_path(long_name);
        if (long_name == wanted) return index;
    }
    return kNone;
}

std::uint32_t FATDriver::FATDirectory::search_entry(const std::u16string& name) {
    unsigned char short_name[11];
    if (ShortName::to_short_name(name, short_name)) {
        std::uint32_t found = search_short(short_name, kNone);
        if (found != kNone) return found;
    }
    return search_long(name);
}

std::uint32_t FATDriver::FATDirectory::find_entry(const std::u16string& name) {
    std::uint32_t found = search_entry(name);
    if (found == kNone) throw FileNotFound(ERROR_TAG);
    return found;
}

std::uint32_t FATDriver::FATDirectory::entry_of(const file_identifier& identifier) {
    auto* known = dynamic_cast<const the_identifier*>(&identifier);
    if (known == nullptr || known->key() == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    std::uint32_t found = search_short(known->key(), kNone);
    if (found == kNone) throw FileNotFound(ERROR_TAG);
    return found;
}

FileSystemDriver::IteratorObject* FATDriver::FATDirectory::begin() {
    auto* walker = new FATIterator(this, FATIterator::kBeforeFirst);
    if (!walker->next()) {
        delete walker;
        return nullptr;
    }
    return walker;
}

FileSystemDriver::IteratorObject* FATDriver::FATDirectory::find(const std::u16string& name) {
    return new FATIterator(this, find_entry(name));
}

FileSystemDriver::IteratorObject* FATDriver::FATDirectory::find(const file_identifier& identifier) {
    return new FATIterator(this, entry_of(identifier));
}

std::uint32_t FATDriver::FATDirectory::lookup_directory(const std::u16string& name) {
    std::uint32_t index = find_entry(name);
    if (!entry(index).is_directory()) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    std::uint32_t cluster = entry_cluster(index);
    // Only ".." (and "." in the root's children's view) may lead to the
    // root; any other folder whose entry starts there, or at no cluster,
    // is damage, and taking it for the root would make a path go round.
    const bool leads_to_root = cluster == 0 || cluster == fat()->root_cluster;
    if (leads_to_root && name != u".." && name != u".") Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return leads_to_root ? 0 : cluster;
}

FileSystemDriver::FileObject* FATDriver::FATDirectory::open_file(const std::u16string& name) {
    return open_entry(find_entry(name));
}

FileSystemDriver::FileObject* FATDriver::FATDirectory::open_file(IteratorObject& entry) {
    auto* walker = dynamic_cast<FATIterator*>(&entry);
    if (walker == nullptr || walker->directory != this || walker->index >= entry_count) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    }
    return open_entry(walker->index);
}

FileSystemDriver::FileObject* FATDriver::FATDirectory::open_file(const file_identifier& identifier) {
    return open_entry(entry_of(identifier));
}

FATDriver::FATFile* FATDriver::FATDirectory::open_entry(std::uint32_t index) {
    auto open = open_files.find(index);
    if (open != open_files.end()) return open->second;
    return new FATFile(this, index);
}

void FATDriver::FATDirectory::link_entry(const std::u16string&, DirectoryObject&, const std::u16string&) {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}

void FATDriver::FATDirectory::symlink_entry(const std::u16string&, const std::u16string&) {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}
