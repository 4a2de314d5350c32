#include "files/file_object.h"

#include "loader/common/error_codes.h"
#include "loader/common/messages.h"

void file_object::control(void*) { unsupported(); }

void file_object::unsupported() {
    if (failed()) return;
    error_ = Common::Error(ERROR_TAG, Common::FILE_UNSUPPORTED, Common::Messages::FILE_UNSUPPORTED);
}

std::uint64_t raccess_file::size() {
    std::int64_t position = seek_relative(0);
    std::int64_t end = seek_end(0);
    seek(position);
    return static_cast<std::uint64_t>(end);
}
