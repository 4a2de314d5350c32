#pragma once
// Restoring a file or directory of an NTFS volume from the typed streams of
// a backup: a row of consumers, each of its own kind of stream, fed by one
// object that the framework writes to.
//
// A restore that is refused, or whose last piece is cut short, takes back
// what stands half made: a file that it filled goes again (nobody keeps a
// file that holds some of its streams), and on a directory a named stream
// that was being written goes. What a directory had set in full before
// (attributes, times, descriptor, whole streams) stays.
#include <cstdint>
#include <memory>
#include <vector>

#include "fsdriver/backup_object.h"

namespace ntfs {

class NTFSFileObject;

// The kinds of the streams of a restore.
constexpr std::uint32_t kRestoreAttributes = 1;
constexpr std::uint32_t kRestoreWinStreams = 2;
constexpr std::uint32_t kRestoreEncrypted = 3;
constexpr std::uint32_t kRestorePlain = 4;
constexpr std::uint32_t kRestoreTimes = 5;

// Option bits of a restore.
constexpr std::uint32_t kRestoreWithoutSecurity = 0x1;
constexpr std::uint32_t kRestoreWithoutTimes = 0x2;

// One consumer of the bytes of one kind. `write` takes only bytes of its
// own kind (0 of any other) and answers how many it took; `finish` says
// that no more of its kind comes, and raises FILE_CORRUPT when that cuts
// a piece short; `abandon` lets go of what is half made.
class RestoreSubObject {
public:
    explicit RestoreSubObject(std::uint32_t kind) : kind_(kind) {}
    virtual ~RestoreSubObject() = default;
    RestoreSubObject(const RestoreSubObject&) = delete;
    RestoreSubObject& operator=(const RestoreSubObject&) = delete;

    // Its parameter is `const unsigned char*`, so that the list below,
    // which is also the framework's object, keeps the framework's `write`
    // apart from this one.
    virtual std::uint64_t write(std::uint32_t kind, const unsigned char* data, std::uint64_t size) = 0;
    virtual void finish() {}
    virtual void abandon() {}
    std::uint32_t kind() const { return kind_; }

private:
    std::uint32_t kind_;
};

// What acts on the open file or directory of the restore.
class FileObjectHolder {
public:
    FileObjectHolder(NTFSFileObject& object, bool directory) : object(object), directory(directory) {}

    NTFSFileObject& object;
    bool directory;
};

// The ordered list of consumers and the cursor on the one that took the
// last byte. Bytes go first to the consumer at the cursor, then to the
// others in turn, round to the cursor again.
//
// The framework sees a kind that no consumer serves refused with
// FILE_UNSUPPORTED, and bytes of a served kind that nobody takes (a sixth
// byte of attributes) with FILE_CORRUPT. A change of kind finishes the
// consumers of the kind before; kind 0 finishes them all and marks the
// restore complete. A restore destroyed before that finishes them then,
// and takes back what a cut left half made, since a destructor can't
// refuse.
class RestoreObject : public FileSystemDriver::RestoreObject, public RestoreSubObject {
public:
    // `owned` is the file object of a directory, which the list keeps;
    // a file's object is the file itself, held by the framework.
    RestoreObject(NTFSFileObject& target, std::unique_ptr<NTFSFileObject> owned, bool directory);
    ~RestoreObject() override;

    void write(std::uint32_t stream_type, const void* data, std::uint64_t size) override;
    std::uint64_t write(std::uint32_t kind, const unsigned char* data, std::uint64_t size) override;
    void finish() override;
    void abandon() override;

    void add(std::unique_ptr<RestoreSubObject> sub_object) { sub_objects_.push_back(std::move(sub_object)); }
    FileObjectHolder& holder() { return holder_; }

private:
    bool serves(std::uint32_t kind) const;
    void finishKind(std::uint32_t kind);
    void takeBack();
    // A file of one name, which this restore filled, goes from its directory.
    void removeFile();

    std::unique_ptr<NTFSFileObject> owned_;
    FileObjectHolder holder_;
    std::vector<std::unique_ptr<RestoreSubObject>> sub_objects_;
    std::size_t cursor_ = 0;
    std::uint32_t last_kind_ = 0;
    bool complete_ = false;
    bool taken_back_ = false;
};

// The consumers of a restore in their order: attributes, times, the Win32
// backup stream, the encrypted raw form, and on a file the plain data.
std::unique_ptr<RestoreObject> NewRestoreObject(NTFSFileObject& target, std::unique_ptr<NTFSFileObject> owned,
                                                bool directory, std::uint32_t option);

}  // namespace ntfs
