#include "tools/fs_progress.h"

#include <unistd.h>

#include <cstdio>

namespace MorvaneTool {
namespace {

constexpr auto kQuietTime = std::chrono::seconds(1);
constexpr auto kRedrawTime = std::chrono::milliseconds(100);
constexpr int kBarWidth = 30;

}  // namespace

CopyProgress::CopyProgress(std::string label, std::uint64_t total)
    : label_(std::move(label)), total_(total), terminal_(isatty(STDERR_FILENO) == 1), start_(Clock::now()) {}

CopyProgress::~CopyProgress() {
    if (!drawn_) return;
    Draw();
    std::fputc('\n', stderr);
}

void CopyProgress::Advance(std::uint64_t bytes) {
    done_ += bytes;
    if (!terminal_) return;
    Clock::time_point now = Clock::now();
    if (now - start_ < kQuietTime || (drawn_ && now - last_draw_ < kRedrawTime)) return;
    last_draw_ = now;
    drawn_ = true;
    Draw();
}

void CopyProgress::Draw() {
    unsigned percent = total_ == 0 ? 100 : static_cast<unsigned>(done_ * 100 / total_);
    if (percent > 100) percent = 100;
    int filled = static_cast<int>(percent) * kBarWidth / 100;
    std::string bar(static_cast<std::size_t>(filled), '#');
    bar.resize(kBarWidth, ' ');
    std::fprintf(stderr, "\r%s [%s] %3u%% %.1f MiB", label_.c_str(), bar.c_str(), percent,
                 static_cast<double>(done_) / (1024.0 * 1024.0));
    std::fflush(stderr);
}

}  // namespace MorvaneTool
