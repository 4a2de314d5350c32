#pragma once
// A position on one entry of a FAT directory. It pins its directory, so the
// held blocks it reads stay in memory while it lives. Names are decoded
// only when asked for.
#include <cstdint>
#include <string>

#include "fat/fat_directory.h"
#include "fsdriver/iterator_object.h"

class FATDriver::FATIterator : public FileSystemDriver::IteratorObject {
public:
    static constexpr std::uint32_t kBeforeFirst = 0xFFFFFFFF;
    static constexpr std::uint32_t kBehindLast = 0xFFFFFFFE;

    FATIterator(FATDirectory* directory, std::uint32_t index);
    ~FATIterator() override;
    FATIterator(const FATIterator&) = delete;
    FATIterator& operator=(const FATIterator&) = delete;

    bool next() override;
    file_identifier* identifier() override;
    std::u16string name() override;
    std::uint64_t size() override;
    std::uint64_t allocated_size() override;
    std::uint32_t kind() override;
    file_time modified() override;
    file_time created() override;
    file_time accessed() override;
    bool hidden() override;
    std::uint64_t object_id() override;
    std::uint64_t first_sector() override;
    std::u16string short_name() override;
    std::uint32_t attributes() override;

    FATDirectory* directory;
    std::uint32_t index;
    std::u16string short_text;
    std::u16string name_text;
    std::uint32_t name_state = 0;  // 0 not looked for, 1 no long name, 2 long name in name_text

private:
    bool on_entry() const { return index < directory->entry_count; }
    const DirEntry& current() { return directory->entry(index); }
    // Fills the texts on first demand.
    void load_long_name();
    const std::u16string& load_short_text();
};
