// The operations that change a directory: new short names, adding and
// removing entries, and the directory operations built on them. All of it
// is array work on the held blocks; the cache writes the result back.
#include <cstring>
#include <memory>

#include "fat/entry_time.h"
#include "fat/fat_directory.h"
#include "fat/fat_file.h"
#include "fat/fat_handler.h"
#include "fat/short_name.h"
#include "loader/common/raise.h"

namespace {

constexpr std::uint32_t kMaxNameUnits = 255;
constexpr std::uint32_t kBaseBytes = 8;
constexpr std::uint8_t kSettableAttributes = 0x27;  // read-only, hidden, system, archive

// Any spread of values serves for the tail of a short name; it needs no
// quality, only to move on from one call to the next.
std::uint32_t NextTail() {
    static std::uint32_t state = 0x2F6B1D3Bu;
    state = state * 1103515245u + 12345u;
    return state >> 8;
}

// The low 16 bits as four upper-case hex digits.
void WriteHex4(unsigned char* at, std::uint32_t value) {
    static const char kDigits[] = "0123456789ABCDEF";
    for (int i = 0; i < 4; ++i) at[i] = static_cast<unsigned char>(kDigits[(value >> (12 - 4 * i)) & 0xF]);
}

void PadName(unsigned char name[11], std::uint32_t from) {
    for (std::uint32_t at = from; at < kBaseBytes; ++at) name[at] = ' ';
}

}  // namespace

void FATDriver::FATDirectory::open_gate() { driver->prepare_block_write(clusters[0]); }

bool FATDriver::FATDirectory::try_digit(unsigned char name[11], std::uint32_t place, std::uint32_t skip) {
    bool used[10] = {};
    for (std::uint32_t index = 0; index < entry_count && !entry(index).is_end(); ++index) {
        if (index == skip || !valid_entry(index)) continue;
        const unsigned char* other = entry(index).name();
        unsigned char digit = other[place];
        if (digit < '1' || digit > '9') continue;
        name[place] = digit;
        if (std::memcmp(other, name, 11) == 0) used[digit - '0'] = true;
    }
    for (unsigned char digit = '1'; digit <= '9'; ++digit) {
        if (!used[digit - '0']) {
            name[place] = digit;
            return true;
        }
    }
    return false;
}

bool FATDriver::FATDirectory::make_short_name(const std::u16string& name, std::uint32_t skip, unsigned char out[11]) {
    ShortName::Basis basis = ShortName::build_short_name(name);
    std::memcpy(out, basis.name, 11);
    if (basis.exact) return basis.needs_long;
    if (basis.cut_long > basis.cut_short) {
        PadName(out, basis.cut_long);
        out[basis.cut_long] = '~';
        if (try_digit(out, basis.cut_long + 1, skip)) return basis.needs_long;
    }
    PadName(out, basis.cut_short);
    out[basis.cut_short] = '~';
    do {
        WriteHex4(out + basis.cut_short + 1, NextTail());
    } while (!try_digit(out, basis.cut_short + 5, skip));
    return basis.needs_long;
}

std::uint32_t FATDriver::FATDirectory::add_entry(const std::u16string& name, std::uint32_t skip) {
    if (name.size() > kMaxNameUnits) Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
    DirEntry short_entry;
    std::memset(&short_entry, 0, sizeof(short_entry));
    bool needs_long = make_short_name(name, skip, short_entry.name());
    if (!needs_long) return add_entries(&short_entry, 1);

    std::u16string units = name;
    if (units.size() % fat_entry::kUnitsPerLong != 0) units.push_back(0);
    while (units.size() % fat_entry::kUnitsPerLong != 0) units.push_back(0xFFFF);
    const std::uint32_t longs = static_cast<std::uint32_t>(units.size() / fat_entry::kUnitsPerLong);
    std::vector<DirEntry> buffer(longs + 1);
    std::memset(buffer.data(), 0, buffer.size() * sizeof(DirEntry));
    const std::uint8_t sum = ShortName::checksum(short_entry.name());
    // The long entries stand in reverse order: the one that ends the name first.
    for (std::uint32_t order = 1; order <= longs; ++order) {
        LongDirEntry& part = buffer[longs - order].long_form();
        part.set_header(static_cast<std::uint8_t>(order == longs ? order | fat_entry::kLastLong : order), sum);
        for (std::uint32_t k = 0; k < fat_entry::kUnitsPerLong; ++k) {
            part.set_unit(k, units[(order - 1) * fat_entry::kUnitsPerLong + k]);
        }
    }
    buffer[longs] = short_entry;
    return add_entries(buffer.data(), longs + 1);
}

