#include "platform/host/handle_database.h"

#include <algorithm>

namespace HostFirmware {

EFI_HANDLE HandleDatabase::Create() {
    records_.push_back(std::make_unique<HandleRecord>());
    EFI_HANDLE handle = records_.back().get();
    order_.push_back(handle);
    return handle;
}

HandleRecord* HandleDatabase::RecordOf(EFI_HANDLE handle) const {
    for (const auto& record : records_) {
        if (record.get() == handle) return record.get();
    }
    return nullptr;
}

bool HandleDatabase::Knows(EFI_HANDLE handle) const { return RecordOf(handle) != nullptr; }

EFI_HANDLE HandleDatabase::Install(EFI_HANDLE handle, const EFI_GUID& guid, void* interface) {
    if (handle == nullptr) handle = Create();
    HandleRecord* record = RecordOf(handle);
    if (record == nullptr) return nullptr;
    record->protocols.push_back(ProtocolEntry{guid, interface, {}});
    return handle;
}

EFI_STATUS HandleDatabase::Uninstall(EFI_HANDLE handle, const EFI_GUID& guid, void* interface) {
    HandleRecord* record = RecordOf(handle);
    if (record == nullptr) return EFI_INVALID_PARAMETER;
    auto& protocols = record->protocols;
    auto found = std::find_if(protocols.begin(), protocols.end(), [&](const ProtocolEntry& entry) {
        return SameGuid(entry.guid, guid) && entry.interface == interface;
    });
    if (found == protocols.end()) return EFI_NOT_FOUND;
    protocols.erase(found);
    return EFI_SUCCESS;
}

ProtocolEntry* HandleDatabase::Find(EFI_HANDLE handle, const EFI_GUID& guid) {
    HandleRecord* record = RecordOf(handle);
    if (record == nullptr) return nullptr;
    for (ProtocolEntry& entry : record->protocols) {
        if (SameGuid(entry.guid, guid)) return &entry;
    }
    return nullptr;
}

std::vector<EFI_HANDLE> HandleDatabase::HandlesWith(const EFI_GUID* guid) const {
    std::vector<EFI_HANDLE> handles;
    for (EFI_HANDLE handle : order_) {
        const HandleRecord* record = RecordOf(handle);
        bool carries = guid == nullptr || std::any_of(record->protocols.begin(), record->protocols.end(),
                                                      [&](const ProtocolEntry& entry) { return SameGuid(entry.guid, *guid); });
        if (carries) handles.push_back(handle);
    }
    return handles;
}

}  // namespace HostFirmware
