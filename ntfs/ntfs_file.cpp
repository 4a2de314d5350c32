#include "ntfs/ntfs_file.h"

#include <algorithm>
#include <cstring>
#include <map>

#include "loader/common/error.h"
#include "loader/common/raise.h"

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

void NTFSFile::read(void* buffer, std::uint64_t position, std::uint64_t length, std::uint64_t& got) {
    got = 0;
    const std::uint64_t size = stream_->size();
    if (position > size) Common::Raise(ERROR_TAG, Common::Failures::FILE_EOF);
    const std::uint64_t wanted = std::min(length, size - position);
    if (wanted == 0) return;
    auto* out = static_cast<unsigned char*>(buffer);
    const std::uint32_t sector = driver->sector_size;
    const std::uint64_t aligned_start = (position + sector - 1) / sector * sector;
    const std::uint64_t head = aligned_start - position;
    if (wanted < head) {
        got = stream_->read(position, wanted, out);
        return;
    }
    const std::uint64_t end = position + wanted;
    std::uint64_t aligned_end = end / sector * sector;
    // With the middle landing aligned in the caller's buffer, a tail that
    // ends inside a sector is left to the cache a whole cluster at a time:
    // the tail's cluster is the one block the cache then reads.
    if (reinterpret_cast<std::uintptr_t>(out + head) % sector == 0 && end % sector != 0) {
        aligned_end = end / driver->cluster_size * driver->cluster_size;
    }
    if (aligned_start >= aligned_end) {
        got = stream_->read(position, wanted, out);
        return;
    }
    if (head != 0) {
        got = stream_->read(position, head, out);
        if (got != head) return;
    }
    const std::uint64_t middle = aligned_end - aligned_start;
    const std::uint64_t direct = stream_->readSectors(aligned_start, middle, out + head);
    got += std::min(direct, middle);
    if (direct < middle) return;
    if (end > aligned_end) got += stream_->read(aligned_end, end - aligned_end, out + head + middle);
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
    const std::uint32_t sector = driver->sector_size;
    const std::uint64_t aligned_start = (position + sector - 1) / sector * sector;
    const std::uint64_t head = aligned_start - position;
    const std::uint64_t end = position + length;
    if (head > length || reinterpret_cast<std::uintptr_t>(in + head) % sector != 0) {
        written = stream_->write(position, length, in);
        return;
    }
    // A tail inside a sector goes through the cache a whole cluster at a
    // time, as reads do, so that the cache holds the cluster it then reads.
    const std::uint64_t aligned_end = end % sector == 0 ? end : end / driver->cluster_size * driver->cluster_size;
    if (aligned_start >= aligned_end) {
        written = stream_->write(position, length, in);
        return;
    }
    if (head != 0) {
        written = stream_->write(position, head, in);
        if (written != head) return;
    }
    const std::uint64_t middle = aligned_end - aligned_start;
    written += std::min(stream_->writeSectors(aligned_start, middle, in + head), middle);
    if (written != aligned_end - position) return;
    if (end > aligned_end) written += stream_->write(aligned_end, end - aligned_end, in + head + middle);
}

void NTFSFile::set_size(std::uint64_t wanted) {
    if (driver->read_only) driver->refuse_change(ERROR_TAG);
    if (stream_->size() == wanted) return;
    const std::uint64_t reached = stream_->resize(wanted, true);
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

}  // namespace ntfs
