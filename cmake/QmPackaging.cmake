# Where the programs and their files go when installed, and the Debian package built from that
# (cpack -G DEB). Included from the top level after src/tools, so that both programs exist as
# targets.
#
# What lives under /usr follows the install prefix, as `cmake --install build --prefix /usr` puts
# it where the package does. The configuration, the units and the log directory are where the
# programs and systemd look for them whatever the prefix, so their destinations are absolute, and
# the package is staged with DESTDIR (CPACK_SET_DESTDIR) so that they land in it and not on the
# building machine.

# A sanitized or fuzzing binary is never shipped, so those builds have no install rules at all.
if(NOT QM_SANITIZE STREQUAL "none")
    return()
endif()

set(QM_PACKAGE_VERSION 1.0.0)
set(QM_PACKAGING_DIR ${PROJECT_SOURCE_DIR}/packaging)
set(QM_PACKAGING_BINARY_DIR ${PROJECT_BINARY_DIR}/packaging)
set(QM_CONFIG_DIR /etc/varnholt/quillmar)
set(QM_LOG_DIR /var/log/varnholt/quillmar)
set(QM_UNIT_DIR /lib/systemd/system)

# The directories dpkg creates must not depend on the umask of whoever runs cpack.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# The recorder is started by root or by systemd, never by a user from the PATH.
install(TARGETS quillmarwriter RUNTIME DESTINATION sbin)
install(TARGETS quillmar RUNTIME DESTINATION bin)

install(FILES ${QM_PACKAGING_DIR}/writer.conf ${QM_PACKAGING_DIR}/archive.conf
        DESTINATION ${QM_CONFIG_DIR})
install(FILES ${QM_PACKAGING_DIR}/quillmarwriter.service ${QM_PACKAGING_DIR}/quillmarwriter@.service
              ${QM_PACKAGING_DIR}/quillmar-archive.service ${QM_PACKAGING_DIR}/quillmar-archive@.service
              ${QM_PACKAGING_DIR}/quillmar-serve.service
        DESTINATION ${QM_UNIT_DIR})
install(FILES ${QM_PACKAGING_DIR}/60-quillmarwriter.conf DESTINATION lib/sysctl.d)

# --daemon sends the recorder's standard error here. The package owns the directory so that it
# goes with the package; postinst hands it to the quillmar user.
file(MAKE_DIRECTORY ${QM_PACKAGING_BINARY_DIR}/empty)
install(DIRECTORY ${QM_PACKAGING_BINARY_DIR}/empty/ DESTINATION ${QM_LOG_DIR})

# Man pages ship compressed, as Debian's do; -n leaves the name and time stamp of the source out,
# so that the same page always gives the same bytes.
find_program(QM_GZIP gzip REQUIRED)
set(QM_MAN_PAGES quillmarwriter.8 quillmar.1)
set(QM_COMPRESSED_MAN_PAGES "")
foreach(page IN LISTS QM_MAN_PAGES)
    set(compressed ${QM_PACKAGING_BINARY_DIR}/${page}.gz)
    add_custom_command(
        OUTPUT ${compressed}
        COMMAND ${CMAKE_COMMAND} -E copy ${QM_PACKAGING_DIR}/${page} ${QM_PACKAGING_BINARY_DIR}/${page}
        COMMAND ${QM_GZIP} -9nf ${QM_PACKAGING_BINARY_DIR}/${page}
        DEPENDS ${QM_PACKAGING_DIR}/${page}
        COMMENT "Compressing the man page ${page}"
        VERBATIM)
    list(APPEND QM_COMPRESSED_MAN_PAGES ${compressed})
    string(REGEX REPLACE ".*\\.([0-9])$" "\\1" section ${page})
    install(FILES ${compressed} DESTINATION share/man/man${section})
endforeach()
add_custom_target(qm_man_pages ALL DEPENDS ${QM_COMPRESSED_MAN_PAGES})

# dpkg takes for a conffile only what control/conffiles names: it is what keeps an operator's
# edits of writer.conf and archive.conf across upgrades.
file(WRITE ${QM_PACKAGING_BINARY_DIR}/conffiles
     "${QM_CONFIG_DIR}/archive.conf\n${QM_CONFIG_DIR}/writer.conf\n")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quillmarwriter)
set(CPACK_PACKAGE_VERSION ${QM_PACKAGE_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "call media recorder: UDP in, files out")
# Staged with DESTDIR, CPack installs under CPACK_INSTALL_PREFIX, not the packaging prefix: both
# are /usr, whatever CMAKE_INSTALL_PREFIX this build has.
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_SET_DESTDIR ON)

set(QM_PACKAGE_MAINTAINER "quillmarwriter maintainers <maintainers@users.noreply.c-seed-c0f583c1.example>"
    CACHE STRING "Maintainer field of the Debian package")
set(CPACK_DEBIAN_PACKAGE_NAME quillmarwriter)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${QM_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "quillmarwriter receives telephone call media as UDP datagrams from media
sources and writes each recorded call leg to a file of its own, removing the
oldest recordings when the storage fills. It runs under systemd as the
unprivileged quillmar user, one recorder per configuration
(quillmarwriter.service, quillmarwriter@NAME.service).
.
The quillmar tool inspects recordings, exports them as audio, sends test calls
and verifies what a recorder wrote.")
find_program(QM_DPKG dpkg)
if(QM_DPKG)
    execute_process(COMMAND ${QM_DPKG} --print-architecture
                    OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE
                    OUTPUT_STRIP_TRAILING_WHITESPACE)
endif()
# The libraries come from what the binaries link (dpkg-shlibdeps); adduser is what postinst needs.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "adduser")
# The binaries ship stripped; their symbols go to quillmarwriter-dbgsym, for the cores
# LimitCORE=infinity keeps.
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${QM_PACKAGING_BINARY_DIR}/conffiles ${QM_PACKAGING_DIR}/postinst ${QM_PACKAGING_DIR}/postrm)
# Maintainer scripts 0755 and the other control files 0644, whatever the checkout's modes.
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

include(CPack)
