# The Debian package: `make package` (cpack -G DEB in a build configured with
# CMAKE_INSTALL_PREFIX=/usr). One package holds everything the install rules
# install: the library, its headers, the CMake package and pkg-config file,
# the tool with its man page and shell completion. Its dependencies are
# computed by dpkg-shlibdeps.
if(NOT RTFCONV_TOP_LEVEL)
  return() # a parent project packages itself
endif()

set(RTFCONV_PACKAGE_MAINTAINER "rtfconverter developers <rtfconverter@example.org>"
  CACHE STRING "Maintainer named in the Debian package")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME rtfconverter)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${RTFCONV_PACKAGE_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION text)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The library's shlibs file and the ldconfig trigger, as a package with a
# public shared library needs them.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/debian/triggers)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "converts rich text between RTF, plain text and old-format text")
set(CPACK_PACKAGE_DESCRIPTION "A C++17 library and the command-line tool rtfconv that convert rich text
between RTF, plain text and old-format text, a host application's 8-bit
rich text whose markup commands are framed by the bytes 0x01 and 0x02.
The readers are resumable: a host pulls converted text in buffers of its
own size.")

# The copyright file and a changelog in Debian's format, which every package
# carries in /usr/share/doc/PACKAGE; the changelog's date is the build's (or
# SOURCE_DATE_EPOCH's, for a reproducible package).
string(TIMESTAMP RTFCONV_PACKAGE_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/changelog.in ${PROJECT_BINARY_DIR}/debian/changelog @ONLY)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/debian/copyright ${PROJECT_BINARY_DIR}/debian/changelog
  DESTINATION ${CMAKE_INSTALL_DOCDIR})
# Debian compresses manual pages and changelogs; done on the staged files
# only, so that `make install` keeps them readable as they are.
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/debian/compress.cmake)

include(CPack)
