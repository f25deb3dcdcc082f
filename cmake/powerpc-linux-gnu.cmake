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
# Nothing here computes with fractions: with this the compiler need not say at each call of printf that there are none.
set(TQ_MACHINE_OPTIONS -msoft-float CACHE STRING "What the compiler must know of the machine")
# A position-independent tqctl is a tenth larger here, and it runs for seconds, at a technician's word.
set(TQ_TOOL_PIE OFF CACHE BOOL "Let the kernel choose where tqctl lies in memory")
