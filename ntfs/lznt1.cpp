#include "ntfs/lznt1.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace ntfs {
namespace {

// Every chunk stands for this many bytes of output, whatever its data
// describes; a shorter last chunk only happens where the output ends.
constexpr std::size_t kChunkWindow = 4096;

constexpr unsigned kHeaderCompressed = 0x8000;
constexpr unsigned kHeaderSizeMask = 0x0FFF;

// Where a chunk's decoding stands: `in` walks its data up to `in_end`, `out`
// its window from `window` up to `window_end`. The split between distance
// and length bits of a back reference moves with the bytes already put out,
// since a reference can't point before the chunk: 12 length bits while at
// most 16 bytes are out, one fewer at each doubling of that count.
struct ChunkState {
    const unsigned char* in;
    const unsigned char* in_end;
    unsigned char* window;
    unsigned char* out;
    unsigned char* window_end;
    unsigned split = 12;
    std::size_t farthest = 0x10000 >> 12;  // the largest distance `split` can express
};

// Puts out the back reference `word`; false when it points before the
// chunk, which ends the chunk.
inline bool CopyReference(ChunkState& chunk, unsigned word)
{
    const std::size_t done = static_cast<std::size_t>(chunk.out - chunk.window);
    while (chunk.farthest < done) {
        --chunk.split;
        chunk.farthest <<= 1;
    }
    const std::size_t distance = (word >> chunk.split) + 1;
    if (distance > done) {
        return false;
    }
    const std::size_t room = static_cast<std::size_t>(chunk.window_end - chunk.out);
    const std::size_t length = std::min<std::size_t>((word & ((1u << chunk.split) - 1)) + 3, room);
    unsigned char* out = chunk.out;
    const unsigned char* from = out - distance;
    if (distance == 1) {
        std::memset(out, *from, length);
    } else if (distance >= length) {
        std::memcpy(out, from, length);
    } else {
        // The copy reads bytes it has itself just written: a repeated pattern.
        for (std::size_t i = 0; i < length; ++i) {
            out[i] = from[i];
        }
    }
    chunk.out = out + length;
    return true;
}

// Decodes the eight tokens of one group whose flag byte is `flags` (not 0).
// With `kDataKnown` the caller has seen that the data holds all sixteen
// bytes the group can take, so only the window is watched. False when the
// chunk ends inside the group.
template <bool kDataKnown>
inline bool DecodeGroup(ChunkState& chunk, unsigned flags)
{
    for (unsigned bit = 0; bit < 8; ++bit, flags >>= 1) {
        if ((flags & 1) == 0) {
            if (!kDataKnown && chunk.in == chunk.in_end) {
                return false;
            }
            *chunk.out++ = *chunk.in++;
        } else {
            if (!kDataKnown && chunk.in_end - chunk.in < 2) {
                return false;
            }
            const unsigned word = chunk.in[0] | (static_cast<unsigned>(chunk.in[1]) << 8);
            chunk.in += 2;
            if (!CopyReference(chunk, word)) {
                return false;
            }
        }
        if (chunk.out == chunk.window_end) {
            return false;
        }
    }
    return true;
}

// Decodes one compressed chunk into its window and zeros what the data
// leaves of the window.
void DecodeChunk(ChunkState chunk)
{
    // A whole group, its flag byte and eight references, takes 17 bytes.
    constexpr std::ptrdiff_t kLargestGroup = 17;
    while (chunk.in < chunk.in_end && chunk.out < chunk.window_end) {
        const std::ptrdiff_t data_left = chunk.in_end - chunk.in;
        const unsigned flags = *chunk.in++;
        if (flags == 0) {
            // Eight plain bytes; a cut group is copied as far as it goes.
            const std::size_t room = static_cast<std::size_t>(chunk.window_end - chunk.out);
            const std::size_t have = static_cast<std::size_t>(chunk.in_end - chunk.in);
            const std::size_t count = std::min<std::size_t>({8, room, have});
            std::memcpy(chunk.out, chunk.in, count);
            chunk.in += count;
            chunk.out += count;
            if (count < 8) {
                break;
            }
            continue;
        }
        const bool whole = data_left >= kLargestGroup ? DecodeGroup<true>(chunk, flags)
                                                      : DecodeGroup<false>(chunk, flags);
        if (!whole) {
            break;
        }
    }
    std::memset(chunk.out, 0, static_cast<std::size_t>(chunk.window_end - chunk.out));
}

}  // namespace

void Lznt1Decode(const unsigned char* input, std::size_t input_size, unsigned char* output,
                 std::size_t output_size)
{
    if (output_size == 0) {
        return;
    }
    const unsigned char* in = input;
    const unsigned char* const in_end = input + input_size;
    unsigned char* out = output;
    unsigned char* const out_end = output + output_size;
    // A header and at least one byte of data make the smallest chunk.
    while (out < out_end && in_end - in >= 3) {
        const unsigned header = in[0] | (static_cast<unsigned>(in[1]) << 8);
        in += 2;
        const std::size_t in_left = static_cast<std::size_t>(in_end - in);
        const std::size_t window = std::min<std::size_t>(kChunkWindow, static_cast<std::size_t>(out_end - out));
        if ((header & kHeaderCompressed) == 0) {
            // Only the full size marks a stored chunk; anything else, the
            // zero header that ends a unit's chunks among them, ends the data.
            if ((header & kHeaderSizeMask) != kHeaderSizeMask) {
                break;
            }
            const std::size_t count = std::min(window, in_left);
            std::memcpy(out, in, count);
            in += count;
            out += count;
            continue;
        }
        const std::size_t data = std::min<std::size_t>((header & kHeaderSizeMask) + 1, in_left);
        DecodeChunk(ChunkState{in, in + data, out, out, out + window});
        in += data;
        out += window;
    }
    std::memset(out, 0, static_cast<std::size_t>(out_end - out));
}

}  // namespace ntfs
