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

    SecurityIdIndex& ids() { return *ids_; }
    SecurityHashIndex& hashes() { return *hashes_; }

private:
    RecordRef record_;
    AttributeRef stream_;
    std::unique_ptr<SecurityIdIndex> ids_;
    std::unique_ptr<SecurityHashIndex> hashes_;
    std::uint32_t next_free_id_ = kFirstFreeId;

    static constexpr std::uint32_t kFirstFreeId = 256;
};

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
