#pragma once
// The Linux boot parameter block ("zero page") as the x86 boot protocol
// lays it out: screen_info, efi_info, the setup header that the kernel file
// carries at 0x1F1, and the E820 table. The block begins as a copy of the
// kernel file's first sectors and goes to the kernel as it is, so every
// number in it is a little-endian field read and written through get() and
// set(). Parts the loader never touches stay byte arrays under the
// protocol's names, so that the offsets of the rest can be pinned.
#include <cstddef>
#include <cstdint>

#include "loader/common/byte_order.h"

namespace Launch {

// The boot protocol's fields and its 32-bit entry reach only the low 4 GiB;
// the kernel itself must lie below 1 GiB.
constexpr std::uint64_t kBelowOneGiB = 0x40000000;
constexpr std::uint64_t kBelowFourGiB = 0x100000000;

constexpr std::uint32_t kE820EntriesInParams = 128;

// screen_info: the framebuffer the kernel's console takes over.
struct ScreenInfo {
    std::uint8_t orig_x;              // 0x00
    std::uint8_t orig_y;              // 0x01
    Common::le16 ext_mem_k;           // 0x02
    Common::le16 orig_video_page;     // 0x04
    std::uint8_t orig_video_mode;     // 0x06
    std::uint8_t orig_video_cols;     // 0x07
    std::uint8_t flags;               // 0x08
    std::uint8_t unused2;             // 0x09
    Common::le16 orig_video_ega_bx;   // 0x0A
    Common::le16 unused3;             // 0x0C
    std::uint8_t orig_video_lines;    // 0x0E
    std::uint8_t orig_video_isVGA;    // 0x0F
    Common::le16 orig_video_points;   // 0x10
    Common::le16 lfb_width;           // 0x12
    Common::le16 lfb_height;          // 0x14
    Common::le16 lfb_depth;           // 0x16
    Common::le32 lfb_base;            // 0x18
    Common::le32 lfb_size;            // 0x1C
    Common::le16 cl_magic;            // 0x20
    Common::le16 cl_offset;           // 0x22
    Common::le16 lfb_linelength;      // 0x24
    std::uint8_t red_size;            // 0x26
    std::uint8_t red_pos;             // 0x27
    std::uint8_t green_size;          // 0x28
    std::uint8_t green_pos;           // 0x29
    std::uint8_t blue_size;           // 0x2A
    std::uint8_t blue_pos;            // 0x2B
    std::uint8_t rsvd_size;           // 0x2C
    std::uint8_t rsvd_pos;            // 0x2D
    Common::le16 vesapm_seg;          // 0x2E
    Common::le16 vesapm_off;          // 0x30
    Common::le16 pages;               // 0x32
    Common::le16 vesa_attributes;     // 0x34
    Common::le32 capabilities;        // 0x36
    Common::le32 ext_lfb_base;        // 0x3A
    unsigned char _reserved[2];       // 0x3E
};
static_assert(sizeof(ScreenInfo) == 64, "screen_info is 64 bytes");
static_assert(offsetof(ScreenInfo, ext_mem_k) == 0x02, "screen_info layout");
static_assert(offsetof(ScreenInfo, orig_video_isVGA) == 0x0F, "screen_info layout");
static_assert(offsetof(ScreenInfo, lfb_width) == 0x12, "screen_info layout");
static_assert(offsetof(ScreenInfo, lfb_base) == 0x18, "screen_info layout");
static_assert(offsetof(ScreenInfo, lfb_size) == 0x1C, "screen_info layout");
static_assert(offsetof(ScreenInfo, lfb_linelength) == 0x24, "screen_info layout");
static_assert(offsetof(ScreenInfo, red_size) == 0x26, "screen_info layout");
static_assert(offsetof(ScreenInfo, rsvd_pos) == 0x2D, "screen_info layout");
static_assert(offsetof(ScreenInfo, ext_lfb_base) == 0x3A, "screen_info layout");

// efi_info: where the kernel finds the firmware's tables and memory map.
// Addresses above 4 GiB are split into a low field and a _hi field.
struct EfiInfo {
    Common::le32 efi_loader_signature;  // 0x1C0
    Common::le32 efi_systab;            // 0x1C4
    Common::le32 efi_memdesc_size;      // 0x1C8
    Common::le32 efi_memdesc_version;   // 0x1CC
    Common::le32 efi_memmap;            // 0x1D0
    Common::le32 efi_memmap_size;       // 0x1D4
    Common::le32 efi_systab_hi;         // 0x1D8
    Common::le32 efi_memmap_hi;         // 0x1DC

