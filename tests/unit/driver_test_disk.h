#pragma once
// An in-memory disk and the smallest driver over it, for the tests of the
// driver framework. The disk logs every transfer, can refuse reads or
// writes, and checks that no buffer it is given is unaligned.
#include <cstdint>
#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "firmware/simple_disk.h"
#include "fsdriver/backup_object.h"
#include "fsdriver/directory_object.h"
#include "fsdriver/file_object.h"
#include "fsdriver/file_system_driver.h"
#include "fsdriver/iterator_object.h"
#include "loader/common/error_codes.h"

namespace driver_test {

constexpr std::uint32_t kDeviceError = 0x30008;  // any code that a device could answer

struct TransferRecord {
    std::uint32_t operation;
    std::uint64_t sector;
    std::uint64_t count;
};

class MemoryDisk : public Fdisk::SimpleDisk {
public:
    MemoryDisk(std::uint32_t sector_bytes, std::uint64_t sectors, bool* destroyed = nullptr)
        : bytes(sector_bytes * sectors), destroyed_(destroyed) {
        sector_size = sector_bytes;
        last_sector = sectors - 1;
        for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i * 7 + i / 512);
    }
    ~MemoryDisk() override {
        if (destroyed_ != nullptr) *destroyed_ = true;
    }

    Common::Error Transfer(std::uint32_t operation, std::uint64_t sector, void* buffer,
                           std::uint64_t count) override {
        log.push_back({operation, sector, count});
        if (count != 0 && reinterpret_cast<std::uintptr_t>(buffer) % sector_size != 0) ++unaligned;
        if (sector + count > last_sector + 1) return Common::Error(1, kDeviceError);
        std::size_t offset = sector * sector_size;
        std::size_t length = count * sector_size;
        switch (operation) {
        case Fdisk::kTransferRead:
            if (refuse_reads) return Common::Error(2, kDeviceError);
            std::memcpy(buffer, bytes.data() + offset, length);
            return Common::Error();
        case Fdisk::kTransferWrite:
            if (read_only) return Common::Error(3, kDeviceError);
            std::memcpy(bytes.data() + offset, buffer, length);
            return Common::Error();
        default:
            return Common::Error();
        }
    }

    std::size_t count_of(std::uint32_t operation) const {
        std::size_t n = 0;
        for (const auto& record : log) n += record.operation == operation;
        return n;
    }
    std::size_t reads() const { return count_of(Fdisk::kTransferRead); }
    std::size_t writes() const { return count_of(Fdisk::kTransferWrite); }
    unsigned char* sector(std::uint64_t n) { return bytes.data() + n * sector_size; }

    std::vector<unsigned char> bytes;
    std::vector<TransferRecord> log;
    bool refuse_reads = false;
    bool read_only = false;
    int unaligned = 0;

private:
    bool* destroyed_;
};

// Exposes the framework's operations and answers the pure ones plainly.
class PlainDriver : public FileSystemDriver {
public:
    PlainDriver(Fdisk::SimpleDisk* disk, std::uint64_t first, std::uint64_t sectors, std::uint32_t group = 0)
        : FileSystemDriver(disk, first, sectors, group) {}
    ~PlainDriver() override { dismount(); }

    rio_dir* open_root() override { return nullptr; }
    rio_dir* open_path(const char16_t*) override { return nullptr; }
    void space(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available) override {
        total = free = available = 0;
    }
    void label(char16_t* buffer, std::uint32_t) override { buffer[0] = 0; }
    int compare_identifiers(const file_identifier&, const file_identifier&) override { return 0; }
    DirectoryObject* open_directory(std::uint32_t) override { return nullptr; }
    const char* type_name() override { return "FAT32"; }
};

