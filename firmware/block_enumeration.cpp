#include "firmware/block_enumeration.h"

#include <cstring>

#include "firmware/block_device.h"
#include "firmware/device_path.h"
#include "firmware/firmware_access.h"

namespace Fdisk {
namespace {

EFI_GUID DevicePathGuid() {
    EFI_GUID guid = DEVICE_PATH_PROTOCOL;
    return guid;
}

// Pool memory the firmware handed out, given back at the end of the scope.
template <typename Pointer>
class PoolBuffer {
public:
    ~PoolBuffer() {
        if (pointer != nullptr) Uefi::BootServices()->FreePool(pointer);
    }
    Pointer pointer = nullptr;
};

// One parent-to-child link, as a bus driver leaves it in the open
// information of the parent's protocols.
struct ControllerLink {
    EFI_HANDLE parent;
    EFI_HANDLE child;
};

// The child controllers of `handle`, each once, in the order of its
// protocols and their openers. EFI_NOT_FOUND when it has none.
EFI_STATUS FindChildren(EFI_HANDLE handle, std::vector<EFI_HANDLE>& children) {
    children.clear();
    EFI_BOOT_SERVICES* services = Uefi::BootServices();
    PoolBuffer<EFI_GUID**> protocols;
    UINTN protocol_count = 0;
    EFI_STATUS status = services->ProtocolsPerHandle(handle, &protocols.pointer, &protocol_count);
    if (status != EFI_SUCCESS) return status;
    for (UINTN p = 0; p < protocol_count; ++p) {
        PoolBuffer<EFI_OPEN_PROTOCOL_INFORMATION_ENTRY*> openers;
        UINTN opener_count = 0;
        status = services->OpenProtocolInformation(handle, protocols.pointer[p], &openers.pointer, &opener_count);
        if (status == EFI_NOT_FOUND) continue;
        if (status != EFI_SUCCESS) return status;
        for (UINTN o = 0; o < opener_count; ++o) {
            const EFI_OPEN_PROTOCOL_INFORMATION_ENTRY& opener = openers.pointer[o];
            if ((opener.Attributes & EFI_OPEN_PROTOCOL_BY_CHILD_CONTROLLER) == 0) continue;
            bool known = false;
            for (EFI_HANDLE child : children) known = known || child == opener.ControllerHandle;
            if (!known) children.push_back(opener.ControllerHandle);
        }
    }
    return children.empty() ? EFI_NOT_FOUND : EFI_SUCCESS;
}

EFI_DEVICE_PATH* DevicePathOf(EFI_HANDLE handle) {
    EFI_GUID guid = DevicePathGuid();
    void* interface = nullptr;
    if (Uefi::BootServices()->HandleProtocol(handle, &guid, &interface) != EFI_SUCCESS) return nullptr;
    return static_cast<EFI_DEVICE_PATH*>(interface);
}

struct Collected {
    EFI_HANDLE handle;
    EFI_DEVICE_PATH* path;
};

class DeviceTreeWalk {
public:
    std::vector<Collected> collected;
    EFI_STATUS last_status = EFI_SUCCESS;

