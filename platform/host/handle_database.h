#pragma once
// The simulator's handle database: handles in creation order, each with its
// protocol interfaces in installation order, and who opened them.
#include <efi.h>

#include <cstring>
#include <memory>
#include <vector>

namespace HostFirmware {

struct ProtocolEntry {
    EFI_GUID guid;
    void* interface;
    std::vector<EFI_OPEN_PROTOCOL_INFORMATION_ENTRY> openers;
};

struct HandleRecord {
    std::vector<ProtocolEntry> protocols;
};

inline bool SameGuid(const EFI_GUID& a, const EFI_GUID& b) { return std::memcmp(&a, &b, sizeof(EFI_GUID)) == 0; }

class HandleDatabase {
public:
    EFI_HANDLE Create();
    // Adds a protocol to `handle` (a new handle when null); the handle used.
    EFI_HANDLE Install(EFI_HANDLE handle, const EFI_GUID& guid, void* interface);
    EFI_STATUS Uninstall(EFI_HANDLE handle, const EFI_GUID& guid, void* interface);
    bool Knows(EFI_HANDLE handle) const;
    ProtocolEntry* Find(EFI_HANDLE handle, const EFI_GUID& guid);
    // Handles that carry `guid` (all handles when null), in creation order.
    std::vector<EFI_HANDLE> HandlesWith(const EFI_GUID* guid) const;
    const std::vector<EFI_HANDLE>& All() const { return order_; }
    std::vector<ProtocolEntry>* ProtocolsOf(EFI_HANDLE handle) {
        HandleRecord* record = RecordOf(handle);
        return record != nullptr ? &record->protocols : nullptr;
    }

private:
    HandleRecord* RecordOf(EFI_HANDLE handle) const;

    std::vector<std::unique_ptr<HandleRecord>> records_;
    std::vector<EFI_HANDLE> order_;
};

}  // namespace HostFirmware
