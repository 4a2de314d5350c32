// backup and restore: the typed pieces that a volume's driver makes of one
// entry (contents, named streams, extended attributes, security, times...)
// to a host file and back, through the directory requests that volume
// services use. Ctrl-C cancels through the request's progress object, so
// the driver stops between two pieces and the volume is dismounted whole.
#include <csignal>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "fsdriver/backup_object.h"
#include "tools/backup_container.h"
#include "tools/backup_listing.h"
#include "tools/command.h"
#include "tools/fs_operations.h"
#include "tools/fs_progress.h"

namespace MorvaneTool {
namespace {

constexpr std::uint32_t kBackupRequest = 0x50554B42;   // "BKUP"
constexpr std::uint32_t kRestoreRequest = 0x52545352;  // "RSTR"
constexpr std::size_t kRestoreStep = 0x40000;

volatile std::sig_atomic_t interrupted = 0;
void NoteInterrupt(int) { interrupted = 1; }

// Turns Ctrl-C into a cancel for the length of one request.
class InterruptAsCancel {
public:
    InterruptAsCancel() {
        interrupted = 0;
        struct sigaction action {};
        action.sa_handler = NoteInterrupt;
        // A write to a slow pipe goes on after the signal; the cancel comes
        // between two pieces, as for a slow volume.
        action.sa_flags = SA_RESTART;
        sigemptyset(&action.sa_mask);
        sigaction(SIGINT, &action, &previous_);
    }
    ~InterruptAsCancel() { sigaction(SIGINT, &previous_, nullptr); }
    InterruptAsCancel(const InterruptAsCancel&) = delete;
    InterruptAsCancel& operator=(const InterruptAsCancel&) = delete;

private:
    struct sigaction previous_ {};
};

class ToolProgress : public BackupProgress {
public:
    ToolProgress(const std::string& label, std::uint64_t total) : bar_(label, total) {}
    void done(std::uint64_t bytes) override {
        if (bytes > told_) bar_.Advance(bytes - told_);
        told_ = bytes;
    }
    bool cancelled() override { return interrupted != 0; }

private:
    CopyProgress bar_;
    std::uint64_t told_ = 0;
};

// Where the pieces of a backup go: a container, the bytes of one kind, or
// the listing.
class PieceSink {
public:
    virtual ~PieceSink() = default;
    virtual bool Begin(std::uint32_t kind) = 0;
    virtual bool Append(const unsigned char* bytes, std::uint64_t size) = 0;
    virtual bool End() = 0;
};

class ContainerSink : public PieceSink {
public:
    explicit ContainerSink(std::FILE* file) : writer_(file) {}
    bool Start(std::uint32_t option) { return writer_.Start(option); }
    bool Finish() { return writer_.Finish(); }
    bool Begin(std::uint32_t kind) override { return writer_.BeginPiece(kind); }
    bool Append(const unsigned char* bytes, std::uint64_t size) override { return writer_.Append(bytes, size); }
    bool End() override { return writer_.EndPiece(); }

private:
    ContainerWriter writer_;
};

class KindSink : public PieceSink {
public:
    KindSink(std::FILE* file, std::uint32_t kind) : file_(file), kind_(kind) {}
    bool Begin(std::uint32_t kind) override {
        taking_ = kind == kind_;
        return true;
    }
    bool Append(const unsigned char* bytes, std::uint64_t size) override {
        return !taking_ || std::fwrite(bytes, 1, size, file_) == size;
    }
    bool End() override { return true; }

private:
    std::FILE* file_;
    std::uint32_t kind_;
    bool taking_ = false;
};

class ListSink : public PieceSink {
public:
    explicit ListSink(bool names_end_with_zero) : lister_(stdout, names_end_with_zero) {}
    bool Begin(std::uint32_t kind) override {
        lister_.Begin(kind);
        return true;
    }
    bool Append(const unsigned char* bytes, std::uint64_t size) override {
        lister_.Feed(bytes, size);
        return true;
    }
    bool End() override {
        lister_.End();
        return true;
    }

private:
    PieceLister lister_;
};

// The framework's side of a backup: one output stream per run of pieces of
// one kind, each handing what it is sent to the sink.
class BackupToSink : public BackupStreams {
public:
    explicit BackupToSink(PieceSink& sink) : sink_(sink) {}
    Common::Error open_output(std::uint32_t type, BackupOutputStream*& stream) override {
        if (!sink_.Begin(type)) return HostFailure();
        stream = new Output(*this);
        return Common::Error();
    }
    RestoreInputStream* next_input() override { return nullptr; }
    Common::Error error() override { return Common::Error(); }
    bool host_failed = false;

private:
    class Output : public BackupOutputStream {
    public:
        explicit Output(BackupToSink& owner) : owner_(owner) {}
        ~Output() override {
            if (!owner_.sink_.End()) owner_.host_failed = true;
        }
        unsigned char* reserve(std::uint64_t size) override {
            if (size > area_.max_size()) return nullptr;
            area_.resize(static_cast<std::size_t>(size));
            return area_.data();
        }
        void send(const unsigned char* start, std::uint64_t size) override {
            if (size > 0 && !owner_.sink_.Append(start, size)) owner_.host_failed = true;
        }

    private:
        BackupToSink& owner_;
        std::vector<unsigned char> area_;
    };