// A file in memory, which says what happened to it.
class MemoryFile : public FileSystemDriver::FileObject {
public:
    explicit MemoryFile(std::vector<std::string>* events) : events_(events) {}
    ~MemoryFile() override { events_->push_back("destroyed"); }
    std::uint64_t size() override { return data.size(); }
    std::uint64_t sector_at(std::uint64_t position) override { return 1000 + position / 512; }
    void read(void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& got) override {
        if (fail_reads) throw Common::Error(ERROR_TAG, Common::FILE_CORRUPT);
        if (ask_memory) std::get_new_handler()();
        got = position >= data.size() ? 0 : std::min<std::uint64_t>(size, data.size() - position);
        std::memcpy(buffer, data.data() + position, got);
    }
    void write(const void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& written) override {
        if (data.size() < position + size) data.resize(position + size);
        std::memcpy(&data[position], buffer, size);
        written = size;
    }
    void set_size(std::uint64_t size) override { data.resize(size); }
    void set_times(std::uint64_t, std::uint64_t, std::uint64_t) override { events_->push_back("times"); }
    void flush_file() override { events_->push_back("flush_file"); }

    std::string data;
    bool fail_reads = false;
    bool ask_memory = false;

private:
    std::vector<std::string>* events_;
};

[[noreturn]] inline void Raise(std::uint32_t code) { throw Common::Error(ERROR_TAG, code); }

// The volume's tree: node ids are directory ids; node 0 is the root.
struct Node {
    bool directory;
    std::map<std::u16string, std::uint32_t> entries;
};

class TreeEntry : public FileSystemDriver::IteratorObject {
public:
    TreeEntry(std::vector<Node>& nodes, std::map<std::u16string, std::uint32_t>::iterator at,
              std::map<std::u16string, std::uint32_t>::iterator end)
        : nodes_(nodes), at_(at), end_(end) {}
    bool next() override { return ++at_ != end_; }
    file_identifier* identifier() override { return new the_identifier(at_->first.c_str(), nullptr, 0); }
    std::u16string name() override { return at_->first; }
    std::uint64_t size() override { return 0; }
    std::uint64_t allocated_size() override { return 0; }
    std::uint32_t kind() override { return nodes_[at_->second].directory ? KIND_DIRECTORY : KIND_FILE; }
    file_time modified() override { return 0; }
    file_time created() override { return 0; }
    file_time accessed() override { return 0; }
    bool hidden() override { return false; }
    std::uint64_t object_id() override { return at_->second; }
    std::uint64_t first_sector() override { return 100 + at_->second; }

private:
    std::vector<Node>& nodes_;
    std::map<std::u16string, std::uint32_t>::iterator at_, end_;
};

class TreeDirectory : public FileSystemDriver::DirectoryObject {
public:
    TreeDirectory(FileSystemDriver* driver, std::uint32_t id, std::vector<Node>& nodes, int& lookups)
        : DirectoryObject(driver, id), nodes_(nodes), lookups_(lookups) {}

    Node& node() { return nodes_[id]; }
    FileSystemDriver::IteratorObject* begin() override {
        if (node().entries.empty()) return nullptr;
        return new TreeEntry(nodes_, node().entries.begin(), node().entries.end());
    }
    FileSystemDriver::IteratorObject* find(const std::u16string& name) override {
        auto at = node().entries.find(name);
        return at == node().entries.end() ? nullptr : new TreeEntry(nodes_, at, node().entries.end());
    }
    FileSystemDriver::IteratorObject* find(const file_identifier&) override { return nullptr; }
    std::uint32_t lookup_directory(const std::u16string& name) override {
        ++lookups_;
        auto at = node().entries.find(name);
        if (at == node().entries.end() || !nodes_[at->second].directory) Raise(Common::FILE_OPEN);
        return at->second;
    }
    FileSystemDriver::FileObject* open_file(const std::u16string& name) override {
        auto at = node().entries.find(name);
        if (at == node().entries.end() || nodes_[at->second].directory) Raise(Common::FILE_OPEN);
        return new MemoryFile(&events);
    }
    FileSystemDriver::FileObject* open_file(FileSystemDriver::IteratorObject&) override { Raise(Common::FILE_OPEN); }
    FileSystemDriver::FileObject* open_file(const file_identifier&) override { Raise(Common::FILE_OPEN); }
    FileSystemDriver::FileObject* create_file(const std::u16string&) override { Raise(Common::FILE_CREATE); }
    void remove_file(const std::u16string& name) override { node().entries.erase(name); }
    void remove_directory_entry(const std::u16string& name) override { node().entries.erase(name); }
    void make_directory(const std::u16string& name) override {
        nodes_.push_back(Node{true, {}});
        node().entries[name] = static_cast<std::uint32_t>(nodes_.size() - 1);
    }
    void rename_entry(const std::u16string& name, DirectoryObject& target, const std::u16string& new_name) override {
        std::uint32_t moved = node().entries.at(name);
        node().entries.erase(name);
        nodes_[target.id].entries[new_name] = moved;
    }
    void link_entry(const std::u16string& name, DirectoryObject& target, const std::u16string& new_name) override {
        nodes_[target.id].entries[new_name] = node().entries.at(name);
    }
    void symlink_entry(const std::u16string&, const std::u16string&) override { Raise(Common::FILE_UNSUPPORTED); }
    void set_attributes(const std::u16string&, std::uint32_t) override {}

public:
    std::vector<std::string> events;

private:
    std::vector<Node>& nodes_;
    int& lookups_;
};

