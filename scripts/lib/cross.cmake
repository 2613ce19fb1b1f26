# Toolchain file for Debian's cross compilers. DRIX_TRIPLE names the target, like s390x-linux-gnu; its programs run
# under qemu-user. The compiler finds the target's headers and libraries by itself.
set(CMAKE_SYSTEM_NAME Linux)
string(REGEX MATCH "^[^-]+" CMAKE_SYSTEM_PROCESSOR "${DRIX_TRIPLE}")
set(CMAKE_C_COMPILER ${DRIX_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${DRIX_TRIPLE}-g++)
string(REPLACE powerpc ppc emulator qemu-${CMAKE_SYSTEM_PROCESSOR})
set(CMAKE_CROSSCOMPILING_EMULATOR ${emulator};-L;/usr/${DRIX_TRIPLE})
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES DRIX_TRIPLE)
