#include "platform/host/variable_store.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace HostFirmware {
namespace {

// The published layout of an OVMF variable file: a firmware volume whose
// file system GUID says "NV data", holding a variable store header and then
// variables, each header 4-byte aligned, name and data packed behind it.
constexpr std::size_t kVolumeSignatureOffset = 40;
constexpr std::size_t kVolumeHeaderLengthOffset = 48;
constexpr std::size_t kVolumeLengthOffset = 32;
constexpr std::size_t kVolumeGuidOffset = 16;
constexpr std::size_t kVolumeHeaderMinimum = 56;
constexpr std::uint32_t kVolumeSignature = 0x4856465F;  // "_FVH"
constexpr std::size_t kStoreHeaderSize = 28;
constexpr std::uint8_t kStoreFormatted = 0x5A;
constexpr std::uint8_t kStoreHealthy = 0xFE;

constexpr std::uint16_t kVariableStartId = 0x55AA;
constexpr std::uint8_t kVariableAdded = 0x3F;
constexpr std::uint8_t kVariableInDeletedTransition = 0xFE;  // cleared bits mark the state
constexpr std::size_t kAuthenticatedHeaderSize = 60;
constexpr std::size_t kPlainHeaderSize = 32;
constexpr std::size_t kHeaderAlignment = 4;

// The fault tolerant write working block that follows the store: its
// header, then a queue of write records.
constexpr std::size_t kWorkingBlockHeaderSize = 32;
constexpr std::size_t kWorkingBlockQueueSizeOffset = 24;

const std::uint8_t kNvDataVolumeGuid[16] = {0x8D, 0x2B, 0xF1, 0xFF, 0x96, 0x76, 0x8B, 0x4C,
                                            0xA9, 0x85, 0x27, 0x47, 0x07, 0x5B, 0x4F, 0x50};
const std::uint8_t kAuthenticatedStoreGuid[16] = {0x78, 0x2C, 0xF3, 0xAA, 0x7B, 0x94, 0x9A, 0x43,
                                                  0xA1, 0x80, 0x2E, 0x14, 0x4E, 0xC3, 0x77, 0x92};
const std::uint8_t kPlainStoreGuid[16] = {0x16, 0x36, 0xCF, 0xDD, 0x75, 0x32, 0x64, 0x41,
                                          0x98, 0xB6, 0xFE, 0x85, 0x70, 0x7F, 0xFE, 0x7D};
const std::uint8_t kWorkingBlockGuid[16] = {0x2B, 0x29, 0x58, 0x9E, 0x68, 0x7C, 0x7D, 0x49,
                                            0xA0, 0xCE, 0x65, 0x00, 0xFD, 0x9F, 0x1B, 0x95};

// The room of OVMF's 4 MiB variable store, for a store with no file.
constexpr std::size_t kDefaultCapacity = 0x40000 - 0x64;

constexpr std::uint32_t kAccessAttributes = EFI_VARIABLE_BOOTSERVICE_ACCESS | EFI_VARIABLE_RUNTIME_ACCESS;
constexpr std::uint32_t kKnownAttributes = 0x7F;
constexpr std::uint32_t kUnsupportedAttributes = EFI_VARIABLE_HARDWARE_ERROR_RECORD |
                                                 EFI_VARIABLE_AUTHENTICATED_WRITE_ACCESS |
                                                 EFI_VARIABLE_TIME_BASED_AUTHENTICATED_WRITE_ACCESS;

std::size_t AlignHeader(std::size_t offset) { return (offset + kHeaderAlignment - 1) & ~(kHeaderAlignment - 1); }

std::uint64_t Little(const std::vector<std::uint8_t>& bytes, std::size_t offset, int width) {
    std::uint64_t value = 0;
    for (int i = width - 1; i >= 0; --i) value = (value << 8) | bytes[offset + i];
    return value;
}

void PutLittle(std::vector<std::uint8_t>& bytes, std::size_t offset, std::uint64_t value, int width) {
    for (int i = 0; i < width; ++i, value >>= 8) bytes[offset + i] = static_cast<std::uint8_t>(value & 0xFF);
}

bool SameGuidBytes(const std::vector<std::uint8_t>& bytes, std::size_t offset, const std::uint8_t* guid) {
    return std::memcmp(bytes.data() + offset, guid, 16) == 0;
}

bool SameVendor(const EFI_GUID& a, const EFI_GUID& b) { return std::memcmp(&a, &b, sizeof(EFI_GUID)) == 0; }

std::u16string NameOf(const CHAR16* name) {
    std::u16string text;
    for (; *name != 0; ++name) text.push_back(static_cast<char16_t>(*name));
    return text;
}

}  // namespace

