#include "tools/backup_container.h"

#include <cstring>

#include "loader/common/byte_order.h"

namespace MorvaneTool {
namespace {

bool ReadExactly(std::FILE* file, unsigned char* bytes, std::size_t size) {
    return std::fread(bytes, 1, size, file) == size;
}

}  // namespace

bool ContainerWriter::Start(std::uint32_t option) {
    unsigned char header[kContainerHeaderSize];
    std::memcpy(header, kContainerMagic, sizeof kContainerMagic);
    Common::StoreLE32(header + 8, kContainerVersion);
    Common::StoreLE32(header + 12, option);
    return std::fwrite(header, 1, sizeof header, file_) == sizeof header;
}

bool ContainerWriter::WriteHeader(std::uint32_t kind, std::uint64_t size) {
    unsigned char header[kPieceHeaderSize];
    Common::StoreLE32(header, kind);
    Common::StoreLE64(header + 4, size);
    return std::fwrite(header, 1, sizeof header, file_) == sizeof header;
}

bool ContainerWriter::BeginPiece(std::uint32_t kind) {
    piece_start_ = ftello(file_);
    piece_kind_ = kind;
    piece_size_ = 0;
    return piece_start_ >= 0 && WriteHeader(kind, 0);
}

bool ContainerWriter::Append(const unsigned char* bytes, std::uint64_t size) {
    piece_size_ += size;
    return std::fwrite(bytes, 1, size, file_) == size;
}

bool ContainerWriter::EndPiece() {
    if (piece_start_ < 0) return true;
    long long end = ftello(file_);
    bool written = end >= 0 && fseeko(file_, piece_start_, SEEK_SET) == 0 && WriteHeader(piece_kind_, piece_size_) &&
                   fseeko(file_, end, SEEK_SET) == 0;
    piece_start_ = -1;
    return written;
}

bool ContainerWriter::Finish() { return EndPiece() && WriteHeader(0, 0) && std::fflush(file_) == 0; }

bool ScanContainer(std::FILE* file, std::uint32_t& option, std::vector<ContainerPiece>& pieces,
                   std::string& problem) {
    unsigned char header[kContainerHeaderSize];
    if (!ReadExactly(file, header, sizeof header) || std::memcmp(header, kContainerMagic, 8) != 0) {
        problem = "not a backup file of this tool";
        return false;
    }
    if (Common::LoadLE32(header + 8) != kContainerVersion) {
        problem = "a backup file of another format version";
        return false;
    }
    option = Common::LoadLE32(header + 12);
    if (fseeko(file, 0, SEEK_END) != 0) {
        problem = "the backup file must be a file that can be read twice, not a pipe";
        return false;
    }
    long long length = ftello(file);
    long long at = static_cast<long long>(kContainerHeaderSize);
    pieces.clear();
    for (;;) {
        unsigned char piece[kPieceHeaderSize];
        if (fseeko(file, at, SEEK_SET) != 0 || !ReadExactly(file, piece, sizeof piece)) {
            problem = "the backup file is cut short: its end mark is missing";
            return false;
        }
        std::uint32_t kind = Common::LoadLE32(piece);
        std::uint64_t size = Common::LoadLE64(piece + 4);
        at += static_cast<long long>(kPieceHeaderSize);
        if (kind == 0) break;
        if (size > static_cast<std::uint64_t>(length - at)) {
            problem = "the backup file is cut short inside a piece of kind " + std::to_string(kind);
            return false;
        }
        pieces.push_back({kind, size, at});
        at += static_cast<long long>(size);
    }
    if (at != length) {
        problem = "the backup file goes on behind its end mark";
        return false;
    }
    return true;
}

}  // namespace MorvaneTool
