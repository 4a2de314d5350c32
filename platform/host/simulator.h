#pragma once
// The firmware simulator of the host world: a real EFI_SYSTEM_TABLE whose
// services are EFIAPI functions of ours, so that the loader's code runs
// unchanged on the host. One simulator is active at a time (the firmware's
// services receive no context of their own).
#include <efi.h>

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include <memory>

#include "platform/host/handle_database.h"
#include "platform/host/host_folder_volume.h"
#include "platform/host/variable_store.h"

namespace HostFirmware {

class GraphicsStandIns;  // platform/host/graphics_stand_ins.h
class BlockDevices;      // platform/host/block_io_devices.h

// Thrown by the simulated Exit and caught by RunImage: the image's end.
struct ImageExit {
    EFI_STATUS status;
};

// Thrown by WaitForEvent when nothing it waits for can ever happen: no key
// is left to come and no timer is armed. RunImage ends the run there.
struct WaitsForever {};

// Thrown by the host's jump into the kernel: the machine as the kernel
// would find it. The pages it points into stay mapped until the simulator
// goes.
struct KernelHandOver {
    std::uint64_t kernel_address = 0;
    std::uint8_t* params = nullptr;  // the 16 KiB parameter area
    std::uint8_t* stub = nullptr;
    std::vector<std::uint8_t> params_copy;
};

// A simulated event: a timer on the virtual clock, or the console's key event.
struct SimulatedEvent {
    std::uint32_t type = 0;
    bool key_event = false;
    bool signaled = false;
    bool armed = false;
    std::uint64_t due = 0;     // microseconds on the virtual clock
    std::uint64_t period = 0;  // microseconds; 0 for a one-shot timer
};

// A key that becomes available at a point of the virtual clock.
struct TimedKey {
    EFI_INPUT_KEY key;
    std::uint64_t at;
};

// What the image's entry point looks like.
using ImageEntry = EFI_STATUS(EFIAPI*)(EFI_HANDLE, EFI_SYSTEM_TABLE*);

class Simulator {
public:
    Simulator();
    ~Simulator();
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    static Simulator& Current();

    EFI_SYSTEM_TABLE* SystemTable() { return &system_table_; }
    EFI_HANDLE ImageHandle() const { return image_handle_; }
    EFI_HANDLE DeviceHandle() const { return device_handle_; }
    HandleDatabase& Handles() { return handles_; }

    // The loaded image's FilePath: one file path node per part, or raw bytes.
    void SetImagePath(const std::vector<std::u16string>& nodes);
    void SetImageDevicePath(const std::vector<std::uint8_t>& bytes);
    // The loaded image's load options as text (no terminator added) or bytes.
    void SetLoadOptions(const std::u16string& options);
    void SetLoadOptionsBytes(const std::vector<std::uint8_t>& bytes);
    void ClearLoadOptions();
    // Takes the loaded image protocol away, as a broken firmware might.
    void RemoveLoadedImage();

    // Puts a Simple File System over a host folder on the image's device.
    HostFolderVolume& MountEsp(const std::string& folder);

    // Starts the image's entry point as the firmware would; answers the
    // status it exits or returns with.
    EFI_STATUS RunImage(ImageEntry entry);

    // Everything written to the console, as the firmware received it.
    const std::u16string& ConsoleText() const { return console_text_; }
    std::string ConsoleUtf8() const;
    void ClearConsole() { console_text_.clear(); }
    // Queues a key, available from `at` microseconds of the virtual clock.
    void PushKey(char16_t unicode, std::uint16_t scan_code = 0, std::uint64_t at = 0);
    // The hand-over of the last run, if it reached the kernel.
    const KernelHandOver* HandOver() const { return hand_over_.params != nullptr ? &hand_over_ : nullptr; }
    bool BootServicesExited() const { return boot_services_exited_; }
    // The firmware memory map that GetMemoryMap reports; descriptors are
    // `descriptor_size` bytes apart (at least the structure's size).
    void SetMemoryMap(const std::vector<EFI_MEMORY_DESCRIPTOR>& descriptors, std::size_t descriptor_size);

    // True when the last run ended waiting for something that could not come.
    bool EndedWaitingForever() const { return ended_waiting_forever_; }
    int ConsoleResets() const { return console_resets_; }
    std::size_t LiveEvents() const { return events_.size(); }