    void SetSystemTable(std::uint64_t address) {
        efi_systab.set(static_cast<std::uint32_t>(address));
        efi_systab_hi.set(static_cast<std::uint32_t>(address >> 32));
    }
};
static_assert(sizeof(EfiInfo) == 32, "efi_info is 32 bytes");
static_assert(offsetof(EfiInfo, efi_systab_hi) == 0x18, "efi_info layout");

// The setup header (setup_header), as the kernel file brings it at 0x1F1.
// Offsets in the comments are those in the block.
struct SetupHeader {
    std::uint8_t setup_sects;             // 0x1F1
    Common::le16 root_flags;              // 0x1F2
    Common::le32 syssize;                 // 0x1F4
    Common::le16 ram_size;                // 0x1F8
    Common::le16 vid_mode;                // 0x1FA
    Common::le16 root_dev;                // 0x1FC
    Common::le16 boot_flag;               // 0x1FE
    unsigned char jump[2];                // 0x200: a short jump, EB and its offset
    Common::le32 header;                  // 0x202: "HdrS"
    Common::le16 version;                 // 0x206
    Common::le32 realmode_swtch;          // 0x208
    Common::le16 start_sys_seg;           // 0x20C
    Common::le16 kernel_version;          // 0x20E
    std::uint8_t type_of_loader;          // 0x210
    std::uint8_t loadflags;               // 0x211
    Common::le16 setup_move_size;         // 0x212
    Common::le32 code32_start;            // 0x214
    Common::le32 ramdisk_image;           // 0x218
    Common::le32 ramdisk_size;            // 0x21C
    Common::le32 bootsect_kludge;         // 0x220
    Common::le16 heap_end_ptr;            // 0x224
    std::uint8_t ext_loader_ver;          // 0x226
    std::uint8_t ext_loader_type;         // 0x227
    Common::le32 cmd_line_ptr;            // 0x228
    Common::le32 initrd_addr_max;         // 0x22C
    Common::le32 kernel_alignment;        // 0x230
    std::uint8_t relocatable_kernel;      // 0x234
    std::uint8_t min_alignment;           // 0x235
    Common::le16 xloadflags;              // 0x236
    Common::le32 cmdline_size;            // 0x238
    Common::le32 hardware_subarch;        // 0x23C
    Common::le64 hardware_subarch_data;   // 0x240
    Common::le32 payload_offset;          // 0x248
    Common::le32 payload_length;          // 0x24C
    Common::le64 setup_data;              // 0x250
    Common::le64 pref_address;            // 0x258
    Common::le32 init_size;               // 0x260
    Common::le32 handover_offset;         // 0x264
    Common::le32 kernel_info_offset;      // 0x268

    // The offset byte of the jump: the header ends that many bytes behind
    // `header`, and a kernel of an older protocol has a shorter header.
    std::uint8_t JumpOffset() const { return jump[1]; }

    // The setup part's size: (setup_sects + 1) sectors, with 0 sectors
    // standing for the historic 4.
    std::uint32_t SetupSize() const {
        std::uint32_t sectors = setup_sects != 0 ? setup_sects : 4;
        return (sectors + 1) * 512;
    }
};
static_assert(sizeof(SetupHeader) == 0x26C - 0x1F1, "setup_header up to kernel_info_offset");
static_assert(offsetof(SetupHeader, boot_flag) == 0x1FE - 0x1F1, "setup_header layout");
static_assert(offsetof(SetupHeader, jump) == 0x200 - 0x1F1, "setup_header layout");
static_assert(offsetof(SetupHeader, header) == 0x202 - 0x1F1, "setup_header layout");
static_assert(offsetof(SetupHeader, version) == 0x206 - 0x1F1, "setup_header layout");
static_assert(offsetof(SetupHeader, kernel_version) == 0x20E - 0x1F1, "setup_header layout");
static_assert(offsetof(SetupHeader, type_of_loader) == 0x210 - 0x1F1, "setup_header layout");
static_assert(offsetof(SetupHeader, code32_start) == 0x214 - 0x1F1, "setup_header layout");
static_assert(offsetof(SetupHeader, heap_end_ptr) == 0x224 - 0x1F1, "setup_header layout");
static_assert(offsetof(SetupHeader, cmd_line_ptr) == 0x228 - 0x1F1, "setup_header layout");
static_assert(offsetof(SetupHeader, kernel_alignment) == 0x230 - 0x1F1, "setup_header layout");
static_assert(offsetof(SetupHeader, relocatable_kernel) == 0x234 - 0x1F1, "setup_header layout");
static_assert(offsetof(SetupHeader, setup_data) == 0x250 - 0x1F1, "setup_header layout");
static_assert(offsetof(SetupHeader, init_size) == 0x260 - 0x1F1, "setup_header layout");

// One entry of the E820 memory map (boot_e820_entry).
struct E820Entry {
    Common::le64 addr;
    Common::le64 size;
    Common::le32 type;

