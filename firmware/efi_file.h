#pragma once
// Files of the firmware: the loader's own volume through the firmware's file
// protocol, and, for images that came without a file system, whole files
// through the device's load file protocol.
#include <efi.h>

#include <memory>
#include <string>

#include "files/file_object.h"

namespace Uefi {

constexpr std::uint64_t kOpenRead = EFI_FILE_MODE_READ;
constexpr std::uint64_t kOpenReadWrite = EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE;
constexpr std::uint64_t kOpenCreate = EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE | EFI_FILE_MODE_CREATE;

// The largest piece that one firmware Read is asked for.
constexpr std::uint64_t kLargestTransfer = 0x100000;

class EfiFile : public rio_file {
public:
    explicit EfiFile(EFI_FILE_HANDLE handle) : handle_(handle) {}
    ~EfiFile() override;
    EfiFile(const EfiFile&) = delete;
    EfiFile& operator=(const EfiFile&) = delete;

    void read(void* buffer, std::uint64_t size, std::uint64_t& got) override;
    void write(const void* buffer, std::uint64_t size, std::uint64_t& written) override;
    void set_size(std::uint64_t size) override;
    std::int64_t seek(std::int64_t position) override;
    std::int64_t seek_relative(std::int64_t delta) override;
    std::int64_t seek_end(std::int64_t delta) override;

    // Deletes the file; the firmware closes it in any case.
    void remove();

private:
    // False when the object has failed or has no file any more.
    bool usable();

    EFI_FILE_HANDLE handle_;
};

EFI_LOADED_IMAGE* GetLoadedImage();
std::unique_ptr<ri_file> OpenFile(const std::u16string& path);
std::unique_ptr<rio_file> OpenFirmwareFile(const std::u16string& path, std::uint64_t mode);
std::unique_ptr<rio_file> OpenOnDevice(EFI_HANDLE device, const std::u16string& path, std::uint64_t mode);
void DeleteFile(const std::u16string& path);

}  // namespace Uefi