std::uint32_t FATDriver::FATDirectory::find_place(std::uint32_t count, bool& at_end_mark) {
    std::uint32_t run_start = 0;
    std::uint32_t run_length = 0;
    at_end_mark = false;
    for (std::uint32_t index = 0; index < entry_count; ++index) {
        const DirEntry& candidate = entry(index);
        if (candidate.is_end()) {
            at_end_mark = true;
            return run_length != 0 ? run_start : index;
        }
        if (!candidate.is_deleted()) {
            run_length = 0;
            continue;
        }
        if (run_length++ == 0) run_start = index;
        if (run_length == count) return run_start;
    }
    at_end_mark = true;
    return run_length != 0 ? run_start : entry_count;
}

void FATDriver::FATDirectory::grow() {
    FATDriver* volume = fat();
    std::uint32_t cluster = volume->alloc_cluster();
    BlockHandle block = volume->get_block(volume->cluster_sector(cluster), volume->sectors_per_cluster, true);
    std::memset(block.data(), 0, volume->cluster_bytes());
    block.set_dirty();
    volume->handler->set_entry(last_cluster, cluster);
    clusters.push_back(block);
    last_cluster = cluster;
    entry_count += entries_per_block;
}

std::uint32_t FATDriver::FATDirectory::add_entries(const DirEntry* entries, std::uint32_t count) {
    bool at_end_mark = false;
    std::uint32_t place = find_place(count, at_end_mark);
    if (last_cluster == 0 && std::uint64_t(place) + count > entry_count) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
    }
    open_gate();
    while (place + count > entry_count) grow();
    for (std::uint32_t i = 0; i < count; ++i) entry(place + i) = entries[i];

    DirEntry& created = entry(place + count - 1);
    std::uint16_t date = 0, time = 0;
    std::uint8_t tenths = 0;
    EntryTime::to_disk(EntryTime::now(), date, time, tenths);
    created.set_create_tenths(tenths);
    created.set_create_time(time);
    created.set_create_date(date);
    created.set_access_date(date);
    created.set_modify_date(date);
    created.set_modify_time(time);

    std::uint32_t last_changed = place + count - 1;
    if (at_end_mark && place + count < entry_count) {
        entry(place + count).mark_end();
        last_changed = place + count;
    }
    for (std::uint32_t block = place / entries_per_block; block <= last_changed / entries_per_block; ++block) {
        clusters[block].set_dirty();
    }
    return place + count - 1;
}

void FATDriver::FATDirectory::remove_entry(std::uint32_t index) {
    std::uint32_t longs = long_entries(index, nullptr);
    open_gate();
    for (std::uint32_t at = index - longs; at <= index; ++at) {
        entry(at).mark_deleted();
        set_dirty(at);
    }
}

FileSystemDriver::FileObject* FATDriver::FATDirectory::create_file(const std::u16string& name) {
    std::uint32_t index = search_entry(name);
    if (index != kNone && open_files.count(index) != 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
    }
    if (index == kNone) index = add_entry(name, kNone);
    std::unique_ptr<FATFile> file(new FATFile(this, index));
    // Creating a file that exists empties it.
    file->set_size(0);
    return file.release();
}

