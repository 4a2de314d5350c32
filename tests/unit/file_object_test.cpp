// The stream family's contract, on the in-memory stream and on a minimal
// stream that only supplies what a concrete class must.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "files/buf_ifile.h"
#include "loader/common/error_codes.h"

namespace {

const unsigned char kBytes[] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'};

std::string ReadAll(ri_file& file, std::uint64_t ask) {
    std::vector<char> buffer(ask + 1, 0);
    std::uint64_t got = 99;
    file.read(buffer.data(), ask, got);
    return std::string(buffer.data(), got);
}

TEST(FileObject, MemoryStreamReadsSeeksAndEnds) {
    buf_ifile<unsigned char> file(kBytes, sizeof(kBytes));
    EXPECT_EQ(ReadAll(file, 4), "0123");
    EXPECT_EQ(file.seek_relative(2), 6);
    EXPECT_EQ(ReadAll(file, 100), "6789");  // spans the end: the rest, no error
    EXPECT_EQ(ReadAll(file, 1), "");
    EXPECT_FALSE(file.failed());
    EXPECT_EQ(file.seek_end(-3), 7);
    EXPECT_EQ(ReadAll(file, 2), "78");
    // Positions are not checked when set; a read there gives nothing.
    EXPECT_EQ(file.seek(-5), -5);
    EXPECT_EQ(ReadAll(file, 3), "");
    EXPECT_EQ(file.seek(50), 50);
    EXPECT_EQ(ReadAll(file, 3), "");
    EXPECT_FALSE(file.failed());
    file.rewind();
    EXPECT_EQ(ReadAll(file, 1), "0");
}

TEST(FileObject, SizeThroughTheDefaultKeepsThePosition) {
    buf_ifile<unsigned char> file(kBytes, sizeof(kBytes));
    file.seek(3);
    EXPECT_EQ(file.size(), 10u);
    EXPECT_EQ(ReadAll(file, 1), "3");

    buf_ifile<unsigned char> empty(kBytes, 0);
    EXPECT_EQ(empty.size(), 0u);
    EXPECT_EQ(ReadAll(empty, 5), "");
    EXPECT_FALSE(empty.failed());
}

TEST(FileObject, FailedObjectStaysFailedAndDoesNothing) {
    buf_ifile<unsigned char> file(kBytes, sizeof(kBytes));
    file.seek(2);
    file.set_error(Common::Error(ERROR_TAG, Common::FILE_READ));
    EXPECT_TRUE(file.failed());
    EXPECT_EQ(ReadAll(file, 4), "");
    EXPECT_EQ(file.seek(10), 2);
    EXPECT_EQ(file.seek_relative(1), 2);
    EXPECT_EQ(file.seek_end(0), 2);
    EXPECT_EQ(file.error().Code(), Common::FILE_READ);
    // Setting success clears the state.
    file.set_error(Common::Error());
    EXPECT_FALSE(file.failed());
    EXPECT_EQ(ReadAll(file, 1), "2");
}

TEST(FileObject, UnknownRequestsAreUnsupportedUnlessAnErrorIsPending) {
    std::uint32_t request[2] = {0x4D434C41, 0};  // "ALCM", which a memory stream does not know
    buf_ifile<unsigned char> file(kBytes, sizeof(kBytes));
    file.control(request);
    EXPECT_EQ(file.error().Code(), Common::FILE_UNSUPPORTED);
    EXPECT_EQ(file.error().Message(), u"La operación no es compatible.");

    buf_ifile<unsigned char> pending(kBytes, sizeof(kBytes));
    pending.set_error(Common::Error(ERROR_TAG, Common::FILE_EOF));
    pending.control(request);
    pending.reserved_ri_file();
    EXPECT_EQ(pending.error().Code(), Common::FILE_EOF);
}

// A stream that supplies only the operations a concrete class must: the
// defaults of the family stand for everything else.
class CountingStream : public rio_file {
public:
    void read(void*, std::uint64_t, std::uint64_t& got) override { got = 0; }
    void write(const void*, std::uint64_t size, std::uint64_t& written) override { written = size; }
    void set_size(std::uint64_t) override {}
    std::int64_t seek(std::int64_t position) override { return position_ = position; }
    std::int64_t seek_relative(std::int64_t delta) override { return position_ += delta; }
    std::int64_t seek_end(std::int64_t delta) override { return position_ = 1000 + delta; }
    std::int64_t position_ = 0;
};

TEST(FileObject, DefaultsOfTheFamily) {
    CountingStream stream;
    stream.seek(17);
    EXPECT_EQ(stream.size(), 1000u);
    EXPECT_EQ(stream.position_, 17);
    stream.rewind();
    EXPECT_EQ(stream.position_, 0);
    stream.flush();
    EXPECT_FALSE(stream.failed());
    stream.reserved_o_file();
    EXPECT_EQ(stream.error().Code(), Common::FILE_UNSUPPORTED);
    // One error state, whichever base the stream is reached through.
    file_object& as_reader = static_cast<i_file&>(stream);
    file_object& as_writer = static_cast<o_file&>(stream);
    EXPECT_EQ(&as_reader, &as_writer);
}

}  // namespace
