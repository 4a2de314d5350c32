#include "ntfs/log_file_pages.h"

#include <initializer_list>

namespace ntfs {

namespace {

// No log has pages this large; a bigger number is damage, and would size
// an allocation.
constexpr std::uint32_t kMostPageSize = 65536;
constexpr std::uint32_t kOldClientArrayOffset = 0x28;

std::uint32_t ClientArrayOffset(const unsigned char* page) {
    return HeaderOf(page).new_form() ? AreaOf(page).client_array_offset() : kOldClientArrayOffset;
}

bool PowerOfTwoFrom512(std::uint32_t value) { return value >= kLogSector && (value & (value - 1)) == 0; }

std::uint32_t BitLength(std::uint64_t value) {
    std::uint32_t bits = 0;
    for (; value != 0; value >>= 1) ++bits;
    return bits;
}

// One client list: a head with no predecessor, and a walk by next client
// that stays among the clients and can't loop.
bool ClientListPasses(const unsigned char* page, std::uint32_t size, std::uint16_t head) {
    const std::uint32_t count = AreaOf(page).log_clients();
    if (head == kNoClient) return true;
    if (count == 0 || head >= count) return false;
    const LogClient* client = ClientOf(page, size, head);
    if (client == nullptr || client->previous_client() != kNoClient) return false;
    for (std::uint32_t steps = 0; client->next_client() != kNoClient; ++steps) {
        if (client->next_client() >= count || steps + 1 > count - 1) return false;
        client = ClientOf(page, size, client->next_client());
        if (client == nullptr) return false;
    }
    return true;
}

}  // namespace

const RestartPageHeader& HeaderOf(const unsigned char* page) {
    return *reinterpret_cast<const RestartPageHeader*>(page);
}

RestartArea& AreaOf(unsigned char* page) {
    return *reinterpret_cast<RestartArea*>(page + HeaderOf(page).restart_offset());
}

const RestartArea& AreaOf(const unsigned char* page) {
    return *reinterpret_cast<const RestartArea*>(page + HeaderOf(page).restart_offset());
}

// Client `index` of a page of `size` bytes; null when it doesn't lie whole in the page.
const LogClient* ClientOf(const unsigned char* page, std::uint32_t size, std::uint32_t index) {
    const std::uint64_t at =
        std::uint64_t(HeaderOf(page).restart_offset()) + ClientArrayOffset(page) + std::uint64_t(index) * kClientSize;
    if (at + kClientSize > size) return nullptr;
    return reinterpret_cast<const LogClient*>(page + at);
}

LogClient* ClientOf(unsigned char* page, std::uint32_t size, std::uint32_t index) {
    return const_cast<LogClient*>(ClientOf(static_cast<const unsigned char*>(page), size, index));
}

// The page header of a page found at `probe`.
bool PageHeaderPasses(const unsigned char* page, std::uint64_t probe) {
    const RestartPageHeader& header = HeaderOf(page);
    const std::uint32_t system = header.system_page_size();
    if (!PowerOfTwoFrom512(header.log_page_size()) || !PowerOfTwoFrom512(system)) return false;
    if (system > kMostPageSize || (probe != 0 && system != probe)) return false;
    if (header.major_version() > 1) return false;
    const std::uint32_t offset = header.restart_offset();
    return offset % 8 == 0 && offset < system && offset >= header.usa_ofs() + ((system >> 9) + 1) * 2;
}

// The restart area, from what lies in the first 512 bytes.
bool RestartAreaPasses(const unsigned char* page) {
    const RestartPageHeader& header = HeaderOf(page);
    const std::uint32_t offset = header.restart_offset();
    // The area's fields must lie in the bytes that were probed.
    if (offset >= 487 || offset + sizeof(RestartArea) > kLogSector) return false;
    const RestartArea& area = AreaOf(page);
    const std::uint32_t clients = ClientArrayOffset(page);
    const std::uint64_t array_end = clients + std::uint64_t(area.log_clients()) * kClientSize;
    const bool new_form = header.new_form();
    if ((new_form && clients % 8 != 0) || clients + offset > 510) return false;
    if (array_end > header.system_page_size()) return false;
    if (new_form && (area.restart_area_length() + offset > header.system_page_size() ||
                     array_end > area.restart_area_length())) {
        return false;
    }
    for (std::uint16_t head : {area.client_free_list(), area.client_in_use_list()}) {
        if (head != kNoClient && head >= area.log_clients()) return false;
    }
    if (area.sequence_number_bits() != 67 - BitLength(area.file_size())) return false;
    return !new_form || (area.log_record_header_length() % 8 == 0 && area.log_page_data_offset() % 8 == 0);
}

// `strict` for a page whose update sequence didn't check: then only the
// first sector can be trusted, and the area must end inside it.
bool ClientListsPass(const unsigned char* page, std::uint32_t size, bool strict) {
    const RestartArea& area = AreaOf(page);
    if (strict && area.restart_area_length() + HeaderOf(page).restart_offset() > 510) return false;
    return ClientListPasses(page, size, area.client_free_list()) &&
           ClientListPasses(page, size, area.client_in_use_list());
}

bool HasClientsInUse(const unsigned char* page) { return AreaOf(page).client_in_use_list() != kNoClient; }

}  // namespace ntfs
