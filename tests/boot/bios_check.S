# SPDX-License-Identifier: MIT
# The boot sector that loads bios_check.cpp behind itself, and what that cannot say in C++. Everything is in segment 0.
    .code16
    .section .entry, "awx"
    .globl entry
entry:
    ljmp $0, $1f
1:  xorw %ax, %ax
    movw %ax, %ds
    movw %ax, %es
    movw %ax, %ss
    movl $0x7C00, %esp
    sti
    movw $address, %si
    movb $0x42, %ah
    int $0x13
    jc .
    movl $bss_begin, %edi
    movl $bss_end, %ecx
    subl %edi, %ecx
    xorb %al, %al
    cld
    rep stosb
    calll check_main
    movb $0xFE, %al
    outb %al, $0x64
    jmp .
address:
    .byte 16, 0
    .word file_sectors, 0x7E00, 0
    .quad 1
    .org 510
    .word 0xAA55

    .text
# void bios_call(Registers*, number): all registers in and out
    .globl bios_call
bios_call:
    pushal
    movb %dl, 3f + 1
    movl %eax, registers
    movl %eax, %ebp
    movl 0(%ebp), %edi
    movl 4(%ebp), %esi
    movl 16(%ebp), %ebx
    movl 20(%ebp), %edx
    movl 24(%ebp), %ecx
    movw 32(%ebp), %ax
    movw %ax, %fs
    movw 34(%ebp), %ax
    movw %ax, %gs
    movw 36(%ebp), %es
    pushl 28(%ebp)
    pushw 40(%ebp)
    movw 38(%ebp), %ds
    movl %ss:8(%ebp), %ebp
    popfw
    popl %eax
3:  int $0
    pushfw
    pushw %ds
    pushl %ebp
    movl %cs:registers, %ebp
    popl %ss:8(%ebp)
    popw %ss:38(%ebp)
    popw %ss:40(%ebp)
    movl %edi, %ss:0(%ebp)
    movl %esi, %ss:4(%ebp)
    movl %ebx, %ss:16(%ebp)
    movl %edx, %ss:20(%ebp)
    movl %ecx, %ss:24(%ebp)
    movl %eax, %ss:28(%ebp)
    movw %fs, %ss:32(%ebp)
    movw %gs, %ss:34(%ebp)
    movw %es, %ss:36(%ebp)
    xorw %ax, %ax
    movw %ax, %ds
    movw %ax, %es
    cld
    sti
    popal
    retl

# uint8 byte_at(linear)
    .globl byte_at
byte_at:
    pushw %es
    movl %eax, %edx
    shrl $4, %edx
    movw %dx, %es
    andl $15, %eax
    movb %es:(%eax), %al
    movzbl %al, %eax
    popw %es
    retl

# void put_byte(linear, value)
    .globl put_byte
put_byte:
    pushw %es
    movl %eax, %ecx
    shrl $4, %ecx
    movw %cx, %es
    andl $15, %eax
    movb %dl, %es:(%eax)
    popw %es
    retl

# void hook_timer(), void unhook_timer(): while hooked, every tick of the clock asks for a sector
    .globl hook_timer, unhook_timer
hook_timer:
    cli
    movl 0x1C*4, %eax
    movl %eax, old_timer
    movl $timer, 0x1C*4
    sti
    retl
unhook_timer:
    cli
    movl old_timer, %eax
    movl %eax, 0x1C*4
    sti
    retl
timer:
    pushal
    pushw %ds
    xorw %ax, %ax
    movw %ax, %ds
    cmpb $0, in_call
    je 1f
    movw $nested_address, %si
    movb $0x42, %ah
    movb $0x80, %dl
    int $0x13
    jnc 2f
    cmpb $0xAA, %ah
    jne 2f
    incw nested_refused
    jmp 1f
2:  incw nested_other
1:  popw %ds
    popal
    iretw
nested_address:
    .byte 16, 0
    .word 1, 0x0600, 0
    .quad 5

    .data
    .globl in_call, nested_refused, nested_other
    .balign 4
registers: .long 0
old_timer: .long 0
nested_refused: .word 0
nested_other: .word 0
in_call: .byte 0