    // The virtual clock, in microseconds, and each Stall that moved it.
    std::uint64_t Now() const { return now_microseconds_; }
    const std::vector<std::uint64_t>& Stalls() const { return stalls_; }
    void Advance(std::uint64_t microseconds);

    // The watchdog as the image last set it.
    std::uint64_t WatchdogTimeout() const { return watchdog_timeout_; }
    int WatchdogCalls() const { return watchdog_calls_; }

    // The variables behind GetVariable, SetVariable and GetNextVariableName.
    VariableStore& Variables() { return variables_; }

    // From now on, every pool allocation fails.
    void FailPoolAllocations(bool fail) { fail_pool_ = fail; }
    std::size_t LivePoolBlocks() const { return pool_blocks_.size(); }

    // Services' state, used by the EFIAPI functions.
    std::u16string console_text_;
    std::deque<TimedKey> keys_;
    std::map<void*, std::unique_ptr<SimulatedEvent>> events_;
    EFI_EVENT key_event_ = nullptr;
    bool ended_waiting_forever_ = false;
    KernelHandOver hand_over_;
    bool boot_services_exited_ = false;
    std::vector<std::uint8_t> memory_map_;
    std::size_t descriptor_size_ = 48;
    std::uint64_t map_key_ = 1;
    int console_resets_ = 0;
    std::uint64_t now_microseconds_ = 0;
    std::vector<std::uint64_t> stalls_;
    std::uint64_t watchdog_timeout_ = 300;
    int watchdog_calls_ = 0;
    bool fail_pool_ = false;
    std::map<void*, std::size_t> pool_blocks_;
    std::map<std::uint64_t, std::uint64_t> page_runs_;  // address -> pages

private:
    void InstallLoadedImage();

    HandleDatabase handles_;
    EFI_SYSTEM_TABLE system_table_{};
    EFI_BOOT_SERVICES boot_services_{};
    EFI_RUNTIME_SERVICES runtime_services_{};
    SIMPLE_TEXT_OUTPUT_INTERFACE console_out_{};
    SIMPLE_INPUT_INTERFACE console_in_{};
    SIMPLE_TEXT_OUTPUT_MODE console_mode_{};
    EFI_LOADED_IMAGE loaded_image_{};
    std::vector<std::uint8_t> image_path_;
    std::vector<std::uint8_t> load_options_;
    EFI_HANDLE image_handle_ = nullptr;
    EFI_HANDLE device_handle_ = nullptr;
    Simulator* previous_ = nullptr;
    std::unique_ptr<HostFolderVolume> esp_;
    VariableStore variables_;

    // ---- graphics stand-ins (defined in graphics_stand_ins.cpp) ----
public:
    // GOP, UGA Draw, EDID Active and PCI root bridges over one simulated
    // framebuffer; made on first use, each protocol installed on request.
    GraphicsStandIns& Graphics();

private:
    // A deleter of its own, so this header needs no complete type.
    std::unique_ptr<GraphicsStandIns, void (*)(GraphicsStandIns*)> graphics_{nullptr, nullptr};
    // ---- end of graphics stand-ins ----

    // ---- block devices (defined in block_io_devices.cpp) ----
public:
    // Block I/O over disk-image files: a handle per whole disk and per GPT
    // partition; made on first use, empty until an image is attached.
    BlockDevices& Disks();

private:
    std::unique_ptr<BlockDevices, void (*)(BlockDevices*)> disks_{nullptr, nullptr};
    // ---- end of block devices ----
};

// Fills the tables with the simulator's functions (one file per family).
void FillBootServices(EFI_BOOT_SERVICES& services);
void FillRuntimeServices(EFI_RUNTIME_SERVICES& services);
void FillConsole(SIMPLE_TEXT_OUTPUT_INTERFACE& out, SIMPLE_INPUT_INTERFACE& in);
void FillEventServices(EFI_BOOT_SERVICES& services);
// Whether the console has a key available now.
bool KeyAvailable(const Simulator& simulator);

// Device path bytes of file path nodes and an end node.
std::vector<std::uint8_t> FilePathNodes(const std::vector<std::u16string>& nodes);

}  // namespace HostFirmware