VariableStore::VariableStore() : capacity_(kDefaultCapacity) {}

EFI_STATUS VariableStore::Record(VariableCall::Kind kind, const std::u16string& name, std::uint32_t attributes,
                                 std::size_t size, EFI_STATUS status) {
    calls_.push_back(VariableCall{kind, name, attributes, size, status});
    return status;
}

std::size_t VariableStore::CountCalls(VariableCall::Kind kind, const std::u16string& name) const {
    return static_cast<std::size_t>(std::count_if(calls_.begin(), calls_.end(), [&](const VariableCall& call) {
        return call.kind == kind && call.name == name;
    }));
}

std::size_t VariableStore::CountCalls(VariableCall::Kind kind) const {
    return static_cast<std::size_t>(
        std::count_if(calls_.begin(), calls_.end(), [&](const VariableCall& call) { return call.kind == kind; }));
}

StoredVariable* VariableStore::FindMutable(const EFI_GUID& vendor, const std::u16string& name) {
    for (StoredVariable& variable : variables_) {
        if (variable.name == name && SameVendor(variable.vendor, vendor)) return &variable;
    }
    return nullptr;
}

const StoredVariable* VariableStore::Find(const EFI_GUID& vendor, const std::u16string& name) const {
    return const_cast<VariableStore*>(this)->FindMutable(vendor, name);
}

void VariableStore::Put(const EFI_GUID& vendor, const std::u16string& name, std::uint32_t attributes,
                        const std::vector<std::uint8_t>& data) {
    StoredVariable* existing = FindMutable(vendor, name);
    if (existing == nullptr) {
        variables_.push_back(StoredVariable{vendor, name, attributes, data});
        return;
    }
    existing->attributes = attributes;
    existing->data = data;
}

bool VariableStore::Erase(const EFI_GUID& vendor, const std::u16string& name) {
    for (auto at = variables_.begin(); at != variables_.end(); ++at) {
        if (at->name == name && SameVendor(at->vendor, vendor)) {
            variables_.erase(at);
            return true;
        }
    }
    return false;
}

std::size_t VariableStore::LaidOutSize(const StoredVariable& variable) const {
    std::size_t header = authenticated_ ? kAuthenticatedHeaderSize : kPlainHeaderSize;
    return AlignHeader(header + 2 * (variable.name.size() + 1) + variable.data.size());
}

std::size_t VariableStore::UsedBytes() const {
    std::size_t used = 0;
    for (const StoredVariable& variable : variables_) used += LaidOutSize(variable);
    return used;
}

EFI_STATUS VariableStore::GetVariable(const CHAR16* name, const EFI_GUID* vendor, UINT32* attributes, UINTN* size,
                                      void* data) {
    if (name == nullptr || vendor == nullptr || size == nullptr) {
        return Record(VariableCall::Get, name ? NameOf(name) : u"", 0, 0, EFI_INVALID_PARAMETER);
    }
    const std::u16string text = NameOf(name);
    const std::size_t offered = *size;
    if (refused_reads_.count(text) != 0) return Record(VariableCall::Get, text, 0, offered, EFI_DEVICE_ERROR);
    const StoredVariable* variable = Find(*vendor, text);
    if (variable == nullptr) return Record(VariableCall::Get, text, 0, offered, EFI_NOT_FOUND);
    if (*size < variable->data.size()) {
        *size = variable->data.size();
        if (attributes != nullptr) *attributes = variable->attributes;
        return Record(VariableCall::Get, text, 0, offered, EFI_BUFFER_TOO_SMALL);
    }
    if (data == nullptr) return Record(VariableCall::Get, text, 0, offered, EFI_INVALID_PARAMETER);
    if (!variable->data.empty()) std::memcpy(data, variable->data.data(), variable->data.size());
    *size = variable->data.size();
    if (attributes != nullptr) *attributes = variable->attributes;
    return Record(VariableCall::Get, text, 0, offered, EFI_SUCCESS);
}

