# The firmware world: the system compiled for a UEFI image with no imports,
# linked against libsupc++ and libgcc_eh for real C++ exceptions.
file(GLOB MORVANE_EFI_PLATFORM_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/platform/efi/*.cpp)

add_library(morvane_efi_objects OBJECT ${MORVANE_SYSTEM_SOURCES} ${MORVANE_CLIB_SOURCES} ${MORVANE_EFI_PLATFORM_SOURCES})
target_include_directories(morvane_efi_objects PRIVATE ${CMAKE_SOURCE_DIR} ${EFI_INCLUDES})
# _GLIBCXX_ASSERTIONS keeps the standard containers' bounds checks in the
# image, and with them std::string is compiled here rather than taken from
# the hosted library, which the image does not link.
target_compile_definitions(morvane_efi_objects PRIVATE ${MORVANE_DEFINES} _GLIBCXX_ASSERTIONS)
target_compile_options(morvane_efi_objects PRIVATE
  -fpic -fno-stack-protector -fno-stack-check -mno-red-zone -fno-threadsafe-statics
  -fno-plt -O2 -Wall -Wextra)

# The compiler turns byte loops into calls of memset and memcpy; inside
# memset and memcpy themselves that is endless recursion.
set_source_files_properties(${CMAKE_SOURCE_DIR}/platform/efi/string_functions.cpp
  PROPERTIES COMPILE_OPTIONS "-fno-tree-loop-distribute-patterns;-fno-builtin")

execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libsupc++.a OUTPUT_VARIABLE LIBSUPCXX OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libgcc_eh.a OUTPUT_VARIABLE LIBGCC_EH OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-libgcc-file-name OUTPUT_VARIABLE LIBGCC OUTPUT_STRIP_TRAILING_WHITESPACE)

# The node links of std::map, std::set (tree.o) and std::list (list.o) are
# compiled into libstdc++, not into headers. These objects need nothing
# else, so they are taken alone from the static library; the image checks
# below still vet every instruction of them.
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libstdc++.a OUTPUT_VARIABLE LIBSTDCXX_STATIC OUTPUT_STRIP_TRAILING_WHITESPACE)
set(EFI_TREE_OBJECT ${CMAKE_BINARY_DIR}/efi-runtime/tree.o ${CMAKE_BINARY_DIR}/efi-runtime/list.o)
add_custom_command(OUTPUT ${EFI_TREE_OBJECT}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/efi-runtime
  COMMAND ar x ${LIBSTDCXX_STATIC} tree.o list.o --output ${CMAKE_BINARY_DIR}/efi-runtime
  COMMENT "Taking the container node links from libstdc++")

set(EFI_LINKER_SCRIPT ${CMAKE_SOURCE_DIR}/platform/efi/morvane.lds)
set(EFI_SO ${CMAKE_BINARY_DIR}/morvane.so)
set(EFI_IMAGE ${CMAKE_BINARY_DIR}/morvane.efi)
set(EFI_SECTIONS -j .text -j .sdata -j .data -j .dynamic -j .rela -j .reloc -j .eh_frame_hdr -j .eh_frame)

add_custom_command(OUTPUT ${EFI_IMAGE}
  COMMAND ld -nostdlib -znocombreloc -T ${EFI_LINKER_SCRIPT} -shared -Bsymbolic
          -z nodynamic-undefined-weak --eh-frame-hdr --no-undefined
          /usr/lib/crt0-efi-x86_64.o $<TARGET_OBJECTS:morvane_efi_objects> ${EFI_TREE_OBJECT}
          ${LIBSUPCXX} ${LIBGCC_EH} ${LIBGCC} /usr/lib/libgnuefi.a
          -o ${EFI_SO}
  COMMAND objcopy ${EFI_SECTIONS} --target efi-app-x86_64 --subsystem=10 ${EFI_SO} ${EFI_IMAGE}
  COMMAND ${CMAKE_SOURCE_DIR}/platform/efi/check_image.sh ${EFI_SO} ${EFI_IMAGE}
  DEPENDS morvane_efi_objects $<TARGET_OBJECTS:morvane_efi_objects> ${EFI_LINKER_SCRIPT} ${EFI_TREE_OBJECT}
          ${CMAKE_SOURCE_DIR}/platform/efi/check_image.sh
  COMMAND_EXPAND_LISTS
  COMMENT "Linking the firmware image morvane.efi")
add_custom_target(morvane_efi ALL DEPENDS ${EFI_IMAGE})

add_test(NAME FirmwareImageChecks COMMAND ${CMAKE_SOURCE_DIR}/tests/build/image_checks_test.sh ${CMAKE_BINARY_DIR})
