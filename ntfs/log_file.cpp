#include "ntfs/log_file.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "loader/common/raise.h"
#include "ntfs/fixups.h"
#include "ntfs/log_file_pages.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

namespace {

constexpr std::uint64_t kLogFileRecord = 2;
constexpr std::uint32_t kSector = kLogSector;
// The update sequence array of a log page may start right behind the
// page header's fixed fields.
constexpr std::uint32_t kLogPageFixupMinimum = 30;

// The update sequence, answered yes or no: a torn log page is no error here.
bool UndoFixups(unsigned char* page, std::uint32_t size) {
    try {
        ApplyReadFixups(page, size, kLogPageFixupMinimum);
        return true;
    } catch (const Common::Error&) {
        return false;
    }
}

bool Protect(unsigned char* page, std::uint32_t size) {
    try {
        ApplyWriteFixups(page, size, kLogPageFixupMinimum);
        return true;
    } catch (const Common::Error&) {
        return false;
    }
}

// `length` bytes at `at`; false for a short read or an error.
bool ReadAt(LogFile& file, std::uint64_t at, unsigned char* buffer, std::uint64_t length) {
    std::uint64_t got = 0;
    try {
        file.seek(static_cast<std::int64_t>(at));
        file.read(buffer, length, got);
    } catch (const Common::Error&) {
        return false;
    }
    return got == length;
}

// The whole page whose first sector is `head`; empty when it can't be read
// or its client lists are damaged.
void ReadWholePage(LogFile& file, const unsigned char* head, std::uint64_t probe, std::vector<unsigned char>& page) {
    const std::uint32_t size = HeaderOf(head).system_page_size();
    try {
        page.assign(size, 0);
    } catch (const std::bad_alloc&) {
        page.clear();
        return;
    }
    std::memcpy(page.data(), head, kSector);
    if (!ReadAt(file, probe + kSector, page.data() + kSector, size - kSector)) {
        page.clear();
        return;
    }
    const bool protected_whole = UndoFixups(page.data(), size);
    if (HeaderOf(head).signature() == LogPageSignature::kRestart && HasClientsInUse(page.data()) &&
        !ClientListsPass(page.data(), size, !protected_whole)) {
        page.clear();
    }
}

std::uint64_t NextProbe(std::uint64_t probe) { return probe == 0 ? kSector : probe * 2; }

// A restart page with this driver's client cut loose: its LSNs cleared,
// the current LSN moved back to the older of them. False when nothing changed.
bool CutNtfsClient(std::vector<unsigned char>& page, std::uint32_t size) {
    if (HeaderOf(page.data()).system_page_size() != size ||
        HeaderOf(page.data()).signature() != LogPageSignature::kRestart || !HasClientsInUse(page.data())) {
        return false;
    }
    RestartArea& area = AreaOf(page.data());
    bool changed = false;
    std::uint32_t steps = 0;
    for (std::uint16_t index = area.client_in_use_list(); index != kNoClient && steps++ < area.log_clients();) {
        LogClient* client = ClientOf(page.data(), size, index);
        if (client == nullptr) break;
        const std::uint64_t oldest = client->oldest_lsn();
        const std::uint64_t restart = client->client_restart_lsn();
        if (client->is_ntfs() && (oldest != 0 || restart != 0)) {
            if (oldest != 0 && restart != 0) area.set_current_lsn(std::min(oldest, restart));
            client->clear_lsns();
            changed = true;
        }
        index = client->next_client();
    }
    return changed;
}

void ResetRestartPages(NTFSDriver* driver) {
    LogFile file(driver);
    if (file.failed()) return;
    std::uint64_t position = 0;
    std::vector<unsigned char> page;
    std::uint32_t size = 0;
    // The two restart pages of a log stand at 0 and at one page size.
    for (int pages = 0; pages < 2; ++pages) {
        if (!next_restart_page(file, page, size, position)) return;
        if (CutNtfsClient(page, size)) write_restart_page(file, page, size, position);
        // A first page found further in has no twin.
        if (position != 0) return;
        position = size;
    }
}

}  // namespace

LogFile::LogFile(NTFSDriver* driver) {
    try {
        record_ = driver->record_cache->get(kLogFileRecord);
    } catch (const Common::Error&) {
        set_error(Common::Error(ERROR_TAG, Common::FILE_NOT_FOUND, Common::Messages::FILE_NOT_FOUND));
        return;
    }
    try {
        attribute_ = record_.find(kData);
    } catch (const Common::Error&) {
        attribute_.reset();
    }
    if (!attribute_) set_error(Common::Error(ERROR_TAG, Common::FILE_CORRUPT, Common::Messages::FILE_CORRUPT));
}

