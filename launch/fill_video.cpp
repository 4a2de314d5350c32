#include "launch/fill_video.h"

#include "launch/boot_params.h"
#include "launch/pci_framebuffer.h"
#include "launch/video_memory.h"
#include "loader/common/raise.h"

namespace EfiLoader {

using Launch::kBelowFourGiB;
namespace {

constexpr std::uint32_t kWidestLine = 4096;
constexpr std::uint32_t kWidestPixel = 64;

// The colour the left column is painted with.
constexpr std::uint8_t kRed = 0x11;
constexpr std::uint8_t kGreen = 0x12;
constexpr std::uint8_t kBlue = 0x13;

// The bits of one colour field; empty for a field of size 0.
std::uint64_t FieldMask(ColourField field) {
    if (field.size == 0 || field.pos >= 64) return 0;
    std::uint64_t bits = field.size >= 64 ? ~std::uint64_t(0) : (std::uint64_t(1) << field.size) - 1;
    return bits << field.pos;
}

ColourField Red(const VideoRecord& r) { return {r.red_size, r.red_pos}; }
ColourField Green(const VideoRecord& r) { return {r.green_size, r.green_pos}; }
ColourField Blue(const VideoRecord& r) { return {r.blue_size, r.blue_pos}; }
ColourField Reserved(const VideoRecord& r) { return {r.rsvd_size, r.rsvd_pos}; }

bool InsidePixel(ColourField field, std::uint32_t depth) { return std::uint32_t(field.pos) + field.size <= depth; }

// The colour fields must describe one pixel of whole bytes, no wider than
// 64 bits, that they fill without overlap.
void CheckPixelFormat(const VideoRecord& record) {
    if (record.lfb_depth == 0 || record.lfb_base == 0) Common::Raise(ERROR_TAG, Common::Failures::VIDEO_BAD_FRAMEBUFFER);
    if (record.lfb_depth % 8 != 0) Common::Raise(ERROR_TAG, Common::Failures::VIDEO_BAD_PIXEL_FORMAT);
    if (record.red_size == 0 || record.green_size == 0 || record.blue_size == 0) {
        Common::Raise(ERROR_TAG, Common::Failures::VIDEO_BAD_FRAMEBUFFER);
    }
    const ColourField fields[] = {Red(record), Green(record), Blue(record), Reserved(record)};
    std::uint32_t bits = 0;
    for (ColourField field : fields) bits += field.size;
    if (bits != record.lfb_depth) Common::Raise(ERROR_TAG, Common::Failures::VIDEO_BAD_FRAMEBUFFER);
    for (ColourField field : fields) {
        if (field.size != 0 && !InsidePixel(field, record.lfb_depth)) {
            Common::Raise(ERROR_TAG, Common::Failures::VIDEO_BAD_FRAMEBUFFER);
        }
    }
    if (record.lfb_depth > kWidestPixel) Common::Raise(ERROR_TAG, Common::Failures::VIDEO_BAD_PIXEL_FORMAT);
    std::uint64_t taken = 0;
    for (ColourField field : fields) {
        std::uint64_t mask = FieldMask(field);
        if ((taken & mask) != 0) Common::Raise(ERROR_TAG, Common::Failures::VIDEO_BAD_FRAMEBUFFER);
        taken |= mask;
    }
}

// The record in the kernel's layout. The fields the loader does not fill
// are 0, as the protocol asks of fields a loader doesn't know.
void StoreScreenInfo(const VideoRecord& record, Launch::ScreenInfo& screen) {
    screen = Launch::ScreenInfo{};
    screen.ext_mem_k.set(record.ext_mem_k);
    screen.orig_video_isVGA = record.orig_video_isVGA;
    screen.lfb_width.set(record.lfb_width);
    screen.lfb_height.set(record.lfb_height);
    screen.lfb_depth.set(record.lfb_depth);
    screen.lfb_base.set(record.lfb_base);
    screen.lfb_size.set(record.lfb_size);
    screen.lfb_linelength.set(record.lfb_linelength);
    screen.red_size = record.red_size;
    screen.red_pos = record.red_pos;
    screen.green_size = record.green_size;
    screen.green_pos = record.green_pos;
    screen.blue_size = record.blue_size;
    screen.blue_pos = record.blue_pos;
    screen.rsvd_size = record.rsvd_size;
    screen.rsvd_pos = record.rsvd_pos;
}

}  // namespace

void FindLineLength(EfiVideo& video, VideoRecord& record) {
    std::uint32_t width = record.lfb_width;
    std::uint32_t height = record.lfb_height;
    video.FillRectangle(0, 0, width, height, 0, 0, 0, 0);
    video.FillRectangle(0, 0, 1, height, kRed, kGreen, kBlue, 0);
    std::uint64_t mask = FieldMask(Red(record)) | FieldMask(Green(record)) | FieldMask(Blue(record));
    if (width > kWidestLine) Common::Raise(ERROR_TAG, Common::Failures::VIDEO_BAD_FRAMEBUFFER);
    // CheckVideo has made sure of whole bytes; a record that skipped it must
    // not step by pixels of no bytes.
    if (record.lfb_depth < 8) Common::Raise(ERROR_TAG, Common::Failures::VIDEO_BAD_FRAMEBUFFER);

    std::uint64_t base = record.lfb_base;
    std::uint64_t reference = PhysicalU64(base) & mask;
    std::uint32_t pixel_bytes = record.lfb_depth / 8;
    if (height < 2) {
        record.lfb_linelength = static_cast<std::uint16_t>(width * pixel_bytes);
        return;
    }
    for (std::uint32_t trial = width; trial <= kWidestLine; ++trial) {
        std::uint64_t stride = std::uint64_t(trial) * pixel_bytes;
        std::uint64_t last_line = base + (height - 1) * stride;
        // Wider strides only reach further, and a line starting above 4 GiB
        // can't be in a framebuffer the record describes. (lfb_size is no
        // bound here: after a mode switch it still tells the old mode's.)
        if (last_line + pixel_bytes > kBelowFourGiB) break;
        bool every_line = true;
        for (std::uint32_t line = 1; line < height && every_line; ++line) {
            every_line = (PhysicalU64(base + line * stride) & mask) == reference;
        }
        if (every_line) {
            record.lfb_linelength = static_cast<std::uint16_t>(stride);
            return;
        }
    }
    Common::Raise(ERROR_TAG, Common::Failures::VIDEO_BAD_FRAMEBUFFER);
}

Common::Error CheckVideo(EfiVideo& video, VideoRecord& record) {
    try {
        video.Query(record);
        if (record.lfb_base == 0 || record.lfb_depth == 0 || record.red_size == 0 || record.green_size == 0 ||
            record.blue_size == 0) {
            DetectFramebuffer(video, record);
        }
        CheckPixelFormat(record);
        FindLineLength(video, record);
        record.orig_video_isVGA = kVideoTypeEfi;
        record.ext_mem_k = kExtendedMemoryK;
        record.lfb_size = std::uint32_t(record.lfb_height) * record.lfb_linelength;
        return Common::Success;
    } catch (const Common::Error& error) {
        return error;
    }
}

void FillVideo(std::uint8_t* params) {
    VideoRecord record{};
    EfiVideoGop gop;
    EfiVideoUga uga;
    EfiVideo* const protocols[] = {&gop, &uga};
    Common::Error failure;
    for (EfiVideo* video : protocols) {
        failure = CheckVideo(*video, record);
        if (!failure) break;
    }
    if (failure) throw failure;
    StoreScreenInfo(record, Launch::BootParamsAt(params).screen_info);
}

}  // namespace EfiLoader
