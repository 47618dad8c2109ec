# 64-bit ARM Linux (Debian arm64). See linux-cross.cmake for AIPQ_SYSROOT.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(AIPQ_TARGET_TRIPLET aarch64-linux-gnu)
set(AIPQ_DEBIAN_ARCH arm64)
set(AIPQ_QEMU_ARCH aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/linux-cross.cmake)

# TV kernels run 4 KiB pages, and the linker's 64 KiB default pads each binary by up to 60 KiB
# between its segments. For a kernel with 16 or 64 KiB pages, set 16384 or 65536.
set(AIPQ_MAX_PAGE_SIZE 4096 CACHE STRING "Largest page size of the target's kernel, in bytes")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES AIPQ_MAX_PAGE_SIZE)
foreach(_kind EXE SHARED MODULE)
  set(CMAKE_${_kind}_LINKER_FLAGS_INIT "-Wl,-z,max-page-size=${AIPQ_MAX_PAGE_SIZE}")
endforeach()