void LogFile::read(void* buffer, std::uint64_t size, std::uint64_t& got) {
    got = 0;
    if (failed()) return;
    const std::uint64_t end = attribute_->size();
    if (position_ >= end) return;
    got = attribute_->read(position_, std::min(size, end - position_), buffer);
    position_ += got;
}

void LogFile::write(const void* buffer, std::uint64_t size, std::uint64_t& written) {
    written = 0;
    if (failed()) return;
    written = attribute_->write(position_, size, buffer);
    position_ += written;
}

std::uint64_t LogFile::size() { return failed() ? 0 : attribute_->size(); }

std::int64_t LogFile::seek(std::int64_t position) {
    if (!failed()) position_ = static_cast<std::uint64_t>(position);
    return static_cast<std::int64_t>(position_);
}

std::int64_t LogFile::seek_relative(std::int64_t delta) {
    if (!failed()) position_ += static_cast<std::uint64_t>(delta);
    return static_cast<std::int64_t>(position_);
}

std::int64_t LogFile::seek_end(std::int64_t delta) {
    if (!failed()) position_ = attribute_->size() + static_cast<std::uint64_t>(delta);
    return static_cast<std::int64_t>(position_);
}

bool next_restart_page(LogFile& file, std::vector<unsigned char>& page, std::uint32_t& size, std::uint64_t& position) {
    page.clear();
    size = 0;
    const std::uint64_t end = file.size();
    for (std::uint64_t probe = position; probe < end && probe >= position; probe = NextProbe(probe)) {
        unsigned char head[kSector];
        if (!ReadAt(file, probe, head, kSector)) continue;
        const LogPageSignature signature = HeaderOf(head).signature();
        if (signature == LogPageSignature::kRecord) return false;
        if (signature != LogPageSignature::kRestart && signature != LogPageSignature::kCheckDisk) continue;
        position = probe;
        if (PageHeaderPasses(head, probe) && RestartAreaPasses(head)) ReadWholePage(file, head, probe, page);
        if (page.empty() && signature == LogPageSignature::kCheckDisk) page.assign(head, head + kSector);
        if (!page.empty()) {
            size = static_cast<std::uint32_t>(page.size());
            return true;
        }
    }
    return false;
}

namespace {

// The copy that goes to disk, protected; empty when the page may not go.
std::vector<unsigned char> ProtectedCopy(const std::vector<unsigned char>& page, std::uint32_t size,
                                         std::uint64_t position) {
    std::vector<unsigned char> copy;
    const unsigned char* bytes = page.data();
    if (!PageHeaderPasses(bytes, position) || !RestartAreaPasses(bytes)) return copy;
    const LogPageSignature signature = HeaderOf(bytes).signature();
    if (signature == LogPageSignature::kRestart && HasClientsInUse(bytes)) {
        copy = page;
        // What a reader will undo must still hold sound lists.
        if (!Protect(copy.data(), size) || !UndoFixups(copy.data(), size) ||
            !ClientListsPass(copy.data(), size, false)) {
            copy.clear();
            return copy;
        }
    } else if (signature == LogPageSignature::kCheckDisk) {
        copy = page;
    } else {
        return copy;
    }
    if (!Protect(copy.data(), size)) copy.clear();
    return copy;
}

}  // namespace

bool write_restart_page(LogFile& file, const std::vector<unsigned char>& page, std::uint32_t size,
                        std::uint64_t position) {
    if (page.size() < size || size < kSector) return false;
    std::vector<unsigned char> copy;
    if (HeaderOf(page.data()).system_page_size() == size) {
        copy = ProtectedCopy(page, size, position);
    } else if (size == kSector && HeaderOf(page.data()).signature() == LogPageSignature::kCheckDisk &&
               position % kSector == 0) {
        // A lone first sector of a check-disk page goes as it is.
        copy.assign(page.begin(), page.begin() + kSector);
    }
    if (copy.empty()) return false;
    std::uint64_t written = 0;
    file.seek(static_cast<std::int64_t>(position));
    file.write(copy.data(), size, written);
    return written == size;
}

void reset_log(NTFSDriver* driver) {
    if (driver->log_reset_done) return;
    // Set first: the reset's own writes come back through the write path
    // and must find nothing left to do.
    driver->log_reset_done = true;
    try {
        ResetRestartPages(driver);
    } catch (...) {
        // The write that failed carries the error up; the next change tries again.
        driver->log_reset_done = false;
        throw;
    }
}

}  // namespace ntfs