    std::uint64_t End() const { return addr.get() + size.get(); }
};
static_assert(sizeof(E820Entry) == 20, "E820 entries are 20 bytes");
static_assert(offsetof(E820Entry, type) == 16, "E820 entry layout");

// A setup_data node: one link of the kernel's list of further boot data,
// `len` bytes of data behind these 16.
struct SetupData {
    Common::le64 next;
    Common::le32 type;
    Common::le32 len;
};
static_assert(sizeof(SetupData) == 16, "setup_data header is 16 bytes");
static_assert(offsetof(SetupData, len) == 12, "setup_data layout");

// The whole block (boot_params).
struct BootParams {
    ScreenInfo screen_info;                         // 0x000
    unsigned char apm_bios_info[20];                // 0x040
    unsigned char _pad2[4];                         // 0x054
    Common::le64 tboot_addr;                        // 0x058
    unsigned char ist_info[16];                     // 0x060
    Common::le64 acpi_rsdp_addr;                    // 0x070
    unsigned char _pad3[8];                         // 0x078
    unsigned char hd0_info[16];                     // 0x080
    unsigned char hd1_info[16];                     // 0x090
    unsigned char sys_desc_table[16];               // 0x0A0
    unsigned char olpc_ofw_header[16];              // 0x0B0
    Common::le32 ext_ramdisk_image;                 // 0x0C0
    Common::le32 ext_ramdisk_size;                  // 0x0C4
    Common::le32 ext_cmd_line_ptr;                  // 0x0C8
    unsigned char _pad4[112];                       // 0x0CC
    Common::le32 cc_blob_address;                   // 0x13C
    unsigned char edid_info[128];                   // 0x140
    EfiInfo efi_info;                               // 0x1C0
    Common::le32 alt_mem_k;                         // 0x1E0
    Common::le32 scratch;                           // 0x1E4
    std::uint8_t e820_entries;                      // 0x1E8
    std::uint8_t eddbuf_entries;                    // 0x1E9
    std::uint8_t edd_mbr_sig_buf_entries;           // 0x1EA
    std::uint8_t kbd_status;                        // 0x1EB
    std::uint8_t secure_boot;                       // 0x1EC
    unsigned char _pad5[2];                         // 0x1ED
    std::uint8_t sentinel;                          // 0x1EF
    unsigned char _pad6[1];                         // 0x1F0
    SetupHeader hdr;                                // 0x1F1
    unsigned char _pad7[0x290 - 0x26C];             // 0x26C
    Common::le32 edd_mbr_sig_buffer[16];            // 0x290
    E820Entry e820_table[kE820EntriesInParams];     // 0x2D0
    unsigned char _pad8[48];                        // 0xCD0
    unsigned char eddbuf[6 * 82];                   // 0xD00
    unsigned char _pad9[276];                       // 0xEEC
};
static_assert(sizeof(BootParams) == 0x1000, "boot_params is one page");
static_assert(offsetof(BootParams, efi_info) == 0x1C0, "boot_params layout");
static_assert(offsetof(BootParams, alt_mem_k) == 0x1E0, "boot_params layout");
static_assert(offsetof(BootParams, e820_entries) == 0x1E8, "boot_params layout");
static_assert(offsetof(BootParams, hdr) == 0x1F1, "boot_params layout");
static_assert(offsetof(BootParams, edd_mbr_sig_buffer) == 0x290, "boot_params layout");
static_assert(offsetof(BootParams, e820_table) == 0x2D0, "boot_params layout");
static_assert(offsetof(BootParams, eddbuf) == 0xD00, "boot_params layout");

// The block at `bytes`. Its fields are bare bytes of alignment 1, so any
// address serves.
inline BootParams& BootParamsAt(std::uint8_t* bytes) { return *reinterpret_cast<BootParams*>(bytes); }

// The block read at the raw offsets the protocol's tables give. This is for
// readers that check or print what a kernel was handed against those
// tables (the host tool's report, the tests), independently of the records
// above; the loader itself goes through the records.
class ByteArea {
public:
    explicit ByteArea(std::uint8_t* bytes) : bytes_(bytes) {}
    std::uint8_t U8(std::uint32_t offset) const { return bytes_[offset]; }
    std::uint16_t U16(std::uint32_t offset) const { return Common::LoadLE16(bytes_ + offset); }
    std::uint32_t U32(std::uint32_t offset) const { return Common::LoadLE32(bytes_ + offset); }
    std::uint64_t U64(std::uint32_t offset) const { return Common::LoadLE64(bytes_ + offset); }
    std::uint8_t* At(std::uint32_t offset) const { return bytes_ + offset; }

private:
    std::uint8_t* bytes_;
};

}  // namespace Launch
