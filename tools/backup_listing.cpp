#include "tools/backup_listing.h"

#include <algorithm>

#include "files/utf_conversion.h"
#include "loader/common/byte_order.h"
#include "tools/fs_operations.h"

namespace MorvaneTool {
namespace {

constexpr std::size_t kWin32HeaderSize = 20;
constexpr std::size_t kAttributeHeaderSize = 10;  // u16 name length, u64 value size
constexpr std::uint32_t kSparseBlock = 9;
constexpr std::uint32_t kSparseAttribute = 8;
constexpr std::size_t kKeptStart = 64;

std::string Win32StreamName(std::uint32_t id, const std::string& name) {
    switch (id) {
        case 1: return "data";
        case 2: return "extended attributes";
        case 3: return "security descriptor";
        case 4: return "data:" + name;
        case 5: return "hard link";
        case 7: return "object id";
        case 8: return "reparse point";
        case kSparseBlock: return name.empty() ? "data" : "data:" + name;
        default: return "stream id " + std::to_string(id);
    }
}

std::string Utf16Name(const std::vector<unsigned char>& bytes) {
    std::u16string name;
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
        name.push_back(static_cast<char16_t>(Common::LoadLE16(&bytes[i])));
    }
    return HostText(name);
}

}  // namespace

void PieceLister::Begin(std::uint32_t kind) {
    kind_ = kind;
    piece_size_ = 0;
    start_.clear();
    step_ = Step::kHeader;
    gathered_.clear();
    wanted_ = kind == 2 ? kWin32HeaderSize : kAttributeHeaderSize;
}

void PieceLister::Feed(const unsigned char* bytes, std::uint64_t size) {
    piece_size_ += size;
    if (start_.size() < kKeptStart) {
        std::size_t keep = static_cast<std::size_t>(std::min<std::uint64_t>(size, kKeptStart - start_.size()));
        start_.insert(start_.end(), bytes, bytes + keep);
    }
    if (!Records()) return;
    while (size > 0) {
        std::uint64_t take = std::min(size, wanted_);
        if (step_ != Step::kSkip) gathered_.insert(gathered_.end(), bytes, bytes + take);
        bytes += take;
        size -= take;
        wanted_ -= take;
        if (wanted_ == 0) Gathered();
    }
}

// One step of a record is complete: decide what comes next.
void PieceLister::Gathered() {
    switch (step_) {
        case Step::kHeader:
            if (kind_ == 2) AfterWin32Header(); else AfterAttributeHeader();
            break;
        case Step::kName:
            if (kind_ == 2) {
                record_name_ = Utf16Name(gathered_);
                if (stream_id_ == kSparseBlock && record_size_ >= 8) {
                    step_ = Step::kPosition;
                    wanted_ = 8;
                    break;
                }
                ShowWin32Stream(0);
            } else {
                record_name_.assign(gathered_.begin(), gathered_.end());
                if (names_end_with_zero_ && !record_name_.empty()) record_name_.pop_back();
                Line(record_name_, record_size_);
            }
            step_ = Step::kSkip;
            wanted_ = record_size_;
            break;
        case Step::kPosition:
            ShowWin32Stream(Common::LoadLE64(gathered_.data()));
            step_ = Step::kSkip;
            wanted_ = record_size_ - 8;
            break;
        case Step::kSkip:
            break;
    }
    gathered_.clear();
    if (step_ == Step::kSkip && wanted_ == 0) step_ = Step::kHeader;
    if (step_ == Step::kHeader && wanted_ == 0) wanted_ = kind_ == 2 ? kWin32HeaderSize : kAttributeHeaderSize;
    if (step_ == Step::kName && wanted_ == 0) Gathered();
}

void PieceLister::AfterWin32Header() {
    stream_id_ = Common::LoadLE32(&gathered_[0]);
    stream_attributes_ = Common::LoadLE32(&gathered_[4]);
    record_size_ = Common::LoadLE64(&gathered_[8]);
    step_ = Step::kName;
    wanted_ = Common::LoadLE32(&gathered_[16]);
}

void PieceLister::AfterAttributeHeader() {
    std::uint16_t name_length = Common::LoadLE16(&gathered_[0]);
    record_size_ = Common::LoadLE64(&gathered_[2]);
    step_ = Step::kName;
    wanted_ = name_length + (names_end_with_zero_ && name_length > 0 ? 1u : 0u);
}

void PieceLister::ShowWin32Stream(std::uint64_t position) {
    std::string name = Win32StreamName(stream_id_, record_name_);
    if (stream_id_ == kSparseBlock) {
        Line(name + " at " + std::to_string(position), record_size_ - 8);
    } else if ((stream_attributes_ & kSparseAttribute) != 0) {
        Line(name + " (sparse, ranges follow)", record_size_);
    } else {
        Line(name, record_size_);
    }
}

void PieceLister::Line(const std::string& name, std::uint64_t size) {
    std::fprintf(out_, "%-4u %-64s %12llu\n", kind_, name.c_str(), static_cast<unsigned long long>(size));
}

std::string PieceLister::WholePieceName() const {
    char text[96];
    switch (kind_) {
        case 1:
            if (start_.size() < 4) return "attributes";
            std::snprintf(text, sizeof text, "attributes 0x%08x", Common::LoadLE32(start_.data()));
            return text;
        case 3: return "encrypted contents, raw form";
        case 4: return "data";
        case 5:
            if (start_.size() < 16) return "times";
            return "times: modified " +
                   TimeText(static_cast<file_time>(Common::LoadLE64(start_.data())), false) + ", created " +
                   TimeText(static_cast<file_time>(Common::LoadLE64(start_.data() + 8)), false);
        case 6:
            if (start_.size() < 20) return "POSIX record";
            std::snprintf(text, sizeof text, "POSIX record: kind %u, owner %u, group %u, mode %04o",
                          Common::LoadLE32(start_.data() + 4), Common::LoadLE32(start_.data() + 8),
                          Common::LoadLE32(start_.data() + 12), Common::LoadLE32(start_.data() + 16));
            return text;
        default: return "unknown kind";
    }
}

void PieceLister::End() {
    if (!Records()) {
        Line(WholePieceName(), piece_size_);
        return;
    }
    bool between_records = step_ == Step::kHeader && gathered_.empty();
    if (!between_records) Line("(cut short inside a record)", 0);
}

}  // namespace MorvaneTool
