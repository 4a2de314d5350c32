/*
 * Test-only launcher for the end-to-end runs under QEMU + OVMF.
 *
 * Installed as \EFI\BOOT\BOOTX64.EFI, so the firmware's boot manager starts
 * it on its own.  It starts \morvane.efi from the same volume with the load
 * options written in \launch.txt (one ASCII line, the first word playing
 * argv[0] as a shell would pass it), prints the status the loader returned,
 * and ends QEMU through the isa-debug-exit device so the harness gets a
 * verdict without waiting for a time-out.
 */
#include <efi.h>
#include <efilib.h>

#define DEBUG_EXIT_PORT 0xf4
/* The status our loader returns when it ends: anything else is a failure. */
#define EXPECTED_LOADER_STATUS 1
#define MAX_OPTION_BYTES 4096

/* QEMU leaves with the code (value << 1) | 1 once this byte is written. */
static void debug_exit(UINT8 value) {
    __asm__ volatile("outb %0, %1" : : "a"(value), "Nd"((UINT16)DEBUG_EXIT_PORT));
    /* Without the device nothing happens; do not fall back into the boot
     * manager, which would go on to its setup screen or to another entry. */
    for (;;)
        __asm__ volatile("hlt");
}

/*
 * Reads the first line of \launch.txt into a pool buffer of UTF-16 characters,
 * terminated by a zero character.  Returns NULL when the file is absent or
 * empty, and the caller then passes no options at all.
 */
static CHAR16 *read_scenario(EFI_HANDLE device) {
    EFI_FILE_HANDLE root = LibOpenRoot(device);
    if (root == NULL)
        return NULL;

    EFI_FILE_HANDLE file;
    EFI_STATUS status = root->Open(root, &file, L"\\launch.txt", EFI_FILE_MODE_READ, 0);
    root->Close(root);
    if (EFI_ERROR(status))
        return NULL;

    static CHAR8 bytes[MAX_OPTION_BYTES];
    UINTN size = sizeof(bytes);
    status = file->Read(file, &size, bytes);
    file->Close(file);
    if (EFI_ERROR(status))
        return NULL;

    /* Only the first line counts: editors end files with a newline. */
    UINTN length = 0;
    while (length < size && bytes[length] != '\n' && bytes[length] != '\r' && bytes[length] != 0)
        length++;
    if (length == 0)
        return NULL;

    CHAR16 *options = AllocatePool((length + 1) * sizeof(CHAR16));
    if (options == NULL)
        return NULL;
    for (UINTN i = 0; i < length; i++)
        options[i] = (CHAR16)bytes[i];
    options[length] = 0;
    return options;
}

EFI_STATUS efi_main(EFI_HANDLE image, EFI_SYSTEM_TABLE *system_table) {
    InitializeLib(image, system_table);

    EFI_LOADED_IMAGE *self;
    EFI_STATUS status = BS->HandleProtocol(image, &LoadedImageProtocol, (void **)&self);
    if (EFI_ERROR(status)) {
        Print(L"launcher: no loaded image protocol: %r\n", status);
        debug_exit(1);
    }

    CHAR16 *options = read_scenario(self->DeviceHandle);

    EFI_DEVICE_PATH *path = FileDevicePath(self->DeviceHandle, L"\\morvane.efi");
    if (path == NULL) {
        Print(L"launcher: cannot build the loader's device path\n");
        debug_exit(1);
    }

    EFI_HANDLE child;
    status = BS->LoadImage(FALSE, image, path, NULL, 0, &child);
    if (EFI_ERROR(status)) {
        Print(L"launcher: LoadImage failed: %r\n", status);
        debug_exit(1);
    }

    EFI_LOADED_IMAGE *loaded;
    status = BS->HandleProtocol(child, &LoadedImageProtocol, (void **)&loaded);
    if (EFI_ERROR(status)) {
        Print(L"launcher: no loaded image protocol on the loader: %r\n", status);
        debug_exit(1);
    }
    if (options != NULL) {
        /* The size counts the terminating zero character, as a shell's does. */
        loaded->LoadOptions = options;
        loaded->LoadOptionsSize = (UINT32)((StrLen(options) + 1) * sizeof(CHAR16));
    } else {
        loaded->LoadOptions = NULL;
        loaded->LoadOptionsSize = 0;
    }

    status = BS->StartImage(child, NULL, NULL);
    Print(L"launcher: exit status 0x%lx\n", (UINT64)status);

    debug_exit(status == EXPECTED_LOADER_STATUS ? 0 : 1);
    return status;
}
