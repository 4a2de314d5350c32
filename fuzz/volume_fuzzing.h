#pragma once
// What the volume fuzz targets share: a disk over the input whose unread
// part is zeros, and a walk that lists, states, finds and reads everything
// a mounted volume shows. Nothing may fault, hang or read outside the
// volume; what a file yields without a stored error is exactly as long as
// its size says; and no entry shows a size beyond the largest that a file
// of the volume's format and geometry can have, which each target works out
// from the volume's header. A driver that believes such a size streams
// zeros without end, which a bounded read alone would never notice.
// For the drivers that write, also a disk that keeps what is written and
// one run of changes as the loader and `morvane fs` make them, each of
// which may be refused but none of which may fault or hang, followed by
// the same walk over the changed volume.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "files/dir_object.h"
#include "firmware/simple_disk.h"
#include "fsdriver/backup_object.h"
#include "fsdriver/driver_selection.h"
#include "loader/common/byte_order.h"
#include "loader/common/error_codes.h"
#include "loader/mount_volume.h"

namespace volume_fuzzing {

constexpr std::uint64_t kMostSectors = 1ull << 24;
// Bounds for what a damaged volume can make a walk do: directories that
// hold their own ancestors, long chains and huge sparse files.
constexpr int kDeepest = 12;
constexpr int kMostEntries = 2048;
constexpr std::uint64_t kMostBytesPerFile = 1 << 20;

inline void Require(bool condition) {
    if (!condition) std::abort();
}

// The volume over the input, as a block device would show it: transfers
// outside it are refused, and the part behind the input reads as zeros.
class InputDisk : public Fdisk::SimpleDisk {
public:
    // `declared_sectors`: what the volume's own header claims; never fewer
    // than the input fills, at most kMostSectors.
    InputDisk(const std::uint8_t* data, std::size_t size, std::uint32_t sector_bytes, std::uint64_t declared_sectors)
        : input_(data, data + size) {
        sector_size = sector_bytes;
        std::uint64_t input_sectors = (size + sector_size - 1) / sector_size;
        std::uint64_t sectors = declared_sectors;
        if (sectors < input_sectors) sectors = input_sectors;
        if (sectors > kMostSectors) sectors = kMostSectors;
        last_sector = sectors - 1;
    }

    Common::Error Transfer(std::uint32_t operation, std::uint64_t sector, void* buffer,
                           std::uint64_t count) override {
        if (sector > last_sector || count > last_sector + 1 - sector) return Common::Error(1, Common::FILE_READ);
        if (operation != Fdisk::kTransferRead) return Common::Error();
        std::uint64_t offset = sector * sector_size;
        std::uint64_t length = count * sector_size;
        std::memset(buffer, 0, length);
        if (offset < input_.size()) {
            std::uint64_t present = input_.size() - offset < length ? input_.size() - offset : length;
            std::memcpy(buffer, input_.data() + offset, present);
        }
        return Common::Error();
    }

private:
    std::vector<std::uint8_t> input_;
};

struct WalkBudget {
    int entries = kMostEntries;
    std::uint64_t largest_file = ~std::uint64_t(0);  // what the target says the volume allows
};

inline void ReadWhole(ri_file& file, std::uint64_t largest_file) {
    std::uint64_t size = file.size();
    Require(file.failed() || size <= largest_file);
    std::vector<std::uint8_t> buffer(4096);
    std::uint64_t total = 0;
    while (total < kMostBytesPerFile) {
        std::uint64_t got = 0;
        file.read(buffer.data(), buffer.size(), got);
        Require(got <= buffer.size());
        if (file.failed() || got == 0) break;
        total += got;
    }
    if (!file.failed() && total < kMostBytesPerFile) Require(total == size);
    // Random access: the last byte, and a read from far behind the end.
    if (size == 0 || file.failed()) return;
    std::uint64_t got = 0;
    file.seek(static_cast<std::int64_t>(size - 1));
    file.read(buffer.data(), buffer.size(), got);
    Require(got <= 1);
    file.seek(static_cast<std::int64_t>(size + 4096));
    file.read(buffer.data(), buffer.size(), got);
    Require(got == 0);
}

inline void StatEntry(i_dir::iterator& entry, std::uint64_t largest_file) {
    static_cast<void>(entry.short_name());
    static_cast<void>(entry.display_name());
    Require(entry.size() <= largest_file);
    static_cast<void>(entry.allocated_size());
    static_cast<void>(entry.modified());
    static_cast<void>(entry.created());
    static_cast<void>(entry.accessed());
    static_cast<void>(entry.attributes());
    static_cast<void>(entry.hidden());
    std::unique_ptr<file_identifier> identifier(entry.identifier());
    if (identifier != nullptr) std::unique_ptr<file_identifier> copy(identifier->clone());
}

// Takes what a backup sends and throws it away, checking only that each
// send lies inside the area it was given. A damaged volume can claim a file
// of terabytes: the backup is cancelled once it has sent as much as a
// file's walk reads.
class DiscardingBackup : public BackupStreams, public BackupProgress {
public:
    class Output : public BackupOutputStream {
    public:
        unsigned char* reserve(std::uint64_t size) override {
            Require(size <= (std::uint64_t(1) << 26));
            area_.assign(static_cast<std::size_t>(size), 0);
            return area_.data();
        }
        void send(const unsigned char* start, std::uint64_t size) override {
            Require(start >= area_.data() && size <= area_.size() &&
                    static_cast<std::size_t>(start - area_.data()) <= area_.size() - size);
        }

