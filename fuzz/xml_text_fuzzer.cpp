// Any bytes through the document entry: mostly the text form, and the binary
// form whenever the input happens to start with its magic.
#include <cstddef>
#include <cstdint>

#include "fuzz/document_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzChecks::CheckDocument(data, size);
    return 0;
}
