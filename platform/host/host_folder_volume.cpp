#include "platform/host/host_folder_volume.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <vector>

#include "platform/clib/clib.h"

namespace HostFirmware {
namespace {

struct HostFile {
    EFI_FILE_PROTOCOL protocol;  // first: the firmware hands out its address
    HostFolderVolume* volume;
    std::string path;            // host path
    bool directory;
    int descriptor;
    std::uint64_t position;
    std::uint64_t mode;
    std::vector<std::string> listing;  // directory entries, read on the first Read
    bool listed;
};

HostFile* Of(EFI_FILE_PROTOCOL* protocol) { return reinterpret_cast<HostFile*>(protocol); }

std::string Utf8(const CHAR16* text) {
    std::size_t length = 0;
    while (text[length] != 0) ++length;
    return Clib::ToMultibyte(reinterpret_cast<const char16_t*>(text), length);
}

bool SameIgnoringCase(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
               return lower(x) == lower(y);
           });
}

// The existing entry of `folder` that matches `name`, or `name` itself.
std::string MatchEntry(const std::string& folder, const std::string& name) {
    DIR* directory = opendir(folder.c_str());
    if (directory == nullptr) return name;
    std::string match = name;
    while (dirent* entry = readdir(directory)) {
        if (SameIgnoringCase(entry->d_name, name)) {
            match = entry->d_name;
            break;
        }
    }
    closedir(directory);
    return match;
}

// Resolves a firmware path against the file it is opened from. A leading
// backslash starts at the root; "." and ".." are honoured but never leave it.
bool Resolve(HostFile* from, const std::string& request, std::string& resolved) {
    const std::string& root = from->volume->Folder();
    std::vector<std::string> parts;
    std::string base = request.empty() || request[0] != '\\' ? from->path.substr(root.size()) : std::string();
    std::string all = base + "/" + request;
    std::replace(all.begin(), all.end(), '\\', '/');
    std::string current = root;
    std::size_t start = 0;
    while (start <= all.size()) {
        std::size_t end = all.find('/', start);
        if (end == std::string::npos) end = all.size();
        std::string part = all.substr(start, end - start);
        start = end + 1;
        if (part.empty() || part == ".") continue;
        if (part == "..") {
            if (parts.empty()) return false;
            parts.pop_back();
            continue;
        }
        parts.push_back(part);
    }
    for (const std::string& part : parts) current += "/" + MatchEntry(current, part);
    resolved = current;
    return true;
}

EFI_FILE_PROTOCOL* NewFile(HostFolderVolume* volume, const std::string& path, bool directory, int descriptor, std::uint64_t mode);

EFI_STATUS EFIAPI Open(EFI_FILE_PROTOCOL* self, EFI_FILE_PROTOCOL** opened, CHAR16* name, UINT64 mode, UINT64 attributes) {
    if (opened == nullptr || name == nullptr) return EFI_INVALID_PARAMETER;
    *opened = nullptr;
    const UINT64 kRead = EFI_FILE_MODE_READ, kWrite = EFI_FILE_MODE_WRITE, kCreate = EFI_FILE_MODE_CREATE;
    if (mode != kRead && mode != (kRead | kWrite) && mode != (kRead | kWrite | kCreate)) return EFI_INVALID_PARAMETER;
    HostFile* from = Of(self);
    std::string path;
    if (!Resolve(from, Utf8(name), path)) return EFI_NOT_FOUND;
    struct stat info {};
    bool exists = stat(path.c_str(), &info) == 0;
    if (!exists) {
        if (!(mode & kCreate)) return EFI_NOT_FOUND;
        if (attributes & EFI_FILE_DIRECTORY) {
            if (mkdir(path.c_str(), 0755) != 0) return EFI_NOT_FOUND;
        } else {
            int created = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0644);
            if (created < 0) return EFI_NOT_FOUND;
            close(created);
        }
        if (stat(path.c_str(), &info) != 0) return EFI_DEVICE_ERROR;
    }
    bool directory = S_ISDIR(info.st_mode);
    int descriptor = -1;
    if (!directory) {
        descriptor = ::open(path.c_str(), (mode & kWrite) ? O_RDWR : O_RDONLY);
        if (descriptor < 0) return (mode & kWrite) ? EFI_WRITE_PROTECTED : EFI_ACCESS_DENIED;
    }
    *opened = NewFile(from->volume, path, directory, descriptor, mode);
    return EFI_SUCCESS;
}

