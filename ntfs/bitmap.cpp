#include "ntfs/bitmap.h"

#include <algorithm>
#include <new>

#include "loader/common/raise.h"

namespace ntfs {

namespace {

// One chunk bounds the memory of a scan, however large the volume.
constexpr std::uint32_t kChunkBytes = 2048;
constexpr std::uint32_t kChunkShift = 11;
// A record bitmap grows by whole 64-bit words, as the format keeps it.
constexpr std::uint64_t kGrowthBytes = 8;
constexpr unsigned char kFullByte = 0xFF;

std::vector<unsigned char> ChunkBuffer() {
    try {
        return std::vector<unsigned char>(kChunkBytes);
    } catch (const std::bad_alloc&) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_NO_MEMORY);
    }
}

unsigned char BitMask(std::uint64_t bit) { return static_cast<unsigned char>(1u << (bit & 7)); }

std::uint32_t SetBitsOf(unsigned char byte) {
    std::uint32_t bits = 0;
    for (; byte != 0; byte &= static_cast<unsigned char>(byte - 1)) ++bits;
    return bits;
}

// Bit `bit` joins the last run when it directly follows it, else it opens
// one; runs that were in the list before this allocation stay as they are.
void AppendBit(std::vector<BitRun>& runs, std::size_t first_new_run, std::uint64_t bit) {
    if (runs.size() > first_new_run && runs.back().first + runs.back().count == bit) {
        ++runs.back().count;
    } else {
        runs.push_back(BitRun{bit, 1});
    }
}

}  // namespace

Bitmap::Bitmap(NTFSDriver* driver, RecordRef record, std::uint32_t type, std::u16string name)
    : driver_(driver), record_guard_(std::move(record)), record_(record_guard_.get()), type_(type),
      name_(std::move(name)) {}

Bitmap::Bitmap(NTFSDriver* driver, BaseFileRecord* record, std::uint32_t type, std::u16string name)
    : driver_(driver), record_(record), type_(type), name_(std::move(name)) {}

