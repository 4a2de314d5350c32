// The LZNT1 decoder: hand-built chunks for each rule of the format, and
// the compression units that ntfs-3g writes, decoded back to what was
// copied onto its mount.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "ntfs/lznt1.h"
#include "tests/support/shell.h"
#include "tests/support/temp_folder.h"
#include "tests/support/volume_fixture.h"

namespace {

using Bytes = std::vector<unsigned char>;

// One compressed chunk, written token by token: a flag byte leads each
// eight tokens, and its bit is set for each back reference. The split of a
// reference is given by the test, as it works it out from the format.
class ChunkWriter {
public:
    ChunkWriter& plain(const Bytes& bytes) {
        for (unsigned char byte : bytes) token(false).push_back(byte);
        return *this;
    }
    ChunkWriter& reference(unsigned distance, unsigned length, unsigned split) {
        const unsigned word = ((distance - 1) << split) | (length - 3);
        Bytes& data = token(true);
        data.push_back(static_cast<unsigned char>(word));
        data.push_back(static_cast<unsigned char>(word >> 8));
        return *this;
    }
    // Drops the last `count` bytes, as a cut stream would.
    ChunkWriter& cut(std::size_t count) {
        data_.resize(data_.size() - count);
        return *this;
    }
    // Header (compressed, data size − 1) and data.
    Bytes chunk() const {
        const unsigned header = 0xB000 | static_cast<unsigned>(data_.size() - 1);
        Bytes out{static_cast<unsigned char>(header), static_cast<unsigned char>(header >> 8)};
        out.insert(out.end(), data_.begin(), data_.end());
        return out;
    }

private:
    Bytes& token(bool is_reference) {
        if (tokens_ % 8 == 0) {
            flag_at_ = data_.size();
            data_.push_back(0);
        }
        if (is_reference) data_[flag_at_] |= static_cast<unsigned char>(1u << (tokens_ % 8));
        ++tokens_;
        return data_;
    }
    Bytes data_;
    std::size_t flag_at_ = 0;
    unsigned tokens_ = 0;
};

Bytes Text(const std::string& text) { return Bytes(text.begin(), text.end()); }

Bytes Join(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

Bytes Slice(const Bytes& bytes, std::size_t from, std::size_t count) {
    return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from),
                 bytes.begin() + static_cast<std::ptrdiff_t>(from + count));
}

// `count` bytes in which no short stretch repeats nearby, so that a
// reference with a wrong distance shows.
Bytes Distinct(std::size_t count, unsigned seed) {
    Bytes bytes(count);
    std::mt19937 random(seed);
    for (auto& byte : bytes) byte = static_cast<unsigned char>(random());
    return bytes;
}

Bytes Zeros(std::size_t count) { return Bytes(count, 0); }

Bytes Decode(const Bytes& input, std::size_t output_size) {
    // Filled with a marker first, so that bytes the decoder leaves alone show.
    Bytes output(output_size, 0xA5);
    ntfs::Lznt1Decode(input.data(), input.size(), output.data(), output.size());
    return output;
}

// 2040 plain bytes, then references 2040 back that repeat them up to 4090
// bytes out, then one to the very start that runs past the window's end.
// Up to 2048 bytes out a reference has 5 length bits, behind that 4.
Bytes LongChunk(const Bytes& periodic) {
    ChunkWriter writer;
    writer.plain(Slice(periodic, 0, 2040)).reference(2040, 8, 5).reference(2040, 34, 5);
    std::size_t out = 2082;
    for (; out + 18 <= 4090; out += 18) writer.reference(2040, 18, 4);
    writer.reference(2040, static_cast<unsigned>(4090 - out), 4).reference(4090, 18, 4).plain(Text("lost"));
    return writer.chunk();
}

struct Case {
    const char* what;
    Bytes input;
    std::size_t output_size;
    Bytes expected;  // zeros follow up to the output size
};