EFI_STATUS VariableStore::SetVariable(const CHAR16* name, const EFI_GUID* vendor, UINT32 attributes, UINTN size,
                                      const void* data) {
    const std::u16string text = name != nullptr ? NameOf(name) : std::u16string();
    auto done = [&](EFI_STATUS status) { return Record(VariableCall::Set, text, attributes, size, status); };
    if (name == nullptr || text.empty() || vendor == nullptr) return done(EFI_INVALID_PARAMETER);
    if (size != 0 && data == nullptr) return done(EFI_INVALID_PARAMETER);
    if ((attributes & ~kKnownAttributes) != 0) return done(EFI_INVALID_PARAMETER);
    if ((attributes & kAccessAttributes) == EFI_VARIABLE_RUNTIME_ACCESS) return done(EFI_INVALID_PARAMETER);
    // The simulator keeps no keys and no hardware error records.
    if ((attributes & kUnsupportedAttributes) != 0) return done(EFI_UNSUPPORTED);
    if (refused_writes_.count(text) != 0) return done(EFI_WRITE_PROTECTED);
    const std::size_t header = authenticated_ ? kAuthenticatedHeaderSize : kPlainHeaderSize;
    if (2 * (text.size() + 1) + size > kMaxVariableSize - header) return done(EFI_INVALID_PARAMETER);

    StoredVariable* existing = FindMutable(*vendor, text);
    const bool append = (attributes & EFI_VARIABLE_APPEND_WRITE) != 0;
    const std::uint32_t kept_attributes = attributes & ~EFI_VARIABLE_APPEND_WRITE;
    // A variable keeps its attributes; only a deletion may name none.
    if (existing != nullptr && attributes != 0 && kept_attributes != existing->attributes) {
        return done(EFI_INVALID_PARAMETER);
    }
    const bool deletion = (!append && size == 0) || (attributes & kAccessAttributes) == 0;
    if (deletion) {
        if (existing == nullptr) return done(EFI_NOT_FOUND);
        Erase(*vendor, text);
        return done(EFI_SUCCESS);
    }
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    StoredVariable updated = existing != nullptr ? *existing : StoredVariable{*vendor, text, kept_attributes, {}};
    if (append) {
        if (size == 0) return done(EFI_SUCCESS);
        updated.data.insert(updated.data.end(), bytes, bytes + size);
    } else {
        updated.data.assign(bytes, bytes + size);
    }
    std::size_t used = UsedBytes() - (existing != nullptr ? LaidOutSize(*existing) : 0) + LaidOutSize(updated);
    if (used > capacity_) return done(EFI_OUT_OF_RESOURCES);
    if (existing != nullptr) {
        *existing = updated;
    } else {
        variables_.push_back(updated);
    }
    return done(EFI_SUCCESS);
}

EFI_STATUS VariableStore::GetNextVariableName(UINTN* name_size, CHAR16* name, EFI_GUID* vendor) {
    if (name_size == nullptr || name == nullptr || vendor == nullptr) {
        return Record(VariableCall::GetNext, u"", 0, 0, EFI_INVALID_PARAMETER);
    }
    // The name given must end inside the buffer given.
    const std::size_t characters = *name_size / 2;
    std::size_t length = 0;
    while (length < characters && name[length] != 0) ++length;
    if (length == characters) return Record(VariableCall::GetNext, u"", 0, *name_size, EFI_INVALID_PARAMETER);
    const std::u16string previous(reinterpret_cast<const char16_t*>(name), length);

    std::size_t next = 0;
    if (!previous.empty()) {
        auto at = std::find_if(variables_.begin(), variables_.end(), [&](const StoredVariable& variable) {
            return variable.name == previous && SameVendor(variable.vendor, *vendor);
        });
        if (at == variables_.end()) return Record(VariableCall::GetNext, previous, 0, *name_size, EFI_INVALID_PARAMETER);
        next = static_cast<std::size_t>(at - variables_.begin()) + 1;
    }
    if (next >= variables_.size()) return Record(VariableCall::GetNext, previous, 0, *name_size, EFI_NOT_FOUND);
    const StoredVariable& variable = variables_[next];
    const std::size_t needed = 2 * (variable.name.size() + 1);
    const std::size_t offered = *name_size;
    if (offered < needed) {
        *name_size = needed;
        return Record(VariableCall::GetNext, previous, 0, offered, EFI_BUFFER_TOO_SMALL);
    }
    for (std::size_t i = 0; i < variable.name.size(); ++i) name[i] = variable.name[i];
    name[variable.name.size()] = 0;
    *vendor = variable.vendor;
    *name_size = needed;
    return Record(VariableCall::GetNext, previous, 0, offered, EFI_SUCCESS);
}

