# 32-bit ARM Linux, hard float (Debian armhf). See linux-cross.cmake for AIPQ_SYSROOT.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(AIPQ_TARGET_TRIPLET arm-linux-gnueabihf)
set(AIPQ_DEBIAN_ARCH armhf)
set(AIPQ_QEMU_ARCH arm)
set(AIPQ_QEMU_OPTIONS --readdir32)
include(${CMAKE_CURRENT_LIST_DIR}/linux-cross.cmake)
