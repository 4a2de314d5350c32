/*
 * Test-only marker for the end-to-end runs under QEMU + OVMF.
 *
 * Installed as \EFI\BOOT\BOOTX64.EFI on a second disk, behind the loader's
 * disk in the firmware's boot order.  The firmware starts it only once the
 * boot option before it has returned with a status other than EFI_SUCCESS,
 * so its line proves that the loader gave control back to the boot manager.
 * It prints that line and the device path it was started from, then ends
 * QEMU through the isa-debug-exit device with its own value, which the
 * harness tells apart from every other way QEMU can end.
 */
#include <efi.h>
#include <efilib.h>

#define DEBUG_EXIT_PORT 0xf4
/* QEMU leaves with the code (value << 1) | 1, here 67. */
#define MARKER_EXIT_VALUE 0x21

static void debug_exit(UINT8 value) {
    __asm__ volatile("outb %0, %1" : : "a"(value), "Nd"((UINT16)DEBUG_EXIT_PORT));
    /* Without the device nothing happens; do not go back to the boot
     * manager, which would try further options or its setup screen. */
    for (;;)
        __asm__ volatile("hlt");
}

EFI_STATUS efi_main(EFI_HANDLE image, EFI_SYSTEM_TABLE *system_table) {
    InitializeLib(image, system_table);

    Print(L"marker: next boot option reached\n");

    /* Which disk the firmware took this from, to read in a failure log. */
    EFI_LOADED_IMAGE *self;
    EFI_STATUS status = BS->HandleProtocol(image, &LoadedImageProtocol, (void **)&self);
    if (!EFI_ERROR(status)) {
        EFI_DEVICE_PATH *device = DevicePathFromHandle(self->DeviceHandle);
        CHAR16 *text = device != NULL ? DevicePathToStr(device) : NULL;
        if (text != NULL)
            Print(L"marker: started from %s\n", text);
    }

    debug_exit(MARKER_EXIT_VALUE);
    return EFI_SUCCESS;
}