EFI_STATUS VariableStore::QueryVariableInfo(UINT32 attributes, UINT64* maximum_storage, UINT64* remaining_storage,
                                            UINT64* maximum_variable) {
    if (maximum_storage == nullptr || remaining_storage == nullptr || maximum_variable == nullptr) {
        return EFI_INVALID_PARAMETER;
    }
    if ((attributes & kAccessAttributes) == 0 || (attributes & ~kKnownAttributes) != 0) return EFI_INVALID_PARAMETER;
    const std::size_t used = UsedBytes();
    *maximum_storage = capacity_;
    *remaining_storage = used < capacity_ ? capacity_ - used : 0;
    *maximum_variable = kMaxVariableSize - (authenticated_ ? kAuthenticatedHeaderSize : kPlainHeaderSize);
    return EFI_SUCCESS;
}

bool VariableStore::LoadImage(const std::vector<std::uint8_t>& image, std::string& problem) {
    if (image.size() < kVolumeHeaderMinimum) {
        problem = "too small for a firmware volume";
        return false;
    }
    if (Little(image, kVolumeSignatureOffset, 4) != kVolumeSignature) {
        problem = "no firmware volume signature";
        return false;
    }
    if (!SameGuidBytes(image, kVolumeGuidOffset, kNvDataVolumeGuid)) {
        problem = "the firmware volume does not hold variables";
        return false;
    }
    const std::uint64_t volume_length = Little(image, kVolumeLengthOffset, 8);
    const std::size_t header_length = static_cast<std::size_t>(Little(image, kVolumeHeaderLengthOffset, 2));
    if (volume_length > image.size() || header_length < kVolumeHeaderMinimum ||
        header_length + kStoreHeaderSize > volume_length) {
        problem = "firmware volume lengths run past the file";
        return false;
    }
    const std::size_t store = header_length;
    bool authenticated;
    if (SameGuidBytes(image, store, kAuthenticatedStoreGuid)) {
        authenticated = true;
    } else if (SameGuidBytes(image, store, kPlainStoreGuid)) {
        authenticated = false;
    } else {
        problem = "unknown variable store signature";
        return false;
    }
    const std::uint64_t store_size = Little(image, store + 16, 4);
    if (store_size < kStoreHeaderSize || store + store_size > volume_length) {
        problem = "variable store size runs past the volume";
        return false;
    }
    if (image[store + 20] != kStoreFormatted || image[store + 21] != kStoreHealthy) {
        problem = "variable store not formatted or not healthy";
        return false;
    }

    const std::size_t header_size = authenticated ? kAuthenticatedHeaderSize : kPlainHeaderSize;
    const std::size_t name_size_offset = authenticated ? 36 : 8;
    const std::size_t first = AlignHeader(store + kStoreHeaderSize);
    const std::size_t end = static_cast<std::size_t>(store + store_size);
    std::vector<StoredVariable> live;
    std::vector<StoredVariable> in_transition;
    std::size_t at = first;
    while (at + header_size <= end && Little(image, at, 2) == kVariableStartId) {
        const std::uint8_t state = image[at + 2];
        const std::uint64_t name_size = Little(image, at + name_size_offset, 4);
        const std::uint64_t data_size = Little(image, at + name_size_offset + 4, 4);
        const std::uint64_t data_end = at + header_size + name_size + data_size;
        if (data_end > end) {
            problem = "a variable runs past the store";
            return false;
        }
        const bool added = state == kVariableAdded;
        const bool leaving = state == (kVariableAdded & kVariableInDeletedTransition);
        if (added || leaving) {
            const std::size_t name_at = at + header_size;
            if (name_size < 2 || name_size % 2 != 0 || Little(image, name_at + name_size - 2, 2) != 0) {
                problem = "a variable name without its terminator";
                return false;
            }
            StoredVariable variable;
            std::memcpy(&variable.vendor, image.data() + at + name_size_offset + 8, sizeof(EFI_GUID));
            for (std::size_t i = 0; i + 2 < name_size; i += 2) {
                auto c = static_cast<char16_t>(Little(image, name_at + i, 2));
                if (c == 0) break;
                variable.name.push_back(c);
            }
            variable.attributes = static_cast<std::uint32_t>(Little(image, at + 4, 4));
            const std::size_t data_at = name_at + static_cast<std::size_t>(name_size);
            variable.data.assign(image.begin() + data_at, image.begin() + data_at + data_size);
            if (authenticated) {
                variable.monotonic_count = Little(image, at + 8, 8);
                std::memcpy(variable.timestamp.data(), image.data() + at + 16, 16);
                variable.public_key_index = static_cast<std::uint32_t>(Little(image, at + 32, 4));
            }
            (added ? live : in_transition).push_back(variable);
        }
        at = AlignHeader(static_cast<std::size_t>(data_end));
    }
    // A copy caught between its replacement and its deletion counts only
    // when the replacement never made it.
    for (const StoredVariable& leaving : in_transition) {
        bool replaced = std::any_of(live.begin(), live.end(), [&](const StoredVariable& variable) {
            return variable.name == leaving.name && SameVendor(variable.vendor, leaving.vendor);
        });
        if (!replaced) live.push_back(leaving);
    }

    variables_ = live;
    image_ = image;
    store_offset_ = first;
    store_end_ = end;
    authenticated_ = authenticated;
    capacity_ = end - first;
    return true;
}

