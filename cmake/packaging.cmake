# Install rules, systemd units and the Debian packages (cpack, or the target 'package'):
#   aipq-manager     the daemon, its DirectFB probe and ai_manager.service
#   aipq-ai-service  the reference AI service and ai_service.service
#   aipq-host-kit    tvctl and the capture plug-in (host platform layer only)
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

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME aipq)
set(CPACK_PACKAGE_VERSION 0.14.0)
set(CPACK_PACKAGE_CONTACT "ai_manager maintainers <ai_manager@localhost>")
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
string(CONCAT CPACK_COMPONENT_MANAGER_DESCRIPTION "AI picture-quality daemon for TVs\n"
       " Classifies the scene on screen through an AI service and hands the TV the picture settings for it.")
string(CONCAT CPACK_COMPONENT_AI_SERVICE_DESCRIPTION "Reference AI service for the AI picture-quality daemon\n"
       " Answers the daemon over its queue and shared segment with a built-in classifier or an ONNX model.")
string(CONCAT CPACK_COMPONENT_HOST_KIT_DESCRIPTION "Host kit of the AI picture-quality daemon\n"
       " tvctl, which sets the simulated TV's state, and the plug-in that captures from image and video files.")
set(CPACK_COMPONENT_HOST_KIT_DEPENDS manager)

# dpkg-shlibdeps knows only the build machine's own packages; for another architecture the
# run-time dependencies are named here, as Debian 12 calls them (a vendor names their own).
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${AIPQ_DEBIAN_ARCH})
  set(_base "libc6 (>= 2.34), libgcc-s1 (>= 3.0), libstdc++6 (>= 12)")
  set(CPACK_DEBIAN_MANAGER_PACKAGE_DEPENDS "${_base}, libdirectfb-1.7-7")
  set(CPACK_DEBIAN_AI_SERVICE_PACKAGE_DEPENDS "${_base}, libopencv-core406, libopencv-dnn406, libopencv-imgproc406")
  string(CONCAT CPACK_DEBIAN_HOST_KIT_PACKAGE_DEPENDS "${_base}, libavcodec59, libavformat59, libavutil57, "
         "libswscale6, libopencv-core406, libopencv-imgcodecs406, libopencv-imgproc406")
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
include(CPack)
