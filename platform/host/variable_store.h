#pragma once
// The simulator's firmware variables: GetVariable, SetVariable and
// GetNextVariableName with the UEFI standard's rules, over a store in
// memory that can be filled from, and written back to, an OVMF variable
// file (firmware volume, variable store header, authenticated or plain
// variable headers). Tests reach the store directly, may make it refuse
// reads or writes of one name, and see every call the firmware received.
#include <efi.h>

#include <array>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace HostFirmware {

struct StoredVariable {
    EFI_GUID vendor;
    std::u16string name;
    std::uint32_t attributes = 0;
    std::vector<std::uint8_t> data;
    // Of an authenticated store; kept so a file is written back as it was.
    std::uint64_t monotonic_count = 0;
    std::array<std::uint8_t, 16> timestamp{};
    std::uint32_t public_key_index = 0;
};

struct VariableCall {
    enum Kind { Get, Set, GetNext };
    Kind kind;
    std::u16string name;
    std::uint32_t attributes;  // Set only
    std::size_t size;          // Set: the data size; Get: the buffer size offered
    EFI_STATUS status;
};

class VariableStore {
public:
    // OVMF's limit on the name and data of one variable.
    static constexpr std::size_t kMaxVariableSize = 0x8400;

    VariableStore();

    // The runtime services, as the firmware answers them.
    EFI_STATUS GetVariable(const CHAR16* name, const EFI_GUID* vendor, UINT32* attributes, UINTN* size, void* data);
    EFI_STATUS SetVariable(const CHAR16* name, const EFI_GUID* vendor, UINT32 attributes, UINTN size,
                           const void* data);
    EFI_STATUS GetNextVariableName(UINTN* name_size, CHAR16* name, EFI_GUID* vendor);
    EFI_STATUS QueryVariableInfo(UINT32 attributes, UINT64* maximum_storage, UINT64* remaining_storage,
                                 UINT64* maximum_variable);

    // Direct access, past the firmware's rules: to seed values a firmware
    // would never hold (an empty BootOrder) and to look at the result.
    void Put(const EFI_GUID& vendor, const std::u16string& name, std::uint32_t attributes,
             const std::vector<std::uint8_t>& data);
    const StoredVariable* Find(const EFI_GUID& vendor, const std::u16string& name) const;
    bool Erase(const EFI_GUID& vendor, const std::u16string& name);
    const std::vector<StoredVariable>& All() const { return variables_; }
    void Clear() { variables_.clear(); }

    // From now on, reads (EFI_DEVICE_ERROR) or writes (EFI_WRITE_PROTECTED)
    // of this name fail, for any vendor.
    void RefuseReads(const std::u16string& name) { refused_reads_.insert(name); }
    void RefuseWrites(const std::u16string& name) { refused_writes_.insert(name); }

    // Every call received, in order.
    const std::vector<VariableCall>& Calls() const { return calls_; }
    std::size_t CountCalls(VariableCall::Kind kind, const std::u16string& name) const;
    std::size_t CountCalls(VariableCall::Kind kind) const;
    void ForgetCalls() { calls_.clear(); }

    // The room for variables, in bytes as a store lays them out.
    void SetCapacity(std::size_t bytes) { capacity_ = bytes; }
    std::size_t Capacity() const { return capacity_; }
    std::size_t UsedBytes() const;

    // An OVMF variable file. Load replaces the variables with the file's
    // live ones and keeps the file's image, whose store Save rewrites in
    // place, compacted; everything else in the image stays as it was. Both
    // answer false with a reason in `problem`.
    bool LoadImage(const std::vector<std::uint8_t>& image, std::string& problem);
    bool SaveImage(std::vector<std::uint8_t>& image, std::string& problem) const;
    bool LoadFile(const std::string& path, std::string& problem);
    bool SaveFile(const std::string& path, std::string& problem) const;

private:
    StoredVariable* FindMutable(const EFI_GUID& vendor, const std::u16string& name);
    std::size_t LaidOutSize(const StoredVariable& variable) const;
    EFI_STATUS Record(VariableCall::Kind kind, const std::u16string& name, std::uint32_t attributes,
                      std::size_t size, EFI_STATUS status);

    std::vector<StoredVariable> variables_;
    std::set<std::u16string> refused_reads_;
    std::set<std::u16string> refused_writes_;
    std::vector<VariableCall> calls_;
    std::size_t capacity_;
    // The loaded file, and where its variables stand in it.
    std::vector<std::uint8_t> image_;
    std::size_t store_offset_ = 0;  // first variable header
    std::size_t store_end_ = 0;
    bool authenticated_ = true;
};

}  // namespace HostFirmware
