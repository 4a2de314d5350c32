#include "ntfs/ntfs_file.h"

#include <algorithm>
#include <cstring>
#include <map>

#include "loader/common/error.h"
#include "loader/common/raise.h"
#include "ntfs/backup_object.h"

namespace ntfs {

namespace {

constexpr std::uint32_t kRequestReadThrough = 0x49534249;  // "IBSI"

}  // namespace

NTFSFile::NTFSFile(NTFSDriver* driver, RecordRef record) : NTFSFileObject(driver, std::move(record)) {
    stream_ = this->record.find(kData);
    if (!stream_) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    driver->open_files.insert_or_assign(this->record->recordNumber(), this);
}

NTFSFile::~NTFSFile() {
    auto found = driver->open_files.find(record->recordNumber());
    if (found != driver->open_files.end() && found->second == this) driver->open_files.erase(found);
    stream_.reset();
}

namespace {

// A transfer split as splitTransfer gives it: the head and the tail through
// the cache, the middle straight between the caller's buffer and the
// device. `done` grows after each piece, so that an error in a later piece
// leaves the count of what went through.
template <typename Parts, typename Bytes, typename Cached, typename Direct>
void TransferByParts(const Parts& parts, std::uint64_t position, std::uint64_t length, Bytes* bytes,
                     std::uint64_t& done, Cached cached, Direct direct) {
    if (parts.middle == 0) {
        done = cached(position, length, bytes);
        return;
    }
    if (parts.head != 0) {
        done = cached(position, parts.head, bytes);
        if (done != parts.head) return;
    }
    const std::uint64_t middle = direct(position + parts.head, parts.middle, bytes + parts.head);
    done += std::min(middle, parts.middle);
    if (middle < parts.middle || parts.tail == 0) return;
    const std::uint64_t tail_at = parts.head + parts.middle;
    done += cached(position + tail_at, parts.tail, bytes + tail_at);
}

}  // namespace

void NTFSFile::read(void* buffer, std::uint64_t position, std::uint64_t length, std::uint64_t& got) {
    got = 0;
    const std::uint64_t size = stream_->size();
    if (position > size) Common::Raise(ERROR_TAG, Common::Failures::FILE_EOF);
    const std::uint64_t wanted = std::min(length, size - position);
    if (wanted == 0) return;
    auto* out = static_cast<unsigned char*>(buffer);
    TransferByParts(
        splitTransfer(position, wanted, out, false), position, wanted, out, got,
        [&](std::uint64_t at, std::uint64_t count, unsigned char* into) { return stream_->read(at, count, into); },
        [&](std::uint64_t at, std::uint64_t count, unsigned char* into) {
            return stream_->readSectors(at, count, into);
        });
}

void NTFSFile::write(const void* buffer, std::uint64_t position, std::uint64_t length, std::uint64_t& written) {
    written = 0;
    if (driver->read_only) driver->refuse_change(ERROR_TAG);
    if (length == 0) return;
    try {
        writeParts(static_cast<const unsigned char*>(buffer), position, length, written);
    } catch (const Common::Error& error) {
        // A full volume after some bytes ends the write short, those bytes kept.
        if (error.Code() != Common::FILE_DISK_FULL || written == 0) throw;
    }
    // The attribute answers short only when clusters ran out.
    if (written == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
}

void NTFSFile::writeParts(const unsigned char* in, std::uint64_t position, std::uint64_t length,
                          std::uint64_t& written) {
    TransferByParts(
        splitTransfer(position, length, in, true), position, length, in, written,
        [&](std::uint64_t at, std::uint64_t count, const unsigned char* from) {
            return stream_->write(at, count, from);
        },
        [&](std::uint64_t at, std::uint64_t count, const unsigned char* from) {
            return stream_->writeSectors(at, count, from);
        });
}

NTFSFile::TransferParts NTFSFile::splitTransfer(std::uint64_t position, std::uint64_t length, const void* buffer,
                                                bool buffer_must_align) const {
    const TransferParts cached{length, 0, 0};
    const std::uint32_t sector = driver->sector_size;
    const std::uint64_t aligned_start = (position + sector - 1) / sector * sector;
    const std::uint64_t head = aligned_start - position;
    if (head > length) return cached;
    const bool aligned = (reinterpret_cast<std::uintptr_t>(buffer) + head) % sector == 0;
    if (!aligned && buffer_must_align) return cached;
    const std::uint64_t end = position + length;
    std::uint64_t aligned_end = end / sector * sector;
    // With the middle landing aligned in the caller's buffer, a tail that
    // ends inside a sector goes through the cache a whole cluster at a
    // time: the tail's cluster is the one block the cache then holds.
    if (aligned && end % sector != 0) aligned_end = end / driver->cluster_size * driver->cluster_size;
    if (aligned_start >= aligned_end) return cached;
    return TransferParts{head, aligned_end - aligned_start, end - aligned_end};
}

// A stream that grows takes its initialized size along, so what its new
// clusters, or the tail of its last one, held before would read as the
// file's bytes: another file's, once deleted. Zeros go over them first.
void NTFSFile::zeroGrownArea(std::uint64_t from, std::uint64_t to) {
    AttributeRecord* header = stream_->header();
    if (header == nullptr || !header->non_resident() || header->flags() != 0) return;
    constexpr std::uint64_t kPiece = 1u << 20;
    const std::vector<unsigned char> zeros(static_cast<std::size_t>(std::min(kPiece, to - from)), 0);
    for (std::uint64_t at = from; at < to;) {
        const std::uint64_t part = std::min<std::uint64_t>(zeros.size(), to - at);
        if (stream_->write(at, part, zeros.data()) != part) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
        at += part;
    }
}

void NTFSFile::set_size(std::uint64_t wanted) {
    if (driver->read_only) driver->refuse_change(ERROR_TAG);
    const std::uint64_t before = stream_->size();
    if (before == wanted) return;
    const std::uint64_t reached = stream_->resize(wanted, true);
    if (reached > before) zeroGrownArea(before, reached);
    const std::uint64_t allocated = stream_->allocatedSize();
    const std::uint64_t now = Now();
    MetadataUpdate update;
    update.modified = &now;
    update.accessed = &now;
    update.allocated_size = &allocated;
    update.data_size = &reached;
    updateMetadata(update, true);
}

void NTFSFile::set_times(std::uint64_t modified, std::uint64_t created, std::uint64_t accessed) {
    if (driver->read_only) driver->refuse_change(ERROR_TAG);
    const std::uint64_t m = VolumeTime(static_cast<std::int64_t>(modified));
    const std::uint64_t c = VolumeTime(static_cast<std::int64_t>(created));
    const std::uint64_t a = VolumeTime(static_cast<std::int64_t>(accessed));
    setTimes(&c, &m, &a);
}

void NTFSFile::flush_file() {
    if (driver->read_only) return;
    const std::uint64_t size = stream_->size();
    const std::uint64_t allocated = stream_->allocatedSize();
    const std::uint64_t now = Now();
    MetadataUpdate update;
    update.modified = &now;
    update.accessed = &now;
    update.allocated_size = &allocated;
    update.data_size = &size;
    updateMetadata(update, true);
}

void NTFSFile::control(void* block) {
    std::uint32_t word;
    std::memcpy(&word, block, sizeof(word));
    if (word == kRequestReadThrough) {
        record->readThrough();
        return;
    }
    FileObject::control(block);
}

std::uint64_t NTFSFile::allocated_ranges(std::uint64_t position, std::uint64_t length) {
    std::map<std::uint64_t, std::uint64_t> ranges;
    stream_->usedRanges(position, length, ranges);
    auto* block = new std::uint64_t[1 + 2 * ranges.size()];
    block[0] = ranges.size();
    std::size_t i = 1;
    for (const auto& [start, bytes] : ranges) {
        block[i++] = start;
        block[i++] = bytes;
    }
    return reinterpret_cast<std::uintptr_t>(block);
}

FileSystemDriver::BackupObject* NTFSFile::new_backup_object(std::uint32_t option) {
    return NewFileBackup(driver, record, option);
}

}  // namespace ntfs
