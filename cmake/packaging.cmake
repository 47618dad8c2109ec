# Install rules, systemd units and the Debian packages (cpack, or the target 'package'):
#   aipq-manager     the daemon, its DirectFB probe and ai_manager.service
#   aipq-ai-service  the reference AI service and ai_service.service
#   aipq-host-kit    tvctl, the capture plug-in and aipq-host-tv.service (host platform layer only)
# Each ships its copyright, changelog and manual pages, the system user aipq (sysusers.d), the
# directories it writes (tmpfiles.d) and the maintainer scripts debhelper would write; lintian
# (Debian 12's) finds no error and no warning in them.
set(AIPQ_PACKAGE_MAINTAINER "ai_manager maintainers <ai-manager@example.org>" CACHE STRING
    "Maintainer field of the Debian packages and their changelog: a name and a mail address")
target_compile_definitions(aipq_debug PRIVATE AIPQ_PROBE_DIR_FROM_BIN="${AIPQ_PROBE_DIR_FROM_BIN}")
install(TARGETS ai_manager RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT manager)
install(TARGETS aipq_dfb_probe RUNTIME DESTINATION ${AIPQ_HELPER_INSTALL_DIR} COMPONENT manager)
set(_components manager)
if(TARGET ai_service)
  install(TARGETS ai_service RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ai_service)
  list(APPEND _components ai_service)
endif()
if(TARGET platform_host)
  target_compile_definitions(platform_host PRIVATE AIPQ_PLUGIN_DIR_FROM_BIN="${AIPQ_PLUGIN_DIR_FROM_BIN}")
  install(TARGETS tvctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT host_kit)
  install(TARGETS aipq_capture_files LIBRARY DESTINATION ${AIPQ_PLUGIN_INSTALL_DIR} COMPONENT host_kit)
  list(APPEND _components host_kit)
endif()

