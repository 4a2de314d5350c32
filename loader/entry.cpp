// The image's entry point: the C library layer first, then the load options
// become an argument vector for main, and main's value ends the program.
#include <efi.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "loader/load_options.h"
#include "loader/main.h"
#include "platform/clib/clib.h"

namespace {

EFI_LOADED_IMAGE* LoadedImageOf(EFI_HANDLE image, EFI_SYSTEM_TABLE* system_table) {
    void* interface = nullptr;
    EFI_GUID guid = LOADED_IMAGE_PROTOCOL;
    if (EFI_ERROR(system_table->BootServices->HandleProtocol(image, &guid, &interface))) return nullptr;
    return static_cast<EFI_LOADED_IMAGE*>(interface);
}

// All arguments in their multibyte form in one block, behind a vector of
// pointers that ends with a null entry. Null when memory runs out.
char** BuildArgumentBlock(const std::vector<std::u16string>& arguments) {
    std::vector<std::string> converted;
    std::size_t bytes = (arguments.size() + 1) * sizeof(char*);
    for (const std::u16string& argument : arguments) {
        converted.push_back(Clib::ToMultibyte(argument.data(), argument.size()));
        bytes += converted.back().size() + 1;
    }
    auto* block = static_cast<char**>(Clib::Allocate(bytes));
    if (block == nullptr) return nullptr;
    char* text = reinterpret_cast<char*>(block + arguments.size() + 1);
    for (std::size_t i = 0; i < converted.size(); ++i) {
        block[i] = text;
        std::memcpy(text, converted[i].c_str(), converted[i].size() + 1);
        text += converted[i].size() + 1;
    }
    block[arguments.size()] = nullptr;
    return block;
}

int RunMain(EFI_HANDLE image, EFI_SYSTEM_TABLE* system_table) {
    EFI_LOADED_IMAGE* loaded = LoadedImageOf(image, system_table);
    std::vector<std::u16string> arguments;
    if (loaded != nullptr && loaded->LoadOptions != nullptr) {
        arguments = EfiLoader::SplitLoadOptions(loaded->LoadOptions, loaded->LoadOptionsSize);
    }
    if (arguments.empty()) return EfiLoader::main(0, nullptr);
    // Owned by a scope, so that whatever leaves main gives the block back.
    struct Release {
        void operator()(char** block) const { Clib::Release(block); }
    };
    std::unique_ptr<char*, Release> argv(BuildArgumentBlock(arguments));
    if (!argv) return Clib::LastError();
    return EfiLoader::main(static_cast<int>(arguments.size()), argv.get());
}

}  // namespace

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint(EFI_HANDLE image, EFI_SYSTEM_TABLE* system_table) {
    if (!Clib::Initialize(image, system_table)) return EFI_LOAD_ERROR;
    Clib::Exit(RunMain(image, system_table));
}
