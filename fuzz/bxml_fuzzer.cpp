// The binary form: the input is what follows the magic, which is put in
// front here so that no mutation is spent on it. Seeds may be whole files:
// a magic they start with is taken off first.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz/document_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size >= 4 && std::memcmp(data, "BXML", 4) == 0) {
        data += 4;
        size -= 4;
    }
    std::vector<unsigned char> document = {'B', 'X', 'M', 'L'};
    document.insert(document.end(), data, data + size);
    FuzzChecks::CheckDocument(document.data(), document.size());
    return 0;
}
