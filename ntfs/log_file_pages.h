#pragma once
// The restart pages of $LogFile in their published layout: the page
// header, the restart area at the page's restart offset, and the array of
// client records. Every field is read through an accessor that converts
// its byte order; the checks below bound every offset and index before a
// structure is looked at behind it.
#include <cstdint>
#include <cstring>

#include "loader/common/byte_order.h"

namespace ntfs {

constexpr std::uint32_t kLogSector = 512;
constexpr std::uint16_t kNoClient = 0xFFFF;  // ends a client list
constexpr std::uint32_t kClientSize = 0xA0;

enum class LogPageSignature { kRestart, kCheckDisk, kRecord, kOther };

// The head of a restart page.
struct RestartPageHeader {
    unsigned char magic_[4];
    Common::le16 usa_ofs_;
    Common::le16 usa_count_;
    Common::le64 chkdsk_lsn_;
    Common::le32 system_page_size_;
    Common::le32 log_page_size_;
    Common::le16 restart_offset_;
    Common::le16 minor_version_;
    Common::le16 major_version_;

    std::uint16_t usa_ofs() const { return usa_ofs_.get(); }
    std::uint32_t system_page_size() const { return system_page_size_.get(); }
    std::uint32_t log_page_size() const { return log_page_size_.get(); }
    std::uint16_t restart_offset() const { return restart_offset_.get(); }
    std::int16_t minor_version() const { return static_cast<std::int16_t>(minor_version_.get()); }
    std::int16_t major_version() const { return static_cast<std::int16_t>(major_version_.get()); }
    // The restart area names its client array itself from version 1.1 on.
    bool new_form() const { return major_version() == 1 && minor_version() != 0; }
    LogPageSignature signature() const {
        if (std::memcmp(magic_, "RSTR", 4) == 0) return LogPageSignature::kRestart;
        if (std::memcmp(magic_, "CHKD", 4) == 0) return LogPageSignature::kCheckDisk;
        if (std::memcmp(magic_, "RCRD", 4) == 0) return LogPageSignature::kRecord;
        return LogPageSignature::kOther;
    }
};
static_assert(sizeof(RestartPageHeader) == 0x1E, "restart page header");

// The restart area, at the page's restart offset.
struct RestartArea {
    Common::le64 current_lsn_;
    Common::le16 log_clients_;
    Common::le16 client_free_list_;
    Common::le16 client_in_use_list_;
    Common::le16 flags_;
    Common::le32 sequence_number_bits_;
    Common::le16 restart_area_length_;
    Common::le16 client_array_offset_;
    Common::le64 file_size_;
    Common::le32 last_lsn_data_length_;
    Common::le16 log_record_header_length_;
    Common::le16 log_page_data_offset_;

    std::uint64_t current_lsn() const { return current_lsn_.get(); }
    std::uint16_t log_clients() const { return log_clients_.get(); }
    std::uint16_t client_free_list() const { return client_free_list_.get(); }
    std::uint16_t client_in_use_list() const { return client_in_use_list_.get(); }
    std::uint32_t sequence_number_bits() const { return sequence_number_bits_.get(); }
    std::uint16_t restart_area_length() const { return restart_area_length_.get(); }
    std::uint16_t client_array_offset() const { return client_array_offset_.get(); }
    std::uint64_t file_size() const { return file_size_.get(); }
    std::uint16_t log_record_header_length() const { return log_record_header_length_.get(); }
    std::uint16_t log_page_data_offset() const { return log_page_data_offset_.get(); }
    void set_current_lsn(std::uint64_t value) { current_lsn_.set(value); }
};
static_assert(sizeof(RestartArea) == 0x28, "restart area");

// One client of the log.
struct LogClient {
    Common::le64 oldest_lsn_;
    Common::le64 client_restart_lsn_;
    Common::le16 previous_client_;
    Common::le16 next_client_;
    unsigned char reserved_[8];
    Common::le32 client_name_length_;
    unsigned char client_name_[128];

    std::uint64_t oldest_lsn() const { return oldest_lsn_.get(); }
    std::uint64_t client_restart_lsn() const { return client_restart_lsn_.get(); }
    std::uint16_t previous_client() const { return previous_client_.get(); }
    std::uint16_t next_client() const { return next_client_.get(); }
    // The client whose restart point this driver cuts: "NTFS" in 16-bit characters.
    bool is_ntfs() const {
        static const unsigned char kName[8] = {'N', 0, 'T', 0, 'F', 0, 'S', 0};
        return client_name_length_.get() == sizeof(kName) && std::memcmp(client_name_, kName, sizeof(kName)) == 0;
    }
    void clear_lsns() {
        oldest_lsn_.set(0);
        client_restart_lsn_.set(0);
    }
};

const RestartPageHeader& HeaderOf(const unsigned char* page);
RestartArea& AreaOf(unsigned char* page);
const RestartArea& AreaOf(const unsigned char* page);
// Client `index` of a page of `size` bytes; null when it doesn't lie whole in the page.
const LogClient* ClientOf(const unsigned char* page, std::uint32_t size, std::uint32_t index);
LogClient* ClientOf(unsigned char* page, std::uint32_t size, std::uint32_t index);

// The page header of a page found at `probe`.
bool PageHeaderPasses(const unsigned char* page, std::uint64_t probe);
// The restart area, from what lies in the first 512 bytes.
bool RestartAreaPasses(const unsigned char* page);
// Both client lists; `strict` for a page whose update sequence didn't
// check: then only the first sector can be trusted.
bool ClientListsPass(const unsigned char* page, std::uint32_t size, bool strict);
bool HasClientsInUse(const unsigned char* page);

}  // namespace ntfs
