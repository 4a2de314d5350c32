#include "ntfs/backup_object.h"

#include <cstring>

#include "loader/common/byte_order.h"
#include "ntfs/backup_common.h"
#include "ntfs/backup_data.h"
#include "ntfs/backup_efs.h"

namespace ntfs {

std::uint64_t BackupObject::read(void* area) {
    if (cursor_ >= parts_.size()) return 0;
    const std::uint64_t got = parts_[cursor_]->read(area);
    settle();
    return got;
}

void BackupObject::add(std::unique_ptr<FileSystemDriver::BackupObject> part) {
    parts_.push_back(std::move(part));
    settle();
}

// A producer that answered 0 with a larger chunk stays under the cursor:
// showing its fields again passes the new size on.
void BackupObject::settle() {
    while (cursor_ < parts_.size() && parts_[cursor_]->stream_type == 0) ++cursor_;
    if (cursor_ == parts_.size()) {
        stream_type = 0;
        return;
    }
    const FileSystemDriver::BackupObject& part = *parts_[cursor_];
    stream_type = part.stream_type;
    chunk = part.chunk;
    alignment = part.alignment;
}

std::uint64_t BackupPiece::read(void* area) {
    if (stream_type == 0) return 0;
    std::memcpy(area, bytes_.data(), bytes_.size());
    stream_type = 0;
    return bytes_.size();
}

void BackupPiece::offer(std::uint32_t kind, std::vector<unsigned char> bytes) {
    bytes_ = std::move(bytes);
    stream_type = kind;
    chunk = bytes_.size();
}

std::vector<unsigned char> Win32StreamHeader(std::uint32_t id, std::uint32_t attributes, std::uint64_t size,
                                             const std::u16string& name) {
    std::vector<unsigned char> header(kWin32HeaderSize + 2 * name.size());
    Common::StoreLE32(&header[0], id);
    Common::StoreLE32(&header[4], attributes);
    Common::StoreLE64(&header[8], size);
    Common::StoreLE32(&header[16], static_cast<std::uint32_t>(2 * name.size()));
    for (std::size_t i = 0; i < name.size(); ++i) Common::StoreLE16(&header[kWin32HeaderSize + 2 * i], name[i]);
    return header;
}

namespace {

// The five producers that a file and a directory share, in their order.
class EntryBackup : public BackupObject {
protected:
    explicit EntryBackup(const BackupSource& source) {
        add(std::make_unique<BackupAttributes>(source));
        add(std::make_unique<BackupFileTimes>(source));
        add(std::make_unique<BackupSecurity>(source));
        add(std::make_unique<BackupReparse>(source));
        add(std::make_unique<BackupObjectIds>(source));
    }
};

class FileBackup : public EntryBackup {
public:
    explicit FileBackup(const BackupSource& source) : EntryBackup(source) {
        add(std::make_unique<BackupFileData>(source));
        add(std::make_unique<BackupEFSStream>(source));
        add(std::make_unique<BackupEFSData>(source));
    }
};

class DirectoryBackup : public EntryBackup {
public:
    explicit DirectoryBackup(const BackupSource& source) : EntryBackup(source) {
        add(std::make_unique<BackupDirectoryData>(source));
        add(std::make_unique<BackupEFSStream>(source));
    }
};

}  // namespace

FileSystemDriver::BackupObject* NewFileBackup(NTFSDriver* driver, const RecordRef& record, std::uint32_t option) {
    return new FileBackup(BackupSource{driver, record, option});
}

FileSystemDriver::BackupObject* NewDirectoryBackup(NTFSDriver* driver, const RecordRef& record,
                                                   std::uint32_t option) {
    return new DirectoryBackup(BackupSource{driver, record, option});
}

}  // namespace ntfs