    private:
        std::vector<unsigned char> area_;
    };
    Common::Error open_output(std::uint32_t, BackupOutputStream*& stream) override {
        stream = new Output;
        return Common::Error();
    }
    RestoreInputStream* next_input() override { return nullptr; }
    Common::Error error() override { return Common::Error(); }
    void done(std::uint64_t bytes) override { sent_ = bytes; }
    bool cancelled() override { return sent_ > kMostBytesPerFile; }

private:
    std::uint64_t sent_ = 0;
};

// A backup of one entry of `dir`, or of `dir` itself for none, as volume
// services take it; refusals are expected from a damaged volume.
inline void BackUp(i_dir& dir, i_dir::iterator* entry) {
    DiscardingBackup sink;
    BackupRequest request{0x50554B42, 0, {&sink, &sink, 0}, {entry}};  // "BKUP"
    dir.control(&request);
    dir.set_error(Common::Error());
}

inline void WalkDirectory(i_dir& dir, int depth, WalkBudget& budget);

inline void VisitEntry(i_dir& dir, i_dir::iterator& entry, int depth, WalkBudget& budget) {
    std::u16string name = entry.name();
    StatEntry(entry, budget.largest_file);
    if (name == u"." || name == u"..") return;
    // The same entry found again by its name.
    std::unique_ptr<i_dir::iterator> found(dir.find(name.c_str()));
    BackUp(dir, &entry);
    if (entry.kind() == KIND_DIRECTORY) {
        std::unique_ptr<i_dir> below(dir.open_dir(entry));
        if (below != nullptr && depth < kDeepest) WalkDirectory(*below, depth + 1, budget);
        return;
    }
    std::unique_ptr<ri_file> file(dir.open_file(entry, true));
    if (file != nullptr) ReadWhole(*file, budget.largest_file);
}

inline void WalkDirectory(i_dir& dir, int depth, WalkBudget& budget) {
    std::unique_ptr<i_dir::iterator> entry(dir.begin());
    if (entry == nullptr || entry->failed()) return;
    do {
        if (--budget.entries < 0) return;
        VisitEntry(dir, *entry, depth, budget);
    } while (entry->next());
}

// Mounts the input as the loader mounts a partition, with one driver, and
// walks all of it. `largest_file`: the largest size that a file of this
// volume can legitimately have; without it, sizes aren't bounded.
inline void MountAndWalk(std::unique_ptr<Fdisk::SimpleDisk> disk, DriverFactory factory,
                         std::uint64_t largest_file) {
    std::unique_ptr<rio_dir> root(EfiLoader::MountVolume(factory, disk));
    if (root == nullptr) return;
    char16_t label[64];
    root->label(label, 64);
    std::uint64_t total = 0, free = 0, available = 0;
    root->space(total, free, available);
    WalkBudget budget;
    budget.largest_file = largest_file;
    WalkDirectory(*root, 0, budget);
    std::unique_ptr<i_dir::iterator> self(root->self());
    BackUp(*root, nullptr);
}


// The volume over the input, as InputDisk, but keeping what is written, so
// that a change reads back what the steps before it left, as on a real
// disk.
class KeepingDisk : public Fdisk::SimpleDisk {
public:
    KeepingDisk(const std::uint8_t* data, std::size_t size, std::uint32_t sector_bytes,
                std::uint64_t declared_sectors)
        : reads_(data, size, sector_bytes, declared_sectors) {
        sector_size = sector_bytes;
        last_sector = reads_.GetLastSector();
    }

    Common::Error Transfer(std::uint32_t operation, std::uint64_t sector, void* buffer,
                           std::uint64_t count) override {
        if (sector > last_sector || count > last_sector + 1 - sector) return Common::Error(1, Common::FILE_READ);
        auto* bytes = static_cast<std::uint8_t*>(buffer);
        for (std::uint64_t i = 0; i < count; ++i, bytes += sector_size) {
            if (operation == Fdisk::kTransferRead) read_sector(sector + i, bytes);
            else written_.insert_or_assign(sector + i, std::vector<std::uint8_t>(bytes, bytes + sector_size));
        }
        return Common::Error();
    }

private:
    void read_sector(std::uint64_t sector, std::uint8_t* bytes) {
        auto kept = written_.find(sector);
        if (kept != written_.end()) std::copy(kept->second.begin(), kept->second.end(), bytes);
        else reads_.Transfer(Fdisk::kTransferRead, sector, bytes, 1);
    }

