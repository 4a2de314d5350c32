#pragma once
// A progress bar for long copies. It shows only on a terminal (standard
// error), and only once a copy has taken longer than a second, so scripts
// and short copies see nothing of it.
#include <chrono>
#include <cstdint>
#include <string>

namespace MorvaneTool {

class CopyProgress {
public:
    CopyProgress(std::string label, std::uint64_t total);
    // Ends the bar's line if one was drawn.
    ~CopyProgress();
    CopyProgress(const CopyProgress&) = delete;
    CopyProgress& operator=(const CopyProgress&) = delete;

    void Advance(std::uint64_t bytes);

private:
    using Clock = std::chrono::steady_clock;
    void Draw();

    std::string label_;
    std::uint64_t total_;
    std::uint64_t done_ = 0;
    bool terminal_;
    bool drawn_ = false;
    Clock::time_point start_;
    Clock::time_point last_draw_;
};

}  // namespace MorvaneTool
