#pragma once
// The host file that carries the typed pieces of one backed-up entry:
//   header: 8 bytes "MVBACKUP", u32 format version (1), u32 the option bits
//           the backup was taken with;
//   pieces: u32 kind (not 0), u64 size, then `size` bytes, in the order the
//           volume gave them;
//   end:    a piece of kind 0 and size 0.
// All numbers little-endian. The end piece lets a reader tell a complete file
// from one cut short, which a restore must refuse before it writes anything.
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace MorvaneTool {

constexpr char kContainerMagic[8] = {'M', 'V', 'B', 'A', 'C', 'K', 'U', 'P'};
constexpr std::uint32_t kContainerVersion = 1;
constexpr std::size_t kContainerHeaderSize = 16;
constexpr std::size_t kPieceHeaderSize = 12;

// Writes a container to a seekable host file: a piece's size is known only
// at its end, and is written back into its header then.
class ContainerWriter {
public:
    explicit ContainerWriter(std::FILE* file) : file_(file) {}
    bool Start(std::uint32_t option);
    bool BeginPiece(std::uint32_t kind);
    bool Append(const unsigned char* bytes, std::uint64_t size);
    bool EndPiece();
    bool Finish();

private:
    bool WriteHeader(std::uint32_t kind, std::uint64_t size);

    std::FILE* file_;
    long long piece_start_ = -1;
    std::uint32_t piece_kind_ = 0;
    std::uint64_t piece_size_ = 0;
};

// Where one piece of a container lies.
struct ContainerPiece {
    std::uint32_t kind;
    std::uint64_t size;
    long long offset;  // of its bytes in the file
};

// Checks a whole container before any of it is used, and lists its pieces.
// False with `problem` set for a file that isn't one, or is cut short.
bool ScanContainer(std::FILE* file, std::uint32_t& option, std::vector<ContainerPiece>& pieces,
                   std::string& problem);

}  // namespace MorvaneTool
