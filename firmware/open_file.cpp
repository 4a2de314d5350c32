// Opening firmware files: the file protocol road, and the load file road for
// devices that deliver whole files without a file system.
#include <vector>

#include "firmware/device_path.h"
#include "firmware/efi_file.h"
#include "firmware/firmware_access.h"
#include "firmware/image_path.h"
#include "files/buf_ifile.h"
#include "loader/common/raise.h"

namespace Uefi {
namespace {

// A directory is not a file here.
void RefuseDirectory(EFI_FILE_HANDLE file) {
    EFI_GUID info_id = EFI_FILE_INFO_ID;
    UINTN size = 0;
    EFI_STATUS status = file->GetInfo(file, &info_id, &size, nullptr);
    if (status != EFI_BUFFER_TOO_SMALL || size == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    std::vector<std::uint64_t> info((size + 7) / 8);
    if (EFI_ERROR(file->GetInfo(file, &info_id, &size, info.data()))) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    if (reinterpret_cast<EFI_FILE_INFO*>(info.data())->Attribute & EFI_FILE_DIRECTORY) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    }
}

// One file path node: the characters, a terminator, and a length of
// 2 x characters + 6.
void AppendFileNode(std::vector<std::uint8_t>& path, const std::u16string& text) {
    AppendNodeHeader(path, kMediaDevicePath, kFilePathSubtype, static_cast<std::uint16_t>(2 * text.size() + 6));
    AppendString16(path, text);
}

// A relative path lands beside the loader's own image.
std::u16string FullLoadFilePath(const std::u16string& path) {
    if (path[0] == u'\\') return path;
    std::u16string image = GetImagePath();
    std::size_t last = image.rfind(u'\\');
    if (last == std::u16string::npos) return path;
    return image.substr(0, last + 1) + path;
}

// Pool memory of the firmware that is freed when it goes out of scope.
class PoolBlock {
public:
    explicit PoolBlock(std::size_t size) {
        if (EFI_ERROR(BootServices()->AllocatePool(EfiLoaderData, size, &block_))) block_ = nullptr;
    }
    ~PoolBlock() {
        if (block_ != nullptr) BootServices()->FreePool(block_);
    }
    PoolBlock(const PoolBlock&) = delete;
    PoolBlock& operator=(const PoolBlock&) = delete;
    void* get() const { return block_; }

private:
    void* block_ = nullptr;
};

std::unique_ptr<ri_file> OpenThroughLoadFile(const std::u16string& path) {
    void* interface = nullptr;
    EFI_GUID load_file_guid = LOAD_FILE_PROTOCOL;
    EFI_HANDLE device = GetLoadedImage()->DeviceHandle;
    if (EFI_ERROR(BootServices()->HandleProtocol(device, &load_file_guid, &interface)) || interface == nullptr) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    }
    auto* load_file = static_cast<EFI_LOAD_FILE_INTERFACE*>(interface);
    std::u16string full = FullLoadFilePath(path);
    std::size_t split = full.rfind(u'\\');
    std::u16string directory = split == std::u16string::npos ? std::u16string() : full.substr(0, split);
    std::u16string name = split == std::u16string::npos ? full : full.substr(split + 1);

    std::vector<std::uint8_t> nodes;
    if (!directory.empty()) AppendFileNode(nodes, directory);
    if (!name.empty()) AppendFileNode(nodes, name);
    AppendEndOfPath(nodes);
    PoolBlock device_path(nodes.size());
    if (device_path.get() == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_NO_MEMORY);
    std::copy(nodes.begin(), nodes.end(), static_cast<std::uint8_t*>(device_path.get()));
    auto* file_path = static_cast<EFI_DEVICE_PATH*>(device_path.get());

    UINTN size = 0;
    if (load_file->LoadFile(load_file, file_path, FALSE, &size, nullptr) != EFI_BUFFER_TOO_SMALL) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    }
    std::unique_ptr<unsigned char[]> contents(new unsigned char[size != 0 ? size : 1]);
    if (EFI_ERROR(load_file->LoadFile(load_file, file_path, FALSE, &size, contents.get()))) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    }
    return std::make_unique<buf_ifile<unsigned char>>(contents.release(), size, true);
}

}  // namespace

std::unique_ptr<rio_file> OpenOnDevice(EFI_HANDLE device, const std::u16string& path, std::uint64_t mode) {
    void* interface = nullptr;
    EFI_GUID file_system_guid = SIMPLE_FILE_SYSTEM_PROTOCOL;
    if (EFI_ERROR(BootServices()->HandleProtocol(device, &file_system_guid, &interface)) || interface == nullptr) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    }
    auto* file_system = static_cast<EFI_SIMPLE_FILE_SYSTEM_PROTOCOL*>(interface);
    EFI_FILE_HANDLE root = nullptr;
    if (EFI_ERROR(file_system->OpenVolume(file_system, &root)) || root == nullptr) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    }
    // The root stays open: the firmware keeps it until the program ends.
    EFI_FILE_HANDLE file = nullptr;
    if (EFI_ERROR(root->Open(root, &file, FirmwareString(path.c_str()), mode, 0)) || file == nullptr) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    }
    auto wrapped = std::make_unique<EfiFile>(file);
    RefuseDirectory(file);
    return wrapped;
}

std::unique_ptr<rio_file> OpenFirmwareFile(const std::u16string& path, std::uint64_t mode) {
    if (path.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    return OpenOnDevice(GetLoadedImage()->DeviceHandle, path, mode);
}

std::unique_ptr<ri_file> OpenFile(const std::u16string& path) {
    if (path.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    try {
        return OpenOnDevice(GetLoadedImage()->DeviceHandle, path, kOpenRead);
    } catch (const Common::Error&) {
        // The device may have no file system; the load file road follows.
    }
    return OpenThroughLoadFile(path);
}

void DeleteFile(const std::u16string& path) {
    std::unique_ptr<rio_file> file = OpenFirmwareFile(path, kOpenReadWrite);
    // A failed delete is stored in the object and goes with it.
    static_cast<EfiFile*>(file.get())->remove();
}

}  // namespace Uefi
