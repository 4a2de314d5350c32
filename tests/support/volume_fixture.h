#pragma once
// What the file-system driver tests share: contents that show a misplaced
// sector, image files that the independent tools make, such a file as an
// in-memory disk, and a volume mounted by a driver's factory and used
// through the reference classes, as the loader uses it. A driver's test
// adds only how its images are made and looked at.
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "files/dir_object.h"
#include "files/file_object.h"
#include "fsdriver/driver_selection.h"
#include "fsdriver/file_system_driver.h"
#include "loader/common/error_codes.h"
#include "tests/support/temp_folder.h"
#include "tests/unit/driver_test_disk.h"

namespace TestSupport {

using driver_test::MemoryDisk;

// Bytes with a period of 256 that moves on by one every 509 bytes: no two
// sectors, clusters or blocks of a file are alike.
inline std::string Pattern(std::size_t size, unsigned seed) {
    std::string data(size, '\0');
    for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<char>((i * 131 + seed * 7 + i / 509) & 0xFF);
    return data;
}

// A host file's bytes; none when it can't be opened.
inline std::vector<unsigned char> LoadFile(const std::string& path) {
    std::vector<unsigned char> data;
    FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) return data;
    unsigned char chunk[65536];
    while (std::size_t n = std::fread(chunk, 1, sizeof(chunk), file)) data.insert(data.end(), chunk, chunk + n);
    std::fclose(file);
    return data;
}

inline void StoreFile(const std::string& path, const std::vector<unsigned char>& data) {
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) return;
    // An empty vector may hold no storage at all, which fwrite must not see.
    if (!data.empty()) std::fwrite(data.data(), 1, data.size(), file);
    std::fclose(file);
}

// Bytes, or an image file, as a disk of `sector`-byte sectors.
inline std::unique_ptr<MemoryDisk> DiskOf(const std::vector<unsigned char>& bytes, std::uint32_t sector = 512) {
    auto disk = std::make_unique<MemoryDisk>(sector, bytes.size() / sector);
    disk->bytes = bytes;
    return disk;
}

inline std::unique_ptr<MemoryDisk> DiskOf(const std::string& image, std::uint32_t sector = 512) {
    return DiskOf(LoadFile(image), sector);
}

// An image file in a folder of its own, removed with it.
struct ImageFile {
    ImageFile() : path(folder.Path() + "/volume.img") {}
    std::vector<unsigned char> bytes() const { return LoadFile(path); }
    void store(const std::vector<unsigned char>& data) const { StoreFile(path, data); }

    TempFolder folder;
    std::string path;
};

// One directory's walk: each entry's kind and size, and the code that
// ended the walk early (0 when it reached the end).
struct Listing {
    struct Entry {
        std::uint32_t kind;
        std::uint64_t size;
    };
    std::map<std::u16string, Entry> entries;
    std::uint32_t error = 0;

    // Name to kind, or name to size with directories as ~0. A failed walk
    // adds "<error>" with its code, so that a comparison sees it too.
    std::map<std::u16string, std::uint32_t> kinds() const {
        std::map<std::u16string, std::uint32_t> kinds;
        for (const auto& [name, entry] : entries) kinds[name] = entry.kind;
        if (error != 0) kinds[u"<error>"] = error;
        return kinds;
    }
    std::map<std::u16string, std::uint64_t> sizes() const {
        std::map<std::u16string, std::uint64_t> sizes;
        for (const auto& [name, entry] : entries) sizes[name] = entry.kind == KIND_DIRECTORY ? ~0ull : entry.size;
        if (error != 0) sizes[u"<error>"] = error;
        return sizes;
    }
};