void FATDriver::FATDirectory::remove_file(const std::u16string& name) {
    std::uint32_t index = find_entry(name);
    if (!entry(index).is_plain_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
    std::uint32_t cluster = entry_cluster(index);
    remove_entry(index);
    fat()->free_chain(cluster);
}

void FATDriver::FATDirectory::remove_directory_entry(const std::u16string& name) {
    std::uint32_t index = find_entry(name);
    std::uint32_t cluster = entry_cluster(index);
    remove_entry(index);
    fat()->free_chain(cluster);
}

void FATDriver::FATDirectory::make_directory(const std::u16string& name) {
    if (search_entry(name) != kNone) Common::Raise(ERROR_TAG, Common::Failures::FILE_EXISTS);
    FATDriver* volume = fat();
    open_gate();
    std::uint32_t cluster = volume->alloc_cluster();
    {
        BlockHandle block = volume->get_block(volume->cluster_sector(cluster), volume->sectors_per_cluster, true);
        std::memset(block.data(), 0, volume->cluster_bytes());
        auto* dots = reinterpret_cast<DirEntry*>(block.data());
        std::memset(dots[0].name(), ' ', 11);
        std::memset(dots[1].name(), ' ', 11);
        dots[0].name()[0] = '.';
        dots[1].name()[0] = dots[1].name()[1] = '.';
        dots[0].set_attributes(fat_entry::kDirectory);
        dots[1].set_attributes(fat_entry::kDirectory);
        dots[0].set_cluster(cluster);
        dots[1].set_cluster(id);
        block.set_dirty();
    }
    std::uint32_t index;
    try {
        index = add_entry(name, kNone);
    } catch (const Common::Error&) {
        // The new cluster belongs to nobody yet: it goes back.
        volume->free_chain(cluster);
        throw;
    }
    entry(index).set_attributes(fat_entry::kDirectory);
    entry(index).set_cluster(cluster);
    set_dirty(index);
}

void FATDriver::FATDirectory::rename_entry(const std::u16string& name, DirectoryObject& target,
                                           const std::u16string& new_name) {
    std::uint32_t index = find_entry(name);
    auto* to = dynamic_cast<FATDirectory*>(&target);
    if (to == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_RENAME);
    const bool same = to == this;
    if (!same && open_files.count(index) != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_RENAME);
    std::uint32_t hit = to->search_entry(new_name);
    if (hit != kNone && !(same && hit == index)) Common::Raise(ERROR_TAG, Common::Failures::FILE_EXISTS);

    FATDirectory* moved = nullptr;
    if (!same && entry(index).is_directory()) {
        moved = static_cast<FATDirectory*>(driver->get_object(entry_cluster(index)));
    }
    struct Pin {
        FATDirectory* object;
        ~Pin() {
            if (object != nullptr) --object->references;
        }
    } pin{moved};
    if (moved != nullptr) ++moved->references;

    std::uint32_t new_index = to->add_entry(new_name, same ? index : kNone);
    // The case flags told the case of the old short name, not of the new one.
    DirEntry& moved_entry = to->entry(new_index);
    moved_entry.copy_all_but_name(entry(index));
    moved_entry.set_case_flags(0);
    to->set_dirty(new_index);
    remove_entry(index);

    auto open = open_files.find(index);
    if (same && open != open_files.end()) {
        FATFile* file = open->second;
        open_files.erase(open);
        file->index = new_index;
        open_files[new_index] = file;
    }
    if (moved != nullptr) {
        moved->open_gate();
        moved->entry(1).set_cluster(to->id);
        moved->set_dirty(1);
    }
}

void FATDriver::FATDirectory::set_attributes(const std::u16string& name, std::uint32_t value) {
    std::uint32_t index = find_entry(name);
    DirEntry& changed = entry(index);
    std::uint8_t attributes =
        static_cast<std::uint8_t>((value & kSettableAttributes) | (changed.attributes() & ~kSettableAttributes));
    if (attributes == changed.attributes()) return;
    open_gate();
    changed.set_attributes(attributes);
    set_dirty(index);
}

void FATDriver::FATDirectory::rewrite_checksums(std::uint32_t index, std::uint32_t longs) {
    std::uint8_t sum = ShortName::checksum(entry(index).name());
    for (std::uint32_t at = index - longs; at < index; ++at) {
        entry(at).long_form().set_checksum(sum);
        set_dirty(at);
    }
    set_dirty(index);
}

void FATDriver::FATDirectory::set_short_name(const std::u16string& name, const std::u16string& short_name) {
    std::uint32_t index = find_entry(name);
    unsigned char wanted[11];
    if (!ShortName::to_short_name(short_name, wanted)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_RENAME);
    }
    if (std::memcmp(entry(index).name(), wanted, 11) == 0) return;
    std::uint32_t longs = long_entries(index, nullptr);
    if (longs == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_RENAME);
    std::uint32_t other = search_short(wanted, index);
    std::u16string other_name;
    std::uint32_t other_longs = 0;
    if (other != kNone) {
        other_longs = long_entries(other, &other_name);
        if (other_longs == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_EXISTS);
    }
    open_gate();
    std::memcpy(entry(index).name(), wanted, 11);
    rewrite_checksums(index, longs);
    if (other != kNone) {
        // The other entry gives its short name up and takes a new one.
        unsigned char remade[11];
        make_short_name(other_name, other, remade);
        std::memcpy(entry(other).name(), remade, 11);
        rewrite_checksums(other, other_longs);
    }
}