template <typename Base>
class TreeDriverOf : public Base {
public:
    explicit TreeDriverOf(Fdisk::SimpleDisk* disk) : Base(disk, 0, 64, 0) { nodes.push_back(Node{true, {}}); }
    ~TreeDriverOf() override { this->dismount(); }

    void space(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available) override {
        total = free = available = 0;
    }
    void label(char16_t* buffer, std::uint32_t) override { buffer[0] = 0; }
    int compare_identifiers(const file_identifier&, const file_identifier&) override { return 0; }
    FileSystemDriver::DirectoryObject* open_directory(std::uint32_t id) override {
        ++opened;
        return new TreeDirectory(this, id, nodes, lookups);
    }
    const char* type_name() override { return "FAT16"; }

    // Makes the directories of a path, each under the one before.
    void make_path(const std::u16string& path) {
        std::uint32_t at = 0;
        std::size_t offset = 1;
        while (offset <= path.size()) {
            std::size_t end = path.find(u'/', offset);
            if (end == std::u16string::npos) end = path.size();
            std::u16string name = path.substr(offset, end - offset);
            if (nodes[at].entries.count(name) == 0) {
                nodes.push_back(Node{true, {}});
                nodes[at].entries[name] = static_cast<std::uint32_t>(nodes.size() - 1);
            }
            at = nodes[at].entries[name];
            offset = end + 1;
        }
    }
    void make_file(std::uint32_t directory, const std::u16string& name) {
        nodes.push_back(Node{false, {}});
        nodes[directory].entries[name] = static_cast<std::uint32_t>(nodes.size() - 1);
    }
    std::uint32_t id_of(const std::u16string& path) { return this->get_directory(path)->id; }

    std::vector<Node> nodes;
    int lookups = 0;
    int opened = 0;
};

// What a noting tree asks the test for when a backup or restore object is
// wanted: `what` says of which entry ("file:NAME", "dir:NAME", "dir:." for
// the directory itself). None refuses.
using BackupFactory = std::function<FileSystemDriver::BackupObject*(const std::string& what)>;
using RestoreFactory = std::function<FileSystemDriver::RestoreObject*(const std::string& what)>;

inline std::string NarrowText(const std::u16string& text) { return std::string(text.begin(), text.end()); }

// A file of the noting tree, which can be backed up and restored.
class NotingFile : public MemoryFile {
public:
    NotingFile(std::vector<std::string>* events, std::string what, const BackupFactory& backup,
               const RestoreFactory& restore)
        : MemoryFile(events), what_(std::move(what)), backup_(backup), restore_(restore) {}
    FileSystemDriver::BackupObject* new_backup_object(std::uint32_t) override { return backup_(what_); }
    FileSystemDriver::RestoreObject* new_restore_object(std::uint32_t) override { return restore_(what_); }

private:
    std::string what_;
    const BackupFactory& backup_;
    const RestoreFactory& restore_;
};

// A tree directory that notes the optional operations it is asked for, as
// "operation NAME args", and answers backups and restores by the factories.
class NotingDirectory : public TreeDirectory {
public:
    NotingDirectory(FileSystemDriver* driver, std::uint32_t id, std::vector<Node>& nodes, int& lookups,
                    std::vector<std::string>& notes, const BackupFactory& backup, const RestoreFactory& restore)
        : TreeDirectory(driver, id, nodes, lookups), nodes_(nodes), notes_(notes), backup_(backup), restore_(restore) {}

