# The Debian package: everything that cmake --install installs, under /usr,
# made by CPack's DEB generator (scripts/package.sh). Its dependencies are
# found from the programs by dpkg-shlibdeps; the version is the project's.
set(KB_MAINTAINER "Kestrelbound maintainers <maintainers@kestrelbound.example.org>")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kestrelbound)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${KB_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${KB_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SECTION comm)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE ${PROJECT_HOMEPAGE_URL})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_STRIP_FILES ON)
# The long description; CPack puts the summary in front, begins each line
# with a blank and marks the empty line between paragraphs, as the control
# file wants them.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "Kestrelbound moves files between two people over a dial-up ISDN data call,
each with an ISDN terminal adapter on a serial port. Every section of every
file is checked and sent again if the line garbled it, and a call that is
cut off is taken up again where it stopped.

The package holds the desktop program, kestrelbound; kbstation, the same
program driven by commands, for unattended stations; and virtual-ta, which
plays terminal adapters on pseudo-terminals, so that Kestrelbound runs
without hardware, also between two computers over the internet.")

# What Debian asks of every package's documentation folder: the copyright and
# a changelog, compressed.
set(kb_doc ${PROJECT_BINARY_DIR}/packaging)
execute_process(COMMAND date -R -u -d "${KB_RELEASE_DATE} 12:00"
    OUTPUT_VARIABLE KB_RELEASE_DAY OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
configure_file(${PROJECT_SOURCE_DIR}/packaging/changelog.in ${kb_doc}/changelog @ONLY)
add_custom_command(OUTPUT ${kb_doc}/changelog.gz
    COMMAND ${KB_GZIP} -9nkf ${kb_doc}/changelog
    DEPENDS ${kb_doc}/changelog
    VERBATIM)
add_custom_target(kb_changelog ALL DEPENDS ${kb_doc}/changelog.gz)
install(FILES ${kb_doc}/changelog.gz ${PROJECT_SOURCE_DIR}/packaging/copyright
    DESTINATION share/doc/kestrelbound)

include(CPack)