bool VariableStore::SaveImage(std::vector<std::uint8_t>& image, std::string& problem) const {
    if (image_.empty()) {
        problem = "no variable file was loaded";
        return false;
    }
    std::vector<std::uint8_t> out = image_;
    std::fill(out.begin() + store_offset_, out.begin() + store_end_, 0xFF);
    const std::size_t header_size = authenticated_ ? kAuthenticatedHeaderSize : kPlainHeaderSize;
    const std::size_t name_size_offset = authenticated_ ? 36 : 8;
    std::size_t at = store_offset_;
    for (const StoredVariable& variable : variables_) {
        // Volatile variables live until the machine is reset.
        if ((variable.attributes & EFI_VARIABLE_NON_VOLATILE) == 0) continue;
        const std::size_t name_size = 2 * (variable.name.size() + 1);
        const std::size_t end = at + header_size + name_size + variable.data.size();
        if (end > store_end_) {
            problem = "the variables do not fit the store";
            return false;
        }
        PutLittle(out, at, kVariableStartId, 2);
        out[at + 2] = kVariableAdded;
        out[at + 3] = 0;
        PutLittle(out, at + 4, variable.attributes, 4);
        if (authenticated_) {
            PutLittle(out, at + 8, variable.monotonic_count, 8);
            std::memcpy(out.data() + at + 16, variable.timestamp.data(), 16);
            PutLittle(out, at + 32, variable.public_key_index, 4);
        }
        PutLittle(out, at + name_size_offset, name_size, 4);
        PutLittle(out, at + name_size_offset + 4, variable.data.size(), 4);
        std::memcpy(out.data() + at + name_size_offset + 8, &variable.vendor, sizeof(EFI_GUID));
        std::size_t name_at = at + header_size;
        for (std::size_t i = 0; i < variable.name.size(); ++i) PutLittle(out, name_at + 2 * i, variable.name[i], 2);
        PutLittle(out, name_at + name_size - 2, 0, 2);
        std::copy(variable.data.begin(), variable.data.end(), out.begin() + name_at + name_size);
        at = AlignHeader(end);
    }
    // The store was rewritten whole: no pending write of the fault tolerant
    // write layer may replay an older copy over it at the next start.
    for (std::size_t block = AlignHeader(store_end_); block + kWorkingBlockHeaderSize <= out.size(); block += 0x1000) {
        if (!SameGuidBytes(out, block, kWorkingBlockGuid)) continue;
        std::uint64_t queue = Little(out, block + kWorkingBlockQueueSizeOffset, 8);
        std::size_t queue_end = block + kWorkingBlockHeaderSize + static_cast<std::size_t>(
                                                                      std::min<std::uint64_t>(queue, out.size()));
        queue_end = std::min(queue_end, out.size());
        std::fill(out.begin() + block + kWorkingBlockHeaderSize, out.begin() + queue_end, 0xFF);
        break;
    }
    image.swap(out);
    return true;
}

bool VariableStore::LoadFile(const std::string& path, std::string& problem) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        problem = "cannot open " + path;
        return false;
    }
    std::vector<std::uint8_t> image;
    std::uint8_t chunk[65536];
    for (std::size_t got; (got = std::fread(chunk, 1, sizeof(chunk), file)) > 0;) image.insert(image.end(), chunk, chunk + got);
    bool failed = std::ferror(file) != 0;
    std::fclose(file);
    if (failed) {
        problem = "cannot read " + path;
        return false;
    }
    return LoadImage(image, problem);
}

bool VariableStore::SaveFile(const std::string& path, std::string& problem) const {
    std::vector<std::uint8_t> image;
    if (!SaveImage(image, problem)) return false;
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        problem = "cannot create " + path;
        return false;
    }
    bool written = std::fwrite(image.data(), 1, image.size(), file) == image.size();
    written = std::fclose(file) == 0 && written;
    if (!written) problem = "cannot write " + path;
    return written;
}

}  // namespace HostFirmware
