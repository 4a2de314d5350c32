#pragma once
// LZNT1, the codec of compressed NTFS streams. A compression unit is stored
// as a row of chunks, each a u16 header and the data of at most 4096 bytes
// of output: either those bytes as they are, or groups of eight tokens led
// by a flag byte, each token a plain byte or a back reference into the
// output of the same chunk.
#include <cstddef>

namespace ntfs {

// Decodes `input_size` bytes of `input` into `output`, which is filled up
// completely: whatever the data doesn't describe, a chunk cut short or
// everything behind the last chunk, reads as zeros. Damaged data gives
// wrong bytes, never an error, a read outside either buffer or a wait.
void Lznt1Decode(const unsigned char* input, std::size_t input_size, unsigned char* output,
                 std::size_t output_size);

}  // namespace ntfs
