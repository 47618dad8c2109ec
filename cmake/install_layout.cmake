# Where things go when installed (GNUInstallDirs): programs in bin/, the DirectFB probe among the
# daemon's helpers in libexec/aipq/, the capture plug-in in <libdir>/aipq/, systemd units in
# lib/systemd/system/. The daemon looks for its probe and plug-in relative to its own directory,
# so the tree can be installed or unpacked under any prefix.
include(GNUInstallDirs)
set(AIPQ_HELPER_INSTALL_DIR ${CMAKE_INSTALL_LIBEXECDIR}/aipq)
set(AIPQ_PLUGIN_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/aipq)
set(AIPQ_SYSTEMD_UNIT_DIR "lib/systemd/system" CACHE STRING "systemd system units, relative to the prefix")
file(RELATIVE_PATH AIPQ_PROBE_DIR_FROM_BIN ${CMAKE_INSTALL_FULL_BINDIR}
     ${CMAKE_INSTALL_PREFIX}/${AIPQ_HELPER_INSTALL_DIR})
file(RELATIVE_PATH AIPQ_PLUGIN_DIR_FROM_BIN ${CMAKE_INSTALL_FULL_BINDIR}
     ${CMAKE_INSTALL_PREFIX}/${AIPQ_PLUGIN_INSTALL_DIR})
