// Writes transactions into the journal of an HFS+ volume, for tests: no
// tool here makes a journal that holds any. The volume is an image file
// made by `mkfs.hfsplus -J`; its journal is initialised when it still asks
// for that, and each transaction goes behind the journal's end, whose new
// value the header then records. The sectors in place are not touched, so
// a reader that ignores the journal sees the old contents.
//
//   hfs_journal_writer [OPTIONS] IMAGE BLOCK... [--next BLOCK...]...
//
// A BLOCK is SECTOR:FILE, the new contents of the volume's 512-byte sectors
// from SECTOR on (FILE's length a multiple of 512), or skip:FILE, a block
// that takes room in the ring and belongs nowhere. --next starts another
// transaction; one without blocks is a list of its header alone.
// Options: --blhdr BYTES, the size of a block list (4096 unless given, when
// the journal is initialised here); --wrap, start the journal so near the
// ring's end that only the first 2 KiB of the first list's blocks fit
// before it, and the rest wraps to the ring's start; --bad-last, a wrong
// checksum on the last block of the last transaction; --no-checksums,
// lists that don't ask for their blocks to be checked.
//
// The format, as published: the journal info block (big-endian) gives the
// journal's offset and size; the journal header (little-endian, the size
// of a sector) gives start and end in the ring behind it; each transaction
// is a block list (header, entries of bnum/bsize/checksum, padded to the
// list size) followed by its blocks' data.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

constexpr std::uint32_t kSector = 512;
constexpr std::uint32_t kMagic = 0x4A4E4C78;
constexpr std::uint32_t kEndian = 0x12345678;
constexpr std::uint32_t kJournaled = 0x2000;
constexpr std::uint32_t kNeedInit = 0x4;
constexpr std::uint32_t kCheckChecksums = 0x1;
constexpr std::uint64_t kSkipped = ~std::uint64_t(0);

using Bytes = std::vector<unsigned char>;

[[noreturn]] void Fail(const std::string& why) {
    std::fprintf(stderr, "hfs_journal_writer: %s\n", why.c_str());
    std::exit(1);
}

std::uint64_t Load(const unsigned char* p, int bytes, bool big) {
    std::uint64_t value = 0;
    for (int i = 0; i < bytes; ++i) value |= std::uint64_t(p[big ? bytes - 1 - i : i]) << (8 * i);
    return value;
}

void Store(unsigned char* p, int bytes, bool big, std::uint64_t value) {
    for (int i = 0; i < bytes; ++i) p[big ? bytes - 1 - i : i] = static_cast<unsigned char>(value >> (8 * i));
}

std::uint32_t Checksum(const unsigned char* p, std::size_t size) {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < size; ++i) sum = (sum << 8) ^ (sum + p[i]);
    return ~sum;
}

struct Block {
    std::uint64_t bnum;
    Bytes data;
};

struct Options {
    std::uint32_t blhdr = 4096;
    bool blhdr_given = false;
    bool wrap = false;
    bool bad_last = false;
    bool checksums = true;
    std::string image;
    std::vector<std::vector<Block>> transactions{1};
};

Bytes ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) Fail("cannot read " + path);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Options ParseArguments(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--blhdr" && i + 1 < argc) {
            options.blhdr = static_cast<std::uint32_t>(std::strtoul(argv[++i], nullptr, 0));
            options.blhdr_given = true;
        } else if (argument == "--wrap") {
            options.wrap = true;
        } else if (argument == "--bad-last") {
            options.bad_last = true;
        } else if (argument == "--no-checksums") {
            options.checksums = false;
        } else if (argument == "--next") {
            options.transactions.emplace_back();
        } else if (options.image.empty()) {
            options.image = argument;
        } else {
            const std::size_t colon = argument.find(':');
            if (colon == std::string::npos) Fail("not SECTOR:FILE: " + argument);
            const std::string where = argument.substr(0, colon);
            Block block{where == "skip" ? kSkipped : std::strtoull(where.c_str(), nullptr, 0),
                        ReadFile(argument.substr(colon + 1))};
            if (block.data.empty() || block.data.size() % kSector != 0) Fail("not whole sectors: " + argument);
            options.transactions.back().push_back(block);
        }
    }
    if (options.image.empty()) Fail("usage: hfs_journal_writer [OPTIONS] IMAGE SECTOR:FILE... [--next ...]");
    if (options.blhdr < 4096 || options.blhdr % kSector != 0) Fail("a block list is whole sectors, 4096 or more");
    return options;
}

// The image file, read and written at byte offsets.
class Image {
public:
    explicit Image(const std::string& path) : file_(std::fopen(path.c_str(), "r+b")) {
        if (file_ == nullptr) Fail("cannot open " + path);
    }
    ~Image() { std::fclose(file_); }
    Bytes read(std::uint64_t offset, std::size_t size) {
        Bytes bytes(size);
        if (fseeko(file_, static_cast<off_t>(offset), SEEK_SET) != 0 ||
            std::fread(bytes.data(), 1, size, file_) != size) {
            Fail("short read");
        }
        return bytes;
    }
    void write(std::uint64_t offset, const unsigned char* bytes, std::size_t size) {
        if (fseeko(file_, static_cast<off_t>(offset), SEEK_SET) != 0 || std::fwrite(bytes, 1, size, file_) != size) {
            Fail("short write");
        }
    }

private:
    std::FILE* file_;
};

