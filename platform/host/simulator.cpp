#include "platform/host/simulator.h"

#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "firmware/firmware_access.h"
#include "platform/clib/clib.h"

namespace HostFirmware {
namespace {
Simulator* current = nullptr;
}  // namespace

std::vector<std::uint8_t> FilePathNodes(const std::vector<std::u16string>& nodes) {
    std::vector<std::uint8_t> bytes;
    for (const std::u16string& node : nodes) {
        std::size_t length = 4 + 2 * (node.size() + 1);
        bytes.insert(bytes.end(), {4, 4, static_cast<std::uint8_t>(length & 0xFF), static_cast<std::uint8_t>(length >> 8)});
        for (char16_t c : node) bytes.insert(bytes.end(), {static_cast<std::uint8_t>(c & 0xFF), static_cast<std::uint8_t>(c >> 8)});
        bytes.insert(bytes.end(), {0, 0});
    }
    bytes.insert(bytes.end(), {0x7F, 0xFF, 4, 0});
    return bytes;
}

Simulator::Simulator() : previous_(current) {
    current = this;
    FillBootServices(boot_services_);
    FillRuntimeServices(runtime_services_);
    FillConsole(console_out_, console_in_);
    FillEventServices(boot_services_);
    auto key_event = std::make_unique<SimulatedEvent>();
    key_event->key_event = true;
    key_event_ = key_event.get();
    events_[key_event_] = std::move(key_event);
    console_in_.WaitForKey = key_event_;
    console_out_.Mode = &console_mode_;
    system_table_.Hdr.Signature = EFI_SYSTEM_TABLE_SIGNATURE;
    system_table_.Hdr.Revision = (EFI_SPECIFICATION_MAJOR_REVISION << 16) | EFI_SPECIFICATION_MINOR_REVISION;
    system_table_.Hdr.HeaderSize = sizeof(system_table_);
    boot_services_.Hdr.Signature = EFI_BOOT_SERVICES_SIGNATURE;
    runtime_services_.Hdr.Signature = EFI_RUNTIME_SERVICES_SIGNATURE;
    system_table_.BootServices = &boot_services_;
    system_table_.RuntimeServices = &runtime_services_;
    system_table_.ConOut = &console_out_;
    system_table_.StdErr = &console_out_;
    system_table_.ConIn = &console_in_;
    system_table_.ConsoleOutHandle = handles_.Create();
    system_table_.ConsoleInHandle = handles_.Create();

    device_handle_ = handles_.Create();
    image_handle_ = handles_.Create();
    SetImagePath({u"\\EFI\\BOOT\\BOOTX64.EFI"});
    // A small machine: low memory, the loader's own, and a large free stretch.
    SetMemoryMap({{EfiConventionalMemory, 0, 0, 0, 0x9F, EFI_MEMORY_WB},
                  {EfiReservedMemoryType, 0, 0xA0000, 0, 0x60, 0},
                  {EfiLoaderCode, 0, 0x100000, 0, 0x100, EFI_MEMORY_WB},
                  {EfiConventionalMemory, 0, 0x200000, 0, 0x3FE00, EFI_MEMORY_WB},
                  {EfiACPIReclaimMemory, 0, 0x40000000, 0, 0x10, EFI_MEMORY_WB}},
                 48);
    InstallLoadedImage();
}

Simulator::~Simulator() {
    ClibTesting::ForgetImage();
    // The loader's firmware pointers must not outlive the tables they point at.
    if (Uefi::SystemTable() == &system_table_) Uefi::InitializeFirmwareAccess(nullptr, nullptr);
    for (auto& block : pool_blocks_) std::free(block.first);
    for (auto& run : page_runs_) munmap(reinterpret_cast<void*>(run.first), run.second * 4096);
    current = previous_;
}

Simulator& Simulator::Current() {
    if (current == nullptr) throw std::logic_error("no firmware simulator is active");
    return *current;
}

void Simulator::InstallLoadedImage() {
    loaded_image_.Revision = EFI_LOADED_IMAGE_PROTOCOL_REVISION;
    loaded_image_.ParentHandle = nullptr;
    loaded_image_.SystemTable = &system_table_;
    loaded_image_.DeviceHandle = device_handle_;
    EFI_GUID guid = LOADED_IMAGE_PROTOCOL;
    handles_.Install(image_handle_, guid, &loaded_image_);
}

void Simulator::RemoveLoadedImage() {
    EFI_GUID guid = LOADED_IMAGE_PROTOCOL;
    handles_.Uninstall(image_handle_, guid, &loaded_image_);
}

void Simulator::SetImagePath(const std::vector<std::u16string>& nodes) { SetImageDevicePath(FilePathNodes(nodes)); }

void Simulator::SetImageDevicePath(const std::vector<std::uint8_t>& bytes) {
    image_path_ = bytes;
    loaded_image_.FilePath = reinterpret_cast<EFI_DEVICE_PATH*>(image_path_.data());
}

void Simulator::SetLoadOptions(const std::u16string& options) {
    std::vector<std::uint8_t> bytes;
    for (char16_t c : options) bytes.insert(bytes.end(), {static_cast<std::uint8_t>(c & 0xFF), static_cast<std::uint8_t>(c >> 8)});
    SetLoadOptionsBytes(bytes);
}

void Simulator::SetLoadOptionsBytes(const std::vector<std::uint8_t>& bytes) {
    load_options_ = bytes;
    loaded_image_.LoadOptions = load_options_.data();
    loaded_image_.LoadOptionsSize = static_cast<UINT32>(load_options_.size());
}

void Simulator::ClearLoadOptions() {
    load_options_.clear();
    loaded_image_.LoadOptions = nullptr;
    loaded_image_.LoadOptionsSize = 0;
}

HostFolderVolume& Simulator::MountEsp(const std::string& folder) {
    EFI_GUID guid = SIMPLE_FILE_SYSTEM_PROTOCOL;
    if (esp_) handles_.Uninstall(device_handle_, guid, esp_->Protocol());
    esp_ = std::make_unique<HostFolderVolume>(folder);
    handles_.Install(device_handle_, guid, esp_->Protocol());
    return *esp_;
}

EFI_STATUS Simulator::RunImage(ImageEntry entry) {
    ClibTesting::ForgetImage();
    ended_waiting_forever_ = false;
    hand_over_ = KernelHandOver();
    boot_services_exited_ = false;
    try {
        return entry(image_handle_, &system_table_);
    } catch (const ImageExit& exit) {
        return exit.status;
    } catch (const KernelHandOver& hand_over) {
        hand_over_ = hand_over;
        return EFI_SUCCESS;
    } catch (const WaitsForever&) {
        ended_waiting_forever_ = true;
        return EFI_TIMEOUT;
    }
}

std::string Simulator::ConsoleUtf8() const { return Clib::ToMultibyte(console_text_.data(), console_text_.size()); }

void Simulator::PushKey(char16_t unicode, std::uint16_t scan_code, std::uint64_t at) {
    keys_.push_back(TimedKey{EFI_INPUT_KEY{scan_code, unicode}, at});
}

void Simulator::SetMemoryMap(const std::vector<EFI_MEMORY_DESCRIPTOR>& descriptors, std::size_t descriptor_size) {
    descriptor_size_ = descriptor_size < sizeof(EFI_MEMORY_DESCRIPTOR) ? sizeof(EFI_MEMORY_DESCRIPTOR) : descriptor_size;
    memory_map_.assign(descriptors.size() * descriptor_size_, 0xA5);
    for (std::size_t i = 0; i < descriptors.size(); ++i) {
        std::memcpy(memory_map_.data() + i * descriptor_size_, &descriptors[i], sizeof(EFI_MEMORY_DESCRIPTOR));
    }
    ++map_key_;
}

void Simulator::Advance(std::uint64_t microseconds) { now_microseconds_ += microseconds; }

}  // namespace HostFirmware
