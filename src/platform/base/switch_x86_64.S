# platform/base/switch_x86_64.S - the stack switch of x86-64, the only assembly there is.
#
# Runs on every thread that has fibers. A port to another processor is one more file like this one: it owns the layout
# of the saved frame, and nothing outside it knows that layout.
#
#     0  MXCSR (4), x87 control word (2), nothing (2)
#     8  r15    16  r14    24  r13    32  r12    40  rbx    48  rbp    56  return address

        .text

# void zvx_switch_stack(void **save, void *load)
#
# Entered and left by the same call site most of the time, so the closing ret is predicted by the return stack of the
# processor although it returns on another stack.
        .globl  zvx_switch_stack
        .hidden zvx_switch_stack
        .type   zvx_switch_stack, @function
        .p2align 6
zvx_switch_stack:
        .cfi_startproc
        # Into the frame to come (it lies in the red zone still) and before anything else: stmxcsr is the slowest
        # instruction here, and started first it overlaps with the misses of the stack to come.
        prefetcht0 (%rsi)
        stmxcsr -56(%rsp)
        fnstcw  -52(%rsp)
        pushq   %rbp
        .cfi_adjust_cfa_offset 8
        .cfi_rel_offset %rbp, 0
        pushq   %rbx
        .cfi_adjust_cfa_offset 8
        .cfi_rel_offset %rbx, 0
        pushq   %r12
        .cfi_adjust_cfa_offset 8
        .cfi_rel_offset %r12, 0
        pushq   %r13
        .cfi_adjust_cfa_offset 8
        .cfi_rel_offset %r13, 0
        pushq   %r14
        .cfi_adjust_cfa_offset 8
        .cfi_rel_offset %r14, 0
        pushq   %r15
        .cfi_adjust_cfa_offset 8
        .cfi_rel_offset %r15, 0
        subq    $8, %rsp
        .cfi_adjust_cfa_offset 8
        movl    (%rsp), %eax
        movzwl  4(%rsp), %ecx
        movq    %rsp, (%rdi)
        # The frame that is loaded has the same layout, so the rules above hold for it too.
        movq    %rsi, %rsp
        # Loading the control registers costs more than the rest of the switch, and nearly always they hold the same
        # values. The exception flags of MXCSR (its low six bits) belong to nobody across a call and are not compared.
        xorl    (%rsp), %eax
        testl   $0xFFC0, %eax
        jne     .Lload_mxcsr
.Lmxcsr_done:
        cmpw    4(%rsp), %cx
        jne     .Lload_x87
.Lx87_done:
        addq    $8, %rsp
        .cfi_adjust_cfa_offset -8
        popq    %r15
        .cfi_adjust_cfa_offset -8
        .cfi_restore %r15
        popq    %r14
        .cfi_adjust_cfa_offset -8
        .cfi_restore %r14
        popq    %r13
        .cfi_adjust_cfa_offset -8
        .cfi_restore %r13
        popq    %r12
        .cfi_adjust_cfa_offset -8
        .cfi_restore %r12
        popq    %rbx
        .cfi_adjust_cfa_offset -8
        .cfi_restore %rbx
        popq    %rbp
        .cfi_adjust_cfa_offset -8
        .cfi_restore %rbp
        ret
        # From here on the frame is whole again, which the rules have to be told.
        .cfi_adjust_cfa_offset 56
        .cfi_rel_offset %rbp, 48
        .cfi_rel_offset %rbx, 40
        .cfi_rel_offset %r12, 32
        .cfi_rel_offset %r13, 24
        .cfi_rel_offset %r14, 16
        .cfi_rel_offset %r15, 8
.Lload_mxcsr:
        ldmxcsr (%rsp)
        jmp     .Lmxcsr_done
.Lload_x87:
        fldcw   4(%rsp)
        jmp     .Lx87_done
        .cfi_endproc
        .size   zvx_switch_stack, .-zvx_switch_stack

# The bottom of every fiber: r12 is the function and r13 its argument. The return address is declared undefined and
# the frame pointer is zero, which is where debuggers and unwinders stop.
        .type   zvx_fiber_entry, @function
        .p2align 4
zvx_fiber_entry:
        .cfi_startproc
        .cfi_undefined rip
        xorl    %ebp, %ebp
        movq    %r13, %rdi
        call    *%r12
        ud2
        .cfi_endproc
        .size   zvx_fiber_entry, .-zvx_fiber_entry

# void *zvx_initial_frame(void *top, void (*fn)(void *), void *arg)
        .globl  zvx_initial_frame
        .hidden zvx_initial_frame
        .type   zvx_initial_frame, @function
        .p2align 4
zvx_initial_frame:
        .cfi_startproc
        leaq    -64(%rdi), %rax
        movq    $0, (%rax)
        stmxcsr (%rax)
        fnstcw  4(%rax)
        movq    $0, 8(%rax)
        movq    $0, 16(%rax)
        movq    %rdx, 24(%rax)
        movq    %rsi, 32(%rax)
        movq    $0, 40(%rax)
        movq    $0, 48(%rax)
        leaq    zvx_fiber_entry(%rip), %rcx
        movq    %rcx, 56(%rax)
        ret
        .cfi_endproc
        .size   zvx_initial_frame, .-zvx_initial_frame

# The frame above in numbers, for tools that read the stack of a parked fiber: offsets of r15 r14 r13 r12 rbx rbp and the
# return address, and the bytes of the whole.
        .section .rodata
        .globl  zvx_switch_frame
        .hidden zvx_switch_frame
        .type   zvx_switch_frame, @object
        .p2align 1
zvx_switch_frame:
        .short  8, 16, 24, 32, 40, 48, 56, 64
        .size   zvx_switch_frame, .-zvx_switch_frame

        .section .note.GNU-stack, "", @progbits