// The journal's header and where it lies; the ring is [jhdr_size, size).
struct Journal {
    std::uint64_t offset;
    std::uint64_t size;
    std::uint64_t start;
    std::uint64_t end;
    std::uint32_t blhdr;

    // Writes `bytes` at the ring position `at`, wrapping at the ring's end;
    // answers the position behind them.
    std::uint64_t put(Image& image, std::uint64_t at, const Bytes& bytes) const {
        std::size_t done = 0;
        while (done < bytes.size()) {
            const std::size_t part = std::min<std::uint64_t>(bytes.size() - done, size - at);
            image.write(offset + at, bytes.data() + done, part);
            done += part;
            at += part;
            if (at == size) at = kSector;
        }
        return at;
    }
};

Journal OpenJournal(Image& image, const Options& options) {
    const Bytes header = image.read(1024, 512);
    const std::uint64_t signature = Load(header.data(), 2, true);
    if (signature != 0x482B && signature != 0x4858) Fail("no HFS+ volume header");
    if ((Load(header.data() + 4, 4, true) & kJournaled) == 0) Fail("the volume has no journal");
    const std::uint64_t block_size = Load(header.data() + 40, 4, true);
    const std::uint64_t info_offset = Load(header.data() + 12, 4, true) * block_size;
    Bytes info = image.read(info_offset, 180);
    Journal journal{Load(info.data() + 36, 8, true), Load(info.data() + 44, 8, true), 0, 0, options.blhdr};
    const std::uint32_t flags = static_cast<std::uint32_t>(Load(info.data(), 4, true));
    if ((flags & kNeedInit) != 0) {
        // A new journal, empty: start and end at the same place.
        journal.start = options.wrap ? journal.size - options.blhdr - 4 * kSector : kSector;
        journal.end = journal.start;
        Store(info.data(), 4, true, flags & ~kNeedInit);
        image.write(info_offset, info.data(), info.size());
        return journal;
    }
    const Bytes old = image.read(journal.offset, 44);
    if (Load(old.data(), 4, false) != kMagic) Fail("the journal header has no magic");
    if (options.wrap) Fail("--wrap needs a journal that is still to be initialised");
    journal.start = Load(old.data() + 8, 8, false);
    journal.end = Load(old.data() + 16, 8, false);
    journal.blhdr = static_cast<std::uint32_t>(Load(old.data() + 32, 4, false));
    if (options.blhdr_given && options.blhdr != journal.blhdr) Fail("the journal has another block list size");
    return journal;
}

// One block list and its blocks, written at the journal's end.
void WriteTransaction(Image& image, Journal& journal, const std::vector<Block>& blocks, bool checksums,
                      bool bad_last) {
    const std::size_t entries = blocks.size() + 1;
    if ((entries + 1) * 16 > journal.blhdr) Fail("too many blocks for one list");
    Bytes list(journal.blhdr, 0);
    std::uint64_t used = journal.blhdr;
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        unsigned char* entry = list.data() + (i + 2) * 16;
        Store(entry, 8, false, blocks[i].bnum);
        Store(entry + 8, 4, false, blocks[i].data.size());
        std::uint32_t sum = Checksum(blocks[i].data.data(), blocks[i].data.size());
        if (bad_last && i + 1 == blocks.size()) sum ^= 1;
        Store(entry + 12, 4, false, sum);
        used += blocks[i].data.size();
    }
    Store(list.data(), 2, false, journal.blhdr / 16 - 1);  // max_blocks
    Store(list.data() + 2, 2, false, entries);
    Store(list.data() + 4, 4, false, used);
    Store(list.data() + 12, 4, false, checksums ? kCheckChecksums : 0);
    Store(list.data() + 8, 4, false, Checksum(list.data(), 32));
    std::uint64_t at = journal.put(image, journal.end, list);
    for (const Block& block : blocks) at = journal.put(image, at, block.data);
    journal.end = at;
}

void WriteHeader(Image& image, const Journal& journal) {
    unsigned char header[kSector] = {};
    Store(header, 4, false, kMagic);
    Store(header + 4, 4, false, kEndian);
    Store(header + 8, 8, false, journal.start);
    Store(header + 16, 8, false, journal.end);
    Store(header + 24, 8, false, journal.size);
    Store(header + 32, 4, false, journal.blhdr);
    Store(header + 40, 4, false, kSector);
    Store(header + 36, 4, false, Checksum(header, 44));
    image.write(journal.offset, header, sizeof(header));
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = ParseArguments(argc, argv);
    Image image(options.image);
    Journal journal = OpenJournal(image, options);
    bool written = false;
    for (std::size_t i = 0; i < options.transactions.size(); ++i) {
        const std::vector<Block>& blocks = options.transactions[i];
        if (blocks.empty() && options.transactions.size() == 1) break;  // only initialise
        WriteTransaction(image, journal, blocks, options.checksums,
                         options.bad_last && i + 1 == options.transactions.size());
        written = true;
    }
    if (written && journal.end == journal.start) Fail("the transactions fill the whole ring");
    WriteHeader(image, journal);
    return 0;
}