Attribute& Bitmap::stream() {
    if (!attribute_guard_) {
        attribute_guard_ = AttributeRef(record_, record_->findAttribute(type_, name_));
        if (!attribute_guard_) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    return *attribute_guard_;
}

std::uint64_t Bitmap::streamSize() {
    const std::uint64_t size = stream().size();
    // Its bits must be countable in 64 bits.
    if (size > (~std::uint64_t(0) >> 3)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return size;
}

std::uint64_t Bitmap::limitOf(std::uint64_t size) const { return std::min(size * 8, bit_limit_); }

void Bitmap::moveCursor(std::uint64_t bit) {
    chunk_ = (bit >> (kChunkShift + 3)) << kChunkShift;
    byte_ = static_cast<std::uint32_t>((bit >> 3) & (kChunkBytes - 1));
    bit_ = static_cast<std::uint8_t>(bit & 7);
}

void Bitmap::allocate(std::vector<BitRun>& runs, std::uint64_t count, std::uint64_t* got, bool extend, bool commit) {
    std::uint64_t size = streamSize();
    // A stream that shrank below the cursor is searched from its start.
    if (cursor() >= limitOf(size)) moveCursor(0);
    std::vector<unsigned char> chunk = ChunkBuffer();
    const std::size_t first_new_run = runs.size();
    std::uint64_t wanted = count;
    scan(chunk, runs, first_new_run, wanted, limitOf(size), commit);
    // Growing is only worth it once the scan has passed every bit, and
    // only for an array that the stream's end bounds (not the clusters').
    while (wanted != 0 && extend && cursor() == limitOf(size) && limitOf(size + kGrowthBytes) > limitOf(size)) {
        const std::uint64_t added = stream().write(size, kGrowthBytes, nullptr);
        if (added == 0) break;
        size += std::min(added, kGrowthBytes);
        scan(chunk, runs, first_new_run, wanted, limitOf(size), commit);
    }
    if (got != nullptr) *got = count - wanted;
}

void Bitmap::scan(std::vector<unsigned char>& chunk, std::vector<BitRun>& runs, std::size_t first_new_run,
                  std::uint64_t& wanted, std::uint64_t limit, bool commit) {
    Attribute& bits = stream();
    while (wanted != 0 && cursor() < limit) {
        const std::uint64_t start = chunk_;
        const std::uint64_t length = std::min<std::uint64_t>(kChunkBytes, (limit + 7) / 8 - start);
        const std::uint64_t read = std::min(bits.read(start, length, chunk.data()), length);
        if (read == 0) return;
        const std::uint64_t taken = takeBits(chunk.data(), read, limit, runs, first_new_run, wanted);
        if (taken != 0 && commit) {
            if (bits.write(start, read, chunk.data()) != read) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
            if (free_count_known_) free_count_ -= std::min(taken, free_count_);
        }
        // A chunk that came short holds no bits behind what was read.
        if (read < length) return;
    }
}

std::uint64_t Bitmap::takeBits(unsigned char* chunk, std::uint64_t length, std::uint64_t limit,
                               std::vector<BitRun>& runs, std::size_t first_new_run, std::uint64_t& wanted) {
    const std::uint64_t base = chunk_;
    const std::uint64_t end = std::min(limit, (base + length) * 8);
    std::uint64_t at = cursor();
    std::uint64_t taken = 0;
    while (at < end && wanted != 0) {
        unsigned char& byte = chunk[(at >> 3) - base];
        if (byte == kFullByte) {
            at = std::min(end, (at | 7) + 1);
            continue;
        }
        if ((byte & BitMask(at)) == 0 && !isReserved(at)) {
            byte = static_cast<unsigned char>(byte | BitMask(at));
            AppendBit(runs, first_new_run, at);
            --wanted;
            ++taken;
        }
        ++at;
    }
    moveCursor(at);
    return taken;
}

void Bitmap::freeList(const std::vector<BitRun>& runs) {
    for (const BitRun& run : runs) freeBits(run.first, run.count);
}

void Bitmap::freeBits(std::uint64_t first, std::uint64_t count) {
    if (count == 0) return;
    const std::uint64_t limit = limitOf(streamSize());
    if (first >= limit) return;
    const std::uint64_t end = std::min(limit, count > limit - first ? limit : first + count);
    if (first < cursor()) moveCursor(first);
    const std::uint64_t first_byte = first >> 3;
    const std::uint64_t length = ((end - 1) >> 3) - first_byte + 1;
    std::vector<unsigned char> bytes;
    try {
        bytes.resize(static_cast<std::size_t>(length));
    } catch (const std::bad_alloc&) {
        return;  // the bits stay set: lost space, never a double allocation
    }
    Attribute& bits = stream();
    const std::uint64_t read = std::min(bits.read(first_byte, length, bytes.data()), length);
    std::uint64_t cleared = 0;
    for (std::uint64_t at = first; at < end && (at >> 3) - first_byte < read;) {
        unsigned char& byte = bytes[(at >> 3) - first_byte];
        if ((at & 7) == 0 && end - at >= 8) {
            cleared += SetBitsOf(byte);
            byte = 0;
            at += 8;
            continue;
        }
        if ((byte & BitMask(at)) != 0) ++cleared;
        byte = static_cast<unsigned char>(byte & ~BitMask(at));
        ++at;
    }
    if (read != 0 && bits.write(first_byte, read, bytes.data()) != read) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    }
    if (free_count_known_) free_count_ += cleared;
}

std::uint64_t Bitmap::freeCount() {
    if (free_count_known_) return free_count_;
    const std::uint64_t limit = limitOf(streamSize());
    if (cursor() >= limit) moveCursor(0);
    free_count_ = countClear(limit);
    free_count_known_ = true;
    return free_count_;
}

std::uint64_t Bitmap::countClear(std::uint64_t limit) {
    Attribute& bits = stream();
    std::vector<unsigned char> chunk = ChunkBuffer();
    FreeRegions regions{cursor() == 0};
    std::uint64_t at = cursor();
    for (std::uint64_t base = chunk_; at < limit; base += kChunkBytes) {
        const std::uint64_t length = std::min<std::uint64_t>(kChunkBytes, (limit + 7) / 8 - base);
        const std::uint64_t read = std::min(bits.read(base, length, chunk.data()), length);
        const std::uint64_t end = std::min(limit, (base + read) * 8);
        while (at < end) {
            const unsigned char byte = chunk[(at >> 3) - base];
            // A whole byte that neither opens nor closes a region costs one test.
            if ((at & 7) == 0 && end - at >= 8 && byte == (regions.open ? 0x00 : kFullByte)) {
                at += 8;
                continue;
            }
            regions.pass(*this, at, (byte & BitMask(at)) == 0);
            ++at;
        }
        if (read < length) break;
    }
    // The clear bits up to the array's end count as well: a volume whose
    // last clusters are free has them free, whatever the bit after them.
    regions.pass(*this, at, false);
    return regions.count;
}

void Bitmap::FreeRegions::pass(Bitmap& bitmap, std::uint64_t at, bool clear) {
    if (clear == open) return;
    open = clear;
    if (clear) {
        // Counting from the start finds the first clear bit: the cursor's place.
        if (move_cursor) bitmap.moveCursor(at);
        move_cursor = false;
        start = at;
        return;
    }
    count += at - start;
    bitmap.onFreeRun(start, at - start);
}

void Bitmap::setBit(std::uint64_t bit) {
    if (bit >= limitOf(streamSize())) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    Attribute& bits = stream();
    unsigned char byte = 0;
    if (bits.read(bit >> 3, 1, &byte) != 1) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    if ((byte & BitMask(bit)) != 0) return;
    byte = static_cast<unsigned char>(byte | BitMask(bit));
    if (bits.write(bit >> 3, 1, &byte) != 1) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    // The bit was counted free; the count stays true to the stream.
    if (free_count_known_) free_count_ -= std::min<std::uint64_t>(1, free_count_);
}

}  // namespace ntfs
