#pragma once
// The backup of one ext inode: a fixed series of typed streams that the
// framework's "BKUP" request reads one area at a time. Kind 1 the
// attributes word, 6 the POSIX record (owner, mode, device, link target),
// 7 the extended attributes, 2 the contents as a Win32 backup stream with
// its holes left out, 5 the times. There is no restore for ext.
//
// Each read is a step of its own under the file lock, which the framework
// lets go between them: the object keeps where it stands (the stretch of
// blocks, the attribute position) and finds its place again from that.
#include <cstdint>

#include "extfs/extfs_driver.h"
#include "extfs/extfs_inode_cache.h"
#include "fsdriver/backup_object.h"

namespace extfs {

class ExtfsBackupObject : public FileSystemDriver::BackupObject {
public:
    // The stream kinds, in the order they come.
    static constexpr std::uint32_t kAttributesWord = 1;
    static constexpr std::uint32_t kPosixRecord = 6;
    static constexpr std::uint32_t kExtendedAttributes = 7;
    static constexpr std::uint32_t kContents = 2;
    static constexpr std::uint32_t kTimes = 5;
    // Option bit: the file's contents are left out.
    static constexpr std::uint32_t kLeaveOutContents = 4;

    ExtfsBackupObject(ExtfsDriver* driver, InodeRef inode, std::uint32_t option);

    std::uint64_t read(void* area) override;

    ExtfsDriver* driver;
    InodeRef inode;
    std::uint32_t option;
    // Kind 2: logical blocks [run_start, run_end) of the stretch still to
    // go; `header_due` while nothing of it went out yet. The size is the
    // one the headers told, so that data and headers agree.
    std::uint64_t run_start = 0;
    std::uint64_t run_end = 0;
    bool header_due = false;
    std::uint64_t contents_size = 0;
    // Kind 7: the area in work (0 inside the inode, 1 the attribute block)
    // and the byte of the next entry in it.
    std::uint32_t attribute_area = 0;
    std::uint64_t attribute_position = 0;
    // Bytes written in this read.
    std::uint64_t output_used = 0;

private:
    // On to the next kind of the fixed order, past those this inode hasn't.
    void next_piece();
    std::uint64_t read_attributes_word(unsigned char* out);
    std::uint64_t read_posix_record(unsigned char* out);
    std::uint64_t read_times(unsigned char* out);
    // backup_attributes.cpp
    bool has_attributes() const;
    std::uint64_t read_extended_attributes(unsigned char* out);
    // backup_contents.cpp
    void start_contents();
    // The next stretch of mapped blocks from `block` on into run_start and
    // run_end; false when only holes are left before the end.
    bool find_stretch(std::uint64_t block);
    std::uint64_t read_contents(unsigned char* out);
    void read_stretch_blocks(unsigned char* out, std::uint64_t count);
};

}  // namespace extfs
