# SPDX-License-Identifier: MIT
# What cannot be said in C++: the way in from the card's ROM, the interrupt handlers, the calls of the BIOS and of
# the card's services, and memory outside our segment. C++ here has its first three arguments in eax, edx, ecx, and
# calls with 32-bit return addresses.
    .code16
    .section .entry, "awx"
    .globl entry
# At 0000:7C00, called by the ROM. Moves to the top of conventional memory and goes on there.
entry:
    ljmp $0x07C0, $begin
begin:
    movw %sp, %bp
    lesw 4(%bp), %bx               # !PXE
    movw %bx, %cs:pxe_structure
    movw %es, %cs:pxe_structure + 2
    xorw %ax, %ax
    movw %ax, %fs
    movw %fs:0x413, %ax            # KB of base memory
    subw $resident_kb, %ax
    movw %ax, %cs:base_kb
    shlw $6, %ax
    movw %ax, %es
    movw %cs, %cx
    movw %cx, %ds
    cld
    xorw %si, %si
    xorw %di, %di
    movw $image_end, %cx
    rep movsb
    movw $resident_end, %cx
    subw %di, %cx
    xorb %al, %al
    rep stosb
    pushw %es
    pushw $moved
    lretw
moved:
    movw %cs, %ax
    cli
    movw %ax, %ds
    movw %ax, %es
    movw %ax, %ss
    movl $stack_end, %esp
    sti
    calll boot_main
# The boot sector is in place: eax says for which drive.
    movb %al, %dl
    xorw %ax, %ax
    movw %ax, %ds
    movw %ax, %es
    movw %ax, %fs
    movw %ax, %gs
    xorw %di, %di
    cli
    movw %ax, %ss
    movl $0x7C00, %esp
    sti
    ljmp $0, $0x7C00

    .text
# void install_handlers(): from here on the PC has our disks and less base memory.
    .globl install_handlers
install_handlers:
    cli
    pushw %es
    xorw %ax, %ax
    movw %ax, %es
    movl %es:0x13*4, %eax
    movl %eax, old_13
    movl %es:0x15*4, %eax
    movl %eax, old_15
    movw $int13, %es:0x13*4
    movw %cs, %es:0x13*4+2
    movw $int15, %es:0x15*4
    movw %cs, %es:0x15*4+2
    movw base_kb, %ax
    movw %ax, %es:0x413
    popw %es
    sti
    retl

# Disks. Floppies stay the BIOS's own; a call out of a call, from an interrupt, is refused as not ready.
int13:
    testb $0x80, %dl
    jnz 1f
    ljmpw *%cs:old_13
1:  cmpb $0, %cs:busy
    je 2f
    movb $0xAA, %ah
    pushw %bp
    movw %sp, %bp
    orb $1, 6(%bp)
    popw %bp
    iretw
2:  movb $1, %cs:busy
    movl %esp, %cs:caller_esp
    movw %ss, %cs:caller_ss
    movl %eax, %cs:caller_eax
    movw %cs, %ax
    movw %ax, %ss
    movl $stack_end, %esp
    movl %cs:caller_eax, %eax
    pushl %gs
    pushl %fs
    pushl %es
    pushl %ds
    pushal
    movw %cs, %ax
    movw %ax, %ds
    movw %ax, %es
    cld
    sti
    movl %esp, %eax
    calll disk_call
    cli
    popal
    popl %ds
    popl %es
    popl %fs
    popl %gs
    lssl %cs:caller_esp, %esp
    movb $0, %cs:busy
    iretw

# Memory as the BIOS tells it, without what is ours.
int15:
    cmpw $0xE820, %ax
    je 1f
    ljmpw *%cs:old_15
1:  pushfw
    lcallw *%cs:old_15
    pushw %bp
    movw %sp, %bp
    jc 4f
    andb $0xFE, 6(%bp)
    pushl %eax
    pushl %edx
    cmpl $0, %es:4(%di)
    jne 3f
    cmpl $1, %es:16(%di)
    jne 3f
    movzwl %cs:base_kb, %eax
    shll $10, %eax
    movl %es:(%di), %edx
    cmpl $0x100000, %edx
    jae 3f
    subl %edx, %eax                 # bytes of the range below us
    jbe 2f
    cmpl %eax, %es:8(%di)
    jbe 3f
    movl %eax, %es:8(%di)
    jmp 3f