void Forget(HostFile* file) {
    if (file->descriptor >= 0) close(file->descriptor);
    file->volume->open_.erase(file);
    delete file;
}

EFI_STATUS EFIAPI Close(EFI_FILE_PROTOCOL* self) {
    Forget(Of(self));
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Delete(EFI_FILE_PROTOCOL* self) {
    HostFile* file = Of(self);
    bool is_root = file->path == file->volume->Folder();
    int result = is_root || !(file->mode & EFI_FILE_MODE_WRITE) ? -1
                 : file->directory                               ? rmdir(file->path.c_str())
                                                                 : unlink(file->path.c_str());
    Forget(file);
    return result == 0 ? EFI_SUCCESS : EFI_WARN_DELETE_FAILURE;
}

std::vector<std::uint64_t> FileInfo(const std::string& path, const std::string& name, UINTN& bytes);

EFI_STATUS ReadDirectory(HostFile* file, UINTN* size, VOID* buffer) {
    if (!file->listed) {
        DIR* directory = opendir(file->path.c_str());
        if (directory == nullptr) return EFI_DEVICE_ERROR;
        while (dirent* entry = readdir(directory)) {
            std::string name = entry->d_name;
            bool is_root = file->path == file->volume->Folder();
            if (name == "." || name == ".." ? !is_root : true) file->listing.push_back(name);
        }
        closedir(directory);
        std::sort(file->listing.begin(), file->listing.end());
        file->listed = true;
    }
    if (file->position >= file->listing.size()) {
        *size = 0;
        return EFI_SUCCESS;
    }
    const std::string& name = file->listing[file->position];
    UINTN needed = 0;
    std::vector<std::uint64_t> info = FileInfo(file->path + "/" + name, name, needed);
    if (*size < needed) {
        *size = needed;
        return EFI_BUFFER_TOO_SMALL;
    }
    std::memcpy(buffer, info.data(), needed);
    *size = needed;
    ++file->position;
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Read(EFI_FILE_PROTOCOL* self, UINTN* size, VOID* buffer) {
    HostFile* file = Of(self);
    if (size == nullptr) return EFI_INVALID_PARAMETER;
    if (file->directory) return ReadDirectory(file, size, buffer);
    ssize_t got = pread(file->descriptor, buffer, *size, static_cast<off_t>(file->position));
    if (got < 0) return EFI_DEVICE_ERROR;
    *size = static_cast<UINTN>(got);
    file->position += static_cast<std::uint64_t>(got);
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Write(EFI_FILE_PROTOCOL* self, UINTN* size, VOID* buffer) {
    HostFile* file = Of(self);
    if (size == nullptr) return EFI_INVALID_PARAMETER;
    if (file->directory) return EFI_UNSUPPORTED;
    if (!(file->mode & EFI_FILE_MODE_WRITE)) return EFI_ACCESS_DENIED;
    ssize_t written = pwrite(file->descriptor, buffer, *size, static_cast<off_t>(file->position));
    if (written < 0) return EFI_DEVICE_ERROR;
    *size = static_cast<UINTN>(written);
    file->position += static_cast<std::uint64_t>(written);
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI GetPosition(EFI_FILE_PROTOCOL* self, UINT64* position) {
    if (Of(self)->directory) return EFI_UNSUPPORTED;
    *position = Of(self)->position;
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI SetPosition(EFI_FILE_PROTOCOL* self, UINT64 position) {
    HostFile* file = Of(self);
    if (file->directory) {
        if (position != 0) return EFI_UNSUPPORTED;
        file->position = 0;
        return EFI_SUCCESS;
    }
    if (position == ~UINT64(0)) {
        struct stat info {};
        if (fstat(file->descriptor, &info) != 0) return EFI_DEVICE_ERROR;
        position = static_cast<UINT64>(info.st_size);
    }
    file->position = position;
    return EFI_SUCCESS;
}

// EFI_FILE_INFO with its name, as 8-byte words so that it is aligned.
std::vector<std::uint64_t> FileInfo(const std::string& path, const std::string& name, UINTN& bytes) {
    struct stat info {};
    stat(path.c_str(), &info);
    std::u16string wide = Clib::FromMultibyte(name.data(), name.size());
    bytes = SIZE_OF_EFI_FILE_INFO + 2 * (wide.size() + 1);
    std::vector<std::uint64_t> words((bytes + 7) / 8, 0);
    auto* file_info = reinterpret_cast<EFI_FILE_INFO*>(words.data());
    file_info->Size = bytes;
    file_info->FileSize = S_ISDIR(info.st_mode) ? 0 : static_cast<UINT64>(info.st_size);
    file_info->PhysicalSize = static_cast<UINT64>(info.st_blocks) * 512;
    file_info->Attribute = S_ISDIR(info.st_mode) ? EFI_FILE_DIRECTORY : EFI_FILE_ARCHIVE;
    std::memcpy(file_info->FileName, wide.c_str(), 2 * (wide.size() + 1));
    return words;
}

EFI_STATUS EFIAPI GetInfo(EFI_FILE_PROTOCOL* self, EFI_GUID* type, UINTN* size, VOID* buffer) {
    HostFile* file = Of(self);
    if (type == nullptr || size == nullptr) return EFI_INVALID_PARAMETER;
    EFI_GUID file_info_id = EFI_FILE_INFO_ID;
    if (std::memcmp(type, &file_info_id, sizeof(EFI_GUID)) != 0) return EFI_UNSUPPORTED;
    std::size_t slash = file->path.rfind('/');
    bool is_root = file->path == file->volume->Folder();
    std::string name = is_root ? std::string() : file->path.substr(slash + 1);
    UINTN needed = 0;
    std::vector<std::uint64_t> info = FileInfo(file->path, name, needed);
    if (*size < needed || buffer == nullptr) {
        *size = needed;
        return EFI_BUFFER_TOO_SMALL;
    }
    std::memcpy(buffer, info.data(), needed);
    *size = needed;
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI SetInfo(EFI_FILE_PROTOCOL* self, EFI_GUID* type, UINTN size, VOID* buffer) {
    HostFile* file = Of(self);
    EFI_GUID file_info_id = EFI_FILE_INFO_ID;
    if (type == nullptr || buffer == nullptr || std::memcmp(type, &file_info_id, sizeof(EFI_GUID)) != 0) {
        return EFI_UNSUPPORTED;
    }
    if (size < SIZE_OF_EFI_FILE_INFO || !(file->mode & EFI_FILE_MODE_WRITE)) return EFI_ACCESS_DENIED;
    auto* info = static_cast<EFI_FILE_INFO*>(buffer);
    if (!file->directory && ftruncate(file->descriptor, static_cast<off_t>(info->FileSize)) != 0) return EFI_DEVICE_ERROR;
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Flush(EFI_FILE_PROTOCOL*) { return EFI_SUCCESS; }

EFI_FILE_PROTOCOL* NewFile(HostFolderVolume* volume, const std::string& path, bool directory, int descriptor, std::uint64_t mode) {
    auto* file = new HostFile{};
    file->protocol.Revision = EFI_FILE_PROTOCOL_REVISION;
    file->protocol.Open = Open;
    file->protocol.Close = Close;
    file->protocol.Delete = Delete;
    file->protocol.Read = Read;
    file->protocol.Write = Write;
    file->protocol.GetPosition = GetPosition;
    file->protocol.SetPosition = SetPosition;
    file->protocol.GetInfo = GetInfo;
    file->protocol.SetInfo = SetInfo;
    file->protocol.Flush = Flush;
    file->volume = volume;
    file->path = path;
    file->directory = directory;
    file->descriptor = descriptor;
    file->mode = mode;
    volume->open_.insert(file);
    return &file->protocol;
}

EFI_STATUS EFIAPI OpenVolume(EFI_SIMPLE_FILE_SYSTEM_PROTOCOL* self, EFI_FILE_PROTOCOL** root) {
    auto* volume = reinterpret_cast<HostFolderVolume*>(self);
    if (root == nullptr) return EFI_INVALID_PARAMETER;
    *root = NewFile(volume, volume->Folder(), true, -1, EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE);
    return EFI_SUCCESS;
}

}  // namespace

HostFolderVolume::HostFolderVolume(std::string folder) : folder_(std::move(folder)) {
    while (folder_.size() > 1 && folder_.back() == '/') folder_.pop_back();
    protocol_.Revision = EFI_SIMPLE_FILE_SYSTEM_PROTOCOL_REVISION;
    protocol_.OpenVolume = OpenVolume;
}

HostFolderVolume::~HostFolderVolume() {
    while (!open_.empty()) Forget(static_cast<HostFile*>(*open_.begin()));
}

}  // namespace HostFirmware
