// Boot services of the simulator: handles and protocols, memory, the clock,
// the watchdog and the image's exit. Services that no test reaches yet answer
// EFI_UNSUPPORTED.
#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "platform/host/simulator.h"

namespace HostFirmware {
namespace {

Simulator& Sim() { return Simulator::Current(); }

// ---- memory ----
// Every change of the allocations moves the map key: an earlier map is stale.

EFI_STATUS EFIAPI AllocatePool(EFI_MEMORY_TYPE, UINTN size, VOID** buffer) {
    if (buffer == nullptr) return EFI_INVALID_PARAMETER;
    if (Sim().fail_pool_) return EFI_OUT_OF_RESOURCES;
    void* block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) return EFI_OUT_OF_RESOURCES;
    Sim().pool_blocks_[block] = size;
    *buffer = block;
    ++Sim().map_key_;
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FreePool(VOID* buffer) {
    auto found = Sim().pool_blocks_.find(buffer);
    if (found == Sim().pool_blocks_.end()) return EFI_INVALID_PARAMETER;
    Sim().pool_blocks_.erase(found);
    std::free(buffer);
    return EFI_SUCCESS;
}

constexpr std::uint64_t kPage = 4096;

void* MapAt(std::uint64_t address, std::uint64_t bytes) {
    void* wanted = reinterpret_cast<void*>(address);
    void* got = mmap(wanted, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    if (got == MAP_FAILED) return nullptr;
    if (got != wanted) {
        munmap(got, bytes);
        return nullptr;
    }
    return got;
}

// Real low addresses: the loader places kernels below fixed limits and hands
// 32-bit addresses on, so "below the limit" must hold on the host too.
void* MapBelow(std::uint64_t limit, std::uint64_t bytes) {
    constexpr std::uint64_t kFirstCandidate = 0x1000000;
    constexpr std::uint64_t kStep = 0x200000;
    for (std::uint64_t address = kFirstCandidate; address + bytes - 1 <= limit && address + bytes > address; address += kStep) {
        if (void* block = MapAt(address, bytes)) return block;
    }
    return nullptr;
}

EFI_STATUS EFIAPI AllocatePages(EFI_ALLOCATE_TYPE type, EFI_MEMORY_TYPE, UINTN pages, EFI_PHYSICAL_ADDRESS* memory) {
    if (memory == nullptr || pages == 0) return EFI_INVALID_PARAMETER;
    if (pages > (std::uint64_t(1) << 40) / kPage) return EFI_OUT_OF_RESOURCES;
    std::uint64_t bytes = pages * kPage;
    void* block = nullptr;
    switch (type) {
        case AllocateAnyPages: {
            block = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (block == MAP_FAILED) block = nullptr;
            break;
        }
        case AllocateMaxAddress: block = MapBelow(*memory, bytes); break;
        case AllocateAddress:
            if (*memory % kPage != 0) return EFI_INVALID_PARAMETER;
            block = MapAt(*memory, bytes);
            if (block == nullptr) return EFI_NOT_FOUND;
            break;
        default: return EFI_INVALID_PARAMETER;
    }
    if (block == nullptr) return EFI_OUT_OF_RESOURCES;
    *memory = reinterpret_cast<std::uint64_t>(block);
    Sim().page_runs_[*memory] = pages;
    ++Sim().map_key_;
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FreePages(EFI_PHYSICAL_ADDRESS memory, UINTN pages) {
    auto found = Sim().page_runs_.find(memory);
    if (found == Sim().page_runs_.end() || found->second != pages) return EFI_NOT_FOUND;
    munmap(reinterpret_cast<void*>(memory), pages * kPage);
    Sim().page_runs_.erase(found);
    ++Sim().map_key_;
    return EFI_SUCCESS;
}

// ---- protocols ----

EFI_STATUS EFIAPI HandleProtocol(EFI_HANDLE handle, EFI_GUID* guid, VOID** interface) {
    if (guid == nullptr || interface == nullptr) return EFI_INVALID_PARAMETER;
    *interface = nullptr;
    if (!Sim().Handles().Knows(handle)) return EFI_INVALID_PARAMETER;
    ProtocolEntry* entry = Sim().Handles().Find(handle, *guid);
    if (entry == nullptr) return EFI_UNSUPPORTED;
    *interface = entry->interface;
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI InstallProtocolInterface(EFI_HANDLE* handle, EFI_GUID* guid, EFI_INTERFACE_TYPE, VOID* interface) {
    if (handle == nullptr || guid == nullptr) return EFI_INVALID_PARAMETER;
    if (*handle != nullptr && Sim().Handles().Find(*handle, *guid) != nullptr) return EFI_INVALID_PARAMETER;
    EFI_HANDLE used = Sim().Handles().Install(*handle, *guid, interface);
    if (used == nullptr) return EFI_INVALID_PARAMETER;
    *handle = used;
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI UninstallProtocolInterface(EFI_HANDLE handle, EFI_GUID* guid, VOID* interface) {
    if (guid == nullptr) return EFI_INVALID_PARAMETER;
    return Sim().Handles().Uninstall(handle, *guid, interface);
}

EFI_STATUS EFIAPI LocateHandle(EFI_LOCATE_SEARCH_TYPE search, EFI_GUID* guid, VOID*, UINTN* size, EFI_HANDLE* buffer) {
    if (size == nullptr) return EFI_INVALID_PARAMETER;
    if (search == ByProtocol && guid == nullptr) return EFI_INVALID_PARAMETER;
    if (search != AllHandles && search != ByProtocol) return EFI_UNSUPPORTED;
    std::vector<EFI_HANDLE> found = Sim().Handles().HandlesWith(search == AllHandles ? nullptr : guid);
    if (found.empty()) return EFI_NOT_FOUND;
    UINTN needed = found.size() * sizeof(EFI_HANDLE);
    if (*size < needed || buffer == nullptr) {
        *size = needed;
        return EFI_BUFFER_TOO_SMALL;
    }
    std::copy(found.begin(), found.end(), buffer);
    *size = needed;
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI LocateHandleBuffer(EFI_LOCATE_SEARCH_TYPE search, EFI_GUID* guid, VOID* key, UINTN* count,
                                     EFI_HANDLE** buffer) {
    if (count == nullptr || buffer == nullptr) return EFI_INVALID_PARAMETER;
    UINTN size = 0;
    EFI_STATUS status = LocateHandle(search, guid, key, &size, nullptr);
    if (status != EFI_BUFFER_TOO_SMALL) return status;
    VOID* block = nullptr;
    if (AllocatePool(EfiBootServicesData, size, &block) != EFI_SUCCESS) return EFI_OUT_OF_RESOURCES;
    *buffer = static_cast<EFI_HANDLE*>(block);
    status = LocateHandle(search, guid, key, &size, *buffer);
    *count = size / sizeof(EFI_HANDLE);
    return status;
}

EFI_STATUS EFIAPI LocateProtocol(EFI_GUID* guid, VOID*, VOID** interface) {
    if (guid == nullptr || interface == nullptr) return EFI_INVALID_PARAMETER;
    std::vector<EFI_HANDLE> found = Sim().Handles().HandlesWith(guid);
    if (found.empty()) {
        *interface = nullptr;
        return EFI_NOT_FOUND;
    }
    *interface = Sim().Handles().Find(found.front(), *guid)->interface;
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI OpenProtocol(EFI_HANDLE handle, EFI_GUID* guid, VOID** interface, EFI_HANDLE agent, EFI_HANDLE controller,
                               UINT32 attributes) {
    if (guid == nullptr) return EFI_INVALID_PARAMETER;
    if (!Sim().Handles().Knows(handle)) return EFI_INVALID_PARAMETER;
    ProtocolEntry* entry = Sim().Handles().Find(handle, *guid);
    if (entry == nullptr) return EFI_UNSUPPORTED;
    if (interface != nullptr) *interface = entry->interface;
    EFI_OPEN_PROTOCOL_INFORMATION_ENTRY opener{};
    opener.AgentHandle = agent;
    opener.ControllerHandle = controller;
    opener.Attributes = attributes;
    opener.OpenCount = 1;
    entry->openers.push_back(opener);
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI CloseProtocol(EFI_HANDLE handle, EFI_GUID* guid, EFI_HANDLE agent, EFI_HANDLE controller) {
    if (guid == nullptr) return EFI_INVALID_PARAMETER;
    ProtocolEntry* entry = Sim().Handles().Find(handle, *guid);
    if (entry == nullptr) return EFI_NOT_FOUND;
    auto& openers = entry->openers;
    auto found = std::find_if(openers.begin(), openers.end(), [&](const EFI_OPEN_PROTOCOL_INFORMATION_ENTRY& opener) {
        return opener.AgentHandle == agent && opener.ControllerHandle == controller;
    });
    if (found == openers.end()) return EFI_NOT_FOUND;
    openers.erase(found);
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI OpenProtocolInformation(EFI_HANDLE handle, EFI_GUID* guid, EFI_OPEN_PROTOCOL_INFORMATION_ENTRY** buffer,
                                          UINTN* count) {
    if (guid == nullptr || buffer == nullptr || count == nullptr) return EFI_INVALID_PARAMETER;
    ProtocolEntry* entry = Sim().Handles().Find(handle, *guid);
    if (entry == nullptr) return EFI_NOT_FOUND;
    VOID* block = nullptr;
    UINTN bytes = entry->openers.size() * sizeof(EFI_OPEN_PROTOCOL_INFORMATION_ENTRY);
    if (AllocatePool(EfiBootServicesData, bytes, &block) != EFI_SUCCESS) return EFI_OUT_OF_RESOURCES;
    if (bytes != 0) std::memcpy(block, entry->openers.data(), bytes);
    *buffer = static_cast<EFI_OPEN_PROTOCOL_INFORMATION_ENTRY*>(block);
    *count = entry->openers.size();
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI ProtocolsPerHandle(EFI_HANDLE handle, EFI_GUID*** buffer, UINTN* count) {
    if (buffer == nullptr || count == nullptr) return EFI_INVALID_PARAMETER;
    std::vector<ProtocolEntry>* protocols = Sim().Handles().ProtocolsOf(handle);
    if (protocols == nullptr) return EFI_INVALID_PARAMETER;
    VOID* block = nullptr;
    if (AllocatePool(EfiBootServicesData, protocols->size() * sizeof(EFI_GUID*) + 1, &block) != EFI_SUCCESS) {
        return EFI_OUT_OF_RESOURCES;
    }
    auto** guids = static_cast<EFI_GUID**>(block);
    for (std::size_t i = 0; i < protocols->size(); ++i) guids[i] = &(*protocols)[i].guid;
    *buffer = guids;
    *count = protocols->size();
    return EFI_SUCCESS;
}

// ---- memory map and the end of boot services ----

EFI_STATUS EFIAPI GetMemoryMap(UINTN* size, EFI_MEMORY_DESCRIPTOR* map, UINTN* key, UINTN* descriptor_size, UINT32* version) {
    if (size == nullptr) return EFI_INVALID_PARAMETER;
    const std::vector<std::uint8_t>& bytes = Sim().memory_map_;
    if (*size < bytes.size()) {
        *size = bytes.size();
        return EFI_BUFFER_TOO_SMALL;
    }
    if (map == nullptr || key == nullptr || descriptor_size == nullptr || version == nullptr) return EFI_INVALID_PARAMETER;
    std::memcpy(map, bytes.data(), bytes.size());
    *size = bytes.size();
    *key = Sim().map_key_;
    *descriptor_size = Sim().descriptor_size_;
    *version = EFI_MEMORY_DESCRIPTOR_VERSION;
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI ExitBootServices(EFI_HANDLE image, UINTN key) {
    if (image != Sim().ImageHandle()) return EFI_INVALID_PARAMETER;
    if (key != Sim().map_key_) return EFI_INVALID_PARAMETER;
    Sim().boot_services_exited_ = true;
    return EFI_SUCCESS;
}

// ---- clock, watchdog, image ----

EFI_STATUS EFIAPI Stall(UINTN microseconds) {
    Sim().stalls_.push_back(microseconds);
    Sim().Advance(microseconds);
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI SetWatchdogTimer(UINTN timeout, UINT64, UINTN, CHAR16*) {
    Sim().watchdog_timeout_ = timeout;
    ++Sim().watchdog_calls_;
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Exit(EFI_HANDLE, EFI_STATUS status, UINTN, CHAR16*) { throw ImageExit{status}; }

EFI_STATUS EFIAPI GetNextMonotonicCount(UINT64* count) {
    static UINT64 counter = 0;
    if (count == nullptr) return EFI_INVALID_PARAMETER;
    *count = ++counter;
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Unsupported() { return EFI_UNSUPPORTED; }

template <typename Function>
Function Refuse() {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(&Unsupported));
}

}  // namespace

void FillBootServices(EFI_BOOT_SERVICES& services) {
    // Everything not simulated yet answers EFI_UNSUPPORTED; the stubs take no
    // arguments, which the Microsoft calling convention tolerates.
    auto** slot = reinterpret_cast<void**>(reinterpret_cast<char*>(&services) + sizeof(EFI_TABLE_HEADER));
    auto** end = reinterpret_cast<void**>(reinterpret_cast<char*>(&services) + sizeof(services));
    for (; slot < end; ++slot) *slot = reinterpret_cast<void*>(&Unsupported);

    services.AllocatePool = AllocatePool;
    services.FreePool = FreePool;
    services.AllocatePages = AllocatePages;
    services.FreePages = FreePages;
    services.HandleProtocol = HandleProtocol;
    services.InstallProtocolInterface = InstallProtocolInterface;
    services.UninstallProtocolInterface = UninstallProtocolInterface;
    services.LocateHandle = LocateHandle;
    services.LocateHandleBuffer = LocateHandleBuffer;
    services.LocateProtocol = LocateProtocol;
    services.OpenProtocol = OpenProtocol;
    services.CloseProtocol = CloseProtocol;
    services.OpenProtocolInformation = OpenProtocolInformation;
    services.ProtocolsPerHandle = ProtocolsPerHandle;
    services.GetMemoryMap = GetMemoryMap;
    services.ExitBootServices = ExitBootServices;
    services.Stall = Stall;
    services.SetWatchdogTimer = SetWatchdogTimer;
    services.Exit = Exit;
    services.GetNextMonotonicCount = GetNextMonotonicCount;
}

}  // namespace HostFirmware