    InputDisk reads_;
    std::map<std::uint64_t, std::vector<std::uint8_t>> written_;
};

constexpr std::size_t kPiece = 3000;

// Clears what a refused step stored, so that the next step is tried.
inline void Forget(file_object& object) { object.set_error(Common::Error()); }

inline void WriteInPieces(rio_file& file, std::size_t total, std::uint8_t seed) {
    std::vector<std::uint8_t> piece(kPiece);
    for (std::size_t i = 0; i < piece.size(); ++i) piece[i] = static_cast<std::uint8_t>(seed + i * 7);
    for (std::size_t done = 0; done < total && !file.failed(); done += kPiece) {
        std::uint64_t written = 0;
        std::uint64_t asked = std::min(kPiece, total - done);
        file.write(piece.data(), asked, written);
        Require(written <= asked);
        if (written < asked) break;
    }
}

// The first `most` entries of the root that are neither directories nor
// "." and "..".
inline std::vector<std::u16string> FileNames(rio_dir& root, std::size_t most) {
    std::vector<std::u16string> names;
    std::unique_ptr<i_dir::iterator> entry(root.begin());
    if (entry == nullptr || entry->failed()) return names;
    int budget = kMostEntries;
    do {
        std::u16string name = entry->name();
        if (entry->kind() != KIND_DIRECTORY && name != u"." && name != u"..") names.push_back(name);
    } while (names.size() < most && --budget > 0 && entry->next());
    Forget(root);
    return names;
}

// Appended to, then removed: the seeds are tiny volumes with little to
// spare (no inode on ext, few free records on NTFS), so the changes that
// follow need what this frees.
inline void ChangeOldFiles(rio_dir& root) {
    std::vector<std::u16string> names = FileNames(root, 3);
    if (names.empty()) return;
    std::unique_ptr<rio_file> file(root.open_for_update(names[0].c_str(), false));
    Forget(root);
    if (file != nullptr) {
        file->seek_end(0);
        WriteInPieces(*file, 5000, 3);
        file->flush();
    }
    file.reset();
    if (names.size() > 1) {
        root.rename(names[1].c_str(), u"renamed");
        Forget(root);
        root.remove_file(u"renamed");
        Forget(root);
    }
    for (std::size_t i = 0; i < names.size(); i += 2) {
        root.remove_file(names[i].c_str());
        Forget(root);
    }
}

// A file written in pieces, grown by a hole behind its end, written into
// the hole, cut back into a block, moved to the root and rewritten shorter.
inline void ChangeNewFile(rio_dir& root) {
    std::unique_ptr<rio_file> file(root.create_file(u"fz/new.bin"));
    Forget(root);
    if (file != nullptr) {
        WriteInPieces(*file, 9000, 1);
        Forget(*file);
        file->set_size(70000);
        Forget(*file);
        file->seek(40000);
        WriteInPieces(*file, 5000, 2);
        Forget(*file);
        file->set_size(4500);
        file->flush();
    }
    file.reset();
    root.rename(u"fz/new.bin", u"moved.bin");
    Forget(root);
    std::unique_ptr<rio_file> again(root.create_file(u"moved.bin"));
    Forget(root);
    if (again != nullptr) WriteInPieces(*again, 100, 4);
}

inline void ChangeVolume(rio_dir& root) {
    ChangeOldFiles(root);
    root.make_dir(u"fz");
    Forget(root);
    ChangeNewFile(root);
    std::unique_ptr<rio_file> kept(root.create_file(u"fz/kept"));
    Forget(root);
    if (kept != nullptr) WriteInPieces(*kept, 10, 5);
    kept.reset();
    // Refused while it holds an entry.
    root.remove_dir(u"fz");
    Forget(root);
}

// Mounts `disk` (a KeepingDisk over the input) with one driver, runs the
// changes and walks what they leave, with sizes bounded as MountAndWalk's.
inline void MountChangeAndWalk(std::unique_ptr<Fdisk::SimpleDisk> disk, DriverFactory factory,
                               std::uint64_t largest_file) {
    std::unique_ptr<rio_dir> root(EfiLoader::MountVolume(factory, disk));
    if (root == nullptr) return;
    ChangeVolume(*root);
    WalkBudget budget;
    budget.largest_file = largest_file;
    WalkDirectory(*root, 0, budget);
}

}  // namespace volume_fuzzing