# A unit names its program by absolute path, known only at install time: cpack and
# `cmake --install --prefix` choose the prefix then.
function(aipq_install_unit template component)
  get_filename_component(_unit ${template} NAME_WLE)
  install(CODE "
    set(AIPQ_INSTALLED_BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    set(_to \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${AIPQ_SYSTEMD_UNIT_DIR}/${_unit}\")
    message(STATUS \"Installing: \${_to}\")
    configure_file(\"${template}\" \"\${_to}\" @ONLY)"
    COMPONENT ${component})
endfunction()
aipq_install_unit(${CMAKE_SOURCE_DIR}/ai_manager/ai_manager.service.in manager)
if(TARGET ai_service)
  aipq_install_unit(${CMAKE_SOURCE_DIR}/tools/ai_service/ai_service.service.in ai_service)
endif()
if(TARGET platform_host)
  aipq_install_unit(${CMAKE_SOURCE_DIR}/tools/tvctl/aipq-host-tv.service.in host_kit)
endif()

# Documentation, users, directories and maintainer scripts of each package. Manual pages and the
# changelog are compressed as Debian wants them: gzip -9n, reproducible.
set(_pkgdir ${CMAKE_SOURCE_DIR}/packaging)
set(_gen ${CMAKE_BINARY_DIR}/packaging)
configure_file(${_pkgdir}/changelog ${_gen}/changelog @ONLY)
set(_gz_outputs)
function(aipq_gzip source output)
  add_custom_command(OUTPUT ${output}
    COMMAND gzip -9nc ${source} > ${output}
    DEPENDS ${source} VERBATIM)
  set(_gz_outputs ${_gz_outputs} ${output} PARENT_SCOPE)
endfunction()
aipq_gzip(${_gen}/changelog ${_gen}/changelog.gz)
foreach(_page ai_manager.8 ai_service.8 aipq_service_check.1 tvctl.1)
  aipq_gzip(${CMAKE_SOURCE_DIR}/doc/man/${_page} ${_gen}/${_page}.gz)
endforeach()
add_custom_target(aipq_package_docs ALL DEPENDS ${_gz_outputs})

# component  package  manual pages  sysusers.d  tmpfiles.d  units  [NO_BLOCK: start without waiting]
function(aipq_package_files component package pages sysusers tmpfiles units)
  set(START "deb-systemd-invoke \"$action\"")
  if(ARGN STREQUAL "NO_BLOCK")
    # ai_manager waits for the business layer without time-out: its start must not hold dpkg.
    set(START "systemctl --system --no-block \"$action\"")
    install(FILES ${_pkgdir}/${package}.lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
            RENAME ${package} COMPONENT ${component})
  endif()
  set(_doc ${CMAKE_INSTALL_DATADIR}/doc/${package})
  install(FILES ${_pkgdir}/copyright ${_gen}/changelog.gz DESTINATION ${_doc} COMPONENT ${component})
  foreach(_page IN LISTS pages)
    string(REGEX REPLACE ".*\\.([0-9])$" "\\1" _section ${_page})
    install(FILES ${_gen}/${_page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${_section} COMPONENT ${component})
  endforeach()
  set(SYSUSERS "")
  set(TMPFILES "")
  if(sysusers)
    install(FILES ${_pkgdir}/aipq.sysusers DESTINATION lib/sysusers.d RENAME ${package}.conf
            COMPONENT ${component})
    set(SYSUSERS ${package}.conf)
  endif()
  if(tmpfiles)
    install(FILES ${_pkgdir}/${package}.tmpfiles DESTINATION lib/tmpfiles.d RENAME ${package}.conf
            COMPONENT ${component})
    set(TMPFILES ${package}.conf)
  endif()
  string(REPLACE ";" " " UNITS "${units}")
  foreach(_script postinst prerm postrm)
    configure_file(${_pkgdir}/${_script}.in ${_gen}/${package}/${_script} @ONLY)
  endforeach()
  string(TOUPPER ${component} _c)
  set(CPACK_DEBIAN_${_c}_PACKAGE_CONTROL_EXTRA
      ${_gen}/${package}/postinst ${_gen}/${package}/prerm ${_gen}/${package}/postrm PARENT_SCOPE)
endfunction()
aipq_package_files(manager aipq-manager ai_manager.8 ON ON ai_manager.service NO_BLOCK)
if(TARGET ai_service)
  aipq_package_files(ai_service aipq-ai-service "ai_service.8;aipq_service_check.1" ON OFF ai_service.service)
endif()
if(TARGET platform_host)
  aipq_package_files(host_kit aipq-host-kit tvctl.1 OFF ON aipq-host-tv.service)
endif()
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME aipq)
set(CPACK_PACKAGE_VERSION 0.14.0)
set(CPACK_PACKAGE_CONTACT "${AIPQ_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
# The install prefix as the programs see it, with DESTDIR for the staging, so that the units name
# /usr/bin and not the staging directory.
set(CPACK_SET_DESTDIR ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL ${_components})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_MANAGER_PACKAGE_NAME aipq-manager)
set(CPACK_DEBIAN_AI_SERVICE_PACKAGE_NAME aipq-ai-service)
set(CPACK_DEBIAN_HOST_KIT_PACKAGE_NAME aipq-host-kit)
set(CPACK_DEBIAN_MANAGER_PACKAGE_SECTION misc)
# Extended descriptions in lines of at most 80 characters (Debian policy 3.4.2).
string(CONCAT CPACK_COMPONENT_MANAGER_DESCRIPTION "AI picture-quality daemon for TVs\n"
       "Classifies the scene on screen through an AI service and hands the TV\n"
       "the picture settings for it. Runs as the systemd unit ai_manager.service.")
string(CONCAT CPACK_COMPONENT_AI_SERVICE_DESCRIPTION "Reference AI service for the AI picture-quality daemon\n"
       "Answers the daemon over its queue and shared segment with a built-in\n"
       "classifier or an ONNX model. Runs as the systemd unit ai_service.service.")
string(CONCAT CPACK_COMPONENT_HOST_KIT_DESCRIPTION "Host kit of the AI picture-quality daemon\n"
       "tvctl, which sets the simulated TV's state, the plug-in that captures from\n"
       "image and video files, and aipq-host-tv.service, which gives the daemon on\n"
       "a PC the business-ready marker and the TV's initial state.")
set(CPACK_COMPONENT_HOST_KIT_DEPENDS manager)
# What the maintainer scripts run: systemd-sysusers and systemd-tmpfiles (deb-systemd-helper
# comes with init-system-helpers, which is essential).
set(_sysusers "systemd | systemd-standalone-sysusers | systemd-sysusers")
set(_tmpfiles "systemd | systemd-standalone-tmpfiles | systemd-tmpfiles")

# dpkg-shlibdeps knows only the build machine's own packages; for another architecture the
# run-time dependencies are named here, as Debian 12 calls them (a vendor names their own).
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${AIPQ_DEBIAN_ARCH})
  set(_base "libc6 (>= 2.34), libgcc-s1 (>= 3.0), libstdc++6 (>= 12)")
  set(CPACK_DEBIAN_MANAGER_PACKAGE_DEPENDS "${_base}, ${_sysusers}, ${_tmpfiles}")
  set(CPACK_DEBIAN_MANAGER_PACKAGE_RECOMMENDS "libdirectfb-1.7-7")
  set(CPACK_DEBIAN_AI_SERVICE_PACKAGE_DEPENDS
      "${_base}, libopencv-core406, libopencv-dnn406, libopencv-imgproc406, ${_sysusers}")
  string(CONCAT CPACK_DEBIAN_HOST_KIT_PACKAGE_DEPENDS "${_base}, libavcodec59, libavformat59, libavutil57, "
         "libswscale6, libopencv-core406, libopencv-imgcodecs406, libopencv-imgproc406, ${_tmpfiles}")
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  # The daemon's own libraries are Depends; DirectFB, which only its overlay probe links, is a
  # Recommends: computed by dpkg-shlibdeps when cpack runs (cmake/deb_manager_depends.cmake).
  set(CPACK_DEBIAN_MANAGER_PACKAGE_SHLIBDEPS OFF)
  set(AIPQ_DEB_DAEMON ${CMAKE_BINARY_DIR}/bin/ai_manager)
  set(AIPQ_DEB_OVERLAY_PROBE ${CMAKE_BINARY_DIR}/bin/aipq_dfb_probe)
  set(AIPQ_DEB_EXTRA_DEPENDS "${_sysusers}, ${_tmpfiles}")
  configure_file(${CMAKE_SOURCE_DIR}/cmake/deb_manager_depends.cmake.in
                 ${CMAKE_BINARY_DIR}/packaging/deb_manager_depends.cmake @ONLY)
  set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_BINARY_DIR}/packaging/deb_manager_depends.cmake)
  set(CPACK_DEBIAN_AI_SERVICE_PACKAGE_DEPENDS "${_sysusers}")
  set(CPACK_DEBIAN_HOST_KIT_PACKAGE_DEPENDS "${_tmpfiles}")
endif()
include(CPack)
