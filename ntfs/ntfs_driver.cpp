#include "ntfs/ntfs_driver.h"

#include <algorithm>
#include <cstring>

#include "loader/common/raise.h"
#include "ntfs/cluster_allocator.h"
#include "ntfs/file_record.h"

namespace ntfs {

namespace {

constexpr std::uint32_t kRequestSystemRecords = 0x52505953;  // "SYPR"
constexpr std::uint64_t kUnixEpochInFileTime = 0x19DB1DED53E8000;
constexpr std::uint64_t kFileTimeUnitsPerMs = 10000;

}  // namespace

const AttrDefEntry* AttrDefTable::find(std::uint32_t type) const {
    auto found = entries.find(type);
    return found == entries.end() ? nullptr : &found->second;
}

void NTFSDriver::space(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available) {
    total = std::uint64_t(sector_size) * total_sectors;
    free = cluster_allocator->freeCount() * cluster_size;
    available = free;
}

void NTFSDriver::label(char16_t* buffer, std::uint32_t capacity) {
    if (buffer == nullptr || capacity == 0) return;
    RecordRef record = record_cache->get(kVolumeRecord);
    AttributeRef name = record.find(kVolumeName);
    std::uint64_t characters = 0;
    if (name) {
        const std::uint64_t wanted = std::min<std::uint64_t>(name->size() / 2, capacity - 1);
        std::vector<unsigned char> bytes(static_cast<std::size_t>(wanted * 2));
        if (wanted != 0) characters = name->read(0, wanted * 2, bytes.data()) / 2;
        for (std::uint64_t i = 0; i < characters; ++i) {
            buffer[i] = static_cast<char16_t>(bytes[2 * i] | bytes[2 * i + 1] << 8);
        }
    }
    buffer[characters] = 0;
}

void NTFSDriver::normalize_path(std::u16string& path) {
    for (char16_t& c : path) c = upcase(c);
}

void NTFSDriver::control(void* block) {
    auto* bytes = static_cast<unsigned char*>(block);
    std::uint32_t word;
    std::memcpy(&word, bytes, sizeof(word));
    if (word != kRequestSystemRecords) {
        FileSystemDriverWindows::control(block);
        return;
    }
    if (bytes[4] != 0) {
        hide_system_records = bytes[5] != 0;
    } else {
        bytes[5] = hide_system_records ? 1 : 0;
    }
}

void NTFSDriver::refuse_if_unchangeable() {
    if (read_only) refuse_change(ERROR_TAG);
}

void NTFSDriver::refuse_change(std::uint64_t tag) const {
    Common::Raise(tag, read_only ? Common::Failures::FILE_READ_ONLY : Common::Failures::FILE_UNSUPPORTED);
}

bool NTFSDriver::record_hidden(std::uint64_t number) const {
    if (record_filter_bits == 0) return false;
    if (number >= record_filter_bits) return true;
    return (record_filter[number / 8] & (1u << (number % 8))) == 0;
}

bool NTFSDriver::entry_hidden(std::uint64_t number, std::uint64_t parent) const {
    number = RecordNumberOf(number);
    parent = RecordNumberOf(parent);
    if (record_hidden(number)) return true;
    if (!hide_system_records) return false;
    return number < kFirstUserRecord || (parent < kFirstUserRecord && parent != kRootRecord);
}

char16_t NTFSDriver::upcase(char16_t c) const { return upcase_table ? upcase_table->map(c) : c; }

int NTFSDriver::compare_names(const char16_t* a, std::size_t a_length, const char16_t* b, std::size_t b_length) const {
    const std::size_t common = std::min(a_length, b_length);
    for (std::size_t i = 0; i < common; ++i) {
        const char16_t left = upcase(a[i]);
        const char16_t right = upcase(b[i]);
        if (left != right) return left < right ? -1 : 1;
    }
    if (a_length == b_length) return 0;
    return a_length < b_length ? -1 : 1;
}

std::int64_t NTFSDriver::FrameworkTime(std::uint64_t ntfs_time) {
    return static_cast<std::int64_t>(ntfs_time - kUnixEpochInFileTime) / static_cast<std::int64_t>(kFileTimeUnitsPerMs);
}

}  // namespace ntfs