    Common::Error HostFailure() {
        host_failed = true;
        return Common::Error(1, Common::FILE_WRITE);
    }
    PieceSink& sink_;
};

// The framework's side of a restore: the pieces of a container that has
// been checked whole, in their order.
class RestoreFromContainer : public BackupStreams {
public:
    RestoreFromContainer(std::FILE* file, const std::vector<ContainerPiece>& pieces)
        : file_(file), pieces_(pieces) {}
    Common::Error open_output(std::uint32_t, BackupOutputStream*&) override {
        return Common::Error(1, Common::FILE_UNSUPPORTED);
    }
    RestoreInputStream* next_input() override {
        if (next_ == pieces_.size()) return nullptr;
        return new Input(file_, pieces_[next_++]);
    }
    Common::Error error() override { return Common::Error(); }

private:
    class Input : public RestoreInputStream {
    public:
        Input(std::FILE* file, const ContainerPiece& piece) : file_(file), piece_(piece) {}
        std::uint32_t type() override { return piece_.kind; }
        Common::Error read(void* buffer, std::uint64_t size, std::uint64_t& got) override {
            got = std::min(size, piece_.size - done_);
            if (got == 0) return Common::Error();
            if (fseeko(file_, piece_.offset + static_cast<long long>(done_), SEEK_SET) != 0 ||
                std::fread(buffer, 1, got, file_) != got) {
                got = 0;
                return Common::Error(1, Common::FILE_READ);
            }
            done_ += got;
            return Common::Error();
        }

    private:
        std::FILE* file_;
        ContainerPiece piece_;
        std::uint64_t done_ = 0;
    };

    std::FILE* file_;
    const std::vector<ContainerPiece>& pieces_;
    std::size_t next_ = 0;
};

// Issues "BKUP" for the entry at `path`: on the directory that lists it, or
// on the root for the root itself.
int RunBackup(const FsRequest& request, const std::string& path, PieceSink& sink, bool& host_failed) {
    Common::Error error;
    std::unique_ptr<rio_dir> parent;
    std::u16string volume_path = VolumePath(path);
    std::unique_ptr<i_dir::iterator> entry(FindEntry(request.root, volume_path, error, &parent));
    if (entry == nullptr) return ReportRefusal("cannot back up", path, error);
    BackupToSink streams(sink);
    ToolProgress progress(path, entry->size());
    BackupRequest block{kBackupRequest, 0, {&streams, &progress, request.option}, {nullptr}};
    rio_dir* target = &request.root;
    if (parent != nullptr) {
        block.entry = entry.get();
        target = parent.get();
    }
    InterruptAsCancel cancel_on_interrupt;
    target->control(&block);
    host_failed = streams.host_failed;
    if (host_failed) return kExitUsageOrIo;
    if (target->failed()) return ReportRefusal("cannot back up", path, target->error());
    return kExitOk;
}

std::FILE* OpenHostOutput(const std::string& host_path, const HostIdentity& image) {
    if (host_path == "-") return stdout;
    if (IsTheImage(host_path, image)) return nullptr;
    return std::fopen(host_path.c_str(), "wb");
}

int BackupToFile(const FsRequest& request, const std::string& path, const std::string& host_path) {
    bool whole = !request.kind_given;
    if (whole && host_path == "-") {
        return ReportHostFailure("cannot write", host_path, "a backup file must be a file, not standard output");
    }
    std::FILE* file = OpenHostOutput(host_path, request.image);
    if (file == nullptr) {
        return ReportHostFailure("cannot create", host_path,
                                 IsTheImage(host_path, request.image) ? "it is the image itself" : std::strerror(errno));
    }
    ContainerSink container(file);
    KindSink kind_only(file, request.kind);
    PieceSink& sink = whole ? static_cast<PieceSink&>(container) : kind_only;
    bool host_failed = whole && !container.Start(request.option);
    int status = host_failed ? kExitUsageOrIo : RunBackup(request, path, sink, host_failed);
    if (status == kExitOk && whole) host_failed = !container.Finish();
    bool closed = file == stdout ? std::fflush(file) == 0 : std::fclose(file) == 0;
    if (host_failed || !closed) return ReportHostFailure("cannot write", host_path, std::strerror(errno));
    // What a refused or cancelled backup left is no backup: it must not be
    // taken for one later.
    if (status != kExitOk && host_path != "-") std::remove(host_path.c_str());
    return status;
}

}  // namespace

int BackupEntry(const FsRequest& request) {
    if (request.list) {
        ListSink listing(VolumeTypeName(request.root) == "HFS+");
        bool host_failed = false;
        return RunBackup(request, request.paths[0], listing, host_failed);
    }
    return BackupToFile(request, request.paths[0], request.paths[1]);
}

int RestoreEntry(const FsRequest& request) {
    const std::string& host_path = request.paths[0];
    const std::string& path = request.paths[1];
    std::FILE* file = std::fopen(host_path.c_str(), "rb");
    if (file == nullptr) return ReportHostFailure("cannot open", host_path, std::strerror(errno));
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> closing(file, std::fclose);
    std::uint32_t option = 0;
    std::vector<ContainerPiece> pieces;
    std::string problem;
    if (!ScanContainer(file, option, pieces, problem)) return ReportHostFailure("cannot restore from", host_path, problem);
    if (request.option_given) option = request.option;
    std::uint64_t total = 0;
    for (const ContainerPiece& piece : pieces) total += piece.size;

    RestoreFromContainer streams(file, pieces);
    ToolProgress progress(path, total);
    std::u16string volume_path = VolumePath(path);
    BackupRequest block{kRestoreRequest, 0, {&streams, &progress, option}, {nullptr}};
    block.path = volume_path.c_str();
    InterruptAsCancel cancel_on_interrupt;
    request.root.control(&block);
    if (request.root.failed()) return ReportRefusal("cannot restore", path, request.root.error());
    return kExitOk;
}

}  // namespace MorvaneTool
