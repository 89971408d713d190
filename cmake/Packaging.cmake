# The Debian package: install() rules for the installed layout and CPack's DEB generator
# (make package). The programs go to /usr/lib/orvanta with their empty plug-in folders, linked from
# /usr/bin; the data to /usr/share/orvanta, which the program finds as ../../share/orvanta from
# its own folder (ORVANTA_INSTALL_PROGRAM_DIR and ORVANTA_INSTALL_DATA_DIR, set at the top level).
# The files shipped as they stand live in packaging/.
set(ORVANTA_APP_ID com.orvanta.Orvanta)
set(ORVANTA_PACKAGE_MAINTAINER "Orvanta developers <packages@orvanta.example>"
    CACHE STRING "The package's Maintainer field")
# The date of this version's release, in the changelog and the AppStream release (YYYY-MM-DD).
set(ORVANTA_RELEASE_DATE 2026-11-26)
# The icon sizes drawn by scripts/draw-ui-pictures.py into packaging/icons/.
set(ORVANTA_ICON_SIZES 16 22 24 32 48 64 128 256)

# Installing builds only what it installs (make package builds those first): the benchmarks and
# tools of the tree are never packaged, and building them would double make package's time.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

set(pkg_src ${CMAKE_SOURCE_DIR}/packaging)
set(pkg_out ${CMAKE_BINARY_DIR}/packaging)
file(MAKE_DIRECTORY ${pkg_out})

# Files that carry the version or the release date.
execute_process(COMMAND date -u -R -d "${ORVANTA_RELEASE_DATE} 12:00"
    OUTPUT_VARIABLE ORVANTA_RELEASE_DATE_RFC2822 OUTPUT_STRIP_TRAILING_WHITESPACE)
configure_file(${pkg_src}/changelog.in ${pkg_out}/changelog @ONLY)
configure_file(${pkg_src}/${ORVANTA_APP_ID}.metainfo.xml.in ${pkg_out}/${ORVANTA_APP_ID}.metainfo.xml @ONLY)

# Documentation compressed as Debian wants it: the best level, no name or time in the header.
add_custom_command(OUTPUT ${pkg_out}/changelog.gz ${pkg_out}/orvanta.1.gz
    COMMAND gzip -9nc ${pkg_out}/changelog > ${pkg_out}/changelog.gz
    COMMAND gzip -9nc ${pkg_src}/orvanta.1 > ${pkg_out}/orvanta.1.gz
    DEPENDS ${pkg_out}/changelog ${pkg_src}/orvanta.1
    COMMENT "Compressing the changelog and the manual page")
add_custom_target(orvanta_package_docs ALL DEPENDS ${pkg_out}/changelog.gz ${pkg_out}/orvanta.1.gz)

# /usr/bin/orvanta, a relative link that Qt resolves to the program's own folder.
file(CREATE_LINK ../${ORVANTA_INSTALL_PROGRAM_DIR}/orvanta ${pkg_out}/orvanta SYMBOLIC)

install(TARGETS orvanta CrashReporter RUNTIME DESTINATION ${ORVANTA_INSTALL_PROGRAM_DIR})
install(CODE "foreach(d effects deviceEnumerators)
    file(MAKE_DIRECTORY \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${ORVANTA_INSTALL_PROGRAM_DIR}/\${d}\")
endforeach()")
install(FILES ${pkg_out}/orvanta DESTINATION bin)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/data/effects ${CMAKE_SOURCE_DIR}/data/controler_config
    ${CMAKE_SOURCE_DIR}/data/images DESTINATION ${ORVANTA_INSTALL_DATA_DIR})
file(GLOB _ts_files ${CMAKE_SOURCE_DIR}/translations/*.ts)
foreach(ts IN LISTS _ts_files)
    get_filename_component(_name ${ts} NAME_WE)
    install(FILES ${ORVANTA_BIN_DIR}/languages/${_name}.qm DESTINATION ${ORVANTA_INSTALL_DATA_DIR}/languages)
endforeach()
install(FILES ${pkg_src}/${ORVANTA_APP_ID}.desktop DESTINATION share/applications)
install(FILES ${pkg_out}/${ORVANTA_APP_ID}.metainfo.xml DESTINATION share/metainfo)
foreach(size IN LISTS ORVANTA_ICON_SIZES)
    install(FILES ${pkg_src}/icons/${size}.png DESTINATION share/icons/hicolor/${size}x${size}/apps
        RENAME ${ORVANTA_APP_ID}.png)
endforeach()
install(FILES ${CMAKE_SOURCE_DIR}/resources/art/icon.svg DESTINATION share/icons/hicolor/scalable/apps
    RENAME ${ORVANTA_APP_ID}.svg)
install(FILES ${pkg_out}/orvanta.1.gz DESTINATION share/man/man1)
install(FILES ${pkg_src}/lintian-overrides DESTINATION share/lintian/overrides RENAME orvanta)
install(FILES ${pkg_src}/copyright ${pkg_out}/changelog.gz DESTINATION share/doc/orvanta)
# Debian 12's udev folder, outside the prefix (merged /usr shows it under /usr/lib as well).
install(FILES ${pkg_src}/70-orvanta-serial.rules DESTINATION /lib/udev/rules.d)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orvanta)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_CONTACT "${ORVANTA_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_NAME orvanta)
set(CPACK_DEBIAN_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${ORVANTA_DEB_ARCH})
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${ORVANTA_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "${ORVANTA_WEBSITE_URL}")
file(READ ${pkg_src}/description CPACK_DEBIAN_PACKAGE_DESCRIPTION)
string(STRIP "${CPACK_DEBIAN_PACKAGE_DESCRIPTION}" CPACK_DEBIAN_PACKAGE_DESCRIPTION)
# The libraries the programs link, from dpkg-shlibdeps; by hand what none of them names:
#  pkexec             runs the update's installation as root
#  fonts-wqy-microhei the Chinese texts' glyphs, which Qt finds through fontconfig
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "pkexec, fonts-wqy-microhei")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "xdg-utils, ca-certificates")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "gnome-shell-extension-appindicator")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${pkg_src}/postinst ${pkg_src}/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Stripped programs in the package, their debug information in orvanta-dbgsym's .ddeb by build id.
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
include(CPack)
