/* The kernel's way in: entered in 64-bit mode with %rdi = kernel address,
   %rsi = boot_params, %rdx = the stub's own (copied) address. It leaves long
   mode for flat 32-bit protected mode without paging and jumps to the kernel
   with %esi = boot_params and %ebx, %ebp, %edi = 0, as the boot protocol's
   32-bit entry wants. Data lives at fixed offsets behind the code. */
        .section .rodata.entry_stub, "a"
        .globl morvane_entry_stub
        .balign 16
morvane_entry_stub:
        .code64
        mov     %rdx, %rsp                      /* the stack grows down into the cleared area */
        push    %rdi                            /* the kernel address, for the 32-bit side */
        lea     0x80(%rdx), %rax
        mov     %rax, 0xA2(%rdx)                /* descriptor table base */
        lea     (stub32 - morvane_entry_stub)(%rdx), %rax
        mov     %eax, 0xC0(%rdx)                /* far pointer offset */
        cli
        lidt    0xAA(%rdx)
        lgdt    0xA0(%rdx)
        ljmpl   *0xC0(%rdx)
        .code32
stub32:
        mov     $0x18, %eax
        mov     %eax, %ds
        mov     %eax, %ss
        mov     %eax, %es
        mov     %eax, %fs
        mov     %eax, %gs
        mov     %cr0, %eax
        and     $0x7FFFFFFF, %eax               /* paging off */
        mov     %eax, %cr0
        mov     $0xC0000080, %ecx
        rdmsr
        and     $0xFFFFFEFF, %eax               /* long mode off */
        wrmsr
        mov     %cr4, %eax
        and     $0xFFFFFFCF, %eax               /* PSE and PAE off */
        mov     %eax, %cr4
        jmp     1f
1:
        pop     %eax                            /* low half of the kernel address */
        xor     %ebx, %ebx
        xor     %ebp, %ebp
        xor     %edi, %edi
        jmp     *%eax

        .org    morvane_entry_stub + 0x80
        .quad   0, 0
        .byte   0xFF, 0xFF, 0x00, 0x00, 0x00, 0x9A, 0xCF, 0x00   /* 0x10: flat 32-bit code */
        .byte   0xFF, 0xFF, 0x00, 0x00, 0x00, 0x92, 0xCF, 0x00   /* 0x18: flat 32-bit data */
        .org    morvane_entry_stub + 0xA0
        .word   0x1F
        .quad   0
        .org    morvane_entry_stub + 0xAA
        .word   0
        .quad   0
        .org    morvane_entry_stub + 0xC0
        .long   0
        .word   0x10
        .org    morvane_entry_stub + 200
        .globl  morvane_entry_stub_end
morvane_entry_stub_end:
        .section .note.GNU-stack, "", @progbits