// A volume that `kFactory` mounts and the test holds by one reference, as
// the loader holds a partition's. `driver` and `root` are null when the
// factory refuses it: the test looks before it uses them.
template <typename Driver, DriverFactory kFactory>
class Volume {
public:
    // An image file, to which unmount() stores what the driver wrote, for
    // the independent tools to check.
    explicit Volume(const std::string& image, std::uint32_t sector = 512) : Volume(DiskOf(image, sector)) {
        image_ = image;
    }
    // A disk of the test's own, which stays in memory; `filter` and
    // `filter_bits` are the driver's filter of the entries it shows.
    explicit Volume(std::unique_ptr<MemoryDisk> memory, const void* filter = nullptr, std::uint64_t filter_bits = 0)
        : disk(std::move(memory)) {
        mounted_ = kFactory(disk.get(), 0, disk->GetLastSector() + 1, 0, nullptr,
                            reinterpret_cast<std::uintptr_t>(filter), filter_bits);
        if (mounted_ == nullptr) return;
        ++mounted_->references;
        driver = dynamic_cast<Driver*>(mounted_);
        if (driver != nullptr) root.reset(driver->open_root());
    }
    ~Volume() { unmount(); }
    Volume(const Volume&) = delete;
    Volume& operator=(const Volume&) = delete;

    // Lets the driver go, which writes everything back.
    void unmount() {
        root.reset();
        if (mounted_ != nullptr) release(mounted_);
        mounted_ = nullptr;
        driver = nullptr;
        if (!image_.empty()) StoreFile(image_, disk->bytes);
        image_.clear();
    }

    // `length` bytes from `position` on, all to the end by default, in one
    // read into a buffer `misalign` bytes off its allocation. A read to the
    // end asks for 100 bytes more, so one that doesn't stop there shows.
    // Else a text that tells what failed.
    std::string read(const std::u16string& path, std::uint64_t position = 0, std::uint64_t length = ~0ull,
                     std::size_t misalign = 0) {
        std::unique_ptr<ri_file> file(root->open_file(path.c_str(), false));
        if (file == nullptr || file->failed()) return "<open failed>";
        const std::uint64_t rest = position < file->size() ? file->size() - position : 0;
        const std::uint64_t asked = length < rest ? length : rest + 100;
        std::vector<char> buffer(misalign + asked);
        file->seek(static_cast<std::int64_t>(position));
        std::uint64_t got = 0;
        file->read(buffer.data() + misalign, asked, got);
        if (file->failed()) return "<read failed " + std::to_string(file->error().Code()) + ">";
        return std::string(buffer.data() + misalign, got);
    }

    // The empty path is the root itself.
    Listing list(const std::u16string& path) {
        Listing listing;
        std::unique_ptr<rio_dir> opened(path.empty() ? nullptr : root->open_dir(path.c_str()));
        rio_dir* dir = path.empty() ? root.get() : opened.get();
        if (dir == nullptr || dir->failed()) {
            listing.error = (dir == nullptr ? root.get() : dir)->error().Code();
            return listing;
        }
        std::unique_ptr<i_dir::iterator> walk(dir->begin());
        if (walk == nullptr && dir->failed()) listing.error = dir->error().Code();
        while (walk != nullptr && !walk->failed()) {
            listing.entries[walk->name()] = {walk->kind(), walk->size()};
            if (!walk->next()) break;
        }
        if (walk != nullptr && walk->failed() && walk->error().Code() != Common::FILE_EOF) {
            listing.error = walk->error().Code();
        }
        return listing;
    }

    // The entry `name` of `directory`, or null.
    std::unique_ptr<i_dir::iterator> find(const std::u16string& directory, const std::u16string& name) {
        std::unique_ptr<rio_dir> dir(root->open_dir(directory.c_str()));
        return std::unique_ptr<i_dir::iterator>(dir == nullptr ? nullptr : dir->find(name.c_str()));
    }

    std::unique_ptr<MemoryDisk> disk;
    Driver* driver = nullptr;
    std::unique_ptr<rio_dir> root;

private:
    FileSystemDriver* mounted_ = nullptr;
    std::string image_;
};

}  // namespace TestSupport