std::vector<Case> HandBuiltCases() {
    const Bytes page = Distinct(4096, 1);
    const Bytes head = Distinct(16, 2);
    const Bytes seventeen = Distinct(17, 3);
    const Bytes base = Distinct(2040, 4);
    Bytes periodic, eights;
    for (std::size_t i = 0; i < 4090; ++i) periodic.push_back(base[i % base.size()]);
    for (int i = 0; i < 512; ++i) eights = Join({eights, Text("12345678")});
    const Bytes abc = Text("abc");
    const Bytes next = ChunkWriter().plain(Text("next")).chunk();
    std::vector<Case> cases = {
        {"fewer than three input bytes", {0x00, 0xB0}, 64, {}},
        {"stored chunk", Join({{0xFF, 0x3F}, page}), 4096, page},
        {"stored chunk, then a compressed one", Join({{0xFF, 0x3F}, page, next}), 8192, Join({page, Text("next")})},
        {"stored chunk cut by the input", Join({{0xFF, 0x3F}, Slice(page, 0, 100)}), 4096, Slice(page, 0, 100)},
        {"stored chunk cut by the output", Join({{0xFF, 0x3F}, page}), 300, Slice(page, 0, 300)},
        {"header 0x3000 ends the data", Join({{0x00, 0x30}, page}), 4096, {}},
        {"header 0 behind a chunk ends the data", Join({next, {0x00, 0x00}, next}), 12288, Text("next")},
        {"stored size other than 4096 ends the data", Join({{0xFE, 0x3F}, page}), 4096, {}},
        {"short chunk still takes its window", Join({next, next}), 8192, Join({Text("next"), Zeros(4092), Text("next")})},
        {"overlapping copy repeats a pattern",
         ChunkWriter().plain(Text("ab")).reference(2, 7, 12).chunk(), 64, Text("ababababa")},
        {"distance 1 repeats the last byte", ChunkWriter().plain(Text("x")).reference(1, 6, 12).chunk(), 64,
         Text("xxxxxxx")},
        {"reference as long as its distance", ChunkWriter().plain(abc).reference(3, 3, 12).plain(Text("!")).chunk(),
         64, Text("abcabc!")},
        {"reference before the chunk's start ends the chunk",
         Join({ChunkWriter().plain(abc).reference(4, 3, 12).plain(Text("z")).chunk(), next}), 8192,
         Join({abc, Zeros(4093), Text("next")})},
        {"split 12 reaches 16 back at 16 bytes out", ChunkWriter().plain(head).reference(16, 20, 12).chunk(), 64,
         Join({head, head, Slice(head, 0, 4)})},
        {"split 11 at 17 bytes out", ChunkWriter().plain(seventeen).reference(17, 5, 11).chunk(), 64,
         Join({seventeen, Slice(seventeen, 0, 5)})},
        {"split 5 up to 2048 bytes out, 4 behind, to the window's end; length cut to it",
         Join({LongChunk(periodic), next}), 8192, Join({periodic, Slice(periodic, 0, 6), Text("next")})},
        {"window filled by a reference ends the chunk",
         Join({ChunkWriter().plain(Text("12345678")).reference(8, 4095, 12).plain(Text("lost")).chunk(), next}),
         8192, Join({eights, Text("next")})},
        {"plain group cut by the data", ChunkWriter().plain(Text("12345678abcde")).chunk(), 64,
         Text("12345678abcde")},
        {"plain group cut by the output", ChunkWriter().plain(Text("12345678abcdefgh")).chunk(), 11,
         Text("12345678abc")},
        {"token cut after the flag byte", ChunkWriter().plain(Text("12345678")).plain(abc).cut(3).chunk(), 64,
         Text("12345678")},
        {"reference cut in the middle", Join({ChunkWriter().plain(abc).reference(3, 9, 12).cut(1).chunk(), next}),
         8192, Join({abc, Zeros(4093), Text("next")})},
        {"chunk longer than the input left",
         Join({{0x40, 0xB0}, Slice(ChunkWriter().plain(Text("abcdefg")).chunk(), 2, 8)}), 64, Text("abcdefg")},
    };
    return cases;
}

TEST(Lznt1, HandBuiltStreamsFollowEachRuleOfTheFormat) {
    for (const Case& c : HandBuiltCases()) {
        Bytes expected = c.expected;
        expected.resize(c.output_size, 0);
        EXPECT_EQ(Decode(c.input, c.output_size), expected) << c.what;
        // A cut stream gives what the whole one gives up to the cut, and
        // zeros behind it; the prefix is a copy, so a read past it shows.
        for (std::size_t cut = 0; cut < c.input.size(); cut += 1 + c.input.size() / 64) {
            const Bytes prefix = Slice(c.input, 0, cut);
            const Bytes got = Decode(prefix, c.output_size);
            std::size_t differing = 0;
            for (std::size_t i = 0; i < got.size(); ++i) differing += got[i] != 0 && got[i] != expected[i];
            EXPECT_EQ(differing, 0u) << c.what << " cut at " << cut;
        }
    }
}

// The units of a compressed file on an ntfs-3g volume of 4 KiB clusters:
// sixteen clusters each, stored as the clusters of a run followed by a
// hole when compression saved at least one.
struct DataRun {
    std::uint64_t vcn;
    std::int64_t lcn;  // -1 for a hole
    std::uint64_t length;
};

std::vector<DataRun> DataRuns(const std::string& image, const std::string& path) {
    std::istringstream lines(TestSupport::CaptureOutput("ntfsinfo -v -F '" + path + "' '" + image + "'"));
    std::vector<DataRun> runs;
    bool in_data = false, in_list = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.find("Dumping attribute") != std::string::npos) in_data = line.find("$DATA") != std::string::npos;
        if (in_data && line.find("Runlist:") != std::string::npos) {
            in_list = true;
            line = line.substr(line.find("Runlist:") + 8);
        }
        if (!in_list) continue;
        std::istringstream fields(line);
        std::string vcn, lcn, length;
        if (!(fields >> vcn >> lcn >> length) || vcn == "VCN") continue;
        if (vcn.rfind("0x", 0) != 0) break;
        runs.push_back({std::stoull(vcn, nullptr, 16), lcn == "<HOLE>" ? -1 : std::stoll(lcn, nullptr, 16),
                        std::stoull(length, nullptr, 16)});
    }
    return runs;
}

