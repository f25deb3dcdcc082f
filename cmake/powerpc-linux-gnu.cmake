# The target board: 32-bit big-endian PowerPC, glibc. Debian: g++-powerpc-linux-gnu.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR powerpc)
set(CMAKE_CXX_COMPILER powerpc-linux-gnu-g++)
set(CMAKE_FIND_ROOT_PATH /usr/powerpc-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# Where the build machine has the board's C library, for qemu user emulation.
set(ENV{QEMU_LD_PREFIX} /usr/powerpc-linux-gnu)
# The board's pages may be 64 KB. The linker ends what RELRO protects on a page of that size, which can make the file
# twice as large, depending on where the code ends.
set(TQ_RELRO OFF CACHE BOOL "Make the program's own tables read-only before it starts")
# Each register that a function saves costs it two words unless a routine restores them together, which no function can have
# that ends in a jump to another one; what is kept in registers for the length of a loop makes more to save; and a loop that
# counts in the register for it loads that first.
set(TQ_MACHINE_OPTIONS
    -fno-optimize-sibling-calls -fno-move-loop-invariants -fno-tree-loop-im -fno-branch-count-reg
    CACHE STRING "Compiler options that suit the machine")
# tqctl computes with no fractions: a caller of printf need not say each time that there are none. The library's callers may.
set(TQ_TOOL_OPTIONS -msoft-float CACHE STRING "Those for tqctl alone")
# A position-independent tqctl is an eighth larger here, a guarded one a fifteenth, and it runs for seconds, at a technician's
# word.
set(TQ_TOOL_GUARDS OFF CACHE BOOL "Guard the stack and the buffers of tqctl at run time")
set(TQ_TOOL_PIE OFF CACHE BOOL "Let the kernel choose where tqctl lies in memory")
