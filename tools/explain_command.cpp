// morvane explain: what a code of the loader's report means. The console
// text is the one the loader's own catalogue and error classes build, so it
// cannot drift from what a machine shows.
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "loader/common/raise.h"
#include "loader/common/resizer_errors.h"
#include "tools/command.h"
#include "tools/error_names.h"
#include "tools/host_text.h"

namespace MorvaneTool {
namespace {

const char kUsage[] =
    "Usage: morvane explain CODE\n"
    "       morvane explain --all\n"
    "\n"
    "Tells what a code of the loader's report means: its name, the text the\n"
    "loader prints with it, and what usually causes it. CODE is decimal as the\n"
    "report prints it (262161), hexadecimal (0x40011) or a name (FILE_NOT_FOUND).\n"
    "--all explains every code the loader can report, one after the other,\n"
    "each followed by an empty line.\n"
    "Exit status: 0 explained, 1 no such code, 2 usage error.\n";

// What a person should look at first; written for the codes that an
// integrator meets while trying a configuration.
const char kFileMissing[] =
    "a path of the document (Kernel, Ramdisk, a chain-loaded image) names no file on its volume: check "
    "its spelling and separators, and that the GPT Guid names the partition that holds it";
const char kFileRead[] = "the volume could not give the file's bytes: a damaged volume or a failing disk; run the "
                         "volume's checker (fsck.fat -n, e2fsck -fn)";
const char kFileWrite[] = "the loader could not change a file: the volume is full, held read-only, or damaged";
const char kNoMemory[] =
    "the firmware has too little memory left below 4 GiB for the kernel, the ramdisk or the loader's own "
    "tables: a very large ramdisk, or a machine with little memory";
const char kFileFeature[] =
    "the driver does not read this feature of the volume or file (an ext4 feature it refuses, an encrypted "
    "or compressed file): copy the files to a volume without it";
const char kDiskFamily[] =
    "the firmware's block device answered with this status while the loader read a disk: a removed, "
    "failing or unreadable medium, or a firmware that refuses the request";
const char kDiskNotFound[] =
    "the firmware found nothing: most often no partition has the Guid of the document's GPT element (use "
    "the partition's unique GUID, 'Partition unique GUID' in sgdisk -i N, not its type GUID)";
const char kKernelCorrupt[] =
    "the Kernel file is not a bzImage or is cut short: no 0xAA55 boot flag or HdrS signature, or sizes in "
    "its header that the file cannot hold (an ELF vmlinux, a packed file, an incomplete copy)";
const char kKernelUnsupported[] =
    "the kernel is a bzImage this loader cannot start: boot protocol older than 2.10, not loaded high, or "
    "not relocatable; use a current distribution kernel";
const char kNoDisplay[] =
    "the machine offers no graphics mode the loader can hand to the kernel (a serial-only machine, "
    "morvane boot --no-display): the kernel cannot be booted without a linear framebuffer";
const char kBadFramebuffer[] = "the display mode's framebuffer is not one a kernel can draw on: choose another "
                               "mode in the firmware setup, or another display adapter";
const char kFirmware[] = "the firmware answered something it should not (no loaded image, a key it could not "
                         "read, a memory map it would not give): an unusual or faulty firmware";
const char kBadDocument[] =
    "the configuration document was refused: a missing element or attribute (Kernel without Path, Entry "
    "without Key), a bad Guid, a key used twice, a Delay without a default entry, an empty root; 'morvane "
    "conf check FILE' shows where";
const char kNotMounted[] =
    "the partition of the document's GPT Guid was found, but no driver of the loader mounts it (no file "
    "system, or one the loader does not read), or the file named on it could not be opened there";
const char kVariables[] = "the firmware's variables or boot entries are not as the loader expects: an entry "
                          "missing, damaged, or of another kind; 'morvane vars FILE' lists them";
const char kVolumeStructures[] =
    "the volume's structures are damaged or use a form the driver does not handle; run the file system's "
    "checker (fsck.fat -n, e2fsck -fn, ntfsfix -n, fsck.hfsplus -n)";

struct Explanation {
    std::uint32_t code;
    // Builds the error as the loader raises it, for its text.
    Common::Error (*make)();
    const char* cause;
    const char* note;  // how the text varies, where it does
};

const char kNoText[] = "none: the report shows '' and only the code and tag tell it apart";
const char kAlsoWithoutText[] = "the FAT driver also raises it without text, shown as ''";
const char kSiteText[] = "an English text written at the place that raised it";

#define CATALOGUE(symbol, cause, note) \
    {Common::symbol, [] { return Common::Error(0, Common::Failures::symbol.code, *Common::Failures::symbol.text); }, cause, note}
#define TYPED(symbol, type) {Common::symbol, [] { return Common::Error(resizer::type(0)); }, kVolumeStructures, nullptr}
#define PLAIN(symbol, cause, note) {Common::symbol, [] { return Common::Error(0, Common::symbol); }, cause, note}

const Explanation kExplanations[] = {
    CATALOGUE(FILE_READ, kFileRead, nullptr),
    CATALOGUE(FILE_EOF, "a file ends before the size its header or directory entry tells: an incomplete copy", nullptr),
    CATALOGUE(FILE_WRITE, kFileWrite, nullptr),
    CATALOGUE(FILE_DISK_FULL, kFileWrite, kAlsoWithoutText),
    CATALOGUE(FILE_SEEK, kFileRead, nullptr),
    CATALOGUE(FILE_NO_MEMORY, kNoMemory, nullptr),
    CATALOGUE(FILE_OPEN, "the firmware could not open a file of the loader's own volume: the path is missing or "
                         "names a folder, or the volume offers no file system",
              nullptr),
    CATALOGUE(FILE_DELETE, kFileWrite, nullptr),
    CATALOGUE(FILE_RENAME, kFileWrite, nullptr),
    CATALOGUE(FILE_CREATE, kFileWrite, nullptr),
    CATALOGUE(FILE_READ_ONLY, kFileWrite, nullptr),
    CATALOGUE(FILE_CORRUPT, kVolumeStructures, nullptr),
    CATALOGUE(FILE_UNSUPPORTED, kFileFeature, nullptr),
    CATALOGUE(FILE_CANCELLED, "the operation was cancelled before it ended", nullptr),
    CATALOGUE(FILE_BUSY, kFileWrite, nullptr),
    CATALOGUE(FILE_NOT_FOUND, kFileMissing, kAlsoWithoutText),
    CATALOGUE(FILE_EXISTS, "a file or folder of that name is already there", nullptr),
    CATALOGUE(FILE_ACCESS_DENIED, kFileWrite, nullptr),
    CATALOGUE(FILE_LOCK, kFileWrite, nullptr),
    CATALOGUE(FILE_BACKUP, kVolumeStructures, nullptr),
    CATALOGUE(FILE_DECRYPT, kFileFeature, nullptr),
    PLAIN(RESIZER_INTERNAL, kVolumeStructures, kSiteText),
    TYPED(RESIZER_NOT_ENOUGH_MEMORY, NotEnoughMemory), TYPED(RESIZER_READ_ERROR, ReadError),
    TYPED(RESIZER_WRITE_ERROR, WriteError), TYPED(RESIZER_INVALID_FILE_SYSTEM, InvalidFileSystem),
    TYPED(RESIZER_INVALID_PARTITION_SIZE, InvalidPartitionSize), TYPED(RESIZER_FORMAT_IMPOSSIBLE, FormatImpossible),
    TYPED(RESIZER_RESIZE_IMPOSSIBLE, ResizeImpossible), TYPED(RESIZER_UNABLE_TO_SET_VOLUME_LABEL, UnableToSetVolumeLabel),
    TYPED(RESIZER_UNSUPPORTED_FS_VERSION, UnsupportedFSVersion), TYPED(RESIZER_CORRUPT_FAT, CorruptFAT),
    TYPED(RESIZER_CORRUPT_DIRECTORY, CorruptDirectory), TYPED(RESIZER_INVALID_FILE_SIZE, InvalidFileSize),
    TYPED(RESIZER_UNSUPPORTED_FS, UnsupportedFS), TYPED(RESIZER_CORRUPT_GROUP_DESCRIPTOR, CorruptGroupDescriptor),
    TYPED(RESIZER_CORRUPT_INODE, CorruptInode), TYPED(RESIZER_INCONSISTENT_LINK_COUNT, InconsistentLinkCount),
    TYPED(RESIZER_INVALID_BLOCK_LIST, InvalidBlockList), TYPED(RESIZER_DISK_FULL, DiskFull),
    TYPED(RESIZER_CORRUPT_BLOCK_BITMAP, CorruptBlockBitmap), TYPED(RESIZER_CORRUPT_INODE_BITMAP, CorruptInodeBitmap),
    TYPED(RESIZER_CORRUPT_MFT_BITMAP, CorruptMFTBitmap), TYPED(RESIZER_CORRUPT_FILE_RECORD, CorruptFileRecord),
    TYPED(RESIZER_INVALID_FILE_REFERENCE, InvalidFileReference),
    TYPED(RESIZER_CORRUPT_ATTRIBUTE_LIST, CorruptAttributeList), TYPED(RESIZER_CORRUPT_RUN_LIST, CorruptRunList),
    TYPED(RESIZER_CORRUPT_NODE, CorruptNode), TYPED(RESIZER_UNFINISHED_TRANSACTIONS, UnfinishedTransactions),
    TYPED(RESIZER_UNSUPPORTED_IMAGE_VERSION, UnsupportedImageVersion), TYPED(RESIZER_CORRUPT_IMAGE, CorruptImage),
    TYPED(RESIZER_SNAPSHOT_ERROR, SnapshotError), TYPED(RESIZER_CANCELED, Canceled),
    TYPED(RESIZER_BAD_BLOCKS, BadBlocks), TYPED(RESIZER_MERGE_IMPOSSIBLE, MergeImpossible),
    TYPED(RESIZER_CORRUPT_INDEX, CorruptIndex), TYPED(RESIZER_LIMIT_OF_32_BIT, LimitOf32Bit),
    TYPED(RESIZER_ENCRYPTION_ERROR, EncryptionError), TYPED(RESIZER_DEDUP_INVALID, DedupInvalid),
    TYPED(RESIZER_DISK_QUOTA_OVERFLOW, DiskQuotaOverflow), TYPED(RESIZER_NOTHING_TO_BACKUP, NothingToBackup),
    TYPED(RESIZER_ERROR_IN_SUPERBLOCK, ErrorInSuperblock), TYPED(RESIZER_RESIZE_REQUIRED, ResizeRequired),
    CATALOGUE(DISK_LOAD_ERROR, kDiskFamily, nullptr), CATALOGUE(DISK_INVALID_PARAMETER, kDiskFamily, nullptr),
    CATALOGUE(DISK_UNSUPPORTED, kDiskFamily, nullptr), CATALOGUE(DISK_BAD_BUFFER_SIZE, kDiskFamily, nullptr),
    CATALOGUE(DISK_BUFFER_TOO_SMALL, kDiskFamily, nullptr), CATALOGUE(DISK_NOT_READY, kDiskFamily, nullptr),
    CATALOGUE(DISK_DEVICE_ERROR, kDiskFamily, nullptr), CATALOGUE(DISK_WRITE_PROTECTED, kDiskFamily, nullptr),
    CATALOGUE(DISK_OUT_OF_RESOURCES, kDiskFamily, nullptr), CATALOGUE(DISK_VOLUME_CORRUPTED, kDiskFamily, nullptr),
    CATALOGUE(DISK_VOLUME_FULL, kDiskFamily, nullptr), CATALOGUE(DISK_NO_MEDIA, kDiskFamily, nullptr),
    CATALOGUE(DISK_MEDIA_CHANGED, kDiskFamily, nullptr), CATALOGUE(DISK_NOT_FOUND, kDiskNotFound, nullptr),
    CATALOGUE(DISK_ACCESS_DENIED, kDiskFamily, nullptr), CATALOGUE(DISK_NO_RESPONSE, kDiskFamily, nullptr),
    CATALOGUE(DISK_NO_MAPPING, kDiskFamily, nullptr), CATALOGUE(DISK_TIMEOUT, kDiskFamily, nullptr),
    CATALOGUE(DISK_NOT_STARTED, kDiskFamily, nullptr), CATALOGUE(DISK_ALREADY_STARTED, kDiskFamily, nullptr),
    CATALOGUE(DISK_ABORTED, kDiskFamily, nullptr), CATALOGUE(DISK_ICMP_ERROR, kDiskFamily, nullptr),
    CATALOGUE(DISK_TFTP_ERROR, kDiskFamily, nullptr), CATALOGUE(DISK_PROTOCOL_ERROR, kDiskFamily, nullptr),
    CATALOGUE(DISK_WARN_UNKNOWN_GLYPH, kDiskFamily, nullptr), CATALOGUE(DISK_WARN_DELETE_FAILURE, kDiskFamily, nullptr),
    CATALOGUE(DISK_WARN_WRITE_FAILURE, kDiskFamily, nullptr),
    CATALOGUE(DISK_WARN_BUFFER_TOO_SMALL, kDiskFamily, nullptr),
    CATALOGUE(DISK_UNKNOWN_STATUS, kDiskFamily, nullptr), CATALOGUE(DISK_BAD_OPERATION, kDiskFamily, nullptr),
    CATALOGUE(DISK_INDEX_RANGE, kDiskFamily, nullptr),
    CATALOGUE(DISK_OPEN, "a disk the loader needs could not be opened through the firmware", nullptr),
    PLAIN(UEFI_VARIABLE_IO, kVariables, kNoText), PLAIN(UEFI_NO_VALUE, kVariables, kNoText),
    PLAIN(UEFI_BAD_LOAD_OPTION, kVariables, kNoText), PLAIN(UEFI_WRONG_SIGNATURE_KIND, kVariables, kNoText),
    PLAIN(UEFI_ENTRY_NOT_FOUND, kVariables, kNoText),
    CATALOGUE(EFI_INTERNAL, kFirmware, nullptr),
    CATALOGUE(KERNEL_CORRUPT, kKernelCorrupt, nullptr),
    CATALOGUE(KERNEL_UNSUPPORTED, kKernelUnsupported, nullptr),
    CATALOGUE(VIDEO_NOT_DETECTED, kNoDisplay, nullptr),
    CATALOGUE(VIDEO_NOT_LINEAR, kBadFramebuffer, nullptr),
    CATALOGUE(VIDEO_BAD_FRAMEBUFFER, kBadFramebuffer, nullptr),
    CATALOGUE(VIDEO_BAD_PIXEL_FORMAT, kBadFramebuffer, nullptr),
    PLAIN(VOLUME_NOT_MOUNTED, kNotMounted, kNoText),
    PLAIN(BAD_CONFIGURATION, kBadDocument, kNoText),
};
#undef CATALOGUE
#undef TYPED
#undef PLAIN

bool SameName(const char* name, const std::string& asked) {
    if (std::strlen(name) != asked.size()) return false;
    for (std::size_t i = 0; i < asked.size(); ++i) {
        if (std::toupper(static_cast<unsigned char>(asked[i])) != name[i]) return false;
    }
    return true;
}

// A number as the report prints it (decimal) or as the sources write it
// (0x...), or a symbol; nothing else, so a typo is not read as a code.
const Explanation* FindExplanation(const std::string& asked) {
    if (asked.empty()) return nullptr;
    const bool hex = asked.size() > 2 && asked[0] == '0' && (asked[1] == 'x' || asked[1] == 'X');
    if (hex || std::isdigit(static_cast<unsigned char>(asked[0]))) {
        char* end = nullptr;
        unsigned long long value = std::strtoull(asked.c_str(), &end, hex ? 16 : 10);
        if (*end != 0 || value > 0xFFFFFFFFull) return nullptr;
        for (const Explanation& row : kExplanations) {
            if (row.code == value) return &row;
        }
        return nullptr;
    }
    for (const Explanation& row : kExplanations) {
        if (SameName(ErrorName(row.code), asked)) return &row;
    }
    return nullptr;
}

void PrintExplanation(const Explanation& row) {
    Common::Error error = row.make();
    std::printf("%s: code %u (0x%X)\n", ErrorName(row.code), row.code, row.code);
    const std::u16string text = error.Message();
    if (!text.empty()) {
        std::printf("console text: '%s'%s%s\n", VolumeTextToHost(text).c_str(), row.note ? "; " : "", row.note ? row.note : "");
    } else {
        std::printf("console text: %s\n", row.note ? row.note : kNoText);
    }
    std::printf("usual cause: %s\n", row.cause);
}

}  // namespace

int RunExplainCommand(int argc, char** argv) {
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::fputs(kUsage, stdout);
        return kExitOk;
    }
    if (argc != 2) return UsageProblem("explain", "expected one CODE", kUsage);
    if (std::strcmp(argv[1], "--all") == 0) {
        for (const Explanation& row : kExplanations) {
            PrintExplanation(row);
            std::putchar('\n');
        }
        return kExitOk;
    }
    const Explanation* row = FindExplanation(argv[1]);
    if (row == nullptr) {
        std::fprintf(stderr, "morvane explain: '%s' is no code the loader reports\n", argv[1]);
        return kExitRefused;
    }
    PrintExplanation(*row);
    return kExitOk;
}

}  // namespace MorvaneTool