// Four units of different kinds and a part of one: words, the shifting
// pattern, chunks of noise among words (stored chunks), long runs of one
// byte (overlapping references).
Bytes CompressibleSource() {
    std::mt19937 random(7);
    std::vector<std::string> words;
    for (int i = 0; i < 400; ++i) {
        std::string word;
        for (int n = 3 + static_cast<int>(random() % 8); n > 0; --n) word += static_cast<char>('a' + random() % 26);
        words.push_back(word + " ");
    }
    auto prose = [&](std::size_t count) {
        Bytes bytes;
        while (bytes.size() < count) {
            const std::string& word = words[random() % words.size()];
            bytes.insert(bytes.end(), word.begin(), word.end());
        }
        bytes.resize(count);
        return bytes;
    };
    const std::string pattern = TestSupport::Pattern(65536, 3);
    Bytes runs;
    while (runs.size() < 65536) runs.insert(runs.end(), 1 + random() % 300, static_cast<unsigned char>(random()));
    runs.resize(65536);
    return Join({prose(65536), Bytes(pattern.begin(), pattern.end()),
                 Join({Distinct(8192, 9), prose(16384), Distinct(4096, 10), prose(36864)}), runs, prose(5000)});
}

TEST(Lznt1, UnitsWrittenByNtfs3gDecodeToTheirSource) {
    constexpr std::size_t kCluster = 4096, kUnitClusters = 16, kUnit = kCluster * kUnitClusters;
    TestSupport::ImageFile image;
    const std::string mount = image.folder.Path() + "/mount";
    const Bytes source = CompressibleSource();
    TestSupport::StoreFile(image.folder.Path() + "/source", source);
    ASSERT_EQ(0, TestSupport::RunQuietly("(truncate -s 16M '" + image.path + "' && mkntfs -F -f -q -c 4096 '" +
                                         image.path + "' && mkdir '" + mount + "')"));
    ASSERT_EQ(0, TestSupport::RunQuietly("ntfs-3g -o compression '" + image.path + "' '" + mount + "'"));
    const int filled = TestSupport::RunQuietly("(mkdir '" + mount + "/packed' && setfattr -h -v 0x00000800 -n " +
                                               "system.ntfs_attrib_be '" + mount + "/packed' && cp '" +
                                               image.folder.Path() + "/source' '" + mount + "/packed/file')");
    ASSERT_EQ(0, TestSupport::RunQuietly("umount '" + mount + "'"));
    ASSERT_EQ(0, filled);

    const Bytes disk = image.bytes();
    const std::vector<DataRun> runs = DataRuns(image.path, "/packed/file");
    ASSERT_FALSE(runs.empty());
    std::size_t compressed_units = 0, stored_chunks = 0;
    for (std::uint64_t unit = 0; unit * kUnit < source.size(); ++unit) {
        // The unit's stored clusters: its runs up to the first hole.
        Bytes stored;
        bool hole = false;
        for (const DataRun& run : runs) {
            const std::uint64_t first = std::max(run.vcn, unit * kUnitClusters);
            const std::uint64_t end = std::min(run.vcn + run.length, (unit + 1) * kUnitClusters);
            if (first >= end || hole) continue;
            if (run.lcn < 0) {
                hole = true;
                continue;
            }
            const std::size_t at = static_cast<std::size_t>(run.lcn + (first - run.vcn)) * kCluster;
            ASSERT_LE(at + (end - first) * kCluster, disk.size());
            stored.insert(stored.end(), disk.begin() + static_cast<std::ptrdiff_t>(at),
                          disk.begin() + static_cast<std::ptrdiff_t>(at + (end - first) * kCluster));
        }
        if (!hole || stored.empty()) continue;  // kept plain, or all zeros
        ++compressed_units;
        for (std::size_t at = 0; at + 2 <= stored.size();) {
            const unsigned header = stored[at] | (stored[at + 1] << 8);
            if (header == 0) break;
            stored_chunks += (header & 0x8000) == 0;
            at += 3 + (header & 0xFFF);
        }
        Bytes expected(kUnit, 0);
        const std::size_t count = std::min<std::size_t>(kUnit, source.size() - unit * kUnit);
        std::copy_n(source.begin() + static_cast<std::ptrdiff_t>(unit * kUnit), count, expected.begin());
        EXPECT_EQ(Decode(stored, kUnit), expected) << "unit " << unit;
    }
    EXPECT_EQ(compressed_units, 5u);
    EXPECT_GT(stored_chunks, 0u);
}

}  // namespace
