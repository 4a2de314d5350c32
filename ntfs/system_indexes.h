#pragma once
// The three system indexes of NTFS 3.0 and later, reading side: $Secure
// (record 9) keeps the volume's security descriptors once each in its
// "$SDS" stream, found by id through "$SII" and by hash through "$SDH";
// $ObjId and $Reparse, found by name under $Extend, index the object ids
// and the reparse points of the volume. A volume without $ObjId or
// $Reparse simply has no such index.
#include <cstdint>
#include <memory>
#include <vector>

#include "ntfs/index_tree.h"

namespace ntfs {

class NTFSDriver;

class SecureFile {
public:
    // FILE_CORRUPT without "$SDS" or either index.
    explicit SecureFile(NTFSDriver* driver);
    ~SecureFile();

    // The descriptor stored under `id`: FILE_NOT_FOUND for an id that
    // "$SII" doesn't hold, FILE_CORRUPT for an entry or a stored record
    // that doesn't fit.
    std::vector<unsigned char> descriptor(std::uint32_t id);

    // The id that a new descriptor gets: one above the greatest id of
    // "$SII", or 256, the first id that isn't reserved, while it has none.
    std::uint32_t nextFreeId() const { return next_free_id_; }

    // The id of `descriptor`: the id of an identical stored descriptor, or a
    // new id under which it is stored now in "$SDS" (with its mirror copy),
    // "$SII" and "$SDH". A null or empty descriptor is id 0.
    std::uint32_t add(const void* descriptor, std::uint32_t length);

    SecurityIdIndex& ids() { return *ids_; }
    SecurityHashIndex& hashes() { return *hashes_; }

private:
    // The id of a stored descriptor equal to `record` (head and
    // descriptor), 0 when there is none.
    std::uint32_t findStored(const std::vector<unsigned char>& record);
    // Puts `record` into "$SDS" and its mirror block; answers its offset.
    std::uint64_t store(std::vector<unsigned char>& record);
    // The "$SII" and "$SDH" entries of a stored record's head.
    void indexStored(const std::vector<unsigned char>& record);

    RecordRef record_;
    AttributeRef stream_;
    std::unique_ptr<SecurityIdIndex> ids_;
    std::unique_ptr<SecurityHashIndex> hashes_;
    std::uint32_t next_free_id_ = kFirstFreeId;

    static constexpr std::uint32_t kFirstFreeId = 256;
};

// The hash under which "$SDH" finds a descriptor: each whole u32, in
// order, added to the sum so far turned left by 3 bits.
std::uint32_t SecurityHash(const void* descriptor, std::uint32_t length);

// The file named `name` under $Extend, held; empty when $Extend has no such
// name or can't be read.
RecordRef ExtendFile(NTFSDriver* driver, const std::u16string& name);

class ObjIdFile {
public:
    explicit ObjIdFile(NTFSDriver* driver);
    ~ObjIdFile();

    // Null when the volume has no $ObjId.
    ObjectIdIndex* index() { return index_.get(); }

private:
    std::unique_ptr<ObjectIdIndex> index_;
};

class ReparseFile {
public:
    explicit ReparseFile(NTFSDriver* driver);
    ~ReparseFile();

    // Null when the volume has no $Reparse.
    ReparseIndex* index() { return index_.get(); }

private:
    std::unique_ptr<ReparseIndex> index_;
};

}  // namespace ntfs
