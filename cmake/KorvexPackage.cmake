# What an installation holds besides em-host and the module (their install
# rules are in host/emhost/cli), and the Debian package made of it.
#
# The package is CPack's DEB generator over the emhost component: it
# stages with the same install rules as "cmake --install", writes the
# md5sums and Installed-Size, makes the archive's files root's, and has
# dpkg-shlibdeps compute the Depends line, which a hand-made dpkg-deb tree
# would each need a script for. What the generator does not do - compress
# the man pages and the Debian changelog - packaging/PrepareDebTree.cmake
# does in the staging tree before the archive is made.

set(_doc ${KORVEX_INSTALL_DOCDIR})
install(FILES README.md packaging/copyright DESTINATION ${_doc} COMPONENT emhost)
# The docs keep their folder, so that the README's links still lead there.
install(DIRECTORY docs/ DESTINATION ${_doc}/docs COMPONENT emhost FILES_MATCHING PATTERN "*.md")
install(PROGRAMS demo/Korvex DESTINATION ${_doc}/examples COMPONENT emhost)
install(DIRECTORY deploy/ansible DESTINATION ${_doc}/examples COMPONENT emhost)

# The newest entry of the Debian changelog names the version being packaged;
# it must be this project's, or dpkg and the changelog would disagree.
file(STRINGS packaging/changelog _korvex_changelog_head LIMIT_COUNT 1)
set(KORVEX_PACKAGE_REVISION 1 CACHE STRING "The Debian revision of the package")
set(_korvex_deb_version "${PROJECT_VERSION}-${KORVEX_PACKAGE_REVISION}")
if(NOT _korvex_changelog_head MATCHES "^${KORVEX_PACKAGE_NAME} \\(${_korvex_deb_version}\\) ")
  message(FATAL_ERROR "packaging/changelog: its first entry must be for "
    "${KORVEX_PACKAGE_NAME} ${_korvex_deb_version} (the project's version and "
    "KORVEX_PACKAGE_REVISION), not: ${_korvex_changelog_head}")
endif()

set(KORVEX_PACKAGE_MAINTAINER "em-korvex maintainers <em-korvex@example.org>" CACHE STRING
  "The Maintainer field of the Debian package")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${KORVEX_PACKAGE_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${KORVEX_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "diagnostic-archive module and its stand-alone host em-host")
set(CPACK_PACKAGE_DESCRIPTION
  "libEM_KORVEX.so is an extension module of a server-management host\n"
  "service: it tells whether the Korvex collection tool is installed,\n"
  "creates the Korvex diagnostic archive and hands it to the BMC.\n"
  "\n"
  "em-host loads the module on its own, with real host services, a message\n"
  "switch and a stand-in BMC directory: em-host collect NAME creates the\n"
  "archive and delivers it with its checksum. The documentation holds a\n"
  "demo collection tool and an Ansible playbook that collects from a fleet.")
string(REPLACE ";" "" CPACK_PACKAGE_DESCRIPTION "${CPACK_PACKAGE_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL emhost)
# Directories the install rules create get 0755 whatever the umask.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${KORVEX_PACKAGE_REVISION})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# zip: the demo tool in the examples builds its archive with it.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "zip")
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/PrepareDebTree.cmake)
# Read by PrepareDebTree.cmake (CPack passes CPACK_ variables on).
set(CPACK_KORVEX_CHANGELOG ${PROJECT_SOURCE_DIR}/packaging/changelog)
set(CPACK_KORVEX_DOCDIR ${KORVEX_INSTALL_DOCDIR})
include(CPack)
