# Installing Orvane, and its Debian package (`cpack` in the build folder, or the `package`
# target): the executable, its desktop entry and icon, and the documentation. The package's
# dependencies are the shared libraries the executable links (found by dpkg-shlibdeps) and
# the font the overlay draws with; Avahi, for finding QLab, is recommended.
include(GNUInstallDirs)

install(TARGETS orvane RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/packaging/orvane.desktop
        DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/orvane.svg
        DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)
file(GLOB orvane_docs ${PROJECT_SOURCE_DIR}/docs/*.md)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${orvane_docs}
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/orvane)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orvane)
set(CPACK_PACKAGE_VENDOR Orvane)
set(CPACK_PACKAGE_CONTACT "Orvane developers <developers@orvane.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Burns a live show's cues and timecode into camera video, records it and shares it")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "A camera watches the stage; Orvane draws the running lighting cue, the next cue, QLab cues,\n\
the show timecode, OSC fields, the clock and a REC light into every frame, records every\n\
camera to its own movie with a cue log beside it, and shares the picture on the local\n\
network as a web page and an NDI source. Show data comes from an ETC Eos console, QLab\n\
and any OSC sender.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "fonts-dejavu-core")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "avahi-daemon")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
include(CPack)