2:  movl $2, %es:16(%di)            # all of it above: not for use
3:  popl %edx
    popl %eax
    popw %bp
    iretw
4:  orb $1, 6(%bp)
    popw %bp
    iretw

# bool call_old_13(Registers*): the BIOS's own disks. True: it reports an error.
    .globl call_old_13
call_old_13:
    pushl %ebx
    pushl %esi
    pushl %edi
    pushl %ebp
    movl %eax, old_registers
    movl %eax, %ebp
    movl 0(%ebp), %edi
    movl 4(%ebp), %esi
    movl 16(%ebp), %ebx
    movl 20(%ebp), %edx
    movl 24(%ebp), %ecx
    movl 28(%ebp), %eax
    movw 36(%ebp), %es
    movw 32(%ebp), %ds
    movl 8(%ebp), %ebp
    pushfw
    lcallw *%cs:old_13
    pushl %ebp
    movl %cs:old_registers, %ebp
    movl %edi, 0(%ebp)
    movl %esi, 4(%ebp)
    popl 8(%ebp)
    movl %ebx, 16(%ebp)
    movl %edx, 20(%ebp)
    movl %ecx, 24(%ebp)
    movl %eax, 28(%ebp)
    movw %es, 36(%ebp)
    movw %ds, 32(%ebp)
    movw %cs, %dx
    movw %dx, %ds
    movw %dx, %es
    movl $0, %eax
    adcl $0, %eax
    cld
    sti
    popl %ebp
    popl %edi
    popl %esi
    popl %ebx
    retl

# uint16 pxe_call(opcode, parameters in our segment)
    .globl pxe_call
pxe_call:
    pushl %ebx
    pushl %esi
    pushl %edi
    pushl %ebp
    pushw %ds
    pushw %es
    pushw %fs
    pushw %gs
    pushw %ds
    pushw %dx
    pushw %ax
    lcallw *pxe_entry
    addw $6, %sp
    popw %gs
    popw %fs
    popw %es
    popw %ds
    movzwl %sp, %esp
    movzwl %ax, %eax
    cld
    sti
    popl %ebp
    popl %edi
    popl %esi
    popl %ebx
    retl

# void far_copy(to, from, byte_count): addresses as segment << 16 | offset
    .globl far_copy
far_copy:
    pushl %esi
    pushl %edi
    pushw %ds
    pushw %es
    pushl %eax
    popw %di
    popw %es
    pushl %edx
    popw %si
    popw %ds
    movw %cx, %ax
    andw $3, %ax
    shrw $2, %cx
    rep movsl
    movw %ax, %cx
    rep movsb
    popw %es
    popw %ds
    popl %edi
    popl %esi
    retl

# void far_zero(to, byte_count)
    .globl far_zero
far_zero:
    pushl %edi
    pushw %es
    pushl %eax
    popw %di
    popw %es
    movw %dx, %cx
    xorb %al, %al
    rep stosb
    popw %es
    popl %edi
    retl

# void put_char(char)
    .globl put_char
put_char:
    pushal
    movb $0x0E, %ah
    movw $7, %bx
    int $0x10
    popal
    movzwl %sp, %esp
    retl

# void idle(): until the next interrupt
    .globl idle
idle:
    sti
    hlt
    retl

    .globl own_segment
own_segment:
    movw %cs, %ax
    movzwl %ax, %eax
    retl

    .data
    .balign 4
    .globl pxe_structure, pxe_entry, base_kb, caller_esp, caller_ss
pxe_structure: .long 0
pxe_entry: .long 0
old_13: .long 0
old_15: .long 0
caller_esp: .long 0
caller_ss: .long 0
caller_eax: .long 0
old_registers: .long 0
base_kb: .word 0
busy: .byte 0

    .bss
    .balign 16
    .space 6144
stack_end:
