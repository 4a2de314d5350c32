#pragma once
// `backup --list`: the pieces of an entry as people read them. Pieces of
// kind 2 are Win32 backup streams and are shown stream by stream; pieces of
// kind 7 are extended-attribute records and are shown record by record.
// The lister takes the bytes as they come, so that a large file is listed
// without being held.
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace MorvaneTool {

class PieceLister {
public:
    // `names_end_with_zero`: the volume writes a 0 behind each attribute
    // name of a kind-7 record, as HFS+ does; ext does not.
    PieceLister(std::FILE* out, bool names_end_with_zero) : out_(out), names_end_with_zero_(names_end_with_zero) {}
    void Begin(std::uint32_t kind);
    void Feed(const unsigned char* bytes, std::uint64_t size);
    void End();

private:
    enum class Step { kHeader, kName, kPosition, kSkip };
    void Gathered();
    void AfterWin32Header();
    void AfterAttributeHeader();
    void ShowWin32Stream(std::uint64_t position);
    void Line(const std::string& name, std::uint64_t size);
    std::string WholePieceName() const;
    bool Records() const { return kind_ == 2 || kind_ == 7; }

    std::FILE* out_;
    bool names_end_with_zero_;
    std::uint32_t kind_ = 0;
    std::uint64_t piece_size_ = 0;
    std::vector<unsigned char> start_;  // the first bytes of a whole piece
    // The walk over the records of kinds 2 and 7.
    Step step_ = Step::kHeader;
    std::vector<unsigned char> gathered_;
    std::uint64_t wanted_ = 0;
    std::uint32_t stream_id_ = 0;
    std::uint32_t stream_attributes_ = 0;
    std::uint64_t record_size_ = 0;
    std::string record_name_;
};

}  // namespace MorvaneTool
