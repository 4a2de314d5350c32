// The extended attributes of an inode as records of the backup: those in
// the room behind the inode's extra fields first, then those of its
// attribute block. Every offset and size of an entry is checked against
// its area before a byte of it is read.
#include <cstring>
#include <string>

#include "extfs/extfs_backup.h"
#include "extfs/extfs_inode.h"
#include "fsdriver/block_handle.h"
#include "loader/common/byte_order.h"
#include "loader/common/raise.h"

namespace extfs {

namespace {

constexpr std::uint32_t kAttributeMagic = 0xEA020000;
constexpr std::uint32_t kInodeArea = 0;
constexpr std::uint32_t kBlockArea = 1;
constexpr std::uint64_t kMagicSize = 4;
constexpr std::uint64_t kBlockHeaderSize = 32;
constexpr std::uint64_t kEntryFixedSize = 16;
// A record: u16 full name length, u64 value size, then name and value.
constexpr std::uint64_t kRecordFixedSize = 10;

// One area of entries. Entries and value offsets both count from `bytes`.
struct AttributeArea {
    const unsigned char* bytes = nullptr;
    std::uint64_t size = 0;
};

struct AttributeEntry {
    std::uint8_t name_index;
    std::string name;
    const unsigned char* value;
    std::uint64_t value_size;
    std::uint64_t next;  // where the entry behind this one begins
};

// The room behind the inode's extra fields, when it holds the magic; the
// area begins behind the magic.
bool InodeArea(const ExtfsInode& inode, AttributeArea& area) {
    const std::uint32_t inode_size = inode.driver->inode_size;
    const std::uint64_t start = InodeRecord::kBaseSize + std::uint64_t(inode.record().i_extra_isize(inode_size));
    if (inode_size > inode.raw.size() || start + kMagicSize > inode_size) return false;
    if (Common::LoadLE32(inode.raw.data() + start) != kAttributeMagic) return false;
    area.bytes = inode.raw.data() + start + kMagicSize;
    area.size = inode_size - start - kMagicSize;
    return true;
}

// The attribute block, checked as a whole before any entry of it is read.
BlockHandle AttributeBlock(ExtfsDriver& driver, std::uint64_t number, AttributeArea& area) {
    if (number >= driver.blocks_count) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    BlockHandle block = driver.get_fs_block(number, false);
    const unsigned char* bytes = block.data();
    const bool sound = Common::LoadLE32(bytes) == kAttributeMagic && Common::LoadLE32(bytes + 4) != 0 &&
                       Common::LoadLE32(bytes + 8) == 1;
    if (!sound) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    area.bytes = bytes;
    area.size = driver.block_size();
    return block;
}

// The entry at `position`; false at the end of the area.
bool EntryAt(const AttributeArea& area, std::uint64_t position, AttributeEntry& entry) {
    if (position > area.size || area.size - position < kEntryFixedSize) return false;
    const unsigned char* at = area.bytes + position;
    const std::uint8_t name_length = at[0];
    const std::uint16_t value_offset = Common::LoadLE16(at + 2);
    if (name_length == 0 && at[1] == 0 && value_offset == 0) return false;
    const std::uint64_t end = position + kEntryFixedSize + name_length;
    if (end > area.size) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    entry.name_index = at[1];
    entry.name.assign(reinterpret_cast<const char*>(at + kEntryFixedSize), name_length);
    entry.value_size = Common::LoadLE32(at + 8);
    // Writers leave the offset of an empty value at 0; only a value that
    // has bytes must lie behind its entry.
    if (entry.value_size != 0 && (value_offset < end || value_offset > area.size ||
                                  entry.value_size > area.size - value_offset)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    entry.value = entry.value_size == 0 ? area.bytes : area.bytes + value_offset;
    entry.next = (end + 3) & ~std::uint64_t(3);
    return true;
}

const char* NamespaceOf(std::uint8_t index) {
    switch (index) {
    case 2: return "system.posix_acl_access";
    case 3: return "system.posix_acl_default";
    case 4: return "trusted";
    case 5: return "lustre";
    case 6: return "security";
    default: return "user";
    }
}

}  // namespace

bool ExtfsBackupObject::has_attributes() const {
    AttributeArea area;
    return inode->record().i_file_acl() != 0 || InodeArea(*inode, area);
}

std::uint64_t ExtfsBackupObject::read_extended_attributes(unsigned char* out) {
    for (; attribute_area <= kBlockArea; ++attribute_area, attribute_position = kBlockHeaderSize) {
        AttributeArea area;
        BlockHandle block;
        if (attribute_area == kInodeArea) {
            if (!InodeArea(*inode, area)) continue;
        } else {
            const std::uint64_t number = inode->record().i_file_acl();
            if (number == 0) continue;
            block = AttributeBlock(*driver, number, area);
        }
        AttributeEntry entry;
        while (EntryAt(area, attribute_position, entry)) {
            const std::string full_name = std::string(NamespaceOf(entry.name_index)) + "." + entry.name;
            const std::uint64_t need = kRecordFixedSize + full_name.size() + entry.value_size;
            if (need > chunk - output_used) {
                // A record larger than the whole buffer would never fit: the
                // buffer grows to it, and the framework asks again. The
                // checks above bound it by the area, so the growth is too.
                if (output_used == 0) chunk = need;
                return output_used;
            }
            unsigned char* record = out + output_used;
            Common::StoreLE16(record, static_cast<std::uint16_t>(full_name.size()));
            Common::StoreLE64(record + 2, entry.value_size);
            std::memcpy(record + kRecordFixedSize, full_name.data(), full_name.size());
            std::memcpy(record + kRecordFixedSize + full_name.size(), entry.value, entry.value_size);
            output_used += need;
            attribute_position = entry.next;
        }
    }
    next_piece();
    return output_used;
}

}  // namespace extfs
