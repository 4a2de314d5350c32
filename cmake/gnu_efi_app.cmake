# A small test-only EFI application in plain C against gnu-efi's own library
# and stock linker script: it needs no C++ runtime, so none of the firmware
# image's special linking applies.
#   add_gnu_efi_app(TARGET NAME SOURCE) builds NAME.efi beside its sources'
#   build folder, as part of ALL.
#
# -fshort-wchar: gnu-efi's Print takes L"" strings as CHAR16.
# GNU_EFI_USE_MS_ABI: protocol members are called directly with the
# firmware's calling convention.
set(GNU_EFI_APP_CFLAGS
  -std=gnu11 -O2 -Wall -Wextra -Werror
  -fpic -fshort-wchar -fno-stack-protector -fno-stack-check -mno-red-zone
  -DGNU_EFI_USE_MS_ABI
  -I/usr/include/efi -I/usr/include/efi/x86_64 -I/usr/include/efi/protocol)
set(GNU_EFI_APP_SECTIONS -j .text -j .sdata -j .data -j .dynamic -j .dynsym -j .rel -j .rela -j .reloc)

function(add_gnu_efi_app target name source)
  set(object ${CMAKE_CURRENT_BINARY_DIR}/${name}.o)
  set(shared ${CMAKE_CURRENT_BINARY_DIR}/${name}.so)
  set(image ${CMAKE_CURRENT_BINARY_DIR}/${name}.efi)
  add_custom_command(OUTPUT ${image}
    COMMAND ${CMAKE_C_COMPILER} ${GNU_EFI_APP_CFLAGS} -c ${source} -o ${object}
    COMMAND ld -nostdlib -znocombreloc -T /usr/lib/elf_x86_64_efi.lds -shared -Bsymbolic
            /usr/lib/crt0-efi-x86_64.o ${object} /usr/lib/libefi.a /usr/lib/libgnuefi.a -o ${shared}
    COMMAND objcopy ${GNU_EFI_APP_SECTIONS} --target efi-app-x86_64 --subsystem=10 ${shared} ${image}
    DEPENDS ${source}
    COMMAND_EXPAND_LISTS
    VERBATIM
    COMMENT "Building the test application ${name}.efi")
  add_custom_target(${target} ALL DEPENDS ${image})
endfunction()
