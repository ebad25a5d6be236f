# What `cmake --install` lays out and what `cpack -G DEB` packs.
#
# The install root is <prefix>/keldv (/usr/keldv with the default prefix,
# the path the service and its tools look in when KELDV_ROOT is unset):
# bin, lib (our shared libraries), lib/stsplugins (the storage plug-ins) and
# keldrive (configuration, logs, the disk plug-in's storage).  Every binary
# finds our libraries at $ORIGIN/../lib, so a root copied or extracted
# elsewhere and named by KELDV_ROOT runs as it is.  The tools get links in
# <prefix>/bin, the service in <prefix>/sbin.
include(GNUInstallDirs)

set(KELD_ROOT_DIR keldv)
set(KELD_BIN_DIR ${KELD_ROOT_DIR}/bin)
set(KELD_LIB_DIR ${KELD_ROOT_DIR}/lib)
set(KELD_PLUGIN_DIR ${KELD_LIB_DIR}/stsplugins)
set(KELD_CONF_DIR ${KELD_ROOT_DIR}/keldrive)
set(KELD_PACKAGING_DIR ${PROJECT_SOURCE_DIR}/packaging)
set(KELD_STAGE_DIR ${CMAKE_BINARY_DIR}/packaging)
file(MAKE_DIRECTORY ${KELD_STAGE_DIR})

# Where systemd looks for the units of packages on this release.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(KELD_SYSTEMD_UNIT_DIR /lib/systemd/system)
else()
  set(KELD_SYSTEMD_UNIT_DIR lib/systemd/system)
endif()

# Linked libraries carry a versioned soname; the client database library
# and the TLS transport are loaded by file name at run time, like plug-ins.
set(KELD_LINKED_LIBRARIES stsMT proxy_idl)
set(KELD_LOADED_LIBRARIES KdbMT keld_tls)
set(KELD_PLUGINS sts_disk sts_shmem sts_rados sts_remote)
set(KELD_TOOLS keldctl keldv-clients keldv-disk-config keldv-disk-snapshot keldv-shmem-lsu keldv-rados)