    void Walk(EFI_HANDLE handle) {
        collected.push_back({handle, DevicePathOf(handle)});
        if (collected.back().path == nullptr) return;
        // A handle that is its own ancestor would be walked for ever.
        for (EFI_HANDLE ancestor : branch_) {
            if (ancestor == handle) return;
        }
        std::vector<EFI_HANDLE> children;
        EFI_STATUS status = FindChildren(handle, children);
        last_status = status == EFI_NOT_FOUND ? EFI_SUCCESS : status;
        if (status != EFI_SUCCESS) return;
        branch_.push_back(handle);
        for (EFI_HANDLE child : children) Walk(child);
        branch_.pop_back();
    }

private:
    std::vector<EFI_HANDLE> branch_;
};

// The roots of the controller tree among the device handles, in the order
// of the database. A handle whose parents cannot be learnt is left out.
// Answers the status of the scan.
EFI_STATUS FindRoots(std::vector<EFI_HANDLE>& roots) {
    EFI_BOOT_SERVICES* services = Uefi::BootServices();
    PoolBuffer<EFI_HANDLE*> handles;
    UINTN handle_count = 0;
    EFI_STATUS status = services->LocateHandleBuffer(AllHandles, nullptr, nullptr, &handle_count, &handles.pointer);
    if (status == EFI_NOT_FOUND) return EFI_SUCCESS;  // an empty database
    if (status != EFI_SUCCESS) return status;

    EFI_GUID device_path_guid = DevicePathGuid();
    std::vector<EFI_HANDLE> devices;
    for (UINTN h = 0; h < handle_count; ++h) {
        PoolBuffer<EFI_GUID**> protocols;
        UINTN protocol_count = 0;
        status = services->ProtocolsPerHandle(handles.pointer[h], &protocols.pointer, &protocol_count);
        if (status != EFI_SUCCESS) return status;
        for (UINTN p = 0; p < protocol_count; ++p) {
            if (std::memcmp(protocols.pointer[p], &device_path_guid, sizeof(EFI_GUID)) == 0) {
                devices.push_back(handles.pointer[h]);
                break;
            }
        }
    }

    // Every parent-to-child link of the database, learnt once; a handle whose
    // openers cannot be read leaves the children it names unknown.
    std::vector<ControllerLink> links;
    std::vector<EFI_HANDLE> unreadable;
    for (UINTN h = 0; h < handle_count; ++h) {
        std::vector<EFI_HANDLE> children;
        status = FindChildren(handles.pointer[h], children);
        if (status == EFI_NOT_FOUND) continue;
        if (status != EFI_SUCCESS) {
            unreadable.push_back(handles.pointer[h]);
            continue;
        }
        for (EFI_HANDLE child : children) links.push_back({handles.pointer[h], child});
    }

    for (EFI_HANDLE device : devices) {
        bool has_parent = false;
        for (const ControllerLink& link : links) has_parent = has_parent || link.child == device;
        if (has_parent) continue;
        // Whether an unreadable handle is a parent of this one cannot be
        // told, so the handle cannot be placed in the tree.
        if (!unreadable.empty()) continue;
        roots.push_back(device);
    }
    return EFI_SUCCESS;
}

bool KeepsHandle(const Collected& entry, std::uint32_t mode) {
    if (entry.path == nullptr) return false;
    const std::uint8_t* node = LastDevicePathNode(entry.path);
    if (node == nullptr) return false;
    const Uefi::DevicePathHeader& header = Uefi::NodeHeaderAt(node);
    if (!Uefi::IsKnownNode(header.Type, header.SubType)) return false;
    if (header.Type == Uefi::kMediaDevicePath && header.SubType == Uefi::kHardDriveSubtype) {
        if (header.Length.get() < Uefi::kHardDriveNodeSize) return false;
        std::uint32_t partition = reinterpret_cast<const Uefi::HardDriveNode*>(node)->PartitionNumber.get();
        if (mode == kWholeMedia) return partition == 0;
        if (mode == kPartitions) return partition != 0;
        return false;
    }
    Uefi::OpenProtocolRecord record(Uefi::BlockIoGuid(), entry.handle);
    if (record.Open() == nullptr) return false;
    record.Close();
    return true;
}

}  // namespace

const std::uint8_t* LastDevicePathNode(const void* path) {
    const std::uint8_t* last = nullptr;
    bool whole = WalkDevicePath(path, [&](const std::uint8_t* node, std::uint16_t) {
        last = node;
        return false;
    });
    return whole ? last : nullptr;
}

void EnumerateBlockDevices(BlockDeviceList& list, std::uint32_t mode) {
    list.handles.clear();
    list.status = 0;
    std::vector<EFI_HANDLE> roots;
    EFI_STATUS status = FindRoots(roots);
    if (status != EFI_SUCCESS) {
        list.status = status;
        return;
    }
    DeviceTreeWalk walk;
    for (EFI_HANDLE root : roots) walk.Walk(root);
    if (walk.last_status != EFI_SUCCESS) {
        list.status = walk.last_status;
        return;
    }
    for (const Collected& entry : walk.collected) {
        if (KeepsHandle(entry, mode)) list.handles.push_back(entry.handle);
    }
}

}  // namespace Fdisk