    void set_security(const std::u16string& name, const void* data, std::uint32_t size) override {
        notes_.push_back("security " + NarrowText(name) + " " + std::string(static_cast<const char*>(data), size));
    }
    void set_permissions(const std::u16string& name, std::uint32_t value) override {
        notes_.push_back("permissions " + NarrowText(name) + " " + std::to_string(value));
    }
    void set_owner(const std::u16string& name, std::uint32_t owner, std::uint32_t group) override {
        notes_.push_back("owner " + NarrowText(name) + " " + std::to_string(owner) + " " + std::to_string(group));
    }
    void set_times(const std::u16string& name, std::uint64_t modified, std::uint64_t created,
                   std::uint64_t accessed) override {
        notes_.push_back("times " + NarrowText(name) + " " + std::to_string(modified) + " " + std::to_string(created) +
                         " " + std::to_string(accessed));
    }
    void make_node(const std::u16string& name, std::uint32_t kind, std::uint32_t permissions, std::uint32_t major,
                   std::uint32_t minor) override {
        notes_.push_back("node " + NarrowText(name) + " " + std::to_string(kind) + " " + std::to_string(permissions) +
                         " " + std::to_string(major) + " " + std::to_string(minor));
    }
    void set_short_name(const std::u16string& name, const std::u16string& short_name) override {
        notes_.push_back("short " + NarrowText(name) + " " + NarrowText(short_name));
    }
    FileSystemDriver::FileObject* open_file(FileSystemDriver::IteratorObject& entry) override {
        return new NotingFile(&events, "file:" + NarrowText(entry.name()), backup_, restore_);
    }
    FileSystemDriver::FileObject* create_file(const std::u16string& name) override {
        nodes_.push_back(Node{false, {}});
        node().entries[name] = static_cast<std::uint32_t>(nodes_.size() - 1);
        notes_.push_back("create " + NarrowText(name));
        return new NotingFile(&events, "file:" + NarrowText(name), backup_, restore_);
    }
    FileSystemDriver::BackupObject* new_backup_object(FileSystemDriver::IteratorObject* entry,
                                                      std::uint32_t) override {
        return backup_("dir:" + std::to_string(id) + (entry == nullptr ? std::string() : "/" + NarrowText(entry->name())));
    }
    FileSystemDriver::RestoreObject* new_restore_object(std::uint32_t) override {
        return restore_("dir:" + std::to_string(id));
    }

private:
    std::vector<Node>& nodes_;
    std::vector<std::string>& notes_;
    const BackupFactory& backup_;
    const RestoreFactory& restore_;
};

// A tree driver whose directories note what they are asked, and which
// notes the request words that reach the driver itself.
template <typename Base>
class NotingTreeDriverOf : public TreeDriverOf<Base> {
public:
    using TreeDriverOf<Base>::TreeDriverOf;

    FileSystemDriver::DirectoryObject* open_directory(std::uint32_t id) override {
        ++this->opened;
        return new NotingDirectory(this, id, this->nodes, this->lookups, notes, backup, restore);
    }
    void control(void* block) override {
        char word[5] = {};
        std::memcpy(word, block, 4);
        notes.push_back(std::string("driver ") + word);
        FileSystemDriver::control(block);
    }
    bool supports_backup() override { return static_cast<bool>(backup); }
    bool supports_restore() override { return static_cast<bool>(restore); }

    std::vector<std::string> notes;
    BackupFactory backup;    // empty: backups unsupported
    RestoreFactory restore;  // empty: restores unsupported
};

// A mounted tree volume of one flavour that the test holds by one
// reference, as the loader does: /boot/grub, /boot/vmlinuz and one more
// directory of the test's choice.
template <typename Flavour>
struct NotingVolume {
    explicit NotingVolume(const char16_t* extra_directory)
        : disk(512, 64), driver(new NotingTreeDriverOf<Flavour>(&disk)) {
        ++driver->references;
        driver->make_path(u"/boot/grub");
        driver->make_path(extra_directory);
        driver->make_file(driver->nodes[0].entries[u"boot"], u"vmlinuz");
    }
    ~NotingVolume() { release(driver); }
    std::unique_ptr<rio_dir> root() { return std::unique_ptr<rio_dir>(driver->open_root()); }

    MemoryDisk disk;
    NotingTreeDriverOf<Flavour>* driver;
};

}  // namespace driver_test