set_target_properties(${KELD_LINKED_LIBRARIES} PROPERTIES
  VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
set_target_properties(keldpxy ${KELD_TOOLS} PROPERTIES INSTALL_RPATH "\$ORIGIN/../lib")
set_target_properties(${KELD_PLUGINS} PROPERTIES INSTALL_RPATH "\$ORIGIN/..")

install(TARGETS keldpxy ${KELD_TOOLS} RUNTIME DESTINATION ${KELD_BIN_DIR})
install(TARGETS ${KELD_LINKED_LIBRARIES} ${KELD_LOADED_LIBRARIES}
  LIBRARY DESTINATION ${KELD_LIB_DIR} NAMELINK_SKIP)
install(TARGETS ${KELD_PLUGINS} LIBRARY DESTINATION ${KELD_PLUGIN_DIR})

# The writable part of the root; postinst gives it to the service's user.
install(DIRECTORY DESTINATION ${KELD_CONF_DIR}/logs/keldpxy)
install(DIRECTORY DESTINATION ${KELD_CONF_DIR}/storage)

# A relative link from dir (relative to the prefix) to target (absolute or
# relative to the prefix), made in the build tree and installed as a link.
function(keld_install_link dir name target)
  if(IS_ABSOLUTE ${target})
    set(absolute ${target})
  else()
    set(absolute ${CMAKE_INSTALL_PREFIX}/${target})
  endif()
  file(RELATIVE_PATH relative ${CMAKE_INSTALL_PREFIX}/${dir} ${absolute})
  set(link ${KELD_STAGE_DIR}/links/${dir}/${name})
  get_filename_component(linkDir ${link} DIRECTORY)
  file(MAKE_DIRECTORY ${linkDir})
  file(CREATE_LINK ${relative} ${link} SYMBOLIC)
  install(FILES ${link} DESTINATION ${dir})
endfunction()

foreach(tool ${KELD_TOOLS})
  keld_install_link(${CMAKE_INSTALL_BINDIR} ${tool} ${KELD_BIN_DIR}/${tool})
endforeach()
keld_install_link(${CMAKE_INSTALL_SBINDIR} keldpxy ${KELD_BIN_DIR}/keldpxy)

# The master configuration is a conffile in /etc; the service reads it
# through keldrive/keldrive.conf, a link there (absolute, as a link from
# one top directory to another must be).
set(KELD_ETC_DIR ${CMAKE_INSTALL_FULL_SYSCONFDIR}/keldv)
install(FILES ${KELD_PACKAGING_DIR}/keldrive.conf DESTINATION ${KELD_ETC_DIR})
file(MAKE_DIRECTORY ${KELD_STAGE_DIR}/links/conf)
file(CREATE_LINK ${KELD_ETC_DIR}/keldrive.conf ${KELD_STAGE_DIR}/links/conf/keldrive.conf SYMBOLIC)
install(FILES ${KELD_STAGE_DIR}/links/conf/keldrive.conf DESTINATION ${KELD_CONF_DIR})
install(FILES ${KELD_PACKAGING_DIR}/default/keldpxy DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/default)

install(FILES
  ${KELD_PACKAGING_DIR}/keldpxy.service
  ${KELD_PACKAGING_DIR}/keldpxy-log-retention.service
  ${KELD_PACKAGING_DIR}/keldpxy-log-retention.timer
  DESTINATION ${KELD_SYSTEMD_UNIT_DIR})

# Compressed as Debian wants them, without a time stamp: the same sources
# give the same package.
function(keld_install_gzipped source destination name)
  set(gzipped ${KELD_STAGE_DIR}/gz/${name}.gz)
  add_custom_command(OUTPUT ${gzipped}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${KELD_STAGE_DIR}/gz
    COMMAND gzip -9nc ${source} > ${gzipped}
    DEPENDS ${source} VERBATIM)
  string(MAKE_C_IDENTIFIER "gzip_${name}" target)
  add_custom_target(${target} ALL DEPENDS ${gzipped})
  install(FILES ${gzipped} DESTINATION ${destination})
endfunction()

set(KELD_DOC_DIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/keldpxy)
install(FILES ${KELD_PACKAGING_DIR}/copyright DESTINATION ${KELD_DOC_DIR})
install(FILES ${KELD_PACKAGING_DIR}/lintian-overrides
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides RENAME keldpxy)
configure_file(${KELD_PACKAGING_DIR}/changelog.in ${KELD_STAGE_DIR}/changelog @ONLY)
keld_install_gzipped(${KELD_STAGE_DIR}/changelog ${KELD_DOC_DIR} changelog)

# Manual pages and completion, when the tree has them.
foreach(page keldctl.1 keldpxy.8)
  set(source ${PROJECT_SOURCE_DIR}/doc/man/${page})
  if(EXISTS ${source})
    string(REGEX REPLACE ".*\\.([0-9])$" "\\1" section ${page})
    keld_install_gzipped(${source} ${CMAKE_INSTALL_MANDIR}/man${section} ${page})
  endif()
endforeach()
if(EXISTS ${PROJECT_SOURCE_DIR}/doc/completion/keldctl)
  install(FILES ${PROJECT_SOURCE_DIR}/doc/completion/keldctl
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions)
endif()

# The Debian package.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME keldpxy)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "keldpxy maintainers <keldpxy@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "storage proxy service for remote backup and restore clients")
set(CPACK_PACKAGE_DESCRIPTION "keldpxy hosts storage-server plug-ins (disk, shared memory, RADOS, and a
remote one for chains of services) and offers their storage API to remote
backup and restore clients as CORBA objects.  keldctl backs files up
through it and restores them.")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "adduser, init-system-helpers (>= 1.52)")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${KELD_PACKAGING_DIR}/debian/postinst
  ${KELD_PACKAGING_DIR}/debian/prerm
  ${KELD_PACKAGING_DIR}/debian/postrm
  ${KELD_PACKAGING_DIR}/debian/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(CPACK_STRIP_FILES TRUE)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/package)
include(CPack)
