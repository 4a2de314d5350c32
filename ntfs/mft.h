#pragma once
// The master file table: the record buffers of the volume, read on first
// use and shared by count, with their fixups undone. Record 0 is read
// straight from its place on disk; every other record through record 0's
// data stream, so records 1 to 15 are always within its first extent.
// A changed record is written at once, protected by its update sequence.
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "ntfs/ntfs_records.h"

namespace ntfs {

class NTFSDriver;
class Attribute;
class MftBaseFileRecordImpl;

struct RecordBuffer {
    std::uint64_t number = 0;
    std::uint32_t references = 0;
    bool free_on_release = false;
    std::vector<unsigned char> bytes;

    unsigned char* data() { return bytes.data(); }
    FileRecordHeader* header() { return reinterpret_cast<FileRecordHeader*>(bytes.data()); }
};

class Mft {
public:
    // The allocator of file records over record 0's bitmap attribute.
    class FileRecordAllocator;

    // Reads record 0 and builds its record object.
    explicit Mft(NTFSDriver* driver);
    ~Mft();
    Mft(const Mft&) = delete;
    Mft& operator=(const Mft&) = delete;

    // The buffer of record `number`, read on first use; count + 1.
    // FILE_READ for a record the MFT doesn't reach; FILE_CORRUPT when
    // reading it needs itself (an MFT extent that lies in the record).
    RecordBuffer* getRecord(std::uint64_t number);
    // Count − 1; the buffer goes at 0.
    void putRecord(RecordBuffer* buffer);
    // Writes the buffer of record `number` now, if it is loaded and not
    // flagged to be freed. Record 0 goes straight to its place, the others
    // through record 0's data stream, and records 0 to 3 also to the
    // mirror. FILE_WRITE when the stream takes fewer bytes.
    void flushRecord(std::uint64_t number);
    // The records the MFT's data stream holds.
    std::uint64_t recordCount();
    // The records an attribute list may name. Until record 0's own data
    // stream is found (through record 0's list, when it has one) the stream
    // can't tell; a record read later is checked against the stream then.
    std::uint64_t listableRecords();
    // A free record, laid out fresh and written, its bit set; count 1.
    // `use_reserved` takes the record kept back for the MFT's own extension.
    // FILE_DISK_FULL when none is left.
    RecordBuffer* allocateRecord(bool use_reserved);
    // Frees the record of `buffer` when its last holder puts it: sequence
    // number + 1, not in use, its bit cleared. Records below 16 stay.
    void freeRecord(RecordBuffer* buffer);
    MftBaseFileRecordImpl& recordZero() { return *record_zero_; }
    // The allocator over record 0's bitmap, built on first use.
    FileRecordAllocator& recordAllocator();

private:
    // Takes one clear bit (stored with `commit`); FILE_DISK_FULL when none.
    std::uint64_t takeRecordBit(bool commit);
    // Record `number` laid out fresh and written, count 1; null when the
    // record turns out to be in use already.
    RecordBuffer* initialiseRecord(std::uint64_t number);
    // Grows record 0's data stream so that it reaches record `number`.
    void reachRecord(std::uint64_t number);
    // The disk side of freeing: sequence + 1, not in use, written, bit cleared.
    void releaseFreedRecord(RecordBuffer& buffer);
    void readRecordZero(RecordBuffer& buffer);
    void writeRecord(RecordBuffer& buffer);
    void writeRecordZero(const unsigned char* image);
    void writeMirror(std::uint64_t number, const unsigned char* image);
    Attribute* dataStream();

    NTFSDriver* driver_;
    std::map<std::uint64_t, std::unique_ptr<RecordBuffer>> buffers_;
    std::unique_ptr<MftBaseFileRecordImpl> record_zero_;
    Attribute* data_ = nullptr;  // record 0's unnamed data stream, held
    bool finding_data_ = false;
    std::set<std::uint64_t> loading_;
    std::unique_ptr<FileRecordAllocator> allocator_;
    std::uint64_t reserved_record_ = 0;
    bool has_reserved_record_ = false;
};

}  // namespace ntfs
