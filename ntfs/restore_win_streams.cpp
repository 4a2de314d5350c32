#include "ntfs/restore_win_streams.h"

#include <algorithm>

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"

namespace ntfs {

namespace {

constexpr char16_t kFrameHead[] = u":";
constexpr char16_t kFrameTail[] = u":$DATA";

bool EndsWith(const std::u16string& text, const std::u16string& tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

}  // namespace

std::u16string StreamNameOf(const std::u16string& name) {
    const std::u16string head = kFrameHead;
    const std::u16string tail = kFrameTail;
    if (name.size() < head.size() + tail.size() || name.compare(0, head.size(), head) != 0 ||
        !EndsWith(name, tail)) {
        return name;
    }
    return name.substr(head.size(), name.size() - head.size() - tail.size());
}

std::uint64_t RestoreWinStreams::write(std::uint32_t kind, const unsigned char* data, std::uint64_t size) {
    if (kind != this->kind()) return 0;
    std::uint64_t taken = 0;
    while (taken < size) {
        const unsigned char* at = data + taken;
        const std::uint64_t rest = size - taken;
        switch (phase_) {
            case Phase::kHeader: taken += gatherHeader(at, rest); break;
            case Phase::kName: taken += gatherName(at, rest); break;
            case Phase::kData: taken += passData(at, rest); break;
        }
    }
    return taken;
}

void RestoreWinStreams::finish() {
    if (phase_ != Phase::kHeader || gathered_ != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

void RestoreWinStreams::abandon() {
    if (handler_) handler_->abandon();
    handler_.reset();
}

std::uint64_t RestoreWinStreams::gatherHeader(const unsigned char* data, std::uint64_t size) {
    const std::uint64_t take = std::min<std::uint64_t>(kHeaderSize - gathered_, size);
    std::copy(data, data + take, header_ + gathered_);
    gathered_ += static_cast<std::uint32_t>(take);
    if (gathered_ < kHeaderSize) return take;
    checkHeader();
    name_.clear();
    if (Common::LoadLE32(header_ + 16) != 0) {
        phase_ = Phase::kName;
    } else {
        startStream();
    }
    return take;
}

void RestoreWinStreams::checkHeader() const {
    const std::uint32_t name_bytes = Common::LoadLE32(header_ + 16);
    if (name_bytes % 2 != 0 || name_bytes > kMostNameBytes || Common::LoadLE64(header_ + 8) > kMostStreamSize) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

std::uint64_t RestoreWinStreams::gatherName(const unsigned char* data, std::uint64_t size) {
    const std::uint32_t name_bytes = Common::LoadLE32(header_ + 16);
    const std::uint64_t take = std::min<std::uint64_t>(name_bytes - name_.size(), size);
    name_.insert(name_.end(), data, data + take);
    if (name_.size() == name_bytes) startStream();
    return take;
}

void RestoreWinStreams::startStream() {
    std::u16string name(name_.size() / 2, u'\0');
    for (std::size_t i = 0; i < name.size(); ++i) name[i] = static_cast<char16_t>(Common::LoadLE16(&name_[2 * i]));
    name = StreamNameOf(name);
    if (name.find_first_of(std::u16string(u"\0:", 2)) != std::u16string::npos) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    left_ = Common::LoadLE64(header_ + 8);
    handler_ = handlerFor(Common::LoadLE32(header_), left_, name);
    phase_ = Phase::kData;
    if (left_ == 0) endStream();
}

std::unique_ptr<RestoreWinStream> RestoreWinStreams::handlerFor(std::uint32_t id, std::uint64_t size,
                                                                const std::u16string& name) const {
    const FileObjectHolder& holder = *this;
    switch (id) {
        case kStreamData:
            if (!name.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
            return std::make_unique<RestorePlainData>(holder, name, size);
        case kStreamAlternateData:
            if (name.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
            return std::make_unique<RestorePlainData>(holder, name, size);
        case kStreamSparseBlock: return std::make_unique<RestoreSparseData>(holder, name, size);
        case kStreamSecurity:
            if ((option_ & kRestoreWithoutSecurity) != 0) return nullptr;
            return std::make_unique<RestoreSecurity>(holder, size);
        case kStreamReparse: return std::make_unique<RestoreReparse>(holder, size);
        default: return nullptr;
    }
}

std::uint64_t RestoreWinStreams::passData(const unsigned char* data, std::uint64_t size) {
    const std::uint64_t piece = std::min(left_, size);
    // A handler that takes less has met a full volume: the rest of its
    // stream can't go anywhere.
    if (handler_ && handler_->write(data, piece) != piece) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
    }
    left_ -= piece;
    if (left_ == 0) endStream();
    return piece;
}

void RestoreWinStreams::endStream() {
    if (handler_) handler_->finish();
    handler_.reset();
    phase_ = Phase::kHeader;
    gathered_ = 0;
}

}  // namespace ntfs
