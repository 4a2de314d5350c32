#include "launch/fill_video.h"

#include <cstring>

#include "launch/pci_framebuffer.h"
#include "launch/video_memory.h"
#include "launch/boot_params.h"
#include "loader/common/error_codes.h"
#include "loader/common/messages.h"

namespace EfiLoader {

using Launch::kBelowFourGiB;
namespace {

constexpr std::uint32_t kWidestLine = 4096;
constexpr std::uint32_t kWidestPixel = 64;

// The colour the left column is painted with.
constexpr std::uint8_t kRed = 0x11;
constexpr std::uint8_t kGreen = 0x12;
constexpr std::uint8_t kBlue = 0x13;

[[noreturn]] void BadFramebuffer(std::uint64_t tag) {
    throw Common::Error(tag, Common::VIDEO_BAD_FRAMEBUFFER, Common::Messages::VIDEO_BAD_FRAMEBUFFER);
}
[[noreturn]] void BadPixelFormat(std::uint64_t tag) {
    throw Common::Error(tag, Common::VIDEO_BAD_PIXEL_FORMAT, Common::Messages::VIDEO_BAD_PIXEL_FORMAT);
}

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
    if (record.lfb_depth == 0 || record.lfb_base == 0) BadFramebuffer(ERROR_TAG);
    if (record.lfb_depth % 8 != 0) BadPixelFormat(ERROR_TAG);
    if (record.red_size == 0 || record.green_size == 0 || record.blue_size == 0) BadFramebuffer(ERROR_TAG);
    const ColourField fields[] = {Red(record), Green(record), Blue(record), Reserved(record)};
    std::uint32_t bits = 0;
    for (ColourField field : fields) bits += field.size;
    if (bits != record.lfb_depth) BadFramebuffer(ERROR_TAG);
    for (ColourField field : fields) {
        if (field.size != 0 && !InsidePixel(field, record.lfb_depth)) BadFramebuffer(ERROR_TAG);
    }
    if (record.lfb_depth > kWidestPixel) BadPixelFormat(ERROR_TAG);
    std::uint64_t taken = 0;
    for (ColourField field : fields) {
        std::uint64_t mask = FieldMask(field);
        if ((taken & mask) != 0) BadFramebuffer(ERROR_TAG);
        taken |= mask;
    }
}

}  // namespace

void FindLineLength(EfiVideo& video, VideoRecord& record) {
    std::uint32_t width = record.lfb_width;
    std::uint32_t height = record.lfb_height;
    video.FillRectangle(0, 0, width, height, 0, 0, 0, 0);
    video.FillRectangle(0, 0, 1, height, kRed, kGreen, kBlue, 0);
    std::uint64_t mask = FieldMask(Red(record)) | FieldMask(Green(record)) | FieldMask(Blue(record));
    if (width > kWidestLine) BadFramebuffer(ERROR_TAG);
    // CheckVideo has made sure of whole bytes; a record that skipped it must
    // not step by pixels of no bytes.
    if (record.lfb_depth < 8) BadFramebuffer(ERROR_TAG);

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
    BadFramebuffer(ERROR_TAG);
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
    std::memcpy(params, &record, sizeof(record));
}

}  // namespace EfiLoader
